// The subscription watch with the stand-in tools and virtual time: the
// minute's guard and its caption, the two failure captions, a switch that
// waits out the guard, alerts, and the accounts tool standing in for meterly.
#include "subscriptions/SubscriptionsModel.h"
#include "subscriptions/SubscriptionsTestSupport.h"

#include "support/FakeClock.h"
#include "support/FakeTool.h"
#include "support/Wait.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <cmath>

using namespace tessel;
using namespace tessel::test;
using namespace Qt::Literals::StringLiterals;
using nlohmann::json;

namespace {

const QString window = uR"({"kind":"session","label":"5h","used_pct":4})"_s;

std::string meterlyReading(const QString& alerts = {}) {
    const QStringList seats{seatJSON(u"claude:work"_s, u"claude"_s, u"work"_s, {}, window)};
    return reading(seats, alerts).toJSON().toStdString();
}

struct SubscriptionsModelTest : ::testing::Test {
    FakeTool tool;
    FakeClock clock;
    QTemporaryDir dir;
    std::vector<QString> alerts;
    std::unique_ptr<AccountsModel> accounts;
    std::unique_ptr<SubscriptionsModel> model;

    void SetUp() override {
        pinLocaleAndZone();
        tool.exportToProcess();
    }

    // The model's timers end on the virtual clock, which must outlive them.
    void TearDown() override {
        model.reset();
        FakeClock::settle();
    }

    // Whole milliseconds: the virtual clock's sums of steps land a hair either side.
    double now() const { return std::round(clock.now * 1000) / 1000; }
    QString alertsFile() const { return dir.filePath(u"alerts-last"_s); }

    SubscriptionsModel& build(bool meterly, bool accountsTool) {
        std::shared_ptr<VantorAccountsClient> accountsClient;
        if (accountsTool) {
            accountsClient = VantorAccountsClient::create(
                VantorAccountsCLI::runner(tool.install(u"vantor-accounts"_s)), 0,
                clock.nowFunction(), clock.sleepFunction());
        }
        accounts = std::make_unique<AccountsModel>(accountsClient);
        std::shared_ptr<MeterlyClient> client;
        if (meterly) {
            client = MeterlyClient::create(MeterlyCLI::runner(tool.install(u"meterly"_s)), 60,
                                           [this] { return now(); });
        }
        SubscriptionsModel::Parts parts{
            .client = client,
            .accounts = accounts.get(),
            .alertsStore = MeterlyAlertsStore::create(alertsFile()),
            .snapshotStore = MeterlySnapshotStore(dir.path()),
            .notInstalled = u"Could not resolve meterly."_s,
            .startingServices = false,
            .desktop = {},
            .notifier = [this](QString body) -> Task<void> {
                alerts.push_back(body);
                co_return;
            },
            .now = [this] { return at("2024-05-06T10:00:00Z").addMSecs(qint64(now() * 1000)); },
            .sleep = clock.sleepFunction(),
        };
        model = std::make_unique<SubscriptionsModel>(std::move(parts));
        return *model;
    }

    std::size_t runs(const char* command) const {
        const auto all = tool.runs();
        return std::count_if(all.begin(), all.end(),
                             [&](const json& run) { return run["args"][0] == command; });
    }
};

} // namespace

TEST_F(SubscriptionsModelTest, TheMinutesGuardAndItsCaption) {
    tool.answer(
        json::array({{{"steps", json::array({{{"stdout", meterlyReading(u",\"alerts\":[\"work: 5h "
                                                                        u"capped\"]"_s)}}})}}}));
    auto& subs = build(true, false);
    wait(subs.refresh(false));
    EXPECT_EQ(runs("status"), 1u);
    EXPECT_EQ(alerts, std::vector<QString>{u"work: 5h capped"_s});
    EXPECT_EQ(subs.menuSymbol(), u"v.circle"_s);

    clock.advance(30);
    wait(subs.refresh(false));
    EXPECT_FALSE(subs.refreshCaption());
    wait(subs.refresh(true));
    EXPECT_EQ(subs.refreshCaption(), u"Updated 30 s ago"_s);
    EXPECT_EQ(runs("status"), 1u);
    clock.advance(1.5);
    EXPECT_FALSE(subs.refreshCaption());

    clock.advance(28.5); // exactly a minute after the first attempt
    wait(subs.refresh(false));
    EXPECT_EQ(runs("status"), 2u);
    EXPECT_EQ(alerts.size(), 1u); // the alert still stands: not again
}

TEST_F(SubscriptionsModelTest, AFailedRefreshWithAndWithoutASavedReading) {
    for (const bool saved : {true, false}) {
        if (saved) {
            MeterlySnapshotStore(dir.path()).save(MeterlySnapshot::parse(meterlyReading()));
        } else {
            QFile::remove(MeterlySnapshotStore(dir.path()).path);
        }
        tool.answer(json::array(
            {{{"steps", json::array({{{"stderr", "meterly: no config\n"}}})}, {"exit", 3}}}));
        auto& subs = build(true, false);
        wait(subs.refresh(false));
        EXPECT_EQ(subs.errors(), QStringList{u"meterly: no config"_s});
        EXPECT_EQ(subs.failureCaption(), saved ? u"Could not refresh; showing 12:00 PM"_s
                                               : u"Could not refresh; no saved reading yet"_s);
        EXPECT_EQ(subs.showingFailedRefresh(), saved);
        EXPECT_EQ(subs.snapshot().has_value(), saved);
        clock.advance(2);
        EXPECT_FALSE(subs.showingFailedRefresh());
        EXPECT_TRUE(subs.failureCaption());
    }
}

TEST_F(SubscriptionsModelTest, ASwitchWaitsOutTheGuardThenReads) {
    tool.answer(json::array({
        {{"args", {"use", "b"}}, {"steps", json::array({{{"stdout", "ok\n"}}})}},
        {{"steps", json::array({{{"stdout", meterlyReading()}}})}},
    }));
    auto& subs = build(true, true);
    wait(subs.refresh(false));
    clock.advance(10);
    const std::size_t sleeps = clock.sleeps.size();
    auto switching = subs.use(u"b"_s);
    // The tool's `use` is a real process: time moves once the switch waits.
    const QDeadlineTimer deadline(30000);
    while (clock.sleeps.size() == sleeps && !deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    ASSERT_EQ(clock.sleeps.size(), sleeps + 1);
    EXPECT_EQ(clock.sleeps.back(), 50);
    clock.advance(49.9);
    EXPECT_EQ(subs.switchingName(), u"b"_s);
    wait(subs.refresh(true)); // a person's refresh during the switch runs nothing
    EXPECT_EQ(runs("status"), 1u);
    clock.advance(0.2);
    wait(std::move(switching));
    EXPECT_FALSE(subs.switchingName());
    EXPECT_EQ(runs("status"), 2u);
}

TEST_F(SubscriptionsModelTest, TheAccountsToolStandsInAndNeverTouchesTheAlerts) {
    tool.answer(json::array(
        {{{"args", {"--tsv", "status"}},
          {"steps", json::array({{{"stdout", "*\tmain\tm@x.io\t92\t\t\t\t\t30d\t\n"}}})}}}));
    auto& subs = build(false, true);
    wait(subs.refresh(false));
    ASSERT_TRUE(subs.snapshot());
    EXPECT_TRUE(subs.errors().isEmpty());
    EXPECT_TRUE(alerts.empty());
    EXPECT_FALSE(QFile::exists(alertsFile()));

    // With neither tool: the words for a missing tool.
    auto& none = build(false, false);
    wait(none.refresh(false));
    EXPECT_EQ(none.errors(), QStringList{u"Could not resolve meterly."_s});
}
