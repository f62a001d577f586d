#include "subscriptions/MeterlySnapshot.h"

#include "net/InternetDate.h"
#include "subscriptions/MeterlyPresentation.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>

namespace tessel {

using namespace Qt::Literals::StringLiterals;
using nlohmann::json;

namespace {

template <typename E, std::size_t N> struct EnumTable {
    std::array<std::pair<E, const char16_t*>, N> rows;

    QString raw(E value) const {
        for (const auto& [e, text] : rows) {
            if (e == value) {
                return QString::fromUtf16(text);
            }
        }
        return u"unknown"_s;
    }
    E parse(QStringView raw, E fallback) const {
        for (const auto& [e, text] : rows) {
            if (raw == QStringView(text)) {
                return e;
            }
        }
        return fallback;
    }
};

constexpr EnumTable<MeterlyProvider, 7> providers{{{
    {MeterlyProvider::claude, u"claude"},
    {MeterlyProvider::codex, u"codex"},
    {MeterlyProvider::kimi, u"kimi"},
    {MeterlyProvider::zai, u"zai"},
    {MeterlyProvider::grok, u"grok"},
    {MeterlyProvider::openrouter, u"openrouter"},
    {MeterlyProvider::unknown, u"unknown"},
}}};

constexpr EnumTable<MeterlyWindowKind, 6> windowKinds{{{
    {MeterlyWindowKind::session, u"session"},
    {MeterlyWindowKind::weekly, u"weekly"},
    {MeterlyWindowKind::monthly, u"monthly"},
    {MeterlyWindowKind::model, u"model"},
    {MeterlyWindowKind::credits, u"credits"},
    {MeterlyWindowKind::unknown, u"unknown"},
}}};

constexpr EnumTable<MeterlyAdviceVerb, 7> adviceVerbs{{{
    {MeterlyAdviceVerb::spend, u"spend"},
    {MeterlyAdviceVerb::hold, u"hold"},
    {MeterlyAdviceVerb::topUp, u"top-up"},
    {MeterlyAdviceVerb::switchModel, u"switch-model"},
    {MeterlyAdviceVerb::login, u"login"},
    {MeterlyAdviceVerb::ok, u"ok"},
    {MeterlyAdviceVerb::unknown, u"unknown"},
}}};

constexpr EnumTable<MeterlyStatus, 10> statuses{{{
    {MeterlyStatus::ok, u"ok"},
    {MeterlyStatus::spend, u"spend"},
    {MeterlyStatus::warn, u"warn"},
    {MeterlyStatus::hold, u"hold"},
    {MeterlyStatus::capped, u"capped"},
    {MeterlyStatus::topUp, u"top-up"},
    {MeterlyStatus::login, u"login"},
    {MeterlyStatus::unreadable, u"unreadable"},
    {MeterlyStatus::stale, u"stale"},
    {MeterlyStatus::unknown, u"unknown"},
}}};

QString fromUtf8(const std::string& text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

std::string toUtf8(const QString& text) {
    return text.toStdString();
}

// Where a value sits in the reading ("seats[3].windows[0]"), spelled out only
// when a fault needs it.
struct Path {
    const Path* parent = nullptr;
    const char* key = nullptr; // or
    std::size_t index = 0;     // in the parent list

    Path child(const char* name) const { return {this, name, 0}; }
    Path element(std::size_t i) const { return {this, nullptr, i}; }
    QString text() const {
        if (!parent) {
            return QString();
        }
        const QString above = parent->text();
        if (!key) {
            return above + u'[' + QString::number(index) + u']';
        }
        return above.isEmpty() ? QString::fromLatin1(key) : above + u'.' + QLatin1String(key);
    }
};

// Reads one JSON object by key, naming where a fault sits so the failure says
// which seat or window broke the reading.
class ObjectReader {
public:
    ObjectReader(const json& value, Path path) : path_(path) {
        if (!value.is_object()) {
            fail(path_.text(), u"an object"_s);
        }
        object_ = &value;
    }

    const json& required(const char* key) const {
        const auto it = object_->find(key);
        if (it == object_->end()) {
            throw DecodingError(u"The subscription reading has no \"%1\" in %2."_s.arg(
                QLatin1String(key), where()));
        }
        if (it->is_null()) {
            fail(key, u"a value, not null"_s);
        }
        return *it;
    }

    // Missing and null alike give nothing.
    const json* optional(const char* key) const {
        const auto it = object_->find(key);
        if (it == object_->end() || it->is_null()) {
            return nullptr;
        }
        return &*it;
    }

    QString string(const char* key) const { return asString(required(key), key); }
    std::optional<QString> optionalString(const char* key) const {
        const json* value = optional(key);
        return value ? std::optional<QString>(asString(*value, key)) : std::nullopt;
    }
    bool boolean(const char* key) const { return asBool(required(key), key); }
    std::optional<bool> optionalBool(const char* key) const {
        const json* value = optional(key);
        return value ? std::optional<bool>(asBool(*value, key)) : std::nullopt;
    }
    std::optional<double> optionalDouble(const char* key) const {
        const json* value = optional(key);
        if (!value) {
            return std::nullopt;
        }
        if (!value->is_number()) {
            fail(key, u"a number"_s);
        }
        return value->get<double>();
    }
    // A whole number: 42 or 42.0, never 42.5, and within 64 bits.
    std::optional<qint64> optionalInteger(const char* key) const {
        const json* value = optional(key);
        if (!value) {
            return std::nullopt;
        }
        if (value->is_number_integer() && !value->is_number_unsigned()) {
            return value->get<std::int64_t>();
        }
        if (value->is_number_unsigned()) {
            const auto u = value->get<std::uint64_t>();
            if (u <= static_cast<std::uint64_t>(std::numeric_limits<qint64>::max())) {
                return static_cast<qint64>(u);
            }
        } else if (value->is_number_float()) {
            const double d = value->get<double>();
            if (std::isfinite(d) && std::trunc(d) == d && d >= -9223372036854775808.0 &&
                d < 9223372036854775808.0) {
                return static_cast<qint64>(d);
            }
        }
        fail(key, u"a whole number"_s);
    }
    template <typename E, std::size_t N>
    E enumeration(const char* key, const EnumTable<E, N>& table, E fallback) const {
        return table.parse(string(key), fallback);
    }

    const json& array(const char* key) const {
        const json& value = required(key);
        if (!value.is_array()) {
            fail(key, u"a list"_s);
        }
        return value;
    }
    const json* optionalArray(const char* key) const {
        const json* value = optional(key);
        if (value && !value->is_array()) {
            fail(key, u"a list"_s);
        }
        return value;
    }

    Path child(const char* key) const { return path_.child(key); }

    QString asString(const json& value, const char* key) const {
        if (!value.is_string()) {
            fail(key, u"a string"_s);
        }
        return fromUtf8(value.get_ref<const std::string&>());
    }

private:
    QString where() const {
        const QString text = path_.text();
        return text.isEmpty() ? u"the reading"_s : text;
    }

    bool asBool(const json& value, const char* key) const {
        if (!value.is_boolean()) {
            fail(key, u"true or false"_s);
        }
        return value.get<bool>();
    }

    [[noreturn]] void fail(const char* key, const QString& expected) const {
        fail(child(key).text(), expected);
    }
    [[noreturn]] static void fail(const QString& at, const QString& expected) {
        throw DecodingError(
            u"The subscription reading is not valid: %1 should be %2."_s.arg(at, expected));
    }

    const json* object_ = nullptr;
    Path path_;
};

MeterlySnapshot::Window decodeWindow(const json& value, Path path) {
    const ObjectReader r(value, path);
    MeterlySnapshot::Window w;
    w.kind = r.enumeration("kind", windowKinds, MeterlyWindowKind::unknown);
    w.label = r.string("label");
    w.usedPct = r.optionalInteger("used_pct");
    w.resetsAt = r.optionalString("resets_at");
    w.remaining = r.optionalDouble("remaining");
    w.currency = r.optionalString("currency");
    w.resetsInSeconds = r.optionalDouble("resets_in_s");
    w.remainingPct = r.optionalDouble("remaining_pct");
    return w;
}

MeterlySnapshot::Seat decodeSeat(const json& value, Path path) {
    const ObjectReader r(value, path);
    MeterlySnapshot::Seat s;
    s.id = r.string("id");
    s.provider = r.enumeration("provider", providers, MeterlyProvider::unknown);
    s.providerLabel = r.string("provider_label");
    s.account = r.string("account");
    s.email = r.optionalString("email");
    s.plan = r.optionalString("plan");
    s.role = r.optionalString("role");
    s.live = r.boolean("live");
    const json& windows = r.array("windows");
    const Path windowsPath = r.child("windows");
    s.windows.reserve(static_cast<qsizetype>(windows.size()));
    for (std::size_t i = 0; i < windows.size(); ++i) {
        s.windows.append(decodeWindow(windows[i], windowsPath.element(i)));
    }
    {
        const ObjectReader a(r.required("advice"), r.child("advice"));
        s.advice.verb = a.enumeration("verb", adviceVerbs, MeterlyAdviceVerb::unknown);
        s.advice.reason = a.string("reason");
        s.advice.fix = a.optionalString("fix");
    }
    s.note = r.string("note");
    if (const json* error = r.optional("error")) {
        const ObjectReader e(*error, r.child("error"));
        s.error = MeterlySnapshot::SeatError{e.string("code"), e.string("message")};
    }
    s.label = r.optionalString("label");
    s.stale = r.optionalBool("stale");
    s.staleSince = r.optionalString("stale_since");
    s.shortName = r.optionalString("short");
    s.binding = r.optionalString("binding");
    s.bindingPct = r.optionalDouble("binding_pct");
    if (r.optional("status")) {
        s.status = r.enumeration("status", statuses, MeterlyStatus::unknown);
    }
    s.renewsAt = r.optionalString("renews_at");
    s.renewsSource = r.optionalString("renews_source");
    s.fetchedAt = r.optionalString("fetched_at");
    if (const json* links = r.optional("links")) {
        const ObjectReader l(*links, r.child("links"));
        s.links = MeterlySnapshot::Links{l.optionalString("usage"), l.optionalString("billing")};
    }
    return s;
}

MeterlySnapshot decode(const json& root) {
    const Path top;
    const ObjectReader r(root, top);
    MeterlySnapshot snapshot;
    snapshot.fetchedAt = r.string("fetched_at");

    const json& seats = r.array("seats");
    const Path seatsPath = top.child("seats");
    snapshot.seats.reserve(static_cast<qsizetype>(seats.size()));
    for (std::size_t i = 0; i < seats.size(); ++i) {
        snapshot.seats.append(decodeSeat(seats[i], seatsPath.element(i)));
    }

    const json& alerts = r.array("alerts");
    snapshot.alerts.reserve(static_cast<qsizetype>(alerts.size()));
    for (const json& line : alerts) {
        snapshot.alerts.append(r.asString(line, "alerts"));
    }

    const json& next = r.required("next");
    if (!next.is_object()) {
        throw DecodingError(u"The subscription reading is not valid: next should be an object."_s);
    }
    for (const auto& [role, seat] : next.items()) {
        snapshot.next.emplace(fromUtf8(role), r.asString(seat, "next"));
    }

    const json& timeline = r.array("timeline");
    const Path timelinePath = top.child("timeline");
    snapshot.timeline.reserve(static_cast<qsizetype>(timeline.size()));
    for (std::size_t i = 0; i < timeline.size(); ++i) {
        const ObjectReader t(timeline[i], timelinePath.element(i));
        snapshot.timeline.append({t.string("seat"), t.string("label"), t.string("resets_at")});
    }

    snapshot.summary = r.optionalString("summary");
    if (const json* details = r.optionalArray("alerts_detail")) {
        const Path detailsPath = top.child("alerts_detail");
        QList<MeterlySnapshot::AlertDetail> list;
        list.reserve(static_cast<qsizetype>(details->size()));
        for (std::size_t i = 0; i < details->size(); ++i) {
            const ObjectReader d((*details)[i], detailsPath.element(i));
            MeterlySnapshot::AlertDetail detail;
            detail.seat = d.string("seat");
            detail.title = d.optionalString("title");
            detail.shortName = d.optionalString("short");
            detail.human = d.string("human");
            detail.fix = d.optionalString("fix");
            if (d.optional("status")) {
                detail.status = d.enumeration("status", statuses, MeterlyStatus::unknown);
            }
            list.append(std::move(detail));
        }
        snapshot.alertsDetail = std::move(list);
    }
    return snapshot;
}

void put(json& object, const char* key, const std::optional<QString>& value) {
    if (value) {
        object[key] = toUtf8(*value);
    }
}
void put(json& object, const char* key, const std::optional<double>& value) {
    if (value) {
        object[key] = *value;
    }
}

json encodeSeat(const MeterlySnapshot::Seat& s) {
    json seat = json::object();
    seat["id"] = toUtf8(s.id);
    seat["provider"] = toUtf8(rawValue(s.provider));
    seat["provider_label"] = toUtf8(s.providerLabel);
    seat["account"] = toUtf8(s.account);
    put(seat, "email", s.email);
    put(seat, "plan", s.plan);
    put(seat, "role", s.role);
    seat["live"] = s.live;
    json windows = json::array();
    for (const auto& w : s.windows) {
        json window = json::object();
        window["kind"] = toUtf8(rawValue(w.kind));
        window["label"] = toUtf8(w.label);
        if (w.usedPct) {
            window["used_pct"] = static_cast<std::int64_t>(*w.usedPct);
        }
        put(window, "resets_at", w.resetsAt);
        put(window, "remaining", w.remaining);
        put(window, "currency", w.currency);
        put(window, "resets_in_s", w.resetsInSeconds);
        put(window, "remaining_pct", w.remainingPct);
        windows.push_back(std::move(window));
    }
    seat["windows"] = std::move(windows);
    json advice = json::object();
    advice["verb"] = toUtf8(rawValue(s.advice.verb));
    advice["reason"] = toUtf8(s.advice.reason);
    put(advice, "fix", s.advice.fix);
    seat["advice"] = std::move(advice);
    seat["note"] = toUtf8(s.note);
    if (s.error) {
        seat["error"] = {{"code", toUtf8(s.error->code)}, {"message", toUtf8(s.error->message)}};
    }
    put(seat, "label", s.label);
    if (s.stale) {
        seat["stale"] = *s.stale;
    }
    put(seat, "stale_since", s.staleSince);
    put(seat, "short", s.shortName);
    put(seat, "binding", s.binding);
    put(seat, "binding_pct", s.bindingPct);
    if (s.status) {
        seat["status"] = toUtf8(rawValue(*s.status));
    }
    put(seat, "renews_at", s.renewsAt);
    put(seat, "renews_source", s.renewsSource);
    put(seat, "fetched_at", s.fetchedAt);
    if (s.links) {
        json links = json::object();
        put(links, "usage", s.links->usage);
        put(links, "billing", s.links->billing);
        seat["links"] = std::move(links);
    }
    return seat;
}

} // namespace

QString rawValue(MeterlyProvider provider) {
    return providers.raw(provider);
}
QString rawValue(MeterlyWindowKind kind) {
    return windowKinds.raw(kind);
}
QString rawValue(MeterlyAdviceVerb verb) {
    return adviceVerbs.raw(verb);
}
QString rawValue(MeterlyStatus status) {
    return statuses.raw(status);
}
MeterlyProvider meterlyProvider(QStringView raw) {
    return providers.parse(raw, MeterlyProvider::unknown);
}
MeterlyWindowKind meterlyWindowKind(QStringView raw) {
    return windowKinds.parse(raw, MeterlyWindowKind::unknown);
}
MeterlyAdviceVerb meterlyAdviceVerb(QStringView raw) {
    return adviceVerbs.parse(raw, MeterlyAdviceVerb::unknown);
}
MeterlyStatus meterlyStatus(QStringView raw) {
    return statuses.parse(raw, MeterlyStatus::unknown);
}

MeterlyTint tint(MeterlyStatus status) {
    switch (status) {
    case MeterlyStatus::spend:
        return MeterlyTint::green;
    case MeterlyStatus::warn:
    case MeterlyStatus::topUp:
        return MeterlyTint::orange;
    case MeterlyStatus::hold:
    case MeterlyStatus::capped:
    case MeterlyStatus::login:
        return MeterlyTint::red;
    case MeterlyStatus::unreadable:
    case MeterlyStatus::stale:
        return MeterlyTint::grey;
    case MeterlyStatus::ok:
    case MeterlyStatus::unknown:
        break;
    }
    return MeterlyTint::secondary;
}

bool needsAttention(MeterlyStatus status) {
    return status == MeterlyStatus::hold || status == MeterlyStatus::capped ||
           status == MeterlyStatus::topUp || status == MeterlyStatus::login;
}

std::optional<double> MeterlySnapshot::Window::displayUsedPct() const {
    if (usedPct) {
        return static_cast<double>(*usedPct);
    }
    if (remainingPct) {
        return 100.0 - *remainingPct;
    }
    return std::nullopt;
}

bool MeterlySnapshot::Seat::isStale() const {
    return stale.value_or(false) || status == MeterlyStatus::stale;
}

MeterlyStatus MeterlySnapshot::Seat::displayStatus() const {
    if (status && *status != MeterlyStatus::unknown) {
        return *status;
    }
    switch (advice.verb) {
    case MeterlyAdviceVerb::spend:
        return MeterlyStatus::spend;
    case MeterlyAdviceVerb::hold:
        return MeterlyStatus::hold;
    case MeterlyAdviceVerb::topUp:
        return MeterlyStatus::topUp;
    case MeterlyAdviceVerb::switchModel:
        return MeterlyStatus::warn;
    case MeterlyAdviceVerb::login:
        return MeterlyStatus::login;
    case MeterlyAdviceVerb::ok:
    case MeterlyAdviceVerb::unknown:
        break;
    }
    if (error) {
        return MeterlyStatus::unreadable;
    }
    const bool anyValue = std::any_of(windows.begin(), windows.end(), [](const Window& w) {
        return w.usedPct || w.remainingPct || w.remaining;
    });
    if (anyValue) {
        return MeterlyStatus::ok;
    }
    return note.isEmpty() ? MeterlyStatus::ok : MeterlyStatus::unreadable;
}

std::optional<double> MeterlySnapshot::Seat::displayBindingPct() const {
    std::optional<double> value;
    if (bindingPct) {
        value = *bindingPct;
    } else if (binding) {
        const auto it = std::find_if(windows.begin(), windows.end(),
                                     [&](const Window& w) { return w.label == *binding; });
        if (it != windows.end()) {
            if (it->usedPct) {
                value = static_cast<double>(*it->usedPct);
            } else if (it->remainingPct) {
                value = 100.0 - *it->remainingPct;
            }
        }
    } else {
        for (const auto& w : windows) {
            const auto used = w.displayUsedPct();
            if (used && (!value || *used > *value)) {
                value = used;
            }
        }
    }
    if (!value) {
        return std::nullopt;
    }
    return std::clamp(*value, 0.0, 100.0);
}

QString MeterlySnapshot::Seat::displayShort() const {
    return displayShort(TextCleaner());
}

QString MeterlySnapshot::Seat::displayLabel() const {
    return displayLabel(TextCleaner());
}

QString MeterlySnapshot::Seat::displayShort(const TextCleaner& plain) const {
    const QString& name = shortName && !shortName->isEmpty()    ? *shortName
                          : provider == MeterlyProvider::claude ? account
                                                                : providerLabel;
    return plain.clean(name);
}

QString MeterlySnapshot::Seat::displayLabel(const TextCleaner& plain) const {
    if (label && !label->isEmpty()) {
        return plain.clean(*label);
    }
    std::optional<QString> secondary;
    if (provider == MeterlyProvider::claude) {
        secondary = email;
    } else if (plan && !MeterlyPresentation::isPlaceholder(*plan)) {
        secondary = plan;
    }
    QStringList parts;
    const QString name = displayShort(plain);
    if (!name.isEmpty()) {
        parts.append(name);
    }
    if (secondary && !secondary->isEmpty()) {
        parts.append(*secondary);
    }
    return parts.join(u" · "_s);
}

QString MeterlySnapshot::Seat::notificationTitle() const {
    if (provider == MeterlyProvider::claude) {
        return providerLabel + u" · "_s + account;
    }
    return providerLabel;
}

const MeterlySnapshot& MeterlySnapshot::emptyDashboard() {
    static const MeterlySnapshot empty;
    return empty;
}

MeterlySnapshot MeterlySnapshot::parse(const QString& text) {
    return parse(QByteArrayView(text.toUtf8()));
}

MeterlySnapshot MeterlySnapshot::parse(QByteArrayView utf8) {
    json root;
    try {
        root = json::parse(utf8.begin(), utf8.end());
    } catch (const json::exception& error) {
        throw DecodingError(u"The subscription reading is not JSON: "_s +
                            QString::fromUtf8(error.what()));
    }
    return decode(root);
}

QByteArray MeterlySnapshot::toJSON() const {
    json root = json::object();
    root["fetched_at"] = toUtf8(fetchedAt);
    json seatList = json::array();
    for (const auto& seat : seats) {
        seatList.push_back(encodeSeat(seat));
    }
    root["seats"] = std::move(seatList);
    json alertList = json::array();
    for (const auto& line : alerts) {
        alertList.push_back(toUtf8(line));
    }
    root["alerts"] = std::move(alertList);
    json nextObject = json::object();
    for (const auto& [role, seat] : next) {
        nextObject[toUtf8(role)] = toUtf8(seat);
    }
    root["next"] = std::move(nextObject);
    json timelineList = json::array();
    for (const auto& entry : timeline) {
        timelineList.push_back({{"seat", toUtf8(entry.seat)},
                                {"label", toUtf8(entry.label)},
                                {"resets_at", toUtf8(entry.resetsAt)}});
    }
    root["timeline"] = std::move(timelineList);
    put(root, "summary", summary);
    if (alertsDetail) {
        json details = json::array();
        for (const auto& d : *alertsDetail) {
            json detail = json::object();
            detail["seat"] = toUtf8(d.seat);
            put(detail, "title", d.title);
            put(detail, "short", d.shortName);
            detail["human"] = toUtf8(d.human);
            put(detail, "fix", d.fix);
            if (d.status) {
                detail["status"] = toUtf8(rawValue(*d.status));
            }
            details.push_back(std::move(detail));
        }
        root["alerts_detail"] = std::move(details);
    }
    // Replacing bad bytes rather than throwing: a text from the tool must never
    // make the reading unsaveable.
    const std::string text = root.dump(-1, ' ', false, json::error_handler_t::replace);
    return QByteArray(text.data(), static_cast<qsizetype>(text.size()));
}

std::optional<QDateTime> MeterlySnapshot::date(const QString& text) {
    return parseInternetDate(text);
}

std::optional<QDateTime> MeterlySnapshot::date(const std::optional<QString>& text) {
    return text ? parseInternetDate(*text) : std::nullopt;
}

bool MeterlySnapshot::hasWindows() const {
    return std::any_of(seats.begin(), seats.end(),
                       [](const Seat& s) { return !s.windows.isEmpty(); });
}

bool MeterlySnapshot::hasUsableReading() const {
    return hasWindows() &&
           std::any_of(seats.begin(), seats.end(), [](const Seat& s) { return !s.error; });
}

MeterlySnapshot MeterlySnapshot::fallback(const QList<VantorAccount>& accounts,
                                          const QDateTime& fetchedAt) {
    const auto stamp = [](const std::optional<QDateTime>& when) -> std::optional<QString> {
        return when ? std::optional<QString>(formatInternetDate(*when)) : std::nullopt;
    };
    const QDateTime horizon = fetchedAt.addSecs(604800);

    MeterlySnapshot snapshot;
    snapshot.fetchedAt = formatInternetDate(fetchedAt);
    for (const auto& account : accounts) {
        Seat seat;
        seat.id = u"claude:"_s + account.name;
        seat.provider = MeterlyProvider::claude;
        seat.providerLabel = u"Claude"_s;
        seat.account = account.name;
        seat.email = account.email;
        seat.live = account.live;
        seat.note = account.note;
        seat.advice = Advice{MeterlyAdviceVerb::ok, QString(), std::nullopt};

        Window session;
        session.kind = MeterlyWindowKind::session;
        session.label = u"5h"_s;
        session.usedPct = account.fiveHourPercent;
        session.resetsAt = stamp(account.fiveHourReset);
        Window weekly;
        weekly.kind = MeterlyWindowKind::weekly;
        weekly.label = u"7d"_s;
        weekly.usedPct = account.sevenDayPercent;
        weekly.resetsAt = stamp(account.sevenDayReset);
        Window fable;
        fable.kind = MeterlyWindowKind::model;
        fable.label = u"Fable"_s;
        fable.usedPct = account.fablePercent;
        seat.windows = {session, weekly, fable};

        for (const auto& window : seat.windows) {
            const auto when = date(window.resetsAt);
            if (when && *when > fetchedAt && *when <= horizon) {
                snapshot.timeline.append({seat.id, window.label, *window.resetsAt});
            }
        }
        snapshot.seats.append(std::move(seat));
    }
    std::stable_sort(
        snapshot.timeline.begin(), snapshot.timeline.end(),
        [](const TimelineEntry& a, const TimelineEntry& b) { return a.resetsAt < b.resetsAt; });
    return snapshot;
}

} // namespace tessel
