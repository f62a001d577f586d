// velmora-devserver as a child process of a test: its own port, its own data
// directory, stopped by PID when the test ends. The control helpers inject
// faults and read the server's log of requests.
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <sys/types.h>

namespace tessel::test {

class DevServer {
public:
    explicit DevServer(bool https = false, double presignTTL = 900);
    ~DevServer();
    DevServer(const DevServer&) = delete;
    DevServer& operator=(const DevServer&) = delete;

    const std::string& origin() const { return origin_; }
    std::string meetBase() const { return origin_ + "/meet"; }
    const std::string& dataDir() const { return dataDir_; }
    const std::string& certificatePath() const { return certificate_; }

    // The requests the server received (control requests excluded), oldest first.
    nlohmann::json requestLog() const;
    void resetLog() const;
    nlohmann::json state() const;

    // The next `count` requests of `route` ("presign", "put", "*", ...):
    void fail(const std::string& route, int count, int status, const std::string& body) const;
    void drop(const std::string& route, int count) const; // acts, then no answer
    void delay(const std::string& route, int count, int milliseconds) const;
    void redirect(const std::string& route, int count, const std::string& location) const;

    void revoke(const std::string& token) const;
    void stopRecording(const std::string& meeting) const;
    void takeover(const std::string& meeting, bool newRecording) const;

    nlohmann::json control(const std::string& action, const nlohmann::json& body) const;

private:
    pid_t pid_ = -1;
    std::string origin_;
    std::string dataDir_;
    std::string certificate_;
};

} // namespace tessel::test
