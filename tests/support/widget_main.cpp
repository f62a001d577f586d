// The main of test executables that show widgets: a QApplication instead of
// the plain core application. Linked in place of test_main.cpp, which the
// linker then leaves in the support library.
#include <QApplication>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    // ctest lists the tests by running this without the tests' environment, and
    // a machine without a display has no other platform to open.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    for (int round = 0; round < 10; ++round) {
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
    }
    return result;
}
