// velmora-faketool: plays a sibling tool (meterly, vantor-accounts,
// velmora-conductor-onboard, ...) under whatever name it is started as, so the
// application and its tests can run without the real tools.
//
//   VELMORA_FAKETOOL_SCENARIO  the scenario file: what to answer (see Scenario.h)
//   VELMORA_FAKETOOL_LOG       where each run is logged as a JSON line; wins over
//                              the scenario's "log"
//
// Each run is logged before it answers, so a run that is killed is still seen:
// the name, the arguments, what standard input was, PATH, and the mode and
// content of every file given to a "--*-file" option.
#include "Scenario.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using nlohmann::json;

const char* const self = "velmora-faketool";

std::string baseName(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash ? slash + 1 : path;
}

// What file descriptor 0 is: "null" for the null device, else "pipe", "tty",
// "file", "closed" or "other".
std::string standardInput() {
    struct stat in {};
    if (::fstat(0, &in) != 0) {
        return "closed";
    }
    struct stat null {};
    if (S_ISCHR(in.st_mode) && ::stat("/dev/null", &null) == 0 && in.st_rdev == null.st_rdev) {
        return "null";
    }
    if (S_ISFIFO(in.st_mode)) {
        return "pipe";
    }
    if (::isatty(0)) {
        return "tty";
    }
    return S_ISREG(in.st_mode) ? "file" : "other";
}

json fileFacts(const std::string& path) {
    json facts{{"path", path}};
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        facts["error"] = std::strerror(errno);
        return facts;
    }
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
    facts["mode"] = mode;
    std::ifstream file(path, std::ios::binary);
    std::stringstream bytes;
    bytes << file.rdbuf();
    facts["content"] = bytes.str();
    return facts;
}

// "--name-file VALUE" and "--name-file=VALUE".
json givenFiles(const std::vector<std::string>& arguments) {
    json files = json::object();
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (!argument.starts_with("--")) {
            continue;
        }
        const auto equals = argument.find('=');
        const std::string name = argument.substr(0, equals);
        if (!name.ends_with("-file")) {
            continue;
        }
        if (equals != std::string::npos) {
            files[name] = fileFacts(argument.substr(equals + 1));
        } else if (i + 1 < arguments.size()) {
            files[name] = fileFacts(arguments[++i]);
        }
    }
    return files;
}

void appendLog(const std::string& path, const json& entry) {
    if (path.empty()) {
        return;
    }
    const std::string line = entry.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        std::fprintf(stderr, "%s: cannot write the log %s: %s\n", self, path.c_str(),
                     std::strerror(errno));
        return;
    }
    // One write per line, so runs side by side never interleave within a line.
    [[maybe_unused]] const ssize_t written = ::write(fd, line.data(), line.size());
    ::close(fd);
}

bool writeAll(int fd, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

int play(const faketool::Answer& answer) {
    for (const faketool::Step& step : answer.steps) {
        if (step.kind == faketool::Step::Kind::sleep) {
            std::this_thread::sleep_for(std::chrono::duration<double>(step.seconds));
            continue;
        }
        if (step.kind == faketool::Step::Kind::writeFile) {
            const int fd =
                ::open(step.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            const bool written = fd >= 0 && writeAll(fd, step.bytes);
            if (fd >= 0) {
                ::close(fd);
            }
            if (!written) {
                std::fprintf(stderr, "%s: cannot write %s: %s\n", self, step.path.c_str(),
                             std::strerror(errno));
                return 74;
            }
            continue;
        }
        std::string bytes;
        bytes.reserve(step.bytes.size() * static_cast<std::size_t>(std::max(step.repeat, 0L)));
        for (long i = 0; i < step.repeat; ++i) {
            bytes += step.bytes;
        }
        if (!writeAll(step.fd, bytes)) {
            return 74;
        }
    }
    if (answer.signal) {
        ::signal(*answer.signal, SIG_DFL);
        ::kill(::getpid(), *answer.signal);
        ::pause();
    }
    return answer.exitStatus;
}

} // namespace

int main(int argc, char** argv) {
    // A reader that went away must not kill the tool before its answer ends.
    ::signal(SIGPIPE, SIG_IGN);
    const std::string tool = baseName(argv[0]);
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const char* scenarioPath = std::getenv("VELMORA_FAKETOOL_SCENARIO");
    const char* logOverride = std::getenv("VELMORA_FAKETOOL_LOG");

    faketool::Scenario scenario;
    std::string problem;
    if (!scenarioPath || !*scenarioPath) {
        problem = "no scenario — set VELMORA_FAKETOOL_SCENARIO to a scenario file";
    } else {
        try {
            scenario = faketool::Scenario::load(scenarioPath);
        } catch (const std::exception& error) {
            problem = error.what();
        }
    }
    const char* path = std::getenv("PATH");
    appendLog(logOverride && *logOverride ? logOverride : scenario.logPath,
              json{{"tool", tool},
                   {"args", arguments},
                   {"stdin", standardInput()},
                   {"path", path ? path : ""},
                   {"files", givenFiles(arguments)},
                   {"pid", ::getpid()}});
    if (!problem.empty()) {
        std::fprintf(stderr, "%s: %s\n", self, problem.c_str());
        return 70;
    }
    std::optional<faketool::Answer> answer;
    try {
        answer = scenario.answer(tool, arguments);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", self, error.what());
        return 70;
    }
    if (!answer) {
        std::string line;
        for (const std::string& argument : arguments) {
            line += " " + argument;
        }
        std::fprintf(stderr, "%s: the scenario has no answer for %s%s\n", self, tool.c_str(),
                     line.c_str());
        return 70;
    }
    return play(*answer);
}
