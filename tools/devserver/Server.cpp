#include "Server.h"

#include "Certificate.h"
#include "Downloads.h"

#include <openssl/evp.h>
#include <openssl/ssl.h>

#include <netdb.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <utility>
#include <vector>

namespace devserver {

namespace fs = std::filesystem;

namespace {

// Meet routes by method and the path after "/api/v1/meetings/{id}".
struct MeetRoute {
    const char* method;
    const char* rest;
    const char* name;
};
const MeetRoute meetRoutes[] = {
    {"GET", "", "read"},
    {"GET", "/consent", "consent"},
    {"POST", "/start", "start"},
    {"POST", "/consent/ack", "ack"},
    {"POST", "/sessions", "join"},
    {"GET", "/sessions/snapshot", "snapshot"},
    {"POST", "/recording", "recording"}, // "request" or "stop" by the body's action
    {"GET", "/recording/manifest", "manifest"},
    {"POST", "/recording/presign", "presign"},
    {"POST", "/recording/segment-complete", "complete"},
    {"POST", "/end", "end"},
};

std::string mediaType(const httplib::Request& request) {
    std::string type = request.get_header_value("Content-Type");
    type = type.substr(0, type.find(';'));
    type.erase(
        std::remove_if(type.begin(), type.end(), [](unsigned char c) { return std::isspace(c); }),
        type.end());
    std::transform(type.begin(), type.end(), type.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return type;
}

// Storage refusals look like the object store's, so a client's error path sees
// the same shape it would in production.
void storageError(httplib::Response& response, int status, const std::string& code,
                  const std::string& message) {
    response.status = status;
    response.set_content("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Error><Code>" + code +
                             "</Code><Message>" + markupEscaped(message) + "</Message><RequestId>" +
                             randomHex(8) + "</RequestId></Error>",
                         "application/xml");
}

void answer(httplib::Response& response, const Reply& reply) {
    response.status = reply.status;
    response.set_content(dump(reply.body), "application/json");
}

std::pair<std::string, int> endpoint(const sockaddr_storage& address, socklen_t length) {
    char host[NI_MAXHOST];
    char service[NI_MAXSERV];
    if (getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, host, sizeof host, service,
                    sizeof service, NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
        return {"", -1};
    }
    return {host, std::atoi(service)};
}

// httplib keeps the sockets of its connections to itself, so they are found
// among the process's descriptors by their local port; `peer` tells which.
std::vector<int> socketsOnPort(int localPort,
                               const std::optional<std::pair<std::string, int>>& peer) {
    std::vector<int> out;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd", error)) {
        const int fd = std::atoi(entry.path().filename().c_str());
        struct stat info {};
        if (fstat(fd, &info) != 0 || !S_ISSOCK(info.st_mode)) {
            continue;
        }
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
            endpoint(address, length).second != localPort) {
            continue;
        }
        length = sizeof address;
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            continue; // the listening socket
        }
        if (!peer || endpoint(address, length) == *peer) {
            out.push_back(fd);
        }
    }
    return out;
}

std::string md5Hex(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr);
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        out += digits[digest[i] >> 4];
        out += digits[digest[i] & 0xF];
    }
    return out;
}

// Requests that reached handle() on this worker thread, and how many of them the
// logger has seen: the logger is called for every answer, also for those
// httplib gives itself (a POST without Content-Length, a malformed request).
thread_local unsigned long long handledHere = 0;
thread_local unsigned long long loggedHere = 0;

} // namespace

Server::Server(Options options)
    : options_(std::move(options)),
      storage_(options_.dataDir, options_.presignTTL, options_.fsync) {
    while (options_.basePath.ends_with('/')) {
        options_.basePath.pop_back();
    }
    if (!options_.basePath.empty() && !options_.basePath.starts_with('/')) {
        options_.basePath.insert(0, "/");
    }
    log_ = std::make_unique<RequestLog>(options_.logPath);

    if (options_.https) {
        certPath_ = (fs::path(options_.dataDir) / "cert.pem").string();
        const std::string keyPath = (fs::path(options_.dataDir) / "key.pem").string();
        writeSelfSignedCertificate(certPath_, keyPath);
        http_ = std::make_unique<httplib::SSLServer>(certPath_.c_str(), keyPath.c_str());
    } else {
        http_ = std::make_unique<httplib::Server>();
    }
    if (!http_->is_valid()) {
        throw std::runtime_error("the HTTP server could not be set up");
    }
    // Headers and body go out in separate writes; without this, Nagle holds
    // the body until the client's delayed acknowledgement, 40 ms a request.
    http_->set_tcp_nodelay(true);
    // httplib closes a connection after 5 requests by default, so a client
    // connected anew for every second segment; nginx allows 1,000.
    http_->set_keep_alive_max_count(1000);
    // Delay faults may stall a handler for a minute; the rest must not wait.
    http_->new_task_queue = [] { return new httplib::ThreadPool(64); };

    const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
        handle(request, response);
    };
    http_->Get(".*", handler);
    http_->Post(".*", handler);
    http_->Put(".*", handler);
    http_->Patch(".*", handler);
    http_->Delete(".*", handler);
    http_->Options(".*", handler);
    http_->set_logger([this](const httplib::Request& request, const httplib::Response& response) {
        if (handledHere != loggedHere) {
            loggedHere = handledHere;
            return;
        }
        json entry{{"t", log_->now()},
                   {"method", request.method},
                   {"path", request.path},
                   {"route", classify(request, json()).route},
                   {"has_token", request.has_header("x-session-token")},
                   {"content_type", request.has_header("Content-Type")
                                        ? json(request.get_header_value("Content-Type"))
                                        : json()},
                   {"body", nullptr},
                   {"status", response.status},
                   {"refused_by", "http"}};
        log_->append(std::move(entry));
    });
}

Server::~Server() {
    stop();
}

std::string Server::bind() {
    if (options_.port == 0) {
        port_ = http_->bind_to_any_port(options_.host);
    } else {
        port_ = http_->bind_to_port(options_.host, options_.port) ? options_.port : -1;
    }
    if (port_ <= 0) {
        throw std::runtime_error("cannot listen on " + options_.host + " port " +
                                 std::to_string(options_.port));
    }
    const std::string host =
        options_.host.find(':') != std::string::npos ? "[" + options_.host + "]" : options_.host;
    const std::string origin =
        (options_.https ? "https://" : "http://") + host + ":" + std::to_string(port_);
    storage_.setOrigin(origin);
    auth_.setOrigin(origin);
    updates_.setOrigin(origin);
    return origin;
}

bool Server::run() {
    return http_->listen_after_bind();
}

void Server::stop() {
    {
        std::lock_guard lock(stopMutex_);
        stopping_ = true;
    }
    stopped_.notify_all();
    http_->stop();
    // httplib's workers wait out a keep-alive connection (five seconds) before
    // they notice the stop; ending the connections lets them go at once.
    if (port_ > 0) {
        for (int fd : socketsOnPort(port_, std::nullopt)) {
            ::shutdown(fd, SHUT_RDWR);
        }
    }
}

void Server::pause(int milliseconds) {
    std::unique_lock lock(stopMutex_);
    stopped_.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return stopping_; });
}

Server::Target Server::classify(const httplib::Request& request, const json& body) const {
    Target target;
    const std::string& path = request.path;
    const std::string collection = options_.basePath + "/api/v1/meetings";

    if (const auto auth = authRoute(request.method, path)) {
        target.route = auth->name;
        target.wrongMethod = auth->wrongMethod;
        target.auth = true;
        return target;
    }

    if (const auto update = UpdateFeed::route(path)) {
        target.route = *update;
        target.wrongMethod = request.method != "GET";
        target.update = true;
        return target;
    }

    if (path.starts_with("/storage/")) {
        const std::string rest = path.substr(9);
        const auto slash = rest.find('/');
        if (slash == std::string::npos || slash == 0 || slash + 1 == rest.size() ||
            rest.find('/', slash + 1) != std::string::npos) {
            return target;
        }
        target.storage = true;
        target.meeting = rest.substr(0, slash);
        target.segment = rest.substr(slash + 1);
        target.route = "put";
        target.wrongMethod = request.method != "PUT";
        return target;
    }
    if (const auto notify = NotifyModel::route(request.method, path, options_.notifyBasePath)) {
        target.route = notify->first;
        target.wrongMethod = notify->second;
        target.notify = true;
        return target;
    }
    if (path == collection) {
        target.route = request.method == "POST" ? "create" : "list";
        target.wrongMethod = request.method != "POST" && request.method != "GET";
        return target;
    }
    if (!path.starts_with(collection + "/")) {
        return target;
    }
    const std::string rest = path.substr(collection.size() + 1);
    const auto slash = rest.find('/');
    target.meeting = rest.substr(0, slash);
    const std::string tail = slash == std::string::npos ? "" : rest.substr(slash);
    if (target.meeting.empty()) {
        return target;
    }
    for (const MeetRoute& route : meetRoutes) {
        if (tail != route.rest) {
            continue;
        }
        target.route = route.name;
        target.wrongMethod = request.method != route.method;
        if (target.route == "recording" && body.is_object()) {
            const std::string action =
                body.value("action", json()).is_string() ? body["action"].get<std::string>() : "";
            if (action == "request" || action == "stop") {
                target.route = action;
            }
        }
        return target;
    }
    return target;
}

std::optional<Reply> Server::refuseToken(const httplib::Request& request) const {
    if (!request.has_header("x-session-token")) {
        return errorReply(401, "unauthenticated", "Missing session token");
    }
    const std::string token = request.get_header_value("x-session-token");
    if (!token.starts_with("vses_") || token.size() <= 5) {
        return errorReply(401, "invalid_session", "Session token is not valid");
    }
    std::lock_guard lock(tokensMutex_);
    if (revoked_.contains(token)) {
        return errorReply(401, "session_revoked", "Session revoked");
    }
    return std::nullopt;
}

void Server::handle(const httplib::Request& request, httplib::Response& response) {
    ++handledHere;
    if (request.path.starts_with("/_control/")) {
        control(request, response);
        return;
    }
    if (serveDownload(options_.dataDir, request, response)) {
        return;
    }
    const double arrived = log_->now();
    const bool storageRequest = request.path.starts_with("/storage/");
    json body =
        storageRequest || request.body.empty() ? json() : json::parse(request.body, nullptr, false);
    const Target target = classify(request, body);

    json entry{{"t", arrived},
               {"method", request.method},
               {"path", request.path},
               {"route", target.route},
               {"has_token", request.has_header("x-session-token")},
               {"content_type", request.has_header("Content-Type")
                                    ? json(request.get_header_value("Content-Type"))
                                    : json()}};
    if (request.has_header("x-session-token")) {
        // Enough to tell tokens apart in a test, never enough to use one.
        const std::string token = request.get_header_value("x-session-token");
        entry["token"] = {{"prefix", token.substr(0, 5)}, {"length", token.size()}};
    }
    if (storageRequest) {
        entry["body"] = request.body.size();
    } else if (!request.body.empty()) {
        entry["body"] = body.is_discarded() ? json(request.body) : body;
    } else {
        entry["body"] = nullptr;
    }

    std::optional<Fault> fault;
    if (target.route != "unknown") {
        fault = faults_.take(target.route);
    }
    if (fault) {
        entry["fault"] = modeName(fault->mode);
    }
    if (fault && fault->mode == Fault::Mode::fail) {
        response.status = fault->status;
        response.set_content(fault->body, fault->contentType);
        entry["status"] = fault->status;
        log_->append(std::move(entry));
        return;
    }
    if (fault && fault->mode == Fault::Mode::redirect) {
        response.status = fault->status;
        response.set_header("Location", fault->location);
        entry["status"] = fault->status;
        log_->append(std::move(entry));
        return;
    }
    if (fault && fault->mode == Fault::Mode::delay) {
        pause(fault->delayMs);
        entry["delayed"] = true;
        entry["delay_ms"] = fault->delayMs;
    }

    if (target.route == "unknown") {
        answer(response, errorReply(404, "not_found",
                                    "No route for " + request.method + " " + request.path + "."));
    } else if (target.wrongMethod) {
        answer(response, errorReply(405, "method_not_allowed",
                                    request.method + " is not allowed on " + request.path + "."));
    } else if (target.storage) {
        put(target, request, response);
    } else if (target.notify) {
        answer(response, notify(target, request, body));
    } else if (target.auth) {
        auth_.serve(target.route, request, response);
    } else if (target.update) {
        updates_.serve(target.route, response);
    } else {
        answer(response, meet(target, request, body));
    }

    if (fault && fault->mode == Fault::Mode::drop) {
        // The work is done; the answer is lost on the way. Logged before the
        // drop, since the client reacts to it at once and its next request
        // must come after this one in the log.
        entry["status"] = "dropped";
        entry["answer"] = response.status;
        log_->append(std::move(entry));
        if (!dropConnection(request)) {
            std::fprintf(stderr, "velmora-devserver: could not find the connection to drop\n");
        }
        return;
    }
    entry["status"] = response.status;
    log_->append(std::move(entry));
}

Reply Server::meet(const Target& target, const httplib::Request& request, const json& body) {
    if (auto refused = refuseToken(request)) {
        return *refused;
    }
    const std::string& route = target.route;
    const bool takesBody = request.method == "POST" && route != "start" && route != "end";
    if (takesBody || !request.body.empty()) {
        if (mediaType(request) != "application/json") {
            return errorReply(415, "unsupported_media_type",
                              "Content-Type must be application/json.");
        }
        if (!body.is_object()) {
            return errorReply(400, "invalid_json", "Request body must be a JSON object.");
        }
    }
    const std::string& id = target.meeting;
    if (route == "create") {
        return model_.create(body);
    }
    if (route == "list") {
        return model_.list();
    }
    if (route == "read") {
        return model_.read(id);
    }
    if (route == "consent") {
        return model_.consent(id);
    }
    if (route == "start") {
        return model_.start(id);
    }
    if (route == "ack") {
        return model_.acknowledge(id, body);
    }
    if (route == "join") {
        return model_.join(id, body);
    }
    if (route == "snapshot") {
        return model_.snapshot(id);
    }
    if (route == "request" || route == "stop" || route == "recording") {
        return model_.recording(id, body);
    }
    if (route == "manifest") {
        return model_.manifest(id);
    }
    if (route == "presign") {
        return model_.presign(id, body);
    }
    if (route == "complete") {
        return model_.complete(id, body);
    }
    return model_.end(id);
}

Reply Server::notify(const Target& target, const httplib::Request& request, const json& body) {
    // The session travels in its own header; a bearer token is a client bug.
    if (request.has_header("Authorization")) {
        return errorReply(400, "authorization_not_accepted",
                          "Send the session in x-session-token, not in an Authorization header.");
    }
    if (auto refused = refuseToken(request)) {
        return *refused;
    }
    if (target.route == "notify_read") {
        if (mediaType(request) != "application/json") {
            return errorReply(415, "unsupported_media_type",
                              "Content-Type must be application/json.");
        }
        if (!body.is_object()) {
            return errorReply(400, "invalid_json", "Request body must be a JSON object.");
        }
    }
    return notify_.answer(target.route, request, body);
}

void Server::put(const Target& target, const httplib::Request& request,
                 httplib::Response& response) {
    switch (storage_.check("PUT", request.path, request.get_param_value("expires"),
                           request.get_param_value("signature"))) {
    case Storage::Access::unsigned_:
        return storageError(response, 403, "AccessDenied",
                            "Query-string authentication requires the expires and signature "
                            "parameters");
    case Storage::Access::badSignature:
        return storageError(response, 403, "SignatureDoesNotMatch",
                            "The request signature we calculated does not match the signature "
                            "you provided.");
    case Storage::Access::expired:
        return storageError(response, 403, "AccessDenied", "Request has expired");
    case Storage::Access::granted:
        break;
    }
    // The URL is the authority here; a session token has no business on it.
    if (request.has_header("x-session-token")) {
        return storageError(response, 400, "InvalidRequest",
                            "Storage requests must not carry x-session-token.");
    }
    if (mediaType(request) != "audio/aac") {
        return storageError(response, 400, "InvalidArgument",
                            "Content-Type must be audio/aac, not \"" +
                                request.get_header_value("Content-Type") + "\".");
    }
    const auto upload = model_.upload(target.meeting, target.segment);
    if (!upload) {
        return storageError(response, 404, "NoSuchUpload", "The segment is not known.");
    }
    const auto size = static_cast<long long>(request.body.size());
    if (size != upload->length) {
        return storageError(response, 400, "IncompleteBody",
                            "The body is " + std::to_string(size) +
                                " bytes; the presigned content_length is " +
                                std::to_string(upload->length) + ".");
    }
    if (const auto problem = adtsProblem(request.body)) {
        return storageError(response, 400, "InvalidAudio", *problem);
    }
    try {
        storage_.write(upload->file, request.body);
    } catch (const std::exception& error) {
        return storageError(response, 500, "InternalError", error.what());
    }
    model_.stored(target.meeting, target.segment, size);
    response.status = 200;
    response.set_header("ETag", "\"" + md5Hex(request.body) + "\"");
}

bool Server::dropConnection(const httplib::Request& request) const {
    std::vector<int> found;
    if (request.ssl) {
        found.push_back(SSL_get_fd(request.ssl));
    } else {
        found = socketsOnPort(port_, std::pair{request.remote_addr, request.remote_port});
    }
    const int fd = found.empty() ? -1 : found.front();
    // Shutting the socket down, not closing it: httplib still owns the descriptor
    // and closes it when its write fails.
    return fd >= 0 && ::shutdown(fd, SHUT_RDWR) == 0;
}

void Server::control(const httplib::Request& request, httplib::Response& response) {
    const std::string name = request.path.substr(std::string("/_control/").size());
    const std::string& method = request.method;
    const json body =
        request.body.empty() ? json::object() : json::parse(request.body, nullptr, false);
    if (!body.is_object()) {
        return answer(response, errorReply(400, "invalid_json", "Body must be a JSON object."));
    }
    const auto text = [&](const char* key) -> std::optional<std::string> {
        const auto found = body.find(key);
        if (found == body.end() || !found->is_string()) {
            return std::nullopt;
        }
        return found->get<std::string>();
    };
    const auto missing = [&](const char* key) {
        answer(response, errorReply(400, "invalid_control", std::string(key) + " is required."));
    };

    if (name.starts_with("notify/")) {
        return answer(response, notify_.control(method, name.substr(7), body));
    }
    if (method == "POST" && name == "update") {
        return answer(response, updates_.control(body));
    }
    if (name.starts_with("auth/")) {
        return answer(response, auth_.control(name.substr(5), method, body));
    }
    if (method == "GET" && name == "log") {
        return answer(response, Reply{200, log_->entries()});
    }
    if (method == "POST" && name == "reset-log") {
        log_->reset();
        return answer(response, Reply{200, {{"ok", true}}});
    }
    if (method == "GET" && name == "state") {
        json state = model_.state();
        state["faults"] = faults_.pending();
        std::lock_guard lock(tokensMutex_);
        state["revoked_tokens"] = revoked_.size();
        return answer(response, Reply{200, state});
    }
    if (name == "faults" && method == "GET") {
        return answer(response, Reply{200, faults_.pending()});
    }
    if (name == "faults" && method == "DELETE") {
        faults_.clear();
        return answer(response, Reply{200, {{"ok", true}}});
    }
    if (name == "faults" && method == "POST") {
        if (const auto problem = faults_.add(body)) {
            return answer(response, errorReply(400, "invalid_fault", *problem));
        }
        return answer(response, Reply{200, {{"ok", true}, {"pending", faults_.pending()}}});
    }
    if (name == "revoke" && method == "POST") {
        const auto token = text("token");
        if (!token) {
            return missing("token");
        }
        std::lock_guard lock(tokensMutex_);
        revoked_.insert(*token);
        return answer(response, Reply{200, {{"ok", true}}});
    }
    if (name == "stop-recording" && method == "POST") {
        const auto meeting = text("meeting");
        return meeting ? answer(response, model_.stopByServer(*meeting)) : missing("meeting");
    }
    if (name == "takeover" && method == "POST") {
        const auto meeting = text("meeting");
        const bool newRecording = body.value("new_recording", json(false)) == json(true);
        return meeting ? answer(response, model_.takeover(*meeting, newRecording))
                       : missing("meeting");
    }
    if (name == "notice" && method == "POST") {
        if (!body.contains("version") || !body["version"].is_number()) {
            return missing("version (a number)");
        }
        return answer(response, model_.setNotice(text("meeting"), body["version"]));
    }
    answer(response, errorReply(404, "not_found", "No control route " + method + " " + name + "."));
}

} // namespace devserver
