// The infrastructure model against the stand-in tool, with injected time: how
// often the tool runs, what is kept on a failure, and when restart acts.
#include "infra/InfraModel.h"

#include "support/FakeClock.h"
#include "support/FakeTool.h"
#include "support/QtPrint.h"
#include "support/Wait.h"

#include <gtest/gtest.h>

using namespace tessel;
using namespace Qt::StringLiterals;
using nlohmann::json;

namespace {

const json loaded = {{"loaded", true}, {"label", "dev.velmora.agent"}};

std::string report(const json& supervisor = loaded, const std::string& mode = "supervisor") {
    return json{{"supervisor", supervisor},
                {"next_port", 7401},
                {"orgs",
                 {{{"slug", "acme"},
                   {"org_url", "https://acme.example"},
                   {"mode", mode},
                   {"conductor", {{"state", "running"}}},
                   {"tunnel", {{"state", "running"}}}}}}}
        .dump();
}

json answer(json args, std::string out, int exit = 0, std::string err = "", double sleep = 0) {
    return {{"args", std::move(args)},
            {"steps", {{{"sleep", sleep}}, {{"stdout", out}}, {{"stderr", err}}}},
            {"exit", exit}};
}

class InfraModelTest : public ::testing::Test {
protected:
    test::FakeTool tool;
    test::FakeClock clock;
    StreamingToolRunner runner =
        makeStreamingToolRunner(tool.install(u"velmora-conductor-onboard"_s), tool.environment());
    InfraModel model{InfraTool{[this] { return std::optional(runner); }, u"not installed"_s},
                     clock.nowFunction(), sleepFor};

    std::vector<json> argsOfRuns() const {
        std::vector<json> args;
        for (const json& run : tool.runs()) {
            args.push_back(run["args"]);
        }
        return args;
    }
};

TEST_F(InfraModelTest, UnforcedRefreshesRunAtMostEveryThirtySecondsFailuresIncluded) {
    tool.answer(json::array({answer({"status", "--json"}, "", 1, "tool broke")}));
    test::wait(model.refresh(false));
    clock.now += 29;
    test::wait(model.refresh(false));
    EXPECT_EQ(tool.runs().size(), 1u);
    EXPECT_EQ(model.error(), u"tool broke"_s);
    clock.now += 1;
    test::wait(model.refresh(false));
    EXPECT_EQ(tool.runs().size(), 2u);
    test::wait(model.refresh(true));
    EXPECT_EQ(tool.runs().size(), 3u);
}

TEST_F(InfraModelTest, AForcedRefreshWaitsForARunningOneAndAnUnforcedOneGivesUp) {
    tool.answer(json::array({answer({"status", "--json"}, report(), 0, "", 0.3)}));
    Task<void> first = model.refresh(false);
    ASSERT_TRUE(model.busy());
    Task<void> forced = model.refresh(true);
    test::wait(model.refresh(false)); // ends at once: a call is running
    test::wait(std::move(first));
    test::wait(std::move(forced));
    EXPECT_EQ(tool.runs().size(), 2u);
    EXPECT_FALSE(model.busy());
    EXPECT_TRUE(model.status());
}

TEST_F(InfraModelTest, AFailedReadKeepsTheLastReportAndAWarningStandsBesideAFreshOne) {
    tool.answer(json::array({answer({"status", "--json"}, report(), 0, "config is old\n")}));
    test::wait(model.refresh(true));
    EXPECT_EQ(model.error(), u"config is old"_s);
    const auto before = model.status();
    ASSERT_TRUE(before);

    tool.answer(json::array({answer({"status", "--json"}, "supervisor socket is gone\n", 1)}));
    test::wait(model.refresh(true));
    EXPECT_EQ(model.error(), u"supervisor socket is gone"_s);
    EXPECT_EQ(model.status(), before);

    tool.answer(json::array({answer({"status", "--json"}, "{\"supervisor\": 1}")}));
    test::wait(model.refresh(true));
    EXPECT_TRUE(model.error()->contains(u"supervisor: expected an object"_s));
    EXPECT_EQ(model.status(), before);
}

TEST_F(InfraModelTest, AnUnloadedSupervisorIsExplainedByTheDetailOrBySecondCall) {
    const json withDetail = {{"loaded", false}, {"label", "dev.velmora.agent"}, {"detail", "off"}};
    const json withoutDetail = {{"loaded", false}, {"label", "velmora-agent.service"}};
    tool.answer(json::array({answer({"status", "--json"}, report(withDetail))}));
    test::wait(model.refresh(true));
    EXPECT_EQ(model.supervisorHumanLine(), u"off"_s);
    EXPECT_EQ(tool.runs().size(), 1u);

    tool.answer(json::array(
        {answer({"status", "--json"}, report(withoutDetail)),
         answer({"status"}, "\n  \r\nvelmora-agent.service is inactive (dead)\nmore\n")}));
    test::wait(model.refresh(true));
    EXPECT_EQ(model.supervisorHumanLine(), u"velmora-agent.service is inactive (dead)"_s);
    EXPECT_EQ(model.error(), std::nullopt);
    EXPECT_EQ(argsOfRuns().back(), json({"status"}));
}

TEST_F(InfraModelTest, RestartActsOnlyOnARestartableRowWhileNoCallRuns) {
    tool.answer(json::array({answer({"status", "--json"}, report(loaded, "isolated"), 0, "", 0.2),
                             answer({"restart", "acme"}, ""),
                             answer({"restart", "other"}, "", 3, "launchd refused\n")}));
    test::wait(model.refresh(true));
    const InfraStatus::Organisation isolated = model.status()->orgs[0];
    InfraStatus::Organisation managed = isolated;
    managed.mode = InfraStatus::Mode::supervisor;

    test::wait(model.restart(isolated));
    Task<void> reading = model.refresh(true);
    test::wait(model.restart(managed)); // a call is running
    test::wait(std::move(reading));
    EXPECT_EQ(argsOfRuns(), std::vector<json>(2, json({"status", "--json"})));

    test::wait(model.restart(managed));
    EXPECT_EQ(argsOfRuns().at(2), json({"restart", "acme"}));
    EXPECT_EQ(argsOfRuns().at(3), json({"status", "--json"})); // the forced refresh

    managed.slug = u"other"_s;
    test::wait(model.restart(managed));
    EXPECT_EQ(model.error(), u"launchd refused"_s);
    EXPECT_EQ(tool.runs().size(), 5u); // no refresh after a failed restart
}

TEST_F(InfraModelTest, TheToolIsFoundThroughTheOverrideAndRunsWithTheHelpersPath) {
    QProcessEnvironment environment = tool.environment();
    environment.insert(u"VCO_BIN"_s, tool.path(u"velmora-conductor-onboard"_s));
    environment.remove(u"XDG_DATA_HOME"_s);
    const QString home = tool.path(u"home"_s);
    tool.answer(json::array({answer({"status", "--json"}, report())}));
    InfraModel found{InfraCLI::tool(environment, home, std::nullopt), clock.nowFunction(),
                     sleepFor};
    test::wait(found.refresh(true));
    EXPECT_TRUE(found.status());
    EXPECT_TRUE(tool.runs().at(0)["path"].get<std::string>().starts_with(
        (home + u"/.local/share/Velmora/bin:"_s).toStdString()));

    environment.remove(u"VCO_BIN"_s);
    environment.insert(u"PATH"_s, u"/nonexistent"_s);
    const InfraTool missing = InfraCLI::tool(environment, home, std::nullopt);
    EXPECT_FALSE(missing.resolve());
    EXPECT_EQ(missing.notInstalled, u"velmora-conductor-onboard is not installed — install it "
                                    u"to see and set up this machine's conductor."_s);
    EXPECT_EQ(InfraCLI::notInstalled(home + u"/.local/share/Velmora/bin"_s),
              u"Helpers could not be installed to "_s + home +
                  u"/.local/share/Velmora/bin: Could not resolve velmora-conductor-onboard."_s);
}

// A missing tool is said, nothing else changes; one installed later (from
// its package) is found at the next refresh.
TEST(InfraModelNotInstalledTest, SaysSoAndLooksAgainAtTheNextRefresh) {
    test::FakeClock clock;
    std::optional<StreamingToolRunner> found;
    InfraModel model{InfraTool{[&found] { return found; }, u"gone"_s}, clock.nowFunction(),
                     clock.sleepFunction()};
    test::wait(model.refresh(true));
    EXPECT_FALSE(model.isInstalled());
    EXPECT_EQ(model.error(), u"gone"_s);
    EXPECT_FALSE(model.busy());

    found = [](QStringList, LineCallback, CancellationToken) -> Task<ToolOutput> {
        co_return ToolOutput{u"not json"_s, QString(), 0};
    };
    test::wait(model.refresh(true));
    EXPECT_TRUE(model.isInstalled());
    EXPECT_NE(model.error(), u"gone"_s);
}

} // namespace
