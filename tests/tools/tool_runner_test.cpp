// The tool runner against velmora-faketool: a real process, real pipes.
#include "tools/ToolRunner.h"

#include "support/FakeTool.h"
#include "support/Wait.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <cerrno>
#include <stdexcept>

using namespace tessel;
using namespace Qt::StringLiterals;
using nlohmann::json;

namespace {

class ToolRunnerTest : public ::testing::Test {
protected:
    test::FakeTool tool;
    QString meterly = tool.install(u"meterly"_s);

    ToolOutput run(const json& steps, int exit = 0, LineCallback onLine = {},
                   CancellationToken token = {}) {
        tool.answer(json::array({{{"steps", steps}, {"exit", exit}}}));
        return test::wait(
            runTool({meterly, {u"status"_s}, tool.environment(), false, onLine}, std::move(token)));
    }
};

TEST_F(ToolRunnerTest, DrainsBothPipesDecodesWithRepairAndReadsNullInput) {
    // A tool that fills its error pipe before it writes any output must not
    // wait for a reader.
    const ToolOutput big =
        run(json::array({{{"stderr", "e"}, {"repeat", 1 << 20}}, {{"stdout", "done\n"}}}), 3);
    EXPECT_EQ(big.standardError.size(), 1 << 20);
    EXPECT_EQ(big.standardOutput, u"done\n"_s);
    EXPECT_EQ(big.exitCode, 3);

    const ToolOutput bad = run(json::array({{{"stdout_hex", "61ff62c3"}}, {{"stderr_hex", "ff"}}}));
    EXPECT_EQ(bad.standardOutput, u"a\uFFFDb\uFFFD"_s);
    EXPECT_EQ(bad.standardError, u"\uFFFD"_s);

    ASSERT_EQ(tool.runs().size(), 2u);
    EXPECT_EQ(tool.runs()[0]["stdin"], "null");
    EXPECT_EQ(tool.runs()[0]["args"], json::array({"status"}));
}

TEST_F(ToolRunnerTest, ASignalIsTheTerminationStatus) {
    for (const int signal : {SIGTERM, SIGKILL, SIGINT}) {
        tool.answer(
            json::array({{{"steps", json::array({{{"stdout", "half"}}})}, {"signal", signal}}}));
        const ToolOutput output = test::wait(makeToolRunner(meterly, tool.environment())({}, {}));
        EXPECT_EQ(output.exitCode, signal);
        EXPECT_EQ(output.standardOutput, u"half"_s);
    }
}

TEST_F(ToolRunnerTest, StreamsLinesInOrderWithTheLastOneWithoutNewline) {
    QStringList lines;
    const ToolOutput output = run(json::array({{{"stdout", "one\ntwo\r\n"}},
                                               {{"sleep", 0.05}},
                                               {{"stdout", "\nthr"}},
                                               {{"sleep", 0.05}},
                                               {{"stdout", "ee\nlast"}}}),
                                  0, [&lines](QString line) -> Task<void> {
                                      lines << line;
                                      co_return;
                                  });
    EXPECT_EQ(lines, (QStringList{u"one"_s, u"two\r"_s, u""_s, u"three"_s, u"last"_s}));
    EXPECT_EQ(output.standardOutput, u"one\ntwo\r\n\nthree\nlast"_s);
}

TEST_F(ToolRunnerTest, AFailingLineEndsTheToolAndPassesOn) {
    // The tool would go on for ten minutes: the run ends only because the
    // runner stopped it.
    QStringList lines;
    EXPECT_THROW(run(json::array({{{"stdout", "ok\nbad\nafter\n"}}, {{"sleep", 600}}}), 0,
                     [&lines](QString line) -> Task<void> {
                         lines << line;
                         if (line == u"bad"_s) {
                             throw std::runtime_error("unreadable step");
                         }
                         co_return;
                     }),
                 std::runtime_error);
    EXPECT_EQ(lines.mid(lines.indexOf(u"ok"_s)), (QStringList{u"ok"_s, u"bad"_s}));
}

TEST_F(ToolRunnerTest, CancellingKillsTheTool) {
    CancellationToken token;
    EXPECT_THROW(run(
                     json::array({{{"stdout", "started\n"}}, {{"sleep", 600}}}), 0,
                     [token](QString) -> Task<void> {
                         token.cancel();
                         co_return;
                     },
                     token),
                 Cancelled);
    ASSERT_EQ(tool.runs().size(), 1u);
    const pid_t pid = tool.runs()[0]["pid"].get<pid_t>();
    EXPECT_EQ(::kill(pid, 0), -1); // reaped, not left running
    EXPECT_EQ(errno, ESRCH);
}

TEST_F(ToolRunnerTest, ALaunchFailureNamesTheTool) {
    const QString missing = tool.path(u"vantor-accounts"_s);
    try {
        test::wait(makeToolRunner(missing, tool.environment())({}, {}));
        FAIL() << "a missing tool ran";
    } catch (const ToolLaunchError& error) {
        EXPECT_EQ(error.description(),
                  missing + u" could not be started: No such file or directory"_s);
    }
}

} // namespace
