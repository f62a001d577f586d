// The notification service: the organisation's feed of notifications for the
// member, its unread count and marking rows read. Rows come in through the
// control interface, malformed ones too, so a client's decoding is tested
// against what a real service might send. Every method is one atomic step
// under the model's lock.
#pragma once

#include "Support.h"

#include <httplib.h>

#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace devserver {

class NotifyModel {
public:
    // The route names requests are logged under and faults are queued for.
    static bool isRouteName(const std::string& name);
    // The route of a path below `basePath` ("/notify"), and whether the method
    // fits it; none for any other path.
    static std::optional<std::pair<std::string, bool>>
    route(const std::string& method, const std::string& path, const std::string& basePath);

    // One request of the service, the session already checked.
    Reply answer(const std::string& route, const httplib::Request& request, const json& body);

    // The control interface below "/_control/notify/": "rows" (POST) adds rows,
    // "state" (GET) shows them with their read marks, "clear" (POST) forgets them.
    Reply control(const std::string& method, const std::string& name, const json& body);

private:
    struct Row {
        json value;     // exactly as the feed lists it
        std::string id; // empty when the row has no text id
        bool read = false;
    };

    Reply count() const;
    Reply feed(const httplib::Request& request) const;
    Reply read(const json& body);
    Reply add(const json& body);
    json state() const;

    mutable std::mutex mutex_;
    std::vector<Row> rows_; // newest last
};

} // namespace devserver
