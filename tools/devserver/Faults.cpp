#include "Faults.h"

#include "NotifyModel.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>

namespace devserver {

namespace {

const std::array<const char*, 20> routeNames = {"create", "list", "read", "consent", "start", "ack",
                                                "join", "snapshot", "request", "stop", "manifest",
                                                "presign", "complete", "end", "put",
                                                // the device sign-in service
                                                "device_code", "device_token", "device_page",
                                                // the update feed
                                                "update_feed", "update_image"};

std::optional<std::string> decodeBase64(const std::string& text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::string out(text.size() / 4 * 3, '\0');
    const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(text.data()),
                                  static_cast<int>(text.size()));
    if (n < 0) {
        return std::nullopt;
    }
    // EVP_DecodeBlock counts the padding as zero bytes.
    const auto padding = static_cast<std::size_t>(
        std::count(text.end() - std::min<std::size_t>(2, text.size()), text.end(), '='));
    out.resize(static_cast<std::size_t>(n) - padding);
    return out;
}

} // namespace

std::string modeName(Fault::Mode mode) {
    switch (mode) {
    case Fault::Mode::fail:
        return "fail";
    case Fault::Mode::drop:
        return "drop";
    case Fault::Mode::delay:
        return "delay";
    case Fault::Mode::redirect:
        return "redirect";
    }
    return "?";
}

bool isRouteName(const std::string& name) {
    return std::find(routeNames.begin(), routeNames.end(), name) != routeNames.end() ||
           NotifyModel::isRouteName(name);
}

std::optional<std::string> Faults::add(const json& request) {
    if (!request.is_object()) {
        return "The fault must be a JSON object.";
    }
    const std::string route = request.value("route", "");
    if (route != "*" && !isRouteName(route)) {
        return "Unknown route \"" + route + "\".";
    }
    const json count = request.value("count", json(1));
    if (!count.is_number_integer() || count.get<long long>() < 1 ||
        count.get<long long>() > 10000) {
        return "count must be a whole number from 1 to 10000.";
    }
    Fault fault;
    const std::string mode = request.value("mode", "");
    if (mode == "fail") {
        fault.mode = Fault::Mode::fail;
    } else if (mode == "drop") {
        fault.mode = Fault::Mode::drop;
    } else if (mode == "delay") {
        fault.mode = Fault::Mode::delay;
    } else if (mode == "redirect") {
        fault.mode = Fault::Mode::redirect;
        fault.status = 302;
    } else {
        return "mode must be fail, drop, delay or redirect.";
    }
    try {
        fault.status = request.value("status", fault.status);
        fault.contentType = request.value("content_type", fault.contentType);
        fault.delayMs = request.value("delay_ms", 0);
        fault.location = request.value("location", "");
        fault.body = request.value("body", "");
    } catch (const json::exception&) {
        return "status and delay_ms must be numbers; body, content_type and location texts.";
    }
    if (request.contains("body_base64")) {
        const auto decoded = request["body_base64"].is_string()
                                 ? decodeBase64(request["body_base64"].get<std::string>())
                                 : std::nullopt;
        if (!decoded) {
            return "body_base64 is not base64.";
        }
        fault.body = *decoded;
    }
    if (fault.status < 100 || fault.status > 599) {
        return "status must be between 100 and 599.";
    }
    if (fault.mode == Fault::Mode::delay && fault.delayMs <= 0) {
        return "A delay needs delay_ms above zero.";
    }
    if (fault.mode == Fault::Mode::redirect && fault.location.empty()) {
        return "A redirect needs a location.";
    }
    if (fault.mode == Fault::Mode::fail && !request.contains("body") &&
        !request.contains("body_base64")) {
        fault.body = dump({{"error", {{"code", "injected"}, {"message", "Injected failure."}}}});
    }
    std::lock_guard lock(mutex_);
    auto& queue = queues_[route];
    for (long long i = 0; i < count.get<long long>(); ++i) {
        queue.push_back(fault);
    }
    return std::nullopt;
}

std::optional<Fault> Faults::take(const std::string& route) {
    std::lock_guard lock(mutex_);
    for (const std::string& key : {route, std::string("*")}) {
        auto found = queues_.find(key);
        if (found != queues_.end() && !found->second.empty()) {
            Fault fault = found->second.front();
            found->second.pop_front();
            return fault;
        }
    }
    return std::nullopt;
}

void Faults::clear() {
    std::lock_guard lock(mutex_);
    queues_.clear();
}

json Faults::pending() const {
    std::lock_guard lock(mutex_);
    json out = json::object();
    for (const auto& [route, queue] : queues_) {
        json list = json::array();
        for (const Fault& fault : queue) {
            json item{{"mode", modeName(fault.mode)}};
            if (fault.mode == Fault::Mode::fail || fault.mode == Fault::Mode::redirect) {
                item["status"] = fault.status;
            }
            if (fault.mode == Fault::Mode::delay) {
                item["delay_ms"] = fault.delayMs;
            }
            list.push_back(item);
        }
        if (!list.empty()) {
            out[route] = list;
        }
    }
    return out;
}

} // namespace devserver
