// The command form's whole run against the local server, with a scripted audio
// source and fast time: the lines it prints, the segments it asks for, and
// which words end a run that went wrong.
#include "CaptureCLI.h"

#include "net/HTTPFailure.h"
#include "support/DevServer.h"
#include "support/ScriptedAudio.h"
#include "support/Wait.h"

#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::app;
using namespace tessel::test;

namespace {

const QString disclosureLine =
    "Disclosure acknowledged for this capture: Heads-up: I'm taking notes on this call with a "
    "recorder on my side; say so if you'd rather I didn't.";

class CaptureRunTest : public ::testing::Test {
protected:
    DevServer server;
    std::shared_ptr<ScriptedAudioControl> audio = std::make_shared<ScriptedAudioControl>();
    QStringList printed;
    double ranFor = 0; // capture seconds from start to end of the run

    // The run's failure words, or none when it succeeded.
    std::optional<QString> run(const QString& seconds) {
        const CaptureClock clock = fastClock();
        const double from = clock.now();
        const QStringList arguments{"--base-url",    QString::fromStdString(server.meetBase()),
                                    "--token",       "vses_cli",
                                    "--title",       "Weekly sync",
                                    "--counterpart", "Acme",
                                    "--seconds",     seconds};
        const auto failure = failureOf(
            CaptureCLI::run(arguments, {ScriptedAudio::maker(audio), clock,
                                        [this](const QString& line) { printed << line; }}));
        ranFor = clock.now() - from;
        return wordsOf(failure);
    }
    // At begin the source cuts this many segments on each track.
    void cut(int local, int remote) {
        audio->onBegin = [local, remote](ScriptedAudioControl& control) {
            for (int i = 0; i < std::max(local, remote); ++i) {
                if (i < local) {
                    control.emitSegment(AudioChannel::local);
                }
                if (i < remote) {
                    control.emitSegment(AudioChannel::remote);
                }
            }
        };
    }
    // The latest call on the server.
    std::string meeting() const { return server.state()["meetings"].back()["id"]; }
    bool callClosed() const { return server.state()["meetings"].back()["status"] == "ended"; }
};

} // namespace

TEST_F(CaptureRunTest, PrintsTheMeetingAndTheResultAndClosesTheCall) {
    cut(2, 3);
    EXPECT_EQ(run("20"), std::nullopt);
    EXPECT_EQ(printed, (QStringList{disclosureLine, "meeting: " + QString::fromStdString(meeting()),
                                    "local: 2 segments, remote: 3 segments, uploaded, session "
                                    "ended"}));
    EXPECT_TRUE(callClosed());
}

TEST_F(CaptureRunTest, TwentySecondsAndMoreNeedTwoSegmentsOnEachTrack) {
    const struct {
        const char* seconds;
        int local, remote;
        std::optional<QString> failure;
    } cases[] = {
        {"19.9", 1, 1, std::nullopt},
        {"20", 1, 2,
         "Only local: 1, remote: 2 segments were captured — enable both audio "
         "permissions and play the call on this computer, then rerun the proof."},
        {"1", 1, 0,
         "Only local: 1, remote: 0 segments were captured — enable both audio "
         "permissions and play the call on this computer, then rerun the proof."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.seconds);
        cut(c.local, c.remote);
        EXPECT_EQ(run(c.seconds), c.failure);
        EXPECT_TRUE(callClosed()) << "the call is closed either way";
    }
}

TEST_F(CaptureRunTest, ACallOpenedElsewhereEndsTheWaitEarlyWithTheStopsWords) {
    audio->onBegin = [this](ScriptedAudioControl&) { server.takeover(meeting(), false); };
    EXPECT_EQ(run("7200"), "There is no active recording owned by this app — open the call in "
                           "your browser to review its status.");
    EXPECT_LT(ranFor, 3600) << "the wait ended when the monitor saw the takeover";
}

TEST_F(CaptureRunTest, ASignInRefusedMidCallEndsTheRunWithItsOwnWords) {
    audio->onBegin = [this](ScriptedAudioControl&) { server.revoke("vses_cli"); };
    EXPECT_EQ(run("7200"), HTTPFailure::signInLine);
    EXPECT_LT(ranFor, 3600);
    EXPECT_FALSE(callClosed());
}

TEST_F(CaptureRunTest, AStopThatFailsTooOutranksTheSessionsOwnFailure) {
    audio->onBegin = [](ScriptedAudioControl& control) {
        control.emitFailure("The microphone stopped — check the input device.");
    };
    server.fail("end", 1, 500, R"({"error":{"code":"internal","message":"boom"}})");
    EXPECT_EQ(run("25"), HTTPFailure::fallbackLine);
    // Without the failing end, the session's failure turns the closed call into a warning.
    EXPECT_EQ(run("25"), "Your saved audio was uploaded, but recording was incomplete — open the "
                         "call in your browser to review it.");
}
