// Every word and list of the subscription window, worked out from one reading
// and a clock so the views decide nothing: the seat cards, what needs
// attention, the resets of the coming week by day, and the spend order.
//
// The calendar is the Gregorian one in `timeZone`; its days are calendar days,
// so the week ahead is 167 or 169 hours long across a daylight-saving change.
#pragma once

#include "subscriptions/MeterlyPresentation.h"

namespace tessel {

// How a person names the provider: "Claude", "GLM" for zai, "Other" for one
// the reading doesn't know.
QString providerTitle(MeterlyProvider provider);

struct SubscriptionSeatCardContent {
    struct Window {
        QString label;
        QString value;
        QString reset;
        std::optional<double> percent;
        bool isCredits = false;
        bool operator==(const Window&) const = default;
    };

    QString name;
    QString header;   // name and provider
    QString identity; // e-mail address or subtitle
    QString metadata; // role and plan
    QList<Window> windows;
    QString renewal;
    QString renewalSource;
    QString advice;
    QString error;
    QString note;
    QString lastRead;
    MeterlyTint tint = MeterlyTint::secondary;
    bool canSwitch = false;
    std::optional<QUrl> usageURL;
    std::optional<QUrl> billingURL;

    // `source` is the reading's seat of the same id, when there is one.
    SubscriptionSeatCardContent(const MeterlyPresentation::Seat& seat,
                                const MeterlySnapshot::Seat* source,
                                const QList<MeterlySnapshot::Seat>& allSeats, const QLocale& locale,
                                const QTimeZone& timeZone);

    // "Switch here", "Usage", "Billing", each when it applies.
    QStringList buttons() const;
    bool operator==(const SubscriptionSeatCardContent&) const = default;

private:
    friend struct SubscriptionsDashboardContent;
    SubscriptionSeatCardContent(const MeterlyPresentation::Seat& seat,
                                const MeterlySnapshot::Seat* source, const TextCleaner& clean,
                                const LocalClock& clock);
};

struct SubscriptionsDashboardContent {
    struct Card {
        MeterlyPresentation::Seat seat;
        SubscriptionSeatCardContent content;
        QString account; // the reading's account name; empty without a seat in the reading
        const QString& id() const { return seat.id; }
    };

    struct Attention {
        qint64 id = 0; // place in `alertsDetail`
        QString title;
        QString human;
        MeterlyTint tint = MeterlyTint::secondary;
        bool operator==(const Attention&) const = default;
    };

    struct Event {
        qint64 id = 0; // place in `timeline`
        QDateTime date;
        QString line;
        bool isRenewal = false;
        bool operator==(const Event&) const = default;
    };

    struct Day {
        QDateTime id; // start of the day
        QString title;
        QList<Event> events;
        bool operator==(const Day&) const = default;
    };

    struct SpendPair {
        QString role;
        QString seat;
        std::optional<QString> seatID;
        const QString& id() const { return role; }
        bool operator==(const SpendPair&) const = default;
    };

    QString summary;
    MeterlyTint summaryTint = MeterlyTint::secondary;
    QString updated;
    QString fetched;
    QList<Card> cards;
    QList<Attention> attention;
    QList<Day> days;
    QList<SpendPair> spendOrder;

    SubscriptionsDashboardContent(const MeterlySnapshot& snapshot, const QDateTime& now,
                                  const QLocale& locale, const QTimeZone& timeZone);
    // With the presentation of the same reading, clock, locale and zone, when
    // the caller has built it already.
    SubscriptionsDashboardContent(const MeterlySnapshot& snapshot,
                                  const MeterlyPresentation& presentation, const QDateTime& now,
                                  const QLocale& locale, const QTimeZone& timeZone);

    // The spend pairs that name a seat, for the "Use now" buttons.
    QList<SpendPair> useNow() const;

private:
    SubscriptionsDashboardContent(const MeterlySnapshot& snapshot, const QDateTime& now,
                                  const LocalClock& clock);
    SubscriptionsDashboardContent(const MeterlySnapshot& snapshot,
                                  const MeterlyPresentation& presentation, const QDateTime& now,
                                  const LocalClock& clock);
};

} // namespace tessel
