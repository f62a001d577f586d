// A refused request: any answer outside 2xx, with what the server said about it.
#pragma once

#include "errors/Failures.h"

#include <optional>

namespace tessel {

class HTTPFailure : public Failure {
public:
    // Reads `code`, `serverMessage` and `agentHint` out of the body.
    HTTPFailure(qint64 status, QString detail, QString path);

    qint64 status;
    QString detail;
    std::optional<QString> code;
    std::optional<QString> serverMessage;
    std::optional<QString> agentHint;
    QString path;

    bool needsSignIn() const { return status == 401 || status == 403; }
    bool retryable() const { return status == 408 || status == 429 || status >= 500; }

    QString humanLine() const;
    QString detailLine() const;

    QString description() const override { return humanLine(); }
    QString typeName() const override { return QStringLiteral("tessel::HTTPFailure"); }
    qint64 errorCode() const override { return status; }

    static const QString sessionIdleLine;
    static const QString signInLine;
    static const QString serverUnavailableLine;
    static const QString fallbackLine;

    // The body text of a response: UTF-8, or "Unreadable response".
    static QString bodyText(const QByteArray& body);

private:
    bool isHostRefusal() const;
};

} // namespace tessel
