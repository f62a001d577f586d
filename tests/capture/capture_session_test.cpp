// A capture with a scripted audio source against the local server: the exact
// conversation on each road, asserted on the server's own log of requests.
#include "capture/CaptureSession.h"
#include "net/HTTPFailure.h"
#include "support/DevServer.h"
#include "support/ScriptedAudio.h"
#include "support/Wait.h"

#include <QDir>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <memory>

using namespace tessel;
using namespace tessel::test;
using nlohmann::json;

namespace {

class CaptureSessionTest : public ::testing::Test {
protected:
    DevServer server;
    std::shared_ptr<QString> token = std::make_shared<QString>(QStringLiteral("vses_first"));
    std::shared_ptr<ScriptedAudioControl> audio = std::make_shared<ScriptedAudioControl>();
    std::unique_ptr<CaptureSession> session = makeSession();

    std::unique_ptr<CaptureSession> makeSession() {
        auto current = token;
        MeetAPI api(
            QUrl(QString::fromStdString(server.meetBase())),
            [current] { return std::optional<QString>(*current); }, HTTPClient());
        return std::make_unique<CaptureSession>(std::move(api), ScriptedAudio::maker(audio),
                                                fastClock());
    }

    void start() { wait(session->start("Weekly sync", "Acme", "", true)); }

    // The routes of the meet requests the server received, in order.
    std::vector<std::string> routes() { return server.routes(); }
    std::vector<std::string> routesSince(size_t from) {
        auto all = routes();
        return {all.begin() + static_cast<long>(std::min(from, all.size())), all.end()};
    }

    void emitSegments(int perChannel) {
        for (int i = 0; i < perChannel; ++i) {
            audio->emitSegment(AudioChannel::local);
            audio->emitSegment(AudioChannel::remote);
        }
    }
    bool uploaded(qint64 local, qint64 remote) {
        return eventually([&] {
            session->refreshUploadStatus();
            return session->uploads().local == local && session->uploads().remote == remote;
        });
    }
    std::exception_ptr stopFailure() { return failureOf(session->stop()); }
};

using Routes = std::vector<std::string>;

bool isOwnershipRead(const std::string& route) {
    return route == "snapshot" || route == "manifest";
}

} // namespace

TEST_F(CaptureSessionTest, FirstStartAndStopHoldTheExactConversation) {
    EXPECT_EQ(session->state(), CaptureState::idle);
    start();
    EXPECT_EQ(session->state(), CaptureState::listening);
    // Only the monitor's ownership polls (reads) may follow.
    Routes opening = routes();
    while (!opening.empty() && isOwnershipRead(opening.back())) {
        opening.pop_back();
    }
    EXPECT_EQ(opening, (Routes{"create", "consent", "start", "ack", "join", "request"}));

    emitSegments(2);
    ASSERT_TRUE(uploaded(2, 2));
    const size_t beforeStop = routes().size();
    wait(session->stop());
    EXPECT_EQ(session->state(), CaptureState::finished);
    EXPECT_FALSE(session->error());
    // The monitor's poll, cancelled as the stop begins, may have had one read on
    // its way: the server may log it anywhere before the stop's own requests.
    const Routes exact{"snapshot", "manifest", "stop", "end"};
    Routes closing = routesSince(beforeStop);
    for (size_t i = 0; closing.size() == exact.size() + 1 && i < closing.size(); ++i) {
        Routes without = closing;
        without.erase(without.begin() + static_cast<long>(i));
        if (isOwnershipRead(closing[i]) && without == exact) {
            closing = without;
        }
    }
    EXPECT_EQ(closing, exact);

    // Both tracks are on disk, in sequence, byte for byte as the source made them.
    const QString meeting = *session->meetingID();
    for (const char* track : {"audio_local", "audio_remote"}) {
        const QDir dir(QString::fromStdString(server.dataDir()) + "/" + meeting + "/" + track);
        EXPECT_EQ(dir.entryList({"*.aac"}, QDir::Files, QDir::Name),
                  (QStringList{"000000.aac", "000001.aac"}))
            << track;
    }
    EXPECT_FALSE(session->canStop());
}

TEST_F(CaptureSessionTest, StartTwiceAndWithoutDisclosure) {
    auto second = makeSession();
    const auto refused = failureOf(second->start("T", "C", "", false));
    ASSERT_TRUE(refused);
    EXPECT_EQ(second->state(), CaptureState::idle);
    EXPECT_EQ(audio->prepared, 0) << "no audio object, no server call";
    EXPECT_TRUE(routes().empty());

    start();
    try {
        wait(session->start("T", "C", "", true));
        FAIL();
    } catch (const TesselError& error) {
        EXPECT_EQ(error.message(),
                  "A call is already open — finish it before starting another call.");
    }
    EXPECT_EQ(session->state(), CaptureState::listening);
}

TEST_F(CaptureSessionTest, RefusedMicrophoneLeavesNothingOnTheServer) {
    audio->prepareFailure =
        std::make_exception_ptr(AudioCaptureError::microphonePermissionDenied());
    EXPECT_TRUE(failureOf(session->start("T", "C", "", true)));
    EXPECT_EQ(session->state(), CaptureState::failed);
    EXPECT_FALSE(session->meetingID());
    EXPECT_FALSE(session->canStop());
    EXPECT_TRUE(routes().empty());
    EXPECT_EQ(session->error(), AudioCaptureError::microphonePermissionDenied().description());
}

TEST_F(CaptureSessionTest, SignInLostAtEachStepOfBeginResumesWithOnlyWhatIsMissing) {
    const std::vector<std::pair<std::string, Routes>> cases = {
        {"start", {"consent", "start", "ack", "join", "request"}},
        {"ack", {"consent", "ack", "join", "request"}},
        {"join", {"consent", "join", "request"}},
        {"request", {"consent", "request"}},
    };
    for (const auto& [step, resumed] : cases) {
        SCOPED_TRACE(step);
        session = makeSession();
        server.resetLog();
        server.fail(step, 1, 401, R"({"error":{"code":"session_expired","message":"expired"}})");
        const auto failure = failureOf(session->start("T", "C", "", true));
        ASSERT_TRUE(failure);
        EXPECT_EQ(session->state(), CaptureState::needsSignIn);
        EXPECT_EQ(session->error(), HTTPFailure::signInLine);
        EXPECT_TRUE(session->meetingID()) << "confirmed facts are kept";
        EXPECT_EQ(session->serverStarted(), step != "start");
        EXPECT_EQ(session->consentAcknowledged(), step == "join" || step == "request");
        EXPECT_EQ(session->hostSessionID().has_value(), step == "request");
        EXPECT_EQ(session->stateBeforeSignIn(), CaptureState::preparing);

        const size_t before = routes().size();
        wait(session->resumeAfterSignIn());
        EXPECT_EQ(session->state(), CaptureState::listening);
        EXPECT_EQ(routesSince(before), resumed) << "create is never repeated";
        wait(session->stop());
        EXPECT_EQ(session->state(), CaptureState::finished);
    }
}

TEST_F(CaptureSessionTest, LostAnswerOfJoinIsRepairedByReadingTheServer) {
    // The server joins, the answer never arrives: the start fails on the
    // network's words, and the join went out once.
    server.drop("join");
    EXPECT_TRUE(failureOf(session->start("T", "C", "", true)));
    EXPECT_EQ(session->state(), CaptureState::failed);
    EXPECT_EQ(session->error(), HTTPFailure::serverUnavailableLine);
    EXPECT_FALSE(session->hostSessionID());
    EXPECT_TRUE(session->canStop());
    const Routes sent = routes();
    EXPECT_EQ(std::count(sent.begin(), sent.end(), "join"), 1);
    EXPECT_EQ(server.state()["meetings"][0]["presence"].size(), 1u);

    // The server lists a host this app never heard of: it is not ours to close.
    const auto failure = stopFailure();
    ASSERT_TRUE(failure);
    EXPECT_EQ(session->state(), CaptureState::superseded);
    EXPECT_EQ(session->error(), "The start response was interrupted and another host session is "
                                "present — open this call in the browser to finish it safely.");
}

TEST_F(CaptureSessionTest, BrokenStartWithNothingJoinedIsClosedByStop) {
    server.fail("ack", 1, 500, R"({"error":{"code":"internal","message":"boom"}})");
    EXPECT_TRUE(failureOf(session->start("T", "C", "", true)));
    EXPECT_EQ(session->state(), CaptureState::failed);
    const size_t before = routes().size();
    wait(session->stop());
    EXPECT_EQ(session->state(), CaptureState::finished);
    EXPECT_FALSE(session->error());
    EXPECT_FALSE(session->hasStartPending());
    EXPECT_EQ(routesSince(before), (Routes{"snapshot", "manifest", "end"}));
}

TEST_F(CaptureSessionTest, RecordingStoppedByTheServerWhileListeningDropsWhatWasNotSent) {
    start();
    server.fail("presign", 1000, 503, "{}");
    emitSegments(1);
    ASSERT_TRUE(eventually([&] {
        session->refreshUploadStatus();
        return session->uploads().pending == 2;
    }));
    server.stopRecording(session->meetingID()->toStdString());
    ASSERT_TRUE(eventually([&] { return session->state() == CaptureState::superseded; }));
    EXPECT_EQ(session->error(), "The server stopped this recording — open the browser to review "
                                "the audio already saved.");
    EXPECT_TRUE(session->recordingStopped());
    EXPECT_FALSE(session->canStop());
    session->refreshUploadStatus();
    EXPECT_EQ(session->uploads().pending, 0);
}

TEST_F(CaptureSessionTest, OwnershipIsLostToAnotherHostALaterRecordingOrAPartlessManifest) {
    const std::vector<std::function<void()>> losses = {
        [this] { server.takeover(session->meetingID()->toStdString(), false); },
        [this] {
            // The same host stops this recording and asks for another.
            const MeetAPI& api = session->api();
            const QString base = "/" + *session->meetingID() + "/recording";
            wait(api.call(
                base, "POST",
                JSON::Object{{"action", "stop"}, {"recording_id", *session->recordingID()}}));
            wait(api.call(base, "POST",
                          JSON::Object{{"action", "request"}, {"capture_protocol", 2}}));
        },
        [this] { server.fail("manifest", 1, 200, R"({"parts":"none"})"); },
    };
    for (const auto& lose : losses) {
        session = makeSession();
        start();
        lose();
        ASSERT_TRUE(eventually([&] { return session->state() == CaptureState::superseded; }));
        EXPECT_EQ(session->error(),
                  "This call was opened elsewhere — finish it in that session, or "
                  "return to the browser lobby.");
        EXPECT_FALSE(session->recordingStopped());
        EXPECT_GE(audio->stopped, 1);
        EXPECT_FALSE(session->canStop());
    }
}

TEST_F(CaptureSessionTest, TheUploadStatusOwnsTheErrorOnlyWhileItShowsItsOwnLine) {
    start();
    const auto refuse = [this](int times, const char* words) {
        server.fail("presign", times, 422,
                    std::string(R"({"error":{"code":"refused","message":")") + words + "\"}}");
    };
    const auto shows = [this](const QString& line) {
        return eventually([&] {
            session->refreshUploadStatus();
            return session->error() == line;
        });
    };
    refuse(2, "First refusal.");
    refuse(3, "Second refusal.");
    audio->emitSegment(AudioChannel::local);
    EXPECT_TRUE(shows("First refusal."));
    EXPECT_TRUE(shows("Second refusal.")) << "the upload status follows its failures";
    // A failure from elsewhere stays on show while the uploads recover.
    server.fail("snapshot", 1000, 500, "{}");
    EXPECT_TRUE(shows(HTTPFailure::fallbackLine));
    ASSERT_TRUE(uploaded(1, 0));
    EXPECT_EQ(session->error(), HTTPFailure::fallbackLine);
}

TEST_F(CaptureSessionTest, UploadsThatFillTheMemoryBoundStopTheAudioAndKeepWhatIsQueued) {
    start();
    server.fail("presign", 1000, 503, "{}");
    const QByteArray half(UploadQueue::memoryLimit / 2, '\x11');
    for (const AudioChannel channel : allChannels) {
        audio->stream->push(AudioSegment{channel, 0, QUuid::createUuid(), half});
    }
    audio->emitSegment(AudioChannel::local); // one frame past the bound
    ASSERT_TRUE(eventually([&] { return session->state() == CaptureState::failed; }));
    EXPECT_EQ(session->error(), "Audio uploads have filled the 64 MB memory buffer — keep the app "
                                "open, restore the connection, then use Stop & write notes to "
                                "retry.");
    EXPECT_GE(audio->stopped, 1);
    session->refreshUploadStatus();
    EXPECT_EQ(session->uploads().pending, 3);
    // Gone with its session, the queue gives its work up instead of retrying.
    session.reset();
    wait(sleepFor(0.1));
}

TEST_F(CaptureSessionTest, AudioFailureDuringSignInWaitsForTheSignIn) {
    start();
    server.revoke(token->toStdString());
    ASSERT_TRUE(eventually([&] { return session->state() == CaptureState::needsSignIn; }));
    const auto shown = session->error();

    audio->emitFailure("The microphone stopped — check the input device.");
    wait(sleepFor(0.05));
    EXPECT_EQ(session->state(), CaptureState::needsSignIn);
    EXPECT_EQ(session->error(), shown);

    *token = QStringLiteral("vses_second");
    wait(session->resumeAfterSignIn());
    EXPECT_EQ(session->state(), CaptureState::failed);
    EXPECT_EQ(session->error(), "The microphone stopped — check the input device.");
    EXPECT_EQ(session->errorDetails(), "The microphone stopped — check the input device.");
}

TEST_F(CaptureSessionTest, StopAfterALostSignInRunsAgainOnceSignedIn) {
    start();
    emitSegments(1);
    ASSERT_TRUE(uploaded(1, 1));
    server.revoke(token->toStdString());
    emitSegments(1); // cut while the token no longer works: kept, sent later
    EXPECT_TRUE(stopFailure());
    EXPECT_EQ(session->state(), CaptureState::needsSignIn);
    EXPECT_EQ(session->stateBeforeSignIn(), CaptureState::uploading);
    EXPECT_EQ(session->error(), HTTPFailure::signInLine);
    EXPECT_GE(audio->stopped, 1);

    *token = QStringLiteral("vses_second");
    wait(session->resumeAfterSignIn());
    EXPECT_EQ(session->state(), CaptureState::finished);
    EXPECT_FALSE(session->error());
    const json meeting = server.state()["meetings"][0];
    EXPECT_EQ(meeting["status"], "ended");
    EXPECT_EQ(meeting["parts"][0]["state"], "stopped");
    EXPECT_EQ(meeting["parts"][0]["segments"], (json{{"audio_local", 2}, {"audio_remote", 2}}));
}

TEST_F(CaptureSessionTest, StopWhoseRequestsWereLostAfterTheServerActedStillCloses) {
    start();
    emitSegments(1);
    ASSERT_TRUE(uploaded(1, 1));
    // Both closing requests take effect, and neither answer arrives.
    server.drop("stop");
    server.drop("end");
    const size_t before = routes().size();
    wait(session->stop());
    EXPECT_EQ(session->state(), CaptureState::finished);
    EXPECT_FALSE(session->error());
    const auto sent = routesSince(before);
    EXPECT_GE(std::count(sent.begin(), sent.end(), "snapshot"), 2)
        << "one for ownership, one to learn the stop happened";
    EXPECT_EQ(sent.back(), "read") << "the call is read to learn it ended";
    EXPECT_EQ(std::count(sent.begin(), sent.end(), "stop"), 1);
    EXPECT_EQ(std::count(sent.begin(), sent.end(), "end"), 1);
    EXPECT_EQ(server.state()["meetings"][0]["status"], "ended");
}

TEST_F(CaptureSessionTest, RefusedRecordingStopLeavesTheCallToBeStoppedAgain) {
    start();
    server.fail("stop", 1, 500, R"({"error":{"code":"internal","message":"boom"}})");
    EXPECT_TRUE(stopFailure());
    EXPECT_EQ(session->state(), CaptureState::failed);
    EXPECT_TRUE(session->stopPending());
    EXPECT_EQ(server.state()["meetings"][0]["status"], "live");

    // The second press runs the whole road again and closes the call.
    wait(session->stop());
    EXPECT_EQ(session->state(), CaptureState::finished);
    EXPECT_EQ(server.state()["meetings"][0]["status"], "ended");
}
