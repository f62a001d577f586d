#include "support/DevServer.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <vector>

namespace tessel::test {

using nlohmann::json;

namespace {

constexpr auto readyDeadline = std::chrono::seconds(15);

// The text between `key` and the next " x=" field, or the end of the line.
std::string field(const std::string& line, const std::string& key) {
    const auto start = line.find(" " + key + "=");
    if (start == std::string::npos) {
        return {};
    }
    const auto from = start + key.size() + 2;
    std::string::size_type end = std::string::npos;
    for (const char* next : {" data=", " log=", " cert="}) {
        const auto at = line.find(next, from);
        if (at != std::string::npos && at < end) {
            end = at;
        }
    }
    return line.substr(from, end == std::string::npos ? std::string::npos : end - from);
}

} // namespace

DevServer::DevServer(bool https, double presignTTL)
    : DevServer(Options{https, presignTTL, std::string()}) {}

DevServer::DevServer(Options options) {
    namespace fs = std::filesystem;
    std::string dir = (fs::temp_directory_path() / "tessel-devserver-XXXXXX").string();
    if (!mkdtemp(dir.data())) {
        throw std::runtime_error("DevServer: cannot create a data directory");
    }
    dataDir_ = dir;

    std::vector<std::string> args = {TESSEL_DEVSERVER_PATH, "--port", "0", "--data-dir", dataDir_};
    if (options.https) {
        args.emplace_back("--https");
    }
    if (options.presignTTL) {
        args.insert(args.end(), {"--presign-ttl", std::to_string(*options.presignTTL)});
    }
    if (!options.basePath.empty()) {
        args.insert(args.end(), {"--base-path", options.basePath});
    }
    basePath_ = options.basePath.empty() ? "/meet" : options.basePath;
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);

    int pipeFDs[2];
    if (pipe2(pipeFDs, O_CLOEXEC) != 0) {
        throw std::runtime_error("DevServer: pipe failed");
    }
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) {
        throw std::runtime_error("DevServer: fork failed");
    }
    if (pid_ == 0) {
        // Only async-signal-safe calls from here to exec: the test has threads.
        // The server goes when the test process dies, even by SIGKILL.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) {
            _exit(126);
        }
        dup2(pipeFDs[1], STDOUT_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(pipeFDs[1]);

    // The ready line, within a deadline; an early end of the pipe means the
    // server died, and its own words are on the test's stderr.
    std::string line;
    const auto deadline = std::chrono::steady_clock::now() + readyDeadline;
    bool ended = false;
    while (line.find('\n') == std::string::npos && !ended) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            break;
        }
        pollfd p{pipeFDs[0], POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left.count())) <= 0) {
            continue;
        }
        char buffer[512];
        const ssize_t n = read(pipeFDs[0], buffer, sizeof buffer);
        if (n > 0) {
            line.append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0) {
            ended = true;
        }
    }
    close(pipeFDs[0]);
    const std::string prefix = "velmora-devserver ready ";
    if (line.find('\n') == std::string::npos || !line.starts_with(prefix)) {
        const int status = stop();
        throw std::runtime_error("DevServer: no ready line from " + args[0] + " (got \"" + line +
                                 "\", wait status " + std::to_string(status) + ")");
    }
    line.erase(line.find('\n'));
    origin_ = line.substr(prefix.size(), line.find(' ', prefix.size()) - prefix.size());
    logPath_ = field(line, "log");
    certPath_ = field(line, "cert");
}

DevServer::~DevServer() {
    stop();
    const bool keep =
        std::getenv("TESSEL_KEEP_DEVSERVER_DATA") != nullptr || ::testing::Test::HasFailure();
    if (keep) {
        std::fprintf(stderr, "DevServer: data kept in %s\n", dataDir_.c_str());
        return;
    }
    std::error_code ignored;
    std::filesystem::remove_all(dataDir_, ignored);
}

int DevServer::stop() {
    if (pid_ <= 0) {
        return -1;
    }
    kill(pid_, SIGTERM);
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (waitpid(pid_, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    pid_ = -1;
    return status;
}

std::unique_ptr<httplib::Client> DevServer::client() const {
    auto out = std::make_unique<httplib::Client>(origin_);
    if (!certPath_.empty()) {
        out->set_ca_cert_path(certPath_);
        out->enable_server_certificate_verification(true);
    }
    out->set_connection_timeout(5);
    out->set_read_timeout(30);
    return out;
}

json DevServer::call(const std::string& method, const std::string& name, const json& body) const {
    const auto c = client();
    const std::string path = "/_control/" + name;
    httplib::Result result = method == "GET"      ? c->Get(path)
                             : method == "DELETE" ? c->Delete(path)
                                                  : c->Post(path, body.dump(), "application/json");
    if (!result) {
        throw std::runtime_error("DevServer: " + method + " " + path +
                                 " failed: " + httplib::to_string(result.error()));
    }
    if (result->status != 200) {
        throw std::runtime_error("DevServer: " + method + " " + path + " answered " +
                                 std::to_string(result->status) + ": " + result->body);
    }
    return json::parse(result->body);
}

void DevServer::fail(const std::string& route, int count, int status, const std::string& body,
                     const std::string& contentType) const {
    injectFault({{"route", route},
                 {"count", count},
                 {"mode", "fail"},
                 {"status", status},
                 {"body", body},
                 {"content_type", contentType}});
}

void DevServer::drop(const std::string& route, int count) const {
    injectFault({{"route", route}, {"count", count}, {"mode", "drop"}});
}

void DevServer::delay(const std::string& route, int count, int milliseconds) const {
    injectFault(
        {{"route", route}, {"count", count}, {"mode", "delay"}, {"delay_ms", milliseconds}});
}

void DevServer::redirect(const std::string& route, int count, const std::string& location) const {
    injectFault({{"route", route}, {"count", count}, {"mode", "redirect"}, {"location", location}});
}

void DevServer::injectFault(const json& fault) const {
    call("POST", "faults", fault);
}

void DevServer::clearFaults() const {
    call("DELETE", "faults");
}

void DevServer::revoke(const std::string& token) const {
    call("POST", "revoke", {{"token", token}});
}

void DevServer::stopRecording(const std::string& meeting) const {
    call("POST", "stop-recording", {{"meeting", meeting}});
}

void DevServer::takeover(const std::string& meeting, bool newRecording) const {
    call("POST", "takeover", {{"meeting", meeting}, {"new_recording", newRecording}});
}

void DevServer::setNoticeVersion(const std::string& meeting, int version) const {
    call("POST", "notice", {{"meeting", meeting}, {"version", version}});
}

json DevServer::control(const std::string& action, const json& body) const {
    return call("POST", action, body);
}

json DevServer::requestLog() const {
    return call("GET", "log");
}

void DevServer::resetLog() const {
    call("POST", "reset-log");
}

json DevServer::state() const {
    return call("GET", "state");
}

} // namespace tessel::test
