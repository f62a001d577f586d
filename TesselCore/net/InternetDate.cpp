#include "net/InternetDate.h"

#include <QTimeZone>

namespace tessel {

namespace {

// Reads `count` ASCII digits at `at`, or fails.
bool digits(QStringView text, qsizetype at, int count, int& value) {
    value = 0;
    for (int i = 0; i < count; ++i) {
        const char16_t c = text[at + i].unicode();
        if (c < u'0' || c > u'9') {
            return false;
        }
        value = value * 10 + (c - u'0');
    }
    return true;
}

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
qint64 daysFromCivil(qint64 year, int month, int day) {
    year -= month <= 2 ? 1 : 0;
    const qint64 era = (year >= 0 ? year : year - 399) / 400;
    const qint64 yearOfEra = year - era * 400;
    const qint64 dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const qint64 dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

int daysInMonth(int year, int month) {
    static constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : days[month - 1];
}

} // namespace

// Read by hand rather than by a pattern and Qt's ISO reader: every reading of
// the subscription watch holds hundreds of these.
std::optional<QDateTime> parseInternetDate(QStringView text) {
    // yyyy-MM-ddTHH:mm:ss
    if (text.size() < 20 || text[4] != u'-' || text[7] != u'-' || text[10] != u'T' ||
        text[13] != u':' || text[16] != u':') {
        return std::nullopt;
    }
    int year, month, day, hour, minute, second;
    if (!digits(text, 0, 4, year) || !digits(text, 5, 2, month) || !digits(text, 8, 2, day) ||
        !digits(text, 11, 2, hour) || !digits(text, 14, 2, minute) ||
        !digits(text, 17, 2, second)) {
        return std::nullopt;
    }
    if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 ||
        minute > 59 || second > 59) {
        return std::nullopt;
    }

    qsizetype at = 19;
    int millis = 0;
    if (text[at] == u'.') {
        ++at;
        const qsizetype first = at;
        while (at < text.size() && text[at] >= u'0' && text[at] <= u'9') {
            if (at - first < 3) {
                millis = millis * 10 + (text[at].unicode() - u'0');
            }
            ++at;
        }
        const qsizetype count = at - first;
        if (count == 0) {
            return std::nullopt;
        }
        for (qsizetype i = count; i < 3; ++i) {
            millis *= 10;
        }
    }

    int offset = 0; // seconds east of UTC
    if (at == text.size() - 1 && text[at] == u'Z') {
        offset = 0;
    } else if (at == text.size() - 6 && (text[at] == u'+' || text[at] == u'-') &&
               text[at + 3] == u':') {
        int hours, minutes;
        if (!digits(text, at + 1, 2, hours) || !digits(text, at + 4, 2, minutes) || hours > 23 ||
            minutes > 59) {
            return std::nullopt;
        }
        offset = (hours * 3600 + minutes * 60) * (text[at] == u'-' ? -1 : 1);
    } else {
        return std::nullopt;
    }

    const qint64 seconds =
        daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second - offset;
    return QDateTime::fromMSecsSinceEpoch(seconds * 1000 + millis, Qt::UTC);
}

QString formatInternetDate(const QDateTime& instant) {
    return instant.toTimeZone(QTimeZone::utc()).toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss'Z'"));
}

} // namespace tessel
