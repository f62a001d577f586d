// Readable failure messages for Qt text in test assertions.
#pragma once

#include <QString>

#include <ostream>

inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}
