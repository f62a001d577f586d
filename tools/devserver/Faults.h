// Faults queued by the control interface: the next requests of a route fail,
// lose their answer, stall or are redirected, in the order they were queued.
#pragma once

#include "Support.h"

#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace devserver {

struct Fault {
    enum class Mode { fail, drop, delay, redirect };
    Mode mode = Mode::fail;
    int status = 500;
    std::string body;
    std::string contentType = "application/json";
    int delayMs = 0;
    std::string location;
};

std::string modeName(Fault::Mode mode);

// The route names requests are logged under and faults are queued for.
bool isRouteName(const std::string& name);

class Faults {
public:
    // Queues `count` copies of the fault a control request describes; returns
    // what is wrong with the request instead when it doesn't make sense.
    std::optional<std::string> add(const json& request);

    // The next fault for a request of `route`: that route's own queue first,
    // then the one for any route ("*").
    std::optional<Fault> take(const std::string& route);

    void clear();
    json pending() const;

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::deque<Fault>> queues_;
};

} // namespace devserver
