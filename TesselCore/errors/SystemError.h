// A failed file or system operation, with the error number the system gave.
#pragma once

#include "errors/Failures.h"

#include <QString>

#include <cstring>

namespace tessel {

class SystemError : public Failure {
public:
    // "<what>: <the system's words for error>".
    SystemError(const QString& what, int error)
        : error_(error),
          text_(what + QStringLiteral(": ") + QString::fromLocal8Bit(std::strerror(error))) {}
    QString description() const override { return text_; }
    QString typeName() const override { return QStringLiteral("tessel::SystemError"); }
    qint64 errorCode() const override { return error_; }

private:
    int error_;
    QString text_;
};

} // namespace tessel
