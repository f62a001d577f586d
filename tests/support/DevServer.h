// The local server (velmora-devserver) as a child process of a test: a free
// port, a fresh data directory, and its control interface. The process is
// stopped by PID when the object goes.
#pragma once

#include <QProcess>

#include <nlohmann/json.hpp>

#include <memory>
#include <string>
#include <vector>

// The HTTP library's header is large; only the tests that use client() include it.
namespace httplib {
class Client;
}

namespace tessel::test {

class DevServer {
public:
    struct Options {
        bool https = false;
    };

    // Starts the server and waits for its ready line; throws when it doesn't come.
    DevServer();
    explicit DevServer(Options options);
    // Stops the server; the data directory goes too, unless the test failed or
    // TESSEL_KEEP_DEVSERVER_DATA is set, so a failure can be looked into.
    ~DevServer();
    DevServer(const DevServer&) = delete;
    DevServer& operator=(const DevServer&) = delete;

    const std::string& origin() const { return origin_; } // "http://127.0.0.1:41234"
    std::string meetBase() const { return origin_ + "/meet"; }
    const std::string& dataDir() const { return dataDir_; }
    const std::string& certPath() const { return certPath_; } // with https only

    // A client for the server's origin that trusts its certificate.
    std::unique_ptr<httplib::Client> client() const;

    // Faults for the next `count` requests of a route: "create", "list", "read",
    // "consent", "start", "ack", "join", "snapshot", "request", "stop", "manifest",
    // "presign", "complete", "end", "put", or "*" for any of them.
    // fail: answer `status` and the JSON `body` without doing the work.
    void fail(const std::string& route, int count, int status, const std::string& body) const {
        fault(route, count, {{"mode", "fail"}, {"status", status}, {"body", body}});
    }
    // drop: do the work, then close the connection without a byte of answer.
    void drop(const std::string& route, int count = 1) const {
        fault(route, count, {{"mode", "drop"}});
    }
    // delay: wait, then handle normally.
    void delay(const std::string& route, int count, int milliseconds) const {
        fault(route, count, {{"mode", "delay"}, {"delay_ms", milliseconds}});
    }

    // Any answer for the next `count` requests of a route, also those of the
    // device sign-in service: "device_code", "device_token", "device_page".
    void script(const std::string& route, int count, int status, const std::string& body,
                const std::string& contentType = "application/json") const {
        fault(
            route, count,
            {{"mode", "fail"}, {"status", status}, {"body", body}, {"content_type", contentType}});
    }
    // A device code, by its user code: "approve" (with optional "email",
    // "expires_in", "token" in `details`), "deny" or "expire".
    void authorize(const std::string& action, const std::string& userCode,
                   nlohmann::json details = nlohmann::json::object()) const {
        details["user_code"] = userCode;
        control("auth/" + action, details);
    }

    // The session token is refused from now on with 401 session_revoked.
    void revoke(const std::string& token) const { control("revoke", {{"token", token}}); }
    // The organisation stops the call's latest recording.
    void stopRecording(const std::string& meeting) const {
        control("stop-recording", {{"meeting", meeting}});
    }
    // Another host session opens the call; with `newRecording` it also starts a
    // new recording part after stopping the current one.
    void takeover(const std::string& meeting, bool newRecording) const {
        control("takeover", {{"meeting", meeting}, {"new_recording", newRecording}});
    }

    // The meet and storage requests answered since the start or the last reset,
    // as a JSON array of entries (seq, t, method, path, route, status, ...).
    nlohmann::json requestLog() const { return control("log"); }
    std::vector<std::string> routes() const;       // of the log's entries, in order
    long requests(const std::string& route) const; // the log's entries of that route
    void resetLog() const { control("reset-log", nlohmann::json::object()); }
    // Meetings with presence, parts and segments, as the server holds them.
    nlohmann::json state() const { return control("state"); }

    // GET /_control/<name>, or POST with a body; the answer, or a throw unless 200.
    nlohmann::json control(const std::string& name, const nlohmann::json& body = nullptr) const;

private:
    void fault(const std::string& route, int count, nlohmann::json what) const {
        what.update({{"route", route}, {"count", count}});
        control("faults", what);
    }

    QProcess process_;
    std::string origin_;
    std::string dataDir_;
    std::string certPath_;
};

} // namespace tessel::test
