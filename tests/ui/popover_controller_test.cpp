// The popover controller with offscreen widgets and synthesised input.
#include "PopoverController.h"
#include "errors/ErrorLog.h"

#include <QApplication>
#include <QTest>
#include <gtest/gtest.h>

using tessel::app::PopoverController;

namespace {

struct Controller : ::testing::Test {
    Controller() {
        popover.setWindowFlags(Qt::Tool | Qt::FramelessWindowHint);
        floating.setWindowFlags(Qt::Tool);
        controller.registerWindow(&popover);
    }
    void show(QWidget& window) {
        window.show();
        window.activateWindow(); // offscreen windows are not activated by themselves
        QApplication::processEvents();
    }
    std::vector<QString> lines;
    tessel::log::ScopedSink sink{
        [this](tessel::log::Level, const char*, const QString& text) { lines.push_back(text); }};
    QWidget popover, other, floating;
    PopoverController controller;
};

} // namespace

TEST_F(Controller, WhatEndsThePopoverAndWhatDoesNot) {
    other.show();
    show(popover);
    ASSERT_TRUE(controller.isMonitoring());

    // Left up: a click inside, on a floating window of ours, a scroll, any key
    // but Escape, and Escape aimed at another window while the popover isn't active.
    QTest::mouseClick(&popover, Qt::LeftButton);
    show(floating);
    QTest::mouseClick(&floating, Qt::LeftButton);
    QTest::keyClick(&popover, Qt::Key_A);
    QWheelEvent wheel({5, 5}, {5, 5}, {}, {0, 120}, Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase,
                      false);
    QApplication::sendEvent(&popover, &wheel);
    show(other);
    QTest::keyClick(&other, Qt::Key_Escape);
    EXPECT_TRUE(popover.isVisible());
    EXPECT_TRUE(lines.empty());

    // A click on an ordinary window: no status item here, so tier 2 closes it.
    show(popover);
    QTest::mouseClick(&other, Qt::LeftButton);
    EXPECT_FALSE(popover.isVisible());
    EXPECT_FALSE(controller.isMonitoring());
    EXPECT_EQ(lines, std::vector<QString>{"tessel popover: dismissed via tier 2"});

    // Escape in the popover, with the status item's toggle: tier 1, the key used up.
    controller.statusItemToggle = [this] {
        popover.hide();
        return true;
    };
    show(popover);
    QTest::keyClick(&popover, Qt::Key_Escape);
    EXPECT_FALSE(popover.isVisible());
    EXPECT_EQ(controller.lastDismissTier(), 1);

    // On a hidden popover dismiss logs nothing and keeps the tier.
    controller.dismiss();
    EXPECT_EQ(lines.size(), 2u);
    EXPECT_EQ(controller.lastDismissTier(), 1);
}

TEST_F(Controller, RegisteringTwiceAddsNothingAndDetachingStopsEverything) {
    controller.registerWindow(&popover);
    show(popover);
    controller.registerWindow(&popover);
    EXPECT_TRUE(controller.isMonitoring());

    controller.registerWindow(nullptr);
    EXPECT_FALSE(controller.isMonitoring());
    show(popover);
    QTest::keyClick(&popover, Qt::Key_Escape);
    show(other);
    QTest::mouseClick(&other, Qt::LeftButton);
    EXPECT_TRUE(popover.isVisible());
    EXPECT_TRUE(lines.empty());
}
