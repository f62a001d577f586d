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

class SegmentUploaderTest : public ::testing::Test {
protected:
    DevServer server;
    HTTPClient http;
    MeetAPI api{QUrl(QString::fromStdString(server.meetBase())),
                [] { return std::optional<QString>(QStringLiteral("vses_uploader")); }, http};
    QString meeting;
    QString recording;
    std::vector<double> pauses;
    CancellationToken token;

    void SetUp() override {
        meeting = wait(api.create("Call", "Someone", ""));
        auto progress = [](BeginProgress) -> Task<void> { co_return; };
        recording =
            wait(api.begin(meeting, false, false, std::nullopt, std::nullopt, progress)).second;
        server.resetLog();
    }

    SegmentUploader uploader() {
        return SegmentUploader(api, meeting, recording,
                               [this](double seconds, CancellationToken t) -> Task<void> {
                                   pauses.push_back(seconds);
                                   co_await sleepFor(0, t);
                               });
    }

    AudioSegment segment(qint64 sequence = 0) {
        return AudioSegment{AudioChannel::remote, sequence, QUuid::createUuid(), adtsFrames(3)};
    }

    std::vector<std::string> routes() {
        std::vector<std::string> out;
        for (const auto& entry : server.requestLog()) {
            out.push_back(entry.value("route", ""));
        }
        return out;
    }

    std::vector<std::string> chunkIDs() {
        std::vector<std::string> out;
        for (const auto& entry : server.requestLog()) {
            if (entry.value("route", "") == "presign") {
                out.push_back(entry["body"].value("chunk_uuid", ""));
            }
        }
        return out;
    }

    QString failureText(const std::exception_ptr& error) {
        try {
            std::rethrow_exception(error);
        } catch (const Failure& failure) {
            return failure.description();
        } catch (...) {
            return QStringLiteral("?");
        }
    }
};

using Routes = std::vector<std::string>;

} // namespace

TEST_F(SegmentUploaderTest, PresignPutCompleteWithNoTokenOnThePut) {
    wait(uploader().upload(segment()));
    EXPECT_EQ(routes(), (Routes{"presign", "put", "complete"}));
    for (const auto& entry : server.requestLog()) {
        if (entry.value("route", "") == "put") {
            EXPECT_FALSE(entry.value("has_token", true));
            EXPECT_EQ(entry.value("content_type", ""), "audio/aac");
        }
    }
    // Uploading the same segment again: the server already has it.
    const AudioSegment again = segment();
    wait(uploader().upload(again));
    server.resetLog();
    wait(uploader().upload(again));
    EXPECT_EQ(routes(), (Routes{"presign"}));
}

TEST_F(SegmentUploaderTest, RetriesRepeatFromThePresignWithTheSameChunk) {
    server.fail("put", 1, 503, "<Error><Code>SlowDown</Code></Error>");
    wait(uploader().upload(segment()));
    EXPECT_EQ(routes(), (Routes{"presign", "put", "presign", "put", "complete"}));
    const auto chunks = chunkIDs();
    ASSERT_EQ(chunks.size(), 2u);
    EXPECT_EQ(chunks[0], chunks[1]);
    EXPECT_EQ(pauses, (std::vector<double>{0.4}));
}

TEST_F(SegmentUploaderTest, ThreeTransportFailuresPauseTwiceThenThrowTheThird) {
    server.drop("presign", 100);
    const auto error = failureOf(uploader().upload(segment()));
    ASSERT_TRUE(error);
    EXPECT_THROW(std::rethrow_exception(error), URLError);
    EXPECT_EQ(pauses, (std::vector<double>{0.4, 0.8}));
    // Qt sends a request once more by itself when a reused keep-alive connection
    // closes before any answer, so the server may see a fourth presign.
    const auto seen = routes();
    EXPECT_GE(seen.size(), 3u);
    EXPECT_LE(seen.size(), 4u);
}

TEST_F(SegmentUploaderTest, RefusalsEndTheAttemptsAtOnce) {
    struct Case {
        const char* name;
        const char* route;
        int status;
        const char* body;
        const char* words; // empty: an HTTPFailure is expected
    };
    const Case cases[] = {
        {"method", "presign", 200,
         R"({"state":"pending","segment_id":"s1","upload_url":"http://127.0.0.1:9/x","method":"POST"})",
         "The storage service did not request PUT — fix the presign method and retry."},
        {"insecure", "presign", 200,
         R"({"state":"pending","segment_id":"s1","upload_url":"http://10.1.2.3/x"})",
         "The upload URL is insecure — configure HTTPS storage and retry."},
        {"missing url", "presign", 200, R"({"state":"pending","segment_id":"s1"})",
         "The server response is missing upload_url — check the server version and retry."},
        {"not found", "complete", 404, R"({"error":{"code":"not_found","message":"gone"}})", ""},
        {"signed out", "presign", 401, R"({"error":{"code":"session_expired"}})", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        server.resetLog();
        pauses.clear();
        server.fail(c.route, 1, c.status, c.body);
        const auto error = failureOf(uploader().upload(segment()));
        ASSERT_TRUE(error);
        if (*c.words) {
            EXPECT_EQ(failureText(error), QString::fromUtf8(c.words));
        } else {
            EXPECT_THROW(std::rethrow_exception(error), HTTPFailure);
        }
        EXPECT_TRUE(pauses.empty()) << "no second attempt";
    }
}

TEST_F(SegmentUploaderTest, RecordingStoppedAfterTheBytesWereAcceptedStillFails) {
    server.fail("complete", 1, 200, R"({"recording_state":"stopped"})");
    const auto error = failureOf(uploader().upload(segment()));
    EXPECT_EQ(failureText(error), "The server stopped this recording — open the call in your "
                                  "browser to review the saved audio.");
    EXPECT_TRUE(pauses.empty());

    // Once the server has stopped it, a presign of the recording is refused.
    server.stopRecording(meeting.toStdString());
    server.resetLog();
    EXPECT_TRUE(failureOf(uploader().upload(segment())));
    EXPECT_EQ(routes(), (Routes{"presign"}));
}

TEST_F(SegmentUploaderTest, CancellationDuringThePauseSendsNothingMore) {
    server.fail("presign", 1, 503, "{}");
    CancellationToken cancel;
    SegmentUploader cancelling(api, meeting, recording,
                               [&](double, CancellationToken t) -> Task<void> {
                                   cancel.cancel();
                                   co_await sleepFor(10, t);
                               });
    const auto error = failureOf(cancelling.upload(segment(), cancel));
    EXPECT_THROW(std::rethrow_exception(error), Cancelled);
    EXPECT_EQ(routes(), (Routes{"presign"}));
}
