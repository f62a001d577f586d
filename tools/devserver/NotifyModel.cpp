#include "NotifyModel.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <set>

namespace devserver {

namespace {

const std::array<const char*, 3> routeNames = {"notify_count", "notify_feed", "notify_read"};

// The longest feed a client may ask for at once.
constexpr long long maxLimit = 1000;

} // namespace

bool NotifyModel::isRouteName(const std::string& name) {
    return std::find(routeNames.begin(), routeNames.end(), name) != routeNames.end();
}

std::optional<std::pair<std::string, bool>> NotifyModel::route(const std::string& method,
                                                               const std::string& path,
                                                               const std::string& basePath) {
    const std::string feed = basePath + "/v1/notify/feed";
    if (path == feed) {
        return std::pair{std::string("notify_feed"), method != "GET"};
    }
    if (path == feed + "/count") {
        return std::pair{std::string("notify_count"), method != "GET"};
    }
    if (path == feed + "/read") {
        return std::pair{std::string("notify_read"), method != "POST"};
    }
    return std::nullopt;
}

Reply NotifyModel::answer(const std::string& route, const httplib::Request& request,
                          const json& body) {
    if (route == "notify_count") {
        return count();
    }
    if (route == "notify_feed") {
        return feed(request);
    }
    return read(body);
}

Reply NotifyModel::count() const {
    std::lock_guard lock(mutex_);
    const auto unread =
        std::count_if(rows_.begin(), rows_.end(), [](const Row& row) { return !row.read; });
    return Reply{200, {{"unread", unread}}};
}

Reply NotifyModel::feed(const httplib::Request& request) const {
    long long limit = 50;
    if (request.has_param("limit")) {
        const std::string text = request.get_param_value("limit");
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), limit);
        if (error != std::errc() || end != text.data() + text.size() || limit < 1 ||
            limit > maxLimit) {
            return errorReply(400, "invalid_limit",
                              "limit must be a whole number from 1 to " + std::to_string(maxLimit) +
                                  ".");
        }
    }
    std::lock_guard lock(mutex_);
    json data = json::array();
    for (auto row = rows_.rbegin(); row != rows_.rend() && std::ssize(data) < limit; ++row) {
        data.push_back(row->value);
    }
    return Reply{200, {{"data", std::move(data)}, {"count", rows_.size()}}};
}

Reply NotifyModel::read(const json& body) {
    const auto ids = body.find("notification_ids");
    if (ids == body.end() || !ids->is_array() ||
        !std::all_of(ids->begin(), ids->end(), [](const json& id) { return id.is_string(); })) {
        return errorReply(400, "invalid_request", "notification_ids must be a list of ids.");
    }
    const std::set<std::string> wanted(ids->begin(), ids->end());
    std::lock_guard lock(mutex_);
    long long marked = 0;
    for (Row& row : rows_) {
        if (!row.read && !row.id.empty() && wanted.contains(row.id)) {
            row.read = true;
            ++marked;
        }
    }
    return Reply{200, {{"marked", marked}}};
}

Reply NotifyModel::control(const std::string& method, const std::string& name, const json& body) {
    if (method == "POST" && name == "rows") {
        return add(body);
    }
    if (method == "GET" && name == "state") {
        return Reply{200, state()};
    }
    if (method == "POST" && name == "clear") {
        std::lock_guard lock(mutex_);
        rows_.clear();
        return Reply{200, {{"ok", true}}};
    }
    return errorReply(404, "not_found", "No control route " + method + " notify/" + name + ".");
}

// {"rows": [...]} adds rows, newest last. Each row's missing fields get
// plausible values (a fresh id, the current time, "normal" urgency); with
// "exact": true every row is listed exactly as given, however broken.
Reply NotifyModel::add(const json& body) {
    const auto rows = body.find("rows");
    if (rows == body.end() || !rows->is_array()) {
        return errorReply(400, "invalid_control", "rows (a list) is required.");
    }
    const bool exact = body.value("exact", json(false)) == json(true);
    std::vector<Row> added;
    for (const json& given : *rows) {
        Row row;
        row.value = given;
        if (!exact) {
            if (!given.is_object()) {
                return errorReply(400, "invalid_control",
                                  "Each row must be an object unless exact is true.");
            }
            const json defaults{{"id", "ntf_" + randomHex(6)},
                                {"title", "Notification"},
                                {"body", ""},
                                {"urgency_effective", "normal"},
                                {"created_at", isoNow()},
                                {"event_type", "mention"},
                                {"source", "meet"}};
            for (const auto& [key, value] : defaults.items()) {
                if (!row.value.contains(key)) {
                    row.value[key] = value;
                }
            }
        }
        if (row.value.is_object() && row.value.contains("id") && row.value["id"].is_string()) {
            row.id = row.value["id"].get<std::string>();
        }
        added.push_back(std::move(row));
    }
    std::lock_guard lock(mutex_);
    json listed = json::array();
    for (Row& row : added) {
        listed.push_back(row.value);
        rows_.push_back(std::move(row));
    }
    return Reply{200, {{"rows", std::move(listed)}}};
}

json NotifyModel::state() const {
    std::lock_guard lock(mutex_);
    json rows = json::array();
    long long unread = 0;
    for (const Row& row : rows_) {
        rows.push_back({{"row", row.value}, {"read", row.read}});
        unread += row.read ? 0 : 1;
    }
    return {{"rows", std::move(rows)}, {"unread", unread}};
}

} // namespace devserver
