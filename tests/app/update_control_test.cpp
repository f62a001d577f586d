// The update control with an engine that only asks its questions, and the
// popover's dismissal rule as one table.
#include "app/AppVersion.h"
#include "app/UpdateController.h"
#include "errors/Failures.h"
#include "support/FakeClock.h"

#include <gtest/gtest.h>

using namespace tessel;

namespace {

class FakeEngine : public UpdateEngine {
public:
    bool canCheck() const override { return available; }
    void checkForUpdates() override { ++checks; }
    using UpdateEngine::gate;

    bool available = true;
    int checks = 0;
};

struct Update : ::testing::Test {
    Update() {
        auto owned = std::make_unique<FakeEngine>();
        engine = owned.get();
        controller = std::make_unique<UpdateController>(std::move(owned), false);
    }
    // What the engine's relaunch request records when it runs.
    std::function<void()> relaunch(int tag) {
        return [this, tag] { relaunched.push_back(tag); };
    }
    FakeEngine* engine;
    std::unique_ptr<UpdateController> controller;
    std::vector<int> relaunched;
};

} // namespace

TEST_F(Update, ACallRefusesChecksAndHoldsTheRelaunchUntilItIsCleared) {
    EXPECT_TRUE(controller->canCheckForUpdates());
    controller->setCaptureIsHeld(true);
    EXPECT_FALSE(controller->canCheckForUpdates());
    controller->checkForUpdates();
    EXPECT_EQ(engine->checks, 0);
    for (auto question :
         {&UpdateGate::mayPerformUpdateCheck, &UpdateGate::shouldProceedWithUpdate}) {
        try {
            (engine->gate()->*question)();
            ADD_FAILURE() << "a question during a call was allowed";
        } catch (const TesselError& error) {
            EXPECT_EQ(error.message(), "Finish your call before checking for updates.");
        }
    }

    // Two requests during one call: only the later stays.
    EXPECT_TRUE(engine->gate()->shouldPostponeRelaunch(relaunch(1)));
    EXPECT_TRUE(engine->gate()->shouldPostponeRelaunch(relaunch(2)));
    test::FakeClock::settle();
    EXPECT_TRUE(relaunched.empty());

    controller->setCaptureIsHeld(false);
    test::FakeClock::settle();
    EXPECT_EQ(relaunched, std::vector<int>{2});
    EXPECT_FALSE(controller->hasPostponedInstall());
    EXPECT_TRUE(controller->canCheckForUpdates());
    EXPECT_FALSE(engine->gate()->shouldPostponeRelaunch(relaunch(3)));
}

TEST_F(Update, ACallStartedBeforeTheRelaunchRunsPutsItBack) {
    controller->setCaptureIsHeld(true);
    engine->gate()->shouldPostponeRelaunch(relaunch(1));
    controller->setCaptureIsHeld(false);
    controller->setCaptureIsHeld(true); // the next call, in the same moment
    test::FakeClock::settle();
    EXPECT_TRUE(relaunched.empty());
    EXPECT_TRUE(controller->hasPostponedInstall());

    controller->setCaptureIsHeld(false);
    test::FakeClock::settle();
    EXPECT_EQ(relaunched, std::vector<int>{1});
}

TEST_F(Update, NoFeedNoCheck) {
    engine->available = false;
    emit engine->canCheckChanged();
    EXPECT_FALSE(controller->canCheckForUpdates());
    controller->checkForUpdates();
    EXPECT_EQ(engine->checks, 0);
}

TEST(AppVersion, ShortVersionTakesOnlyAText) {
    EXPECT_EQ(AppVersion::shortVersion(std::nullopt), "dev");
    EXPECT_EQ(AppVersion::shortVersion(QVariantMap{{"version", 3}}), "dev");
    EXPECT_EQ(AppVersion::shortVersion(QVariantMap{{"version", "  "}}), "dev");
    EXPECT_EQ(AppVersion::shortVersion(QVariantMap{{"version", " 1.2 "}}), " 1.2 ");
    EXPECT_NE(AppVersion::shortVersion(), "dev"); // the build's own
}
