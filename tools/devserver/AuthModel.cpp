#include "AuthModel.h"

#include <algorithm>
#include <cctype>
#include <set>

namespace devserver {

namespace {

constexpr int codeSeconds = 900;
constexpr int pollInterval = 5;
const char* const grantType = "urn:ietf:params:oauth:grant-type:device_code";
const char* const defaultEmail = "member@velmora.test";

// The auth service's error form (RFC 8628): {"error":..,"error_description":..}.
Reply oauthError(int status, const std::string& code, const std::string& description) {
    return Reply{status, json{{"error", code}, {"error_description", description}}};
}

std::string lowerMediaType(const httplib::Request& request) {
    std::string type = request.get_header_value("Content-Type");
    type = type.substr(0, type.find(';'));
    std::string out;
    for (unsigned char c : type) {
        if (!std::isspace(c)) {
            out += static_cast<char>(std::tolower(c));
        }
    }
    return out;
}

// A JSON object of only `allowed` keys, sent as JSON; the refusal otherwise.
std::optional<Reply> bodyProblem(const httplib::Request& request, const json& body,
                                 const std::set<std::string>& allowed) {
    if (lowerMediaType(request) != "application/json") {
        return oauthError(415, "invalid_request", "Content-Type must be application/json.");
    }
    if (!body.is_object()) {
        return oauthError(400, "invalid_request", "The body must be a JSON object.");
    }
    for (const auto& [key, value] : body.items()) {
        if (!allowed.contains(key)) {
            return oauthError(400, "invalid_request", "Unknown key \"" + key + "\".");
        }
    }
    return std::nullopt;
}

std::string userCode() {
    static const char letters[] = "BCDFGHJKLMNPQRSTVWXZ"; // no vowels, no look-alikes
    const std::string hex = randomHex(8);
    std::string out;
    for (std::size_t i = 0; i < 8; ++i) {
        out += letters[std::stoi(hex.substr(i * 2, 2), nullptr, 16) % 20];
        if (i == 3) {
            out += '-';
        }
    }
    return out;
}

const char* stateName(int state) {
    static const char* const names[] = {"pending", "approved", "denied", "expired", "consumed"};
    return names[state];
}

} // namespace

std::optional<AuthRoute> authRoute(const std::string& method, const std::string& path) {
    if (path == "/v1/auth/device/code") {
        return AuthRoute{"device_code", method != "POST"};
    }
    if (path == "/v1/auth/device/token") {
        return AuthRoute{"device_token", method != "POST"};
    }
    if (path == "/device") {
        return AuthRoute{"device_page", method != "GET" && method != "POST"};
    }
    return std::nullopt;
}

void AuthModel::setOrigin(const std::string& origin) {
    std::lock_guard lock(mutex_);
    origin_ = origin;
}

void AuthModel::serve(const std::string& route, const httplib::Request& request,
                      httplib::Response& response) {
    if (route == "device_page") {
        return page(request, response);
    }
    const json body = json::parse(request.body, nullptr, false);
    const Reply reply = route == "device_code" ? code(request, body) : token(request, body);
    response.status = reply.status;
    response.set_content(dump(reply.body), "application/json");
}

Reply AuthModel::code(const httplib::Request& request, const json& body) {
    if (auto problem = bodyProblem(request, body, {"client_name"})) {
        return *problem;
    }
    const json name = body.value("client_name", json());
    if (!name.is_string() || name.get<std::string>().empty()) {
        return oauthError(400, "invalid_request", "client_name must be a non-empty text.");
    }
    std::lock_guard lock(mutex_);
    Grant grant;
    grant.deviceCode = randomHex(20);
    grant.userCode = userCode();
    grant.clientName = name.get<std::string>();
    grant.expires = std::chrono::steady_clock::now() + std::chrono::seconds(codeSeconds);
    // On the host the client asked for, as a service behind a name answers.
    const std::string scheme = origin_.substr(0, origin_.find("://") + 3);
    const std::string page = request.has_header("Host")
                                 ? scheme + request.get_header_value("Host") + "/device"
                                 : origin_ + "/device";
    json answer{{"device_code", grant.deviceCode},
                {"user_code", grant.userCode},
                {"verification_uri", page},
                {"verification_uri_complete", page + "?user_code=" + grant.userCode},
                {"expires_in", codeSeconds},
                {"interval", pollInterval}};
    grants_.emplace(grant.deviceCode, std::move(grant));
    return Reply{200, std::move(answer)};
}

Reply AuthModel::token(const httplib::Request& request, const json& body) {
    if (auto problem = bodyProblem(request, body, {"device_code", "grant_type"})) {
        return *problem;
    }
    if (body.value("grant_type", json()) != json(grantType)) {
        return oauthError(400, "unsupported_grant_type",
                          std::string("grant_type must be ") + grantType + ".");
    }
    const json deviceCode = body.value("device_code", json());
    if (!deviceCode.is_string()) {
        return oauthError(400, "invalid_request", "device_code must be a text.");
    }
    std::lock_guard lock(mutex_);
    const auto found = grants_.find(deviceCode.get<std::string>());
    if (found == grants_.end()) {
        return oauthError(400, "invalid_grant", "The device code is not known.");
    }
    Grant& grant = found->second;
    ++grant.polls;
    if (grant.state == State::pending && std::chrono::steady_clock::now() >= grant.expires) {
        grant.state = State::expired;
    }
    switch (grant.state) {
    case State::pending:
        return oauthError(400, "authorization_pending", "The code has not been approved yet.");
    case State::denied:
        return oauthError(400, "access_denied", "The member declined the sign-in.");
    case State::expired:
        return oauthError(400, "expired_token", "The code has expired.");
    case State::consumed:
        return oauthError(400, "invalid_grant", "The code was used already.");
    case State::approved:
        break;
    }
    grant.state = State::consumed;
    return Reply{200, json{{"session_token", grant.token},
                           {"token_type", "session"},
                           {"expires_in", grant.sessionSeconds},
                           {"email", grant.email},
                           {"user", {{"email", grant.email}}}}};
}

void AuthModel::page(const httplib::Request& request, httplib::Response& response) {
    const std::string code = request.get_param_value("user_code");
    std::string message;
    response.status = 200;
    std::lock_guard lock(mutex_);
    auto found = std::find_if(grants_.begin(), grants_.end(),
                              [&](const auto& entry) { return entry.second.userCode == code; });
    Grant* grant = found == grants_.end() ? nullptr : &found->second;
    if (request.method == "POST") {
        const std::string action = request.get_param_value("action");
        if (!grant || grant->state != State::pending || (action != "approve" && action != "deny")) {
            response.status = 400;
            message = "This code can't be approved or declined.";
        } else if (action == "approve") {
            grant->state = State::approved;
            grant->email = defaultEmail;
            grant->token = "vses_" + randomHex(24);
            message = "Approved. You can return to Velmora Tessel.";
        } else {
            grant->state = State::denied;
            message = "Declined.";
        }
    }
    std::string html = "<!doctype html><html><head><meta charset=\"utf-8\"><title>Device sign-in"
                       "</title></head><body><h1>Sign in a device</h1>";
    if (!message.empty()) {
        html += "<p>" + markupEscaped(message) + "</p>";
    } else if (grant && grant->state == State::pending) {
        html += "<p>Confirm that Velmora Tessel shows the code <strong>" +
                markupEscaped(grant->userCode) +
                "</strong>.</p><form method=\"post\"><input type=\"hidden\" name=\"user_code\" "
                "value=\"" +
                markupEscaped(grant->userCode) +
                "\"><button name=\"action\" value=\"approve\">Approve</button> <button "
                "name=\"action\" value=\"deny\">Decline</button></form>";
    } else {
        html += "<form><label>Code <input name=\"user_code\" value=\"" + markupEscaped(code) +
                "\"></label> <button>Continue</button></form>";
    }
    response.set_content(html + "</body></html>\n", "text/html; charset=utf-8");
}

AuthModel::Grant* AuthModel::find(const json& body) {
    const json userCode = body.value("user_code", json());
    const json deviceCode = body.value("device_code", json());
    for (auto& [key, grant] : grants_) {
        if ((userCode.is_string() && grant.userCode == userCode.get<std::string>()) ||
            (deviceCode.is_string() && key == deviceCode.get<std::string>())) {
            return &grant;
        }
    }
    return nullptr;
}

json AuthModel::describe(const Grant& grant) const {
    return json{{"user_code", grant.userCode},
                {"client_name", grant.clientName},
                {"state", stateName(static_cast<int>(grant.state))},
                {"polls", grant.polls}};
}

Reply AuthModel::control(const std::string& name, const std::string& method, const json& body) {
    std::lock_guard lock(mutex_);
    if (name == "state" && method == "GET") {
        json grants = json::array();
        for (const auto& [key, grant] : grants_) {
            grants.push_back(describe(grant));
        }
        return Reply{200, {{"grants", grants}}};
    }
    if (method != "POST" || (name != "approve" && name != "deny" && name != "expire")) {
        return errorReply(404, "not_found", "No control route " + method + " auth/" + name + ".");
    }
    Grant* grant = find(body);
    if (!grant) {
        return errorReply(404, "unknown_code", "No grant has that user_code or device_code.");
    }
    if (grant->state != State::pending) {
        return errorReply(409, "not_pending",
                          std::string("The grant is ") + stateName(static_cast<int>(grant->state)) +
                              ".");
    }
    if (name == "approve") {
        const json email = body.value("email", json(defaultEmail));
        const json seconds = body.value("expires_in", json(86400));
        const json token = body.value("token", json("vses_" + randomHex(24)));
        if (!email.is_string() || !seconds.is_number() || !token.is_string()) {
            return errorReply(400, "invalid_control",
                              "email and token must be texts, expires_in a number.");
        }
        grant->email = email.get<std::string>();
        grant->sessionSeconds = seconds.get<double>();
        grant->token = token.get<std::string>();
    }
    grant->state = name == "approve" ? State::approved
                   : name == "deny"  ? State::denied
                                     : State::expired;
    return Reply{200, describe(*grant)};
}

} // namespace devserver
