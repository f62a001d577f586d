#include "subscriptions/SubscriptionsDashboardContent.h"

#include <QRegularExpression>

#include <algorithm>

namespace tessel {

using namespace Qt::Literals::StringLiterals;

QString providerTitle(MeterlyProvider provider) {
    switch (provider) {
    case MeterlyProvider::claude:
        return u"Claude"_s;
    case MeterlyProvider::codex:
        return u"Codex"_s;
    case MeterlyProvider::kimi:
        return u"Kimi"_s;
    case MeterlyProvider::zai:
        return u"GLM"_s;
    case MeterlyProvider::grok:
        return u"Grok"_s;
    case MeterlyProvider::openrouter:
        return u"OpenRouter"_s;
    case MeterlyProvider::unknown:
        break;
    }
    return u"Other"_s;
}

namespace {

// First letter of each blank-separated word upper case, the rest lower case.
QString capitalised(const QString& text) {
    QString result = text.toLower();
    bool wordStart = true;
    for (qsizetype i = 0; i < result.size(); ++i) {
        const QChar c = result[i];
        if (c.isSpace()) {
            wordStart = true;
        } else if (wordStart) {
            result[i] = c.toUpper();
            wordStart = false;
        }
    }
    return result;
}

// The window's cleaning: the presentation's cleaner over the seats in reading
// order, then any "word:value" loses its word, not only a provider's.
class DashboardCleaner {
public:
    DashboardCleaner(const QList<MeterlySnapshot::Seat>& seats, const TextCleaner& plain)
        : human_(seats, plain) {}

    QString clean(const QString& raw) const {
        if (const auto it = memo_.constFind(raw); it != memo_.constEnd()) {
            return *it;
        }
        static const QRegularExpression prefix(u"\\b[a-zA-Z][a-zA-Z0-9_-]*:([A-Za-z0-9_@.+-]+)"_s,
                                               QRegularExpression::UseUnicodePropertiesOption);
        QString text = human_.clean(raw);
        if (text.contains(u':')) {
            text.replace(prefix, u"\\1"_s);
        }
        memo_.insert(raw, text);
        return text;
    }

private:
    TextCleaner human_;
    mutable QHash<QString, QString> memo_;
};

// The window's own lookup: a provider's name prefers its live seat. `shorts`
// holds each seat's short name, worked out once for the whole build.
const MeterlySnapshot::Seat* lookup(const QString& reference,
                                    const QList<MeterlySnapshot::Seat>& seats,
                                    const QStringList& shorts) {
    const auto first = [&](auto matches) -> const MeterlySnapshot::Seat* {
        for (qsizetype i = 0; i < seats.size(); ++i) {
            if (matches(i)) {
                return &seats[i];
            }
        }
        return nullptr;
    };
    if (const auto* seat = first([&](qsizetype i) { return seats[i].id == reference; })) {
        return seat;
    }
    const auto provider = meterlyProvider(reference);
    const bool isProvider = provider != MeterlyProvider::unknown || reference == u"unknown";
    if (isProvider) {
        if (const auto* seat = first(
                [&](qsizetype i) { return seats[i].live && seats[i].provider == provider; })) {
            return seat;
        }
        if (const auto* seat = first([&](qsizetype i) { return seats[i].provider == provider; })) {
            return seat;
        }
    }
    return first(
        [&](qsizetype i) { return seats[i].account == reference || shorts[i] == reference; });
}

std::pair<QString, QString> age(const std::optional<QDateTime>& fetched, const QDateTime& now,
                                const LocalClock& clock) {
    if (!fetched) {
        return {u"Waiting for a reading"_s, u"No reading yet"_s};
    }
    const QString when = u"Fetched "_s + clock.format(*fetched, u"d MMM, HH:mm");
    const qint64 minutes = fetched->msecsTo(now) / 60000;
    if (minutes < 1) {
        return {u"Updated just now"_s, when};
    }
    if (minutes < 60) {
        return {u"Updated %1 min ago"_s.arg(minutes), when};
    }
    if (minutes < 1440) {
        return {u"Updated %1h ago"_s.arg(minutes / 60), when};
    }
    return {u"Updated %1d ago"_s.arg(minutes / 1440), when};
}

int roleRank(const QString& role) {
    static const QStringList known{u"operator"_s, u"build"_s, u"review"_s, u"soundboard"_s,
                                   u"probes"_s};
    const auto index = known.indexOf(role);
    return index < 0 ? static_cast<int>(known.size()) : static_cast<int>(index);
}

} // namespace

SubscriptionSeatCardContent::SubscriptionSeatCardContent(
    const MeterlyPresentation::Seat& seat, const MeterlySnapshot::Seat* source,
    const QList<MeterlySnapshot::Seat>& allSeats, const QLocale& locale, const QTimeZone& timeZone)
    : SubscriptionSeatCardContent(
          seat, source, TextCleaner(allSeats),
          LocalClock(locale, timeZone,
                     MeterlySnapshot::date(source ? source->renewsAt : std::nullopt)
                         .value_or(QDateTime()))) {}

SubscriptionSeatCardContent::SubscriptionSeatCardContent(const MeterlyPresentation::Seat& seat,
                                                         const MeterlySnapshot::Seat* source,
                                                         const TextCleaner& clean,
                                                         const LocalClock& clock) {
    name = clean.clean(source ? source->account : seat.shortName);
    header = name + u" · "_s + providerTitle(seat.provider);
    identity = clean.clean(source && source->email && !source->email->isEmpty() ? *source->email
                                                                                : seat.subtitle);
    QStringList meta;
    for (const QString* part : {&seat.role, &seat.plan}) {
        if (!part->isEmpty()) {
            meta.append(*part);
        }
    }
    metadata = meta.join(u" · "_s);

    const bool failed = source && source->error;
    if (!failed) {
        windows.reserve(seat.windows.size());
        for (const auto& w : seat.windows) {
            windows.append(
                {w.label, w.value, w.isCredits ? QString() : w.reset, w.percent, w.isCredits});
        }
    }

    const QString provider =
        clean.clean(source ? source->providerLabel : capitalised(rawValue(seat.provider)));
    if (const auto renews = MeterlySnapshot::date(source ? source->renewsAt : std::nullopt)) {
        // Unlike the menu's renewal text, a reported date keeps its time of day here.
        renewal = u"Renews "_s + clock.format(*renews, u"ddd d MMM, HH:mm");
        if (source->renewsSource == u"inferred"_s) {
            renewalSource = u"inferred from subscription start"_s;
        } else if (source->renewsSource == u"reported"_s) {
            renewalSource = u"reported by "_s + provider;
        }
    } else {
        renewal = u"Renewal date unavailable"_s;
        renewalSource = u"not exposed by "_s + provider;
    }

    advice = seat.advice;
    if (failed) {
        error = clean.clean(source->error->message);
    } else {
        note = seat.note;
    }
    lastRead = seat.lastRead;
    tint = seat.stale ? MeterlyTint::grey : tessel::tint(seat.status);
    canSwitch = seat.isClaude && !seat.live;
    usageURL = seat.usageURL;
    billingURL = seat.billingURL;
}

QStringList SubscriptionSeatCardContent::buttons() const {
    QStringList result;
    if (canSwitch) {
        result.append(u"Switch here"_s);
    }
    if (usageURL) {
        result.append(u"Usage"_s);
    }
    if (billingURL) {
        result.append(u"Billing"_s);
    }
    return result;
}

SubscriptionsDashboardContent::SubscriptionsDashboardContent(const MeterlySnapshot& snapshot,
                                                             const QDateTime& now,
                                                             const QLocale& locale,
                                                             const QTimeZone& timeZone)
    : SubscriptionsDashboardContent(snapshot, now, LocalClock(locale, timeZone, now)) {}

SubscriptionsDashboardContent::SubscriptionsDashboardContent(const MeterlySnapshot& snapshot,
                                                             const QDateTime& now,
                                                             const LocalClock& clock)
    : SubscriptionsDashboardContent(
          snapshot, MeterlyPresentation(snapshot, now, clock, TextCleaner()), now, clock) {}

SubscriptionsDashboardContent::SubscriptionsDashboardContent(
    const MeterlySnapshot& snapshot, const MeterlyPresentation& presentation, const QDateTime& now,
    const QLocale& locale, const QTimeZone& timeZone)
    : SubscriptionsDashboardContent(snapshot, presentation, now,
                                    LocalClock(locale, timeZone, now)) {}

SubscriptionsDashboardContent::SubscriptionsDashboardContent(
    const MeterlySnapshot& snapshot, const MeterlyPresentation& presentation, const QDateTime& now,
    const LocalClock& clock) {
    const QLocale& locale = clock.locale();
    const QTimeZone& timeZone = clock.timeZone();
    summary = presentation.summary;
    summaryTint = presentation.summaryTint;
    std::tie(updated, fetched) = age(MeterlySnapshot::date(snapshot.fetchedAt), now, clock);

    const QList<MeterlySnapshot::Seat>& seats = snapshot.seats;
    const TextCleaner plain;
    QStringList shorts;
    shorts.reserve(seats.size());
    for (const auto& seat : seats) {
        shorts.append(seat.displayShort(plain));
    }
    const auto find =
        [&](const QString& reference) -> std::pair<const MeterlySnapshot::Seat*, QString> {
        const MeterlySnapshot::Seat* seat = lookup(reference, seats, shorts);
        return {seat, seat ? shorts[seat - seats.data()] : reference};
    };
    const TextCleaner human(seats, plain);
    const DashboardCleaner clean(seats, plain);

    cards.reserve(presentation.seats.size());
    for (const auto& seat : presentation.seats) {
        const auto it = std::find_if(seats.begin(), seats.end(),
                                     [&](const auto& s) { return s.id == seat.id; });
        const MeterlySnapshot::Seat* source = it == seats.end() ? nullptr : &*it;
        cards.append({seat, SubscriptionSeatCardContent(seat, source, human, clock),
                      source ? source->account : QString()});
    }

    if (snapshot.alertsDetail) {
        qint64 index = 0;
        for (const auto& entry : *snapshot.alertsDetail) {
            const MeterlySnapshot::Seat* seat = find(entry.seat).first;
            QString title = entry.title       ? *entry.title
                            : seat            ? seat->notificationTitle()
                            : entry.shortName ? *entry.shortName
                                              : u"Subscriptions"_s;
            MeterlyTint entryTint = entry.status ? tint(*entry.status)
                                    : seat       ? tint(seat->displayStatus())
                                                 : MeterlyTint::secondary;
            attention.append({index++, clean.clean(title), clean.clean(entry.human), entryTint});
        }
    }

    QStringList roles;
    for (const auto& [role, reference] : snapshot.next) {
        roles.append(role);
    }
    // `next` iterates in ascending order already, so a stable sort by rank
    // leaves the roles outside the list in string order.
    std::stable_sort(roles.begin(), roles.end(),
                     [](const QString& a, const QString& b) { return roleRank(a) < roleRank(b); });
    for (const auto& role : roles) {
        const QString& reference = snapshot.next.at(role);
        const auto [seat, name] = find(reference);
        spendOrder.append({clean.clean(capitalised(role)), clean.clean(name),
                           seat ? std::optional<QString>(seat->id) : std::nullopt});
    }

    const QDateTime local = now.toTimeZone(timeZone);
    const QDateTime horizon = local.addDays(7);
    struct Placed {
        Event event;
        QDate day;
    };
    QList<Placed> placed;
    qint64 index = 0;
    for (const auto& entry : snapshot.timeline) {
        const qint64 id = index++;
        const auto when = MeterlySnapshot::date(entry.resetsAt);
        if (!when || *when < now || *when > horizon) {
            continue;
        }
        const QString label = clean.clean(entry.label);
        const bool isRenewal = label.contains(u"renew"_s, Qt::CaseInsensitive);
        const QString word = isRenewal ? u"renews"_s
                             : label.contains(u"reset"_s, Qt::CaseInsensitive)
                                 ? label
                                 : label + u" resets"_s;
        const QString seatName = clean.clean(find(entry.seat).second);
        placed.append(
            {{id, *when, clock.format(*when, u"HH:mm") + u" · "_s + seatName + u" · "_s + word,
              isRenewal},
             clock.date(*when)});
    }
    std::stable_sort(placed.begin(), placed.end(), [](const Placed& a, const Placed& b) {
        return a.event.date != b.event.date ? a.event.date < b.event.date : a.event.id < b.event.id;
    });

    const QDate today = local.date();
    for (auto& [event, day] : placed) {
        if (days.isEmpty() || days.last().id.date() != day) {
            QString title = day == today              ? u"Today"_s
                            : day == today.addDays(1) ? u"Tomorrow"_s
                                                      : locale.toString(day, u"ddd d MMM"_s);
            days.append({day.startOfDay(timeZone), std::move(title), {}});
        }
        days.last().events.append(std::move(event));
    }
}

QList<SubscriptionsDashboardContent::SpendPair> SubscriptionsDashboardContent::useNow() const {
    QList<SpendPair> result;
    for (const auto& pair : spendOrder) {
        if (pair.seatID) {
            result.append(pair);
        }
    }
    return result;
}

} // namespace tessel
