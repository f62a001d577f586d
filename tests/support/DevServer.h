// The local server (velmora-devserver) as a child process of a test: a free
// port, a fresh data directory, and helpers for its control interface. The
// process is stopped by PID when the object goes.
#pragma once

#include <httplib.h>
#include <nlohmann/json.hpp>
#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

namespace tessel::test {

class DevServer {
public:
    struct Options {
        bool https = false;
        std::optional<double> presignTTL; // seconds, may be zero or less: expired URLs
        std::string basePath;             // empty: the server's default, "/meet"
    };

    // Starts the server and waits for its ready line; throws when it doesn't come.
    explicit DevServer(Options options);
    explicit DevServer(bool https = false, double presignTTL = 900);
    // Stops the server; the data directory goes too, unless the test failed or
    // TESSEL_KEEP_DEVSERVER_DATA is set, so a failure can be looked into.
    ~DevServer();
    DevServer(const DevServer&) = delete;
    DevServer& operator=(const DevServer&) = delete;

    const std::string& origin() const { return origin_; } // "http://127.0.0.1:41234"
    std::string meetBase() const { return origin_ + basePath_; }
    const std::string& dataDir() const { return dataDir_; }
    const std::string& logPath() const { return logPath_; }
    const std::string& certificatePath() const { return certPath_; } // empty without https
    pid_t pid() const { return pid_; }

    // A client for the server's origin that trusts its certificate.
    std::unique_ptr<httplib::Client> client() const;

    // Faults for the next `count` requests of a route: "create", "list", "read",
    // "consent", "start", "ack", "join", "snapshot", "request", "stop", "manifest",
    // "presign", "complete", "end", "put", or "*" for any of them.
    // fail: answer `status` and `body` without doing the work.
    void fail(const std::string& route, int count, int status, const std::string& body,
              const std::string& contentType = "application/json") const;
    // drop: do the work, then close the connection without a byte of answer.
    void drop(const std::string& route, int count = 1) const;
    // delay: wait, then handle normally.
    void delay(const std::string& route, int count, int milliseconds) const;
    // redirect: answer 302 to `location` and do nothing.
    void redirect(const std::string& route, int count, const std::string& location) const;
    // Any fault the control interface takes, e.g. with "body_base64".
    void injectFault(const nlohmann::json& fault) const;
    void clearFaults() const;

    // The session token is refused from now on with 401 session_revoked.
    void revoke(const std::string& token) const;
    // The organisation stops the call's latest recording.
    void stopRecording(const std::string& meeting) const;
    // Another host session opens the call; with `newRecording` it also starts a
    // new recording part after stopping the current one.
    void takeover(const std::string& meeting, bool newRecording) const;
    // A new recording notice, which needs a new acknowledgement.
    void setNoticeVersion(const std::string& meeting, int version) const;

    // The meet and storage requests answered since the start or the last reset,
    // as a JSON array of entries (seq, t, method, path, route, status, ...).
    nlohmann::json requestLog() const;
    void resetLog() const;
    // Meetings with presence, parts and segments, as the server holds them.
    nlohmann::json state() const;

    // POST /_control/<action> with `body`; returns the answer, throws unless 200.
    nlohmann::json control(const std::string& action, const nlohmann::json& body) const;

    // Sends SIGTERM and waits for the exit (SIGKILL after five seconds).
    // Returns the exit status as waitpid gives it; the destructor calls it too.
    int stop();

private:
    nlohmann::json call(const std::string& method, const std::string& name,
                        const nlohmann::json& body = nlohmann::json::object()) const;

    pid_t pid_ = -1;
    std::string origin_;
    std::string basePath_;
    std::string dataDir_;
    std::string logPath_;
    std::string certPath_;
};

} // namespace tessel::test
