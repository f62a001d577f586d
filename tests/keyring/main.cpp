// The keyring tests run on a session bus of their own: the binary starts
// itself again under dbus-run-session, so the desktop's keyring is never
// touched and every daemon on that bus is one a test started.
#include <QCoreApplication>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    if (!std::getenv("TESSEL_PRIVATE_BUS")) {
        setenv("TESSEL_PRIVATE_BUS", "1", 1);
        std::string config = "--config-file=" TESSEL_PRIVATE_BUS_CONFIG;
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
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
