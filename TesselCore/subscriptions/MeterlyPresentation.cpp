#include "subscriptions/MeterlyPresentation.h"

#include <QRegularExpression>

#include <algorithm>
#include <charconv>
#include <cmath>

namespace tessel {

using namespace Qt::Literals::StringLiterals;

namespace {

// Word boundaries, blanks and digits in the Unicode sense, as a person's text has them.
constexpr auto unicode = QRegularExpression::UseUnicodePropertiesOption;
constexpr auto unicodeCaseless =
    QRegularExpression::UseUnicodePropertiesOption | QRegularExpression::CaseInsensitiveOption;

const QRegularExpression& runAdvice() {
    static const QRegularExpression re(u"\\brun[:\\s]+"_s, unicodeCaseless);
    return re;
}
const QRegularExpression& toolCommand() {
    static const QRegularExpression re(
        u"\\b(?:vantor-accounts|meterly)\\s+(?:use|pick|status|login|alerts|--)[\\s\\S]*"_s,
        unicode);
    return re;
}
const QRegularExpression& providerPrefix() {
    static const QRegularExpression re(
        u"\\b(?:claude|codex|zai|kimi|grok|openrouter):([A-Za-z0-9_@.+-]+)"_s, unicode);
    return re;
}
const QRegularExpression& timestamp() {
    static const QRegularExpression re(
        u"\\d{4}-\\d{2}-\\d{2}T\\d{2}:\\d{2}:\\d{2}(?:\\.\\d+)?(?:Z|[+-]\\d{2}:\\d{2})"_s, unicode);
    return re;
}
const QRegularExpression& rateLimit() {
    static const QRegularExpression re(u"rate[\\s\\p{Pd}_]*limit"_s, unicodeCaseless);
    return re;
}

// What a text could hold, from one pass over it: "run" in any case, a tool's
// name, an arrow, a digit before a "T", a provider's name before a colon.
struct Hints {
    bool run = false;
    bool tool = false;
    bool arrow = false;
    bool stamp = false;
    bool providerPrefix = false;

    static Hints of(QStringView text) {
        Hints h;
        const auto lower = [&](qsizetype i) { return text[i].unicode() | 0x20; };
        for (qsizetype i = 0; i < text.size(); ++i) {
            const char16_t c = text[i].unicode();
            if ((c | 0x20) == u'r' && i + 2 < text.size() && lower(i + 1) == u'u' &&
                lower(i + 2) == u'n') {
                h.run = true;
            } else if ((c == u'm' && text.mid(i).startsWith(u"meterly")) ||
                       (c == u'v' && text.mid(i).startsWith(u"vantor-accounts"))) {
                h.tool = true;
            } else if (c == u'→') {
                h.arrow = true;
            } else if (c == u'T' && i > 0 && text[i - 1].isDigit()) {
                h.stamp = true;
            } else if (c == u':' && !h.providerPrefix) {
                const QStringView before = text.left(i);
                for (const char16_t* name :
                     {u"claude", u"codex", u"zai", u"kimi", u"grok", u"openrouter"}) {
                    h.providerPrefix = h.providerPrefix || before.endsWith(QStringView(name));
                }
            }
        }
        return h;
    }
};

bool isTrimmed(QChar c) {
    return c.isSpace() || c == u'—' || c == u'·';
}

QString trimmed(const QString& text) {
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && isTrimmed(text[begin])) {
        ++begin;
    }
    while (end > begin && isTrimmed(text[end - 1])) {
        --end;
    }
    return begin == 0 && end == text.size() ? text : text.mid(begin, end - begin);
}

int providerRank(MeterlyProvider provider) {
    switch (provider) {
    case MeterlyProvider::claude:
        return 0;
    case MeterlyProvider::codex:
        return 1;
    case MeterlyProvider::zai:
        return 2;
    case MeterlyProvider::kimi:
        return 3;
    case MeterlyProvider::grok:
        return 4;
    case MeterlyProvider::openrouter:
        return 5;
    case MeterlyProvider::unknown:
        break;
    }
    return 6;
}

QString resetWords(const std::optional<QString>& resetsAt, std::optional<double> resetsInSeconds,
                   const QDateTime& now, const LocalClock& clock) {
    QDateTime target;
    double interval = 0;
    if (resetsInSeconds && std::isfinite(*resetsInSeconds)) {
        interval = *resetsInSeconds;
        target = now.addMSecs(static_cast<qint64>(std::llround(interval * 1000.0)));
    } else if (const auto when = MeterlySnapshot::date(resetsAt)) {
        target = *when;
        interval = static_cast<double>(now.msecsTo(target)) / 1000.0;
    } else {
        return QString();
    }
    if (interval <= 0) {
        return u"resets now"_s;
    }
    if (interval >= 86400) {
        return u"resets "_s + clock.format(target, u"ddd HH:mm");
    }
    if (interval >= 3600) {
        return u"resets in "_s + QString::number(static_cast<qint64>(std::ceil(interval / 3600))) +
               u'h';
    }
    const auto minutes = std::max<qint64>(1, static_cast<qint64>(std::ceil(interval / 60)));
    return u"resets in "_s + QString::number(minutes) + u'm';
}

QString renewalWords(const std::optional<QString>& renewsAt, const std::optional<QString>& source,
                     const QString& provider, const LocalClock& clock) {
    const auto when = MeterlySnapshot::date(renewsAt);
    if (!when) {
        return u"Renewal date not exposed by "_s + MeterlyPresentation::human(provider, {});
    }
    const bool reported = source == u"reported"_s;
    QString suffix;
    if (source == u"inferred"_s) {
        suffix = u" (inferred from subscription start)"_s;
    } else if (reported) {
        suffix = u" (reported)"_s;
    }
    return u"Renews "_s + clock.format(*when, reported ? u"d MMM" : u"ddd d MMM, HH:mm") + suffix;
}

MeterlyPresentation::Window presentWindow(const MeterlySnapshot::Window& window, double elapsed,
                                          const QDateTime& now, const LocalClock& clock,
                                          const TextCleaner& clean) {
    MeterlyPresentation::Window w;
    if (const auto used = window.displayUsedPct()) {
        w.percent = std::clamp(*used, 0.0, 100.0);
    }
    w.isCredits = window.kind == MeterlyWindowKind::credits;
    if (w.isCredits) {
        w.value = window.remaining
                      ? MeterlyPresentation::money(*window.remaining, window.currency) + u" left"_s
                      : u"Balance unavailable"_s;
    } else if (w.percent) {
        // Truncated, not rounded: 99.9 must not read as full.
        w.value = QString::number(static_cast<qint64>(std::trunc(*w.percent))) + u'%';
    } else {
        w.value = u"—"_s;
    }
    w.label = clean.clean(window.label);
    std::optional<double> seconds;
    if (window.resetsInSeconds) {
        seconds = *window.resetsInSeconds - elapsed;
    }
    w.reset = resetWords(window.resetsAt, seconds, now, clock);
    return w;
}

MeterlyPresentation::Seat presentSeat(const MeterlySnapshot::Seat& seat,
                                      const MeterlySnapshot& snapshot, const QDateTime& now,
                                      const LocalClock& clock, const TextCleaner& clean,
                                      const TextCleaner& plain) {
    MeterlyPresentation::Seat s;
    s.id = seat.id;
    s.provider = seat.provider;
    s.isCredits = !seat.windows.isEmpty() &&
                  std::all_of(seat.windows.begin(), seat.windows.end(),
                              [](const auto& w) { return w.kind == MeterlyWindowKind::credits; });

    auto readDate = MeterlySnapshot::date(seat.fetchedAt);
    if (!readDate) {
        readDate = MeterlySnapshot::date(snapshot.fetchedAt);
    }
    const double elapsed =
        readDate ? std::max(0.0, static_cast<double>(readDate->msecsTo(now)) / 1000.0) : 0.0;

    s.windows.reserve(seat.windows.size());
    for (const auto& window : seat.windows) {
        s.windows.append(presentWindow(window, elapsed, now, clock, clean));
    }

    s.stale = seat.isStale();
    if (s.stale && readDate) {
        s.lastRead = u"Last read "_s + clock.shortTime(*readDate);
    }

    QString rawBinding;
    if (seat.binding) {
        rawBinding = *seat.binding;
    } else {
        std::optional<double> best;
        for (const auto& window : seat.windows) {
            const auto used = window.displayUsedPct();
            if (used && (!best || *used > *best)) {
                best = used;
                rawBinding = window.label;
            }
        }
    }

    s.shortName = seat.displayShort(plain);
    s.subtitle = clean.clean(seat.displayLabel(plain));
    s.role = clean.clean(seat.role.value_or(QString()));
    if (MeterlyPresentation::isPlaceholder(s.role)) {
        s.role.clear();
    }
    s.plan = clean.clean(seat.plan.value_or(QString()));
    if (MeterlyPresentation::isPlaceholder(s.plan)) {
        s.plan.clear();
    }
    s.status = seat.displayStatus();
    if (!s.isCredits) {
        s.binding = clean.clean(rawBinding);
        s.percent = seat.displayBindingPct();
    }

    s.creditValue = u"—"_s;
    const auto credits = std::find_if(seat.windows.begin(), seat.windows.end(), [](const auto& w) {
        return w.kind == MeterlyWindowKind::credits;
    });
    if (credits != seat.windows.end() && credits->remaining) {
        s.creditValue = MeterlyPresentation::money(*credits->remaining, credits->currency);
    }

    s.isClaude = seat.provider == MeterlyProvider::claude;
    s.live = s.isClaude && seat.live;
    s.advice = clean.clean(seat.advice.reason);
    s.tooltip = s.advice;
    // A stale seat's error belongs to an old attempt; its note says why it is stale.
    const QString& note = !s.stale && seat.error ? seat.error->message : seat.note;
    s.note = clean.clean(note);
    s.renewal =
        renewalWords(seat.renewsAt, seat.renewsSource, clean.clean(seat.providerLabel), clock);
    if (seat.links) {
        s.usageURL = MeterlyPresentation::pageURL(seat.links->usage);
        s.billingURL = MeterlyPresentation::pageURL(seat.links->billing);
    }
    return s;
}

QList<MeterlyPresentation::Notification>
notificationsFromDetails(const MeterlySnapshot& snapshot, const QList<MeterlySnapshot::Seat>& seats,
                         const TextCleaner& clean, const TextCleaner& plain) {
    QList<MeterlyPresentation::Notification> result;
    QStringList working = snapshot.alerts;
    for (const auto& entry : *snapshot.alertsDetail) {
        const MeterlySnapshot::Seat* seat = MeterlyPresentation::resolve(entry.seat, seats);
        if (seat && seat->isStale()) {
            continue;
        }
        if (rateLimit().match(entry.human).hasMatch()) {
            continue;
        }
        QString title = entry.title ? *entry.title
                        : seat      ? seat->notificationTitle()
                                    : u"Subscriptions"_s;
        title = clean.clean(title);

        const QString shortName = entry.shortName ? *entry.shortName
                                  : seat          ? seat->displayShort(plain)
                                                  : title;
        QStringList prefixes{entry.seat + u':', shortName + u':'};
        if (seat) {
            prefixes.append(seat->account + u':');
        }
        const auto claimed = std::find_if(working.begin(), working.end(), [&](const QString& line) {
            return std::any_of(prefixes.begin(), prefixes.end(),
                               [&](const QString& prefix) { return line.startsWith(prefix); });
        });
        QString key;
        if (claimed != working.end()) {
            key = *claimed;
            working.erase(claimed);
        } else {
            key = entry.seat + u": "_s + entry.human;
        }
        result.append({key, title, clean.clean(entry.human)});
    }
    return result;
}

QList<MeterlyPresentation::Notification>
notificationsFromAlerts(const MeterlySnapshot& snapshot, const QList<MeterlySnapshot::Seat>& seats,
                        const TextCleaner& clean) {
    QList<MeterlyPresentation::Notification> result;
    for (const auto& line : snapshot.alerts) {
        const auto find = [&](auto prefixOf) -> const MeterlySnapshot::Seat* {
            const auto it = std::find_if(seats.begin(), seats.end(), [&](const auto& seat) {
                return line.startsWith(prefixOf(seat) + u':');
            });
            return it == seats.end() ? nullptr : &*it;
        };
        const MeterlySnapshot::Seat* seat = find([](const auto& s) { return s.id; });
        if (!seat) {
            seat = find([](const auto& s) { return s.account; });
        }
        if (!seat) {
            seat = find([](const auto& s) { return rawValue(s.provider); });
        }
        if (seat && seat->isStale()) {
            continue;
        }
        if (rateLimit().match(line).hasMatch()) {
            continue;
        }
        const QString title = seat ? seat->notificationTitle() : u"Subscriptions"_s;
        const qsizetype dash = line.indexOf(u" — "_s);
        const QString body = clean.clean(dash < 0 ? line : line.left(dash));
        result.append({line, title, body});
    }
    return result;
}

} // namespace

TextCleaner::TextCleaner(const QList<MeterlySnapshot::Seat>& seats) {
    if (!seats.isEmpty()) {
        addSeats(seats, TextCleaner());
    }
}

TextCleaner::TextCleaner(const QList<MeterlySnapshot::Seat>& seats, const TextCleaner& plain) {
    addSeats(seats, plain);
}

void TextCleaner::addSeats(const QList<MeterlySnapshot::Seat>& seats, const TextCleaner& plain) {
    replacements_.reserve(seats.size());
    for (const auto& seat : seats) {
        // An empty identifier would match between every two characters.
        if (!seat.id.isEmpty()) {
            replacements_.append({seat.id, seat.displayShort(plain)});
        }
    }
    std::stable_sort(replacements_.begin(), replacements_.end(),
                     [](const auto& a, const auto& b) { return a.first.size() > b.first.size(); });
    for (qsizetype i = 0; i < replacements_.size(); ++i) {
        const char16_t first = replacements_[i].first.front().unicode();
        byFirst_[first < 128 ? first : 128].append(i);
    }
}

// The first identifier, in replacement order from `from` on, that the text
// holds, or -1: one pass over the text instead of one search per seat.
qsizetype TextCleaner::firstPresent(QStringView text, qsizetype from) const {
    qsizetype first = -1;
    for (qsizetype at = 0; at < text.size(); ++at) {
        const char16_t c = text[at].unicode();
        for (const qsizetype i : byFirst_[c < 128 ? c : 128]) {
            if (i >= from && (first < 0 || i < first) &&
                text.mid(at).startsWith(replacements_[i].first)) {
                first = i;
            }
        }
    }
    return first;
}

QString TextCleaner::clean(const QString& raw) const {
    if (raw.isEmpty()) {
        return raw;
    }
    if (const auto it = memo_.constFind(raw); it != memo_.constEnd()) {
        return *it;
    }
    QString text = raw;
    // One look at the text tells which steps can change it: most texts are a
    // few plain words.
    Hints hints = Hints::of(text);
    if (hints.run) {
        if (const auto m = runAdvice().match(text); m.hasMatch()) {
            text.truncate(m.capturedStart());
        }
    }
    if (hints.tool) {
        if (const auto m = toolCommand().match(text); m.hasMatch()) {
            text.truncate(m.capturedStart());
        }
    }
    // Longest identifier first, each replaced everywhere before the next is
    // looked for, as the short names may hold identifiers themselves.
    if (qsizetype i = firstPresent(text, 0); i >= 0) {
        do {
            text.replace(replacements_[i].first, replacements_[i].second);
        } while ((i = firstPresent(text, i + 1)) >= 0);
        hints = Hints::of(text); // the short names are in the text now
    }
    if (hints.providerPrefix) {
        text.replace(providerPrefix(), u"\\1"_s);
    }
    if (hints.arrow) {
        text.replace(u" → "_s, u" to "_s);
    }

    if (hints.stamp) {
        QList<QRegularExpressionMatch> matches;
        auto it = timestamp().globalMatch(text);
        while (it.hasNext()) {
            matches.append(it.next());
        }
        const QLocale locale;
        for (auto m = matches.crbegin(); m != matches.crend(); ++m) {
            if (const auto when = MeterlySnapshot::date(m->captured())) {
                text.replace(m->capturedStart(), m->capturedLength(),
                             locale.toString(when->toLocalTime().time(), QLocale::ShortFormat));
            }
        }
    }
    QString result = trimmed(text);
    memo_.insert(raw, result);
    return result;
}

MeterlyPresentation::MeterlyPresentation(const MeterlySnapshot& snapshot, const QDateTime& now,
                                         const QLocale& locale, const QTimeZone& timeZone)
    : MeterlyPresentation(snapshot, now, LocalClock(locale, timeZone, now), TextCleaner()) {}

MeterlyPresentation::MeterlyPresentation(const MeterlySnapshot& snapshot, const QDateTime& now,
                                         const LocalClock& clock, const TextCleaner& plain) {
    const QList<MeterlySnapshot::Seat> sorted = sortedSeats(snapshot.seats);
    const TextCleaner clean(sorted, plain);

    seats.reserve(sorted.size());
    for (const auto& seat : sorted) {
        seats.append(presentSeat(seat, snapshot, now, clock, clean, plain));
    }
    summary = clean.clean(snapshot.summary.value_or(QString()));

    bool red = false;
    bool orange = false;
    const auto account = [&](MeterlyStatus status) {
        red = red || status == MeterlyStatus::hold || status == MeterlyStatus::capped ||
              status == MeterlyStatus::login;
        orange = orange || status == MeterlyStatus::spend || status == MeterlyStatus::warn ||
                 status == MeterlyStatus::topUp;
    };
    for (const auto& seat : seats) {
        account(seat.status);
    }
    if (snapshot.alertsDetail) {
        for (const auto& detail : *snapshot.alertsDetail) {
            if (detail.status) {
                account(*detail.status);
            }
        }
    }
    summaryTint = red ? MeterlyTint::red : orange ? MeterlyTint::orange : MeterlyTint::secondary;

    // The structured alerts, when the tool gives them, are the whole story: a
    // plain line that no detail claims is not notified.
    notifications = snapshot.alertsDetail ? notificationsFromDetails(snapshot, sorted, clean, plain)
                                          : notificationsFromAlerts(snapshot, sorted, clean);
}

QString MeterlyPresentation::human(const QString& text, const QList<MeterlySnapshot::Seat>& seats) {
    return TextCleaner(seats).clean(text);
}

QString MeterlyPresentation::money(double amount, const std::optional<QString>& currency) {
    // Two decimals as printf's "%.2f" gives them in the C locale: an exact half
    // goes to the even digit (0.625 is "0.62"), where QString::number rounds it
    // up. to_chars, unlike printf, ignores the process's locale.
    char digits[320]; // room for the largest double written out in full
    const auto end =
        std::to_chars(digits, digits + sizeof digits, amount, std::chars_format::fixed, 2).ptr;
    const QString figure = QString::fromLatin1(digits, end - digits);
    if (!currency || *currency == u"USD") {
        return u'$' + figure;
    }
    return figure + u' ' + human(*currency, {});
}

QString MeterlyPresentation::resetText(const std::optional<QString>& resetsAt,
                                       std::optional<double> resetsInSeconds, const QDateTime& now,
                                       const QLocale& locale, const QTimeZone& timeZone) {
    return resetWords(resetsAt, resetsInSeconds, now, LocalClock(locale, timeZone, now));
}

QString MeterlyPresentation::renewalText(const std::optional<QString>& renewsAt,
                                         const std::optional<QString>& source,
                                         const QString& provider, const QLocale& locale,
                                         const QTimeZone& timeZone) {
    const QDateTime around = MeterlySnapshot::date(renewsAt).value_or(QDateTime());
    return renewalWords(renewsAt, source, provider, LocalClock(locale, timeZone, around));
}

QList<MeterlySnapshot::Seat>
MeterlyPresentation::sortedSeats(const QList<MeterlySnapshot::Seat>& seats) {
    QList<MeterlySnapshot::Seat> sorted = seats;
    std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) {
        const int ra = providerRank(a.provider);
        const int rb = providerRank(b.provider);
        if (ra != rb) {
            return ra < rb;
        }
        if (a.provider == MeterlyProvider::claude && a.live != b.live) {
            return a.live;
        }
        return false;
    });
    return sorted;
}

const MeterlySnapshot::Seat*
MeterlyPresentation::resolve(const QString& reference, const QList<MeterlySnapshot::Seat>& seats) {
    const auto first = [&](auto matches) -> const MeterlySnapshot::Seat* {
        const auto it = std::find_if(seats.begin(), seats.end(), matches);
        return it == seats.end() ? nullptr : &*it;
    };
    if (const auto* seat = first([&](const auto& s) { return s.id == reference; })) {
        return seat;
    }
    if (const auto* seat =
            first([&](const auto& s) { return rawValue(s.provider) == reference; })) {
        return seat;
    }
    return first(
        [&](const auto& s) { return s.account == reference || s.displayShort() == reference; });
}

std::optional<QUrl> MeterlyPresentation::pageURL(const std::optional<QString>& text) {
    if (!text) {
        return std::nullopt;
    }
    const QUrl url(*text, QUrl::StrictMode);
    const QString scheme = url.scheme().toLower();
    if (!url.isValid() || (scheme != u"https" && scheme != u"http") || url.host().isEmpty()) {
        return std::nullopt;
    }
    return url;
}

bool MeterlyPresentation::isPlaceholder(const QString& text) {
    const QString lower = text.toLower();
    return lower == u"unknown" || lower == u"n/a" || lower == u"-" || lower == u"—";
}

} // namespace tessel
