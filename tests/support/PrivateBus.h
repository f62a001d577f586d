// A program that must never touch the desktop's session bus starts itself
// again under dbus-run-session with the given configuration; the new process
// finds TESSEL_PRIVATE_BUS set. Returns only when that fails.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace tessel::test {

inline int rerunOnPrivateBus(int argc, char** argv, const char* busConfig) {
    setenv("TESSEL_PRIVATE_BUS", "1", 1);
    std::string config = std::string("--config-file=") + busConfig;
    char self[4096] = {};
    if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) {
        std::perror("/proc/self/exe");
        return 1;
    }
    std::vector<char*> arguments{const_cast<char*>("dbus-run-session"), config.data(),
                                 const_cast<char*>("--"), self};
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    arguments.push_back(nullptr);
    execvp("dbus-run-session", arguments.data());
    std::perror("dbus-run-session");
    return 1;
}

} // namespace tessel::test
