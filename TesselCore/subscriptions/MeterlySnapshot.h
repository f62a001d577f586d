// One reading of every AI subscription seat, as `meterly status --json` prints
// it and as the last-reading file keeps it. Plain values: the JSON form in both
// directions, and the small derived values every surface of the subscription
// watch shares.
//
// Decoding is strict about types and lenient about words: an unknown enum string
// reads as `unknown`, while a value of the wrong JSON type (a number where a
// string belongs, 42.5 where a whole number belongs, null for a required key)
// fails the whole reading. Timestamps stay text; `date()` reads them.
#pragma once

#include "subscriptions/VantorAccounts.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>

#include <array>
#include <map>
#include <optional>

namespace tessel {

class TextCleaner;

// The six display colours; the views choose the actual colours.
enum class MeterlyTint { secondary, green, orange, red, grey, accent };

enum class MeterlyProvider { claude, codex, kimi, zai, grok, openrouter, unknown };
enum class MeterlyWindowKind { session, weekly, monthly, model, credits, unknown };
enum class MeterlyAdviceVerb { spend, hold, topUp, switchModel, login, ok, unknown };
enum class MeterlyStatus {
    ok,
    spend,
    warn,
    hold,
    capped,
    topUp,
    login,
    unreadable,
    stale,
    unknown
};

// Raw strings as the tool writes them, and back; a string outside the table
// reads as `unknown`.
QString rawValue(MeterlyProvider provider);
QString rawValue(MeterlyWindowKind kind);
QString rawValue(MeterlyAdviceVerb verb);
QString rawValue(MeterlyStatus status);
MeterlyProvider meterlyProvider(QStringView raw);
MeterlyWindowKind meterlyWindowKind(QStringView raw);
MeterlyAdviceVerb meterlyAdviceVerb(QStringView raw);
MeterlyStatus meterlyStatus(QStringView raw);

MeterlyTint tint(MeterlyStatus status);
bool needsAttention(MeterlyStatus status);
inline constexpr std::array<MeterlyStatus, 10> allMeterlyStatuses = {
    MeterlyStatus::ok,     MeterlyStatus::spend,  MeterlyStatus::warn,  MeterlyStatus::hold,
    MeterlyStatus::capped, MeterlyStatus::topUp,  MeterlyStatus::login, MeterlyStatus::unreadable,
    MeterlyStatus::stale,  MeterlyStatus::unknown};

struct MeterlySnapshot {
    struct Window {
        MeterlyWindowKind kind = MeterlyWindowKind::unknown;
        QString label;
        std::optional<qint64> usedPct;
        std::optional<QString> resetsAt;
        std::optional<double> remaining; // money or credit
        std::optional<QString> currency;
        std::optional<double> resetsInSeconds;
        std::optional<double> remainingPct;

        // `usedPct`, else 100 − `remainingPct`; unclamped.
        std::optional<double> displayUsedPct() const;
        bool operator==(const Window&) const = default;
    };

    struct Advice {
        MeterlyAdviceVerb verb = MeterlyAdviceVerb::unknown;
        QString reason;
        std::optional<QString> fix;
        bool operator==(const Advice&) const = default;
    };

    struct SeatError {
        QString code;
        QString message;
        bool operator==(const SeatError&) const = default;
    };

    struct Links {
        std::optional<QString> usage;
        std::optional<QString> billing;
        bool operator==(const Links&) const = default;
    };

    struct Seat {
        QString id;
        MeterlyProvider provider = MeterlyProvider::unknown;
        QString providerLabel;
        QString account;
        std::optional<QString> email;
        std::optional<QString> plan;
        std::optional<QString> role;
        bool live = false;
        QList<Window> windows;
        Advice advice;
        QString note;
        std::optional<SeatError> error;
        std::optional<QString> label;
        std::optional<bool> stale;
        std::optional<QString> staleSince;
        std::optional<QString> shortName; // "short"
        std::optional<QString> binding;   // label of the window that binds the seat
        std::optional<double> bindingPct;
        std::optional<MeterlyStatus> status;
        std::optional<QString> renewsAt;
        std::optional<QString> renewsSource;
        std::optional<QString> fetchedAt; // this seat's own reading
        std::optional<Links> links;

        bool isStale() const;
        MeterlyStatus displayStatus() const;
        // The one percentage that stands for the seat, clamped to 0…100.
        std::optional<double> displayBindingPct() const;
        QString displayShort() const;
        QString displayLabel() const;
        // The same, cleaned by `plain` (a cleaner without seats) so a caller
        // that needs many of them cleans each distinct text once.
        QString displayShort(const TextCleaner& plain) const;
        QString displayLabel(const TextCleaner& plain) const;
        QString notificationTitle() const;
        bool operator==(const Seat&) const = default;
    };

    struct TimelineEntry {
        QString seat;
        QString label;
        QString resetsAt;
        bool operator==(const TimelineEntry&) const = default;
    };

    struct AlertDetail {
        QString seat;
        std::optional<QString> title;
        std::optional<QString> shortName; // "short"
        QString human;
        std::optional<QString> fix;
        std::optional<MeterlyStatus> status;
        bool operator==(const AlertDetail&) const = default;
    };

    QString fetchedAt;
    QList<Seat> seats;
    QStringList alerts;
    std::map<QString, QString> next; // working role → seat reference
    QList<TimelineEntry> timeline;
    std::optional<QString> summary;
    std::optional<QList<AlertDetail>> alertsDetail;

    bool operator==(const MeterlySnapshot&) const = default;

    // The reading the window shows when there is none.
    static const MeterlySnapshot& emptyDashboard();

    // Throws `DecodingError` at the first fault; one bad seat fails the reading.
    static MeterlySnapshot parse(const QString& json);
    static MeterlySnapshot parse(QByteArrayView utf8);
    // Optional members left out; enums as their raw strings.
    QByteArray toJSON() const;

    // Every timestamp of the subscription watch is read through this rule.
    static std::optional<QDateTime> date(const QString& text);
    static std::optional<QDateTime> date(const std::optional<QString>& text);

    bool hasWindows() const;
    // Some seat has windows, and some seat (maybe another) has no error.
    bool hasUsableReading() const;

    // A reading from the accounts tool's rows, for when `meterly` gives none.
    static MeterlySnapshot fallback(const QList<VantorAccount>& accounts,
                                    const QDateTime& fetchedAt);
};

} // namespace tessel
