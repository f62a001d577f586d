#include "subscriptions/LocalClock.h"

#include <algorithm>

namespace tessel {

namespace {

constexpr qint64 day = 86400000;

void twoDigits(QString& out, int value) {
    out.append(QChar(u'0' + value / 10));
    out.append(QChar(u'0' + value % 10));
}

} // namespace

LocalClock::LocalClock(const QLocale& locale, const QTimeZone& timeZone, const QDateTime& now)
    : locale_(locale), timeZone_(timeZone) {
    // Written by hand only where the locale writes plain ASCII digits, as Qt would.
    asciiDigits_ = locale_.zeroDigit() == QStringLiteral("0");
    for (int i = 0; i < 7; ++i) {
        days_[i] = locale_.dayName(i + 1, QLocale::ShortFormat);
    }
    for (int i = 0; i < 12; ++i) {
        months_[i] = locale_.monthName(i + 1, QLocale::ShortFormat);
    }
    // From two days back (a reading's age) to nine days ahead (the week to come).
    const QDateTime from = now.addMSecs(-2 * day);
    const QDateTime to = now.addMSecs(9 * day);
    from_ = from.toMSecsSinceEpoch();
    to_ = to.toMSecsSinceEpoch();
    firstOffset_ = timeZone_.offsetFromUtc(from);
    for (const auto& change : timeZone_.transitions(from, to)) {
        changes_.emplace_back(change.atUtc.toMSecsSinceEpoch(), change.offsetFromUtc);
    }
}

QDateTime LocalClock::wallClock(const QDateTime& instant) const {
    const qint64 msecs = instant.toMSecsSinceEpoch();
    if (msecs < from_ || msecs > to_) {
        const QDateTime there = local(instant);
        return QDateTime(there.date(), there.time(), Qt::UTC);
    }
    const auto after =
        std::upper_bound(changes_.begin(), changes_.end(), msecs,
                         [](qint64 t, const auto& change) { return t < change.first; });
    const int offset = after == changes_.begin() ? firstOffset_ : std::prev(after)->second;
    return QDateTime::fromMSecsSinceEpoch(msecs + static_cast<qint64>(offset) * 1000, Qt::UTC);
}

QDateTime LocalClock::local(const QDateTime& instant) const {
    return instant.toTimeZone(timeZone_);
}

QDate LocalClock::date(const QDateTime& instant) const {
    return wallClock(instant).date();
}

QString LocalClock::format(const QDateTime& instant, QStringView pattern) const {
    if (!asciiDigits_) {
        return locale_.toString(local(instant), pattern);
    }
    const QDateTime wall = wallClock(instant);
    const QDate date = wall.date();
    const QTime time = wall.time();

    QString out;
    out.reserve(pattern.size() + 8);
    for (qsizetype i = 0; i < pattern.size();) {
        qsizetype run = 1;
        while (i + run < pattern.size() && pattern[i + run] == pattern[i]) {
            ++run;
        }
        const QChar c = pattern[i];
        if (c == u'd' && run == 3) {
            out.append(days_[date.dayOfWeek() - 1]);
        } else if (c == u'd' && run == 1) {
            out.append(QString::number(date.day()));
        } else if (c == u'M' && run == 3) {
            out.append(months_[date.month() - 1]);
        } else if (c == u'H' && run == 2) {
            twoDigits(out, time.hour());
        } else if (c == u'm' && run == 2) {
            twoDigits(out, time.minute());
        } else if (c.isLetter() || c == u'\'') {
            // A pattern this writer does not know: Qt's own, for the same words.
            return locale_.toString(local(instant), pattern);
        } else {
            out.append(pattern.mid(i, run));
        }
        i += run;
    }
    return out;
}

QString LocalClock::shortTime(const QDateTime& instant) const {
    return locale_.toString(wallClock(instant).time(), QLocale::ShortFormat);
}

} // namespace tessel
