#include "support/DevServer.h"

#include <httplib.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace tessel::test {

namespace {

std::string field(const std::string& line, const std::string& key) {
    const auto at = line.find(" " + key + "=");
    if (at == std::string::npos) {
        return {};
    }
    const auto start = at + key.size() + 2;
    return line.substr(start, line.find(' ', start) - start);
}

} // namespace

DevServer::DevServer(bool https, double presignTTL) {
    char pattern[] = "/tmp/velmora-test-server.XXXXXX";
    dataDir_ = ::mkdtemp(pattern);
    int out[2];
    if (::pipe(out) != 0) {
        throw std::runtime_error("pipe failed");
    }
    const std::string ttl = std::to_string(presignTTL);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::dup2(out[1], STDOUT_FILENO);
        ::close(out[0]);
        ::close(out[1]);
        std::vector<const char*> args{
            TESSEL_DEVSERVER_PATH, "--port",        "0",        "--data-dir",
            dataDir_.c_str(),      "--presign-ttl", ttl.c_str()};
        if (https) {
            args.push_back("--https");
        }
        args.push_back(nullptr);
        ::execv(TESSEL_DEVSERVER_PATH, const_cast<char* const*>(args.data()));
        ::_exit(127);
    }
    ::close(out[1]);

    // The one ready line, with a deadline rather than a fixed sleep.
    std::string line;
    pollfd watch{out[0], POLLIN, 0};
    while (line.find('\n') == std::string::npos && ::poll(&watch, 1, 10000) > 0) {
        char buffer[512];
        const ssize_t n = ::read(out[0], buffer, sizeof buffer);
        if (n <= 0) {
            break;
        }
        line.append(buffer, static_cast<size_t>(n));
    }
    ::close(out[0]);
    line = line.substr(0, line.find('\n'));
    if (line.rfind("velmora-devserver ready ", 0) != 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        throw std::runtime_error("velmora-devserver did not start: " + line);
    }
    origin_ = line.substr(24, line.find(' ', 24) - 24);
    certificate_ = field(line, "cert");
}

DevServer::~DevServer() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        int status = 0;
        for (int i = 0; i < 200 && ::waitpid(pid_, &status, WNOHANG) == 0; ++i) {
            ::usleep(10000);
        }
        if (::waitpid(pid_, &status, WNOHANG) == 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
        }
    }
    std::error_code ignored;
    std::filesystem::remove_all(dataDir_, ignored);
}

nlohmann::json DevServer::control(const std::string& action, const nlohmann::json& body) const {
    httplib::Client client(origin_);
    if (!certificate_.empty()) {
        client.set_ca_cert_path(certificate_.c_str());
    }
    client.set_read_timeout(10, 0);
    auto result =
        action == "log" || action == "state"
            ? client.Get(("/_control/" + action).c_str())
            : client.Post(("/_control/" + action).c_str(), body.dump(), "application/json");
    if (!result || result->status != 200) {
        throw std::runtime_error("control " + action + " failed");
    }
    return nlohmann::json::parse(result->body);
}

nlohmann::json DevServer::requestLog() const {
    return control("log", {});
}
void DevServer::resetLog() const {
    control("reset-log", nlohmann::json::object());
}
nlohmann::json DevServer::state() const {
    return control("state", {});
}

void DevServer::fail(const std::string& route, int count, int status,
                     const std::string& body) const {
    control(
        "faults",
        {{"route", route}, {"count", count}, {"mode", "fail"}, {"status", status}, {"body", body}});
}
void DevServer::drop(const std::string& route, int count) const {
    control("faults", {{"route", route}, {"count", count}, {"mode", "drop"}});
}
void DevServer::delay(const std::string& route, int count, int milliseconds) const {
    control("faults",
            {{"route", route}, {"count", count}, {"mode", "delay"}, {"delay_ms", milliseconds}});
}
void DevServer::redirect(const std::string& route, int count, const std::string& location) const {
    control("faults",
            {{"route", route}, {"count", count}, {"mode", "redirect"}, {"location", location}});
}
void DevServer::revoke(const std::string& token) const {
    control("revoke", {{"token", token}});
}
void DevServer::stopRecording(const std::string& meeting) const {
    control("stop-recording", {{"meeting", meeting}});
}
void DevServer::takeover(const std::string& meeting, bool newRecording) const {
    control("takeover", {{"meeting", meeting}, {"new_recording", newRecording}});
}

} // namespace tessel::test
