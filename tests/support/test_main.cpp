#include <QCoreApplication>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    // A coroutine parked on a resumption that was posted as its test ended runs
    // to its end here, so the leak checker reports only what really leaked.
    for (int round = 0; round < 10; ++round) {
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
    }
    return result;
}
