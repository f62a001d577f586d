// Timestamps in the internet form of ISO 8601 ("2024-05-01T12:00:00Z",
// "2024-05-01T12:00:00.250+02:00") and nothing looser. Qt's own ISO reading also
// takes text with no zone (as local time), "+0100", a blank for the "T" and
// missing seconds; every reader of a server's or a tool's timestamp goes through
// this check instead.
#pragma once

#include <QDateTime>
#include <QString>

#include <optional>

namespace tessel {

// The instant, or nothing when the text is not exactly that form or names no
// real date and time. Fractional seconds are optional and kept to the millisecond.
std::optional<QDateTime> parseInternetDate(QStringView text);

// The instant in UTC, whole seconds, with a "Z": "2024-05-01T12:00:00Z".
QString formatInternetDate(const QDateTime& instant);

} // namespace tessel
