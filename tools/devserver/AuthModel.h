// The device sign-in service of the local server: the code request, the token
// poll (pending until a code is approved, then a vses_ member session), a plain
// device page where a person approves or declines, and the control a test uses
// to approve, decline or expire a code. Scripted answers (slow_down, odd
// bodies) come from the fault queue under the route names below. Every method
// is one step under the model's lock.
#pragma once

#include "Support.h"

#include <httplib.h>

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace devserver {

// The log and fault name of an auth request: "device_code", "device_token"
// or "device_page"; none for any other path.
struct AuthRoute {
    std::string name;
    bool wrongMethod = false;
};
std::optional<AuthRoute> authRoute(const std::string& method, const std::string& path);

class AuthModel {
public:
    // Where the device page is: the server's origin.
    void setOrigin(const std::string& origin);

    // Answers a request of a route that authRoute named.
    void serve(const std::string& route, const httplib::Request& request,
               httplib::Response& response);

    // /_control/auth/<name>: "approve", "deny", "expire" (POST, by user_code
    // or device_code), "state" (GET).
    Reply control(const std::string& name, const std::string& method, const json& body);

private:
    enum class State { pending, approved, denied, expired, consumed };
    struct Grant {
        std::string deviceCode;
        std::string userCode;
        std::string clientName;
        State state = State::pending;
        std::chrono::steady_clock::time_point expires;
        int polls = 0;
        std::string email;
        std::string token;
        double sessionSeconds = 86400;
    };

    Reply code(const httplib::Request& request, const json& body);
    Reply token(const httplib::Request& request, const json& body);
    void page(const httplib::Request& request, httplib::Response& response);
    Grant* find(const json& body);
    json describe(const Grant& grant) const;

    std::mutex mutex_;
    std::string origin_;
    std::map<std::string, Grant> grants_; // by device code
};

} // namespace devserver
