// One segment's road to storage against the local server: quick retries with
// the same chunk id, and the refusals that end the attempts at once.
#include "net/HTTPFailure.h"
#include "support/DevServer.h"
#include "support/ScriptedAudio.h"
#include "support/Wait.h"
#include "upload/SegmentUploader.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tessel;
using namespace tessel::test;

namespace {

using Routes = std::vector<std::string>;

class SegmentUploaderTest : public ::testing::Test {
protected:
    DevServer server;
    HTTPClient http;
    MeetAPI api{QUrl(QString::fromStdString(server.meetBase())),
                [] { return std::optional<QString>(QStringLiteral("vses_uploader")); }, http};
    QString meeting;
    QString recording;
    std::vector<double> pauses;

    void SetUp() override {
        meeting = wait(api.create("Call", "Someone", ""));
        auto progress = [](BeginProgress) -> Task<void> { co_return; };
        recording =
            wait(api.begin(meeting, false, false, std::nullopt, std::nullopt, progress)).second;
        server.resetLog();
    }

    // Uploads a fresh segment (or `given`); the failure, if any.
    std::exception_ptr upload(std::optional<AudioSegment> given = std::nullopt) {
        SegmentUploader uploader(api, meeting, recording,
                                 [this](double seconds, CancellationToken t) -> Task<void> {
                                     pauses.push_back(seconds);
                                     co_await sleepFor(0, t);
                                 });
        return failureOf(uploader.upload(given.value_or(
            AudioSegment{AudioChannel::remote, 0, QUuid::createUuid(), adtsFrames(3)})));
    }
};

} // namespace

TEST_F(SegmentUploaderTest, PresignPutCompleteWithNoTokenOnThePutAndOnlyOnce) {
    const AudioSegment segment{AudioChannel::local, 0, QUuid::createUuid(), adtsFrames(3)};
    EXPECT_FALSE(upload(segment));
    EXPECT_EQ(server.routes(), (Routes{"presign", "put", "complete"}));
    const auto put = server.requestLog()[1];
    EXPECT_FALSE(put.value("has_token", true));
    EXPECT_EQ(put.value("content_type", ""), "audio/aac");
    // The same segment again: the server already has it.
    server.resetLog();
    EXPECT_FALSE(upload(segment));
    EXPECT_EQ(server.routes(), (Routes{"presign"}));
}

TEST_F(SegmentUploaderTest, RetriesRepeatFromThePresignWithTheSameChunkThenGiveUp) {
    server.fail("put", 1, 503, "<Error><Code>SlowDown</Code></Error>");
    EXPECT_FALSE(upload());
    EXPECT_EQ(server.routes(), (Routes{"presign", "put", "presign", "put", "complete"}));
    const auto log = server.requestLog();
    ASSERT_TRUE(log[0]["body"]["chunk_uuid"].is_string());
    EXPECT_EQ(log[0]["body"]["chunk_uuid"], log[2]["body"]["chunk_uuid"]);
    EXPECT_EQ(pauses, (std::vector<double>{0.4}));

    // Three transport failures: two pauses, then the third failure is thrown.
    server.resetLog();
    pauses.clear();
    server.drop("presign", 100);
    const auto error = upload();
    ASSERT_TRUE(error);
    EXPECT_THROW(std::rethrow_exception(error), URLError);
    EXPECT_EQ(pauses, (std::vector<double>{0.4, 0.8}));
    EXPECT_EQ(server.routes(), (Routes{"presign", "presign", "presign"}))
        << "each attempt leaves once, however its connection ended";
}

TEST_F(SegmentUploaderTest, RefusalsEndTheAttemptsAtOnce) {
    struct Case {
        const char* route;
        int status;
        const char* body;
        const char* words; // empty: an HTTPFailure is expected
    };
    const Case cases[] = {
        {"presign", 200,
         R"({"state":"pending","segment_id":"s1","upload_url":"http://127.0.0.1:9/x","method":"POST"})",
         "The storage service did not request PUT — fix the presign method and retry."},
        {"presign", 200,
         R"({"state":"pending","segment_id":"s1","upload_url":"http://10.1.2.3/x"})",
         "The upload URL is insecure — configure HTTPS storage and retry."},
        {"presign", 200, R"({"state":"pending","segment_id":"s1"})",
         "The server response is missing upload_url — check the server version and retry."},
        {"complete", 404, R"({"error":{"code":"not_found","message":"gone"}})", ""},
        {"presign", 401, R"({"error":{"code":"session_expired"}})", ""},
        {"complete", 200, R"({"recording_state":"stopped"})",
         "The server stopped this recording — open the call in your browser to review the saved "
         "audio."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.body);
        pauses.clear();
        server.fail(c.route, 1, c.status, c.body);
        const auto error = upload();
        ASSERT_TRUE(error);
        if (*c.words) {
            EXPECT_EQ(wordsOf(error), QString::fromUtf8(c.words));
        } else {
            EXPECT_THROW(std::rethrow_exception(error), HTTPFailure);
        }
        EXPECT_TRUE(pauses.empty()) << "no second attempt";
    }

    // Once the server has stopped the recording, its presign is refused.
    server.stopRecording(meeting.toStdString());
    server.resetLog();
    EXPECT_TRUE(upload());
    EXPECT_EQ(server.routes(), (Routes{"presign"}));
}

TEST_F(SegmentUploaderTest, CancellationDuringThePauseSendsNothingMore) {
    server.fail("presign", 1, 503, "{}");
    CancellationToken cancel;
    SegmentUploader cancelling(api, meeting, recording,
                               [&](double, CancellationToken t) -> Task<void> {
                                   cancel.cancel();
                                   co_await sleepFor(10, t);
                               });
    const AudioSegment segment{AudioChannel::remote, 0, QUuid::createUuid(), adtsFrames(3)};
    EXPECT_THROW(std::rethrow_exception(failureOf(cancelling.upload(segment, cancel))), Cancelled);
    EXPECT_EQ(server.routes(), (Routes{"presign"}));
}
