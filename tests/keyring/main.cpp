// The keyring tests run on a session bus of their own: the binary starts
// itself again under dbus-run-session, so the desktop's keyring is never
// touched and every daemon on that bus is one a test started.
#include "support/PrivateBus.h"

#include <QCoreApplication>
#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char** argv) {
    if (!std::getenv("TESSEL_PRIVATE_BUS")) {
        return tessel::test::rerunOnPrivateBus(argc, argv, TESSEL_PRIVATE_BUS_CONFIG);
    }
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
