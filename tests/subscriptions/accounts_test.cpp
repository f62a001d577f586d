#include "subscriptions/AccountsModel.h"

#include "support/FakeClock.h"
#include "support/Wait.h"

#include <gtest/gtest.h>

#include <deque>

using namespace tessel;
using namespace tessel::test;
using namespace Qt::Literals::StringLiterals;

namespace {

// A tool that answers from a script: each run takes `seconds` of virtual time.
struct ScriptedTool {
    struct Run {
        QStringList arguments;
        double startedAt;
    };
    explicit ScriptedTool(FakeClock& c) : clock(c) {}
    FakeClock& clock;
    double seconds = 0;
    ToolOutput answer{u"ok\n"_s, {}, 0};
    std::vector<Run> runs;

    ToolRunner runner() {
        return [this](QStringList arguments, CancellationToken token) -> Task<ToolOutput> {
            return run(this, std::move(arguments), std::move(token));
        };
    }
    static Task<ToolOutput> run(ScriptedTool* tool, QStringList arguments,
                                CancellationToken token) {
        tool->runs.push_back({arguments, tool->clock.now});
        if (tool->seconds > 0) {
            co_await tool->clock.sleep(tool->seconds, token);
        }
        co_return ToolOutput(tool->answer); // co_return of an lvalue would move it
    }
    std::vector<double> startTimes() const {
        std::vector<double> times;
        for (const auto& r : runs) {
            times.push_back(r.startedAt);
        }
        return times;
    }
};

struct AccountsTest : ::testing::Test {
    FakeClock clock;
    ScriptedTool tool{clock};
    std::shared_ptr<VantorAccountsClient> client =
        VantorAccountsClient::create(tool.runner(), 60, clock.nowFunction(), clock.sleepFunction());
};

} // namespace

TEST_F(AccountsTest, UsageCommandsWaitSixtySecondsFromTheEndOfTheLast) {
    wait(client->pick());
    clock.now = 20;
    auto second = client->pick();
    FakeClock::settle();
    EXPECT_EQ(clock.sleeps, std::vector<double>{40});

    // A cancelled wait fails at once and leaves the pacing as it was.
    CancellationToken token;
    auto cancelled = client->pick(token);
    token.cancel();
    EXPECT_THROW(wait(std::move(cancelled)), Cancelled);

    clock.advance(40);
    EXPECT_EQ(wait(std::move(second)), u"ok"_s);
    EXPECT_EQ(tool.startTimes(), (std::vector<double>{0, 60}));
}

TEST_F(AccountsTest, ConcurrentUsageCommandsQueueWhileUseRunsAtOnce) {
    tool.seconds = 5;
    auto a = client->status();
    auto b = client->alerts();
    auto c = client->pick();
    clock.advance(1);
    auto use = client->use(u"side"_s);
    clock.advance(200, 0.5);
    wait(std::move(a));
    wait(std::move(b));
    wait(std::move(c));
    wait(std::move(use));
    // Each usage run starts 60 s after the one before ended (5 s each).
    EXPECT_EQ(tool.startTimes(), (std::vector<double>{0, 1, 65, 130}));
    EXPECT_EQ(tool.runs[1].arguments, (QStringList{u"use"_s, u"side"_s}));
    EXPECT_EQ(tool.runs[0].arguments, (QStringList{u"--tsv"_s, u"status"_s}));
}

TEST_F(AccountsTest, ExitStatusesAndTheirWords) {
    struct Case {
        ToolOutput output;
        bool succeeds;
        QString words; // the lines, or the failure's sentence
    };
    const QList<Case> cases = {
        {{u"\nA capped\n\nB low\n"_s, {}, 1}, true, u"A capped|B low"_s},
        {{u"A capped\n"_s, u"\nno session\n"_s, 1}, false, u"no session"_s},
        {{u"broken\n"_s, {}, 2}, false, u"broken"_s},
    };
    for (const auto& c : cases) {
        tool.answer = c.output;
        clock.now += 100;
        try {
            EXPECT_EQ(wait(client->alerts()).join(u'|'), c.words);
            EXPECT_TRUE(c.succeeds);
        } catch (const VantorAccountsError& error) {
            EXPECT_FALSE(c.succeeds);
            EXPECT_EQ(error.sentence(), c.words);
            EXPECT_EQ(error.exitCode(), c.output.exitCode);
        }
    }
    // Only `alerts` accepts exit status 1.
    tool.answer = {u"x"_s, {}, 1};
    EXPECT_THROW(wait(client->whoami()), VantorAccountsError);
}

TEST(VantorAccountsCLI, StatusLinesThatBreakTheFormatAreDropped) {
    const QString tsv = u"*\tmain\tm@x.io\t42\t2024-05-06T12:00:00Z\t+7\tsoon\tx\t30d\tfine\n"
                        "-\tnine\t\t\t\t\t\t\t\n"
                        "-\televen\t\t\t\t\t\t\t\t\t\textra\n"
                        "+\tplus\t\t\t\t\t\t\t\t\n"
                        "-\t\t\t\t\t\t\t\t\t\n"
                        "-\tside\t\t 5\t\t-3\t\t\t30\t\r\n"
                        "-\tthird\t\t\t\t\t\t\td\t\n"_s;
    const auto accounts = VantorAccountsCLI::parse(tsv);
    ASSERT_EQ(accounts.size(), 3);
    const auto& main = accounts[0];
    EXPECT_TRUE(main.live);
    EXPECT_EQ(main.fiveHourPercent, 42);
    EXPECT_TRUE(main.fiveHourReset);
    EXPECT_EQ(main.sevenDayPercent, 7);
    EXPECT_FALSE(main.sevenDayReset);
    EXPECT_FALSE(main.fablePercent);
    EXPECT_EQ(main.refreshDays, 30);
    EXPECT_EQ(main.note, u"fine"_s);
    EXPECT_EQ(accounts[1].name, u"side"_s);
    EXPECT_FALSE(accounts[1].fiveHourPercent);
    EXPECT_EQ(accounts[1].sevenDayPercent, -3);
    EXPECT_FALSE(accounts[1].refreshDays);
    EXPECT_FALSE(accounts[2].refreshDays);
}

TEST_F(AccountsTest, OneSwitchAtATime) {
    tool.seconds = 5;
    AccountsModel model(client);
    auto first = model.use(u"side"_s);
    FakeClock::settle();
    EXPECT_EQ(model.switchingName(), u"side"_s);
    wait(model.use(u"other"_s));
    EXPECT_EQ(model.switchingName(), u"side"_s);
    clock.advance(5);
    wait(std::move(first));
    EXPECT_FALSE(model.switchingName());
    EXPECT_EQ(tool.runs.size(), 1u);

    tool.seconds = 0;
    tool.answer = {{}, u"no such account"_s, 3};
    EXPECT_THROW(wait(model.use(u"nope"_s)), VantorAccountsError);
    EXPECT_FALSE(model.switchingName());
    EXPECT_FALSE(AccountsModel(nullptr).switchingName());
}
