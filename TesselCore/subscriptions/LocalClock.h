// Instants as a person reads them in one time zone and locale, for a build
// that shows hundreds of them: the zone's changes of offset around `now` are
// looked up once, and the few patterns the window uses are written by hand.
// Anything outside that (a locale with other digits, an instant far from
// `now`) goes the long way through QTimeZone and QLocale, with the same result.
#pragma once

#include <QDateTime>
#include <QLocale>
#include <QTimeZone>

#include <array>
#include <vector>

namespace tessel {

class LocalClock {
public:
    LocalClock(const QLocale& locale, const QTimeZone& timeZone, const QDateTime& now);

    const QLocale& locale() const { return locale_; }
    const QTimeZone& timeZone() const { return timeZone_; }

    // The instant in the zone.
    QDateTime local(const QDateTime& instant) const;
    // The calendar day of the instant in the zone.
    QDate date(const QDateTime& instant) const;
    // A pattern of "ddd", "d", "MMM", "HH", "mm" and other text, as
    // QLocale::toString writes it in the zone.
    QString format(const QDateTime& instant, QStringView pattern) const;
    // The locale's short time, no date.
    QString shortTime(const QDateTime& instant) const;

private:
    // The zone's wall clock at the instant, as a UTC value never converted.
    QDateTime wallClock(const QDateTime& instant) const;

    QLocale locale_;
    QTimeZone timeZone_;
    bool asciiDigits_ = false;
    std::array<QString, 7> days_;    // Monday first
    std::array<QString, 12> months_; // January first
    qint64 from_ = 0;                // the span whose offsets are known, in ms since 1970
    qint64 to_ = 0;
    int firstOffset_ = 0; // seconds east of UTC at `from_`
    std::vector<std::pair<qint64, int>> changes_;
};

} // namespace tessel
