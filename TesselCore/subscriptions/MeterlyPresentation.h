// A subscription reading in words: seats in display order with their texts and
// colours, the summary line, and the desktop notifications the reading calls
// for. A pure function of the reading, the clock, the locale and the time zone.
//
// Every text of the tool reaches a person through `human()`, which cuts the
// tool's command advice, turns seat identifiers into short names, drops
// provider prefixes and puts raw timestamps into words.
#pragma once

#include "subscriptions/LocalClock.h"
#include "subscriptions/MeterlySnapshot.h"

#include <QHash>
#include <QLocale>
#include <QTimeZone>
#include <QUrl>
#include <array>

namespace tessel {

// `human()` for one set of seats, with the seats' identifiers sorted once and
// each distinct text cleaned once. Built afresh for each presentation, so it
// holds nothing between readings.
class TextCleaner {
public:
    // Without seats: no identifiers to replace.
    TextCleaner() = default;
    explicit TextCleaner(const QList<MeterlySnapshot::Seat>& seats);
    // `plain`, a cleaner without seats, gives the seats' short names.
    TextCleaner(const QList<MeterlySnapshot::Seat>& seats, const TextCleaner& plain);
    QString clean(const QString& text) const;

private:
    void addSeats(const QList<MeterlySnapshot::Seat>& seats, const TextCleaner& plain);
    qsizetype firstPresent(QStringView text, qsizetype from) const;

    QList<std::pair<QString, QString>> replacements_; // id → short name, longest id first
    // Places in `replacements_` by the identifier's first character, ASCII
    // characters each their own, every other character in the last slot.
    std::array<QList<qsizetype>, 129> byFirst_;
    mutable QHash<QString, QString> memo_;
};

struct MeterlyPresentation {
    struct Window {
        QString label;
        QString value; // a percentage, a balance, "—" or "Balance unavailable"
        QString reset;
        std::optional<double> percent; // 0…100
        bool isCredits = false;
        bool operator==(const Window&) const = default;
    };

    struct Seat {
        QString id;
        MeterlyProvider provider = MeterlyProvider::unknown;
        QString shortName;
        QString subtitle;
        QString role;
        QString plan;
        bool stale = false;
        MeterlyStatus status = MeterlyStatus::unknown;
        QString binding;
        std::optional<double> percent;
        bool isCredits = false;
        QString creditValue;
        bool isClaude = false;
        bool live = false;
        QString advice;
        QString note;
        QString lastRead;
        QString renewal;
        QString tooltip;
        QList<Window> windows;
        std::optional<QUrl> usageURL;
        std::optional<QUrl> billingURL;
        bool operator==(const Seat&) const = default;
    };

    struct Notification {
        QString key; // what the alerts file remembers
        QString title;
        QString body;
        bool operator==(const Notification&) const = default;
    };

    QList<Seat> seats;
    QString summary;
    MeterlyTint summaryTint = MeterlyTint::secondary;
    QList<Notification> notifications;

    MeterlyPresentation(const MeterlySnapshot& snapshot, const QDateTime& now,
                        const QLocale& locale, const QTimeZone& timeZone);
    // The same, sharing a caller's clock and cleaner without seats.
    MeterlyPresentation(const MeterlySnapshot& snapshot, const QDateTime& now,
                        const LocalClock& clock, const TextCleaner& plain);

    // The text cleaner. Times found in the text are written in the process's
    // current locale and time zone.
    static QString human(const QString& text, const QList<MeterlySnapshot::Seat>& seats);
    static QString money(double amount, const std::optional<QString>& currency);
    static QString resetText(const std::optional<QString>& resetsAt,
                             std::optional<double> resetsInSeconds, const QDateTime& now,
                             const QLocale& locale, const QTimeZone& timeZone);
    static QString renewalText(const std::optional<QString>& renewsAt,
                               const std::optional<QString>& source, const QString& provider,
                               const QLocale& locale, const QTimeZone& timeZone);

    // Display order: by provider (claude, codex, zai, kimi, grok, openrouter,
    // unknown), a live Claude seat first, then the reading's order.
    static QList<MeterlySnapshot::Seat> sortedSeats(const QList<MeterlySnapshot::Seat>& seats);
    // The seat a reference names: by id, then provider, then account or short name.
    static const MeterlySnapshot::Seat* resolve(const QString& reference,
                                                const QList<MeterlySnapshot::Seat>& seats);
    // An http(s) address with a host, or nothing.
    static std::optional<QUrl> pageURL(const std::optional<QString>& text);
    // "unknown", "n/a", "-" and "—" in any case stand for no value.
    static bool isPlaceholder(const QString& text);
};

} // namespace tessel
