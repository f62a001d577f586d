// The meet API on its own against the local server, which answers for the
// server of another kind where a test needs it (a canned 200 in place of the
// real work): what is sent, what is refused before sending, and how answers
// are read.
#include "meet/MeetAPI.h"
#include "net/HTTPFailure.h"
#include "support/DevServer.h"
#include "support/Wait.h"

#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::test;

namespace {

using Routes = std::vector<std::string>;

class MeetAPITest : public ::testing::Test {
protected:
    DevServer server;
    std::optional<QString> token = QStringLiteral("vses_meet");
    MeetAPI api{QUrl(QString::fromStdString(server.meetBase())), [this] { return token; },
                HTTPClient()};

    // Create, start, acknowledge, join and request: the call's id.
    QString recordingCall() {
        const QString id = wait(api.create("Call", "Someone", ""));
        wait(api.begin(id, false, false, std::nullopt, std::nullopt, ignore));
        server.resetLog();
        return id;
    }
    // The next answer of a route, in place of the server's own work.
    void answer(const std::string& route, const std::string& body, int status = 200) {
        server.fail(route, 1, status, body);
    }
    static Task<void> ignore(BeginProgress) { co_return; }
};

// The status of a refused request; 0 for any other failure.
qint64 statusOf(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const HTTPFailure& failure) {
        return failure.status;
    } catch (...) {
        return 0;
    }
}

} // namespace

TEST_F(MeetAPITest, WithoutATokenA401IsThrownAndNothingIsSent) {
    for (const std::optional<QString>& missing :
         {std::optional<QString>(), std::optional(QString())}) {
        token = missing;
        try {
            wait(api.liveTesselMeetings());
            FAIL();
        } catch (const HTTPFailure& failure) {
            EXPECT_EQ(failure.status, 401);
            EXPECT_EQ(failure.detail, "No current member session");
            EXPECT_EQ(failure.path, "/meet/api/v1/meetings");
        }
    }
    EXPECT_TRUE(server.routes().empty());
}

TEST_F(MeetAPITest, BeginReadsTheNoticeAnewAndSendsOnlyWhatIsMissing) {
    const QString id = recordingCall();
    std::vector<BeginProgress> told;
    const auto record = [&told](BeginProgress step) -> Task<void> {
        told.push_back(step);
        co_return;
    };
    const auto ids = wait(api.begin(id, true, true, QString("hs_1"), QString("rec_1"), record));
    EXPECT_EQ(ids, (std::pair<QString, QString>{"hs_1", "rec_1"}));
    EXPECT_TRUE(told.empty());
    EXPECT_EQ(server.routes(), (Routes{"consent"}));

    // A version that is not a number: nothing more is sent.
    server.resetLog();
    answer("consent", R"({"notice":{"version":"3","text":"t"}})");
    EXPECT_EQ(wordsOf(failureOf(api.begin(id, false, false, {}, {}, record))),
              "The recording notice is missing — restore the server notice before starting.");
    EXPECT_EQ(server.routes(), (Routes{"consent"}));
}

TEST_F(MeetAPITest, LiveTesselMeetingsKeepsOnlyLiveHostedCallsAndReadsTheirForms) {
    answer("list", R"({"meetings":[
        {"id":"m1","title":"A","counterpart":"Acme","kind":"tessel","status":"live","is_host":true,
         "started_at":"2026-03-01T09:30:00.250Z"},
        {"id":"m2","title":"B","counterpart":7,"kind":"tessel","status":"live","is_host":true,
         "started_at":"2026-03-01T10:00:00+01:00"},
        {"id":"m3","title":"C","kind":"tessel","status":"live","is_host":true,
         "started_at":"1 March 2026"},
        {"id":"x1","title":"X","kind":"zoom","status":"live","is_host":true},
        {"id":"x2","title":"X","kind":"tessel","status":"ended","is_host":true},
        {"id":"x3","title":"X","kind":"tessel","status":"live","is_host":false},
        {"id":"x4","title":"X","kind":"tessel","status":"live"},
        {"id":"x5","title":"X","kind":"tessel","status":"live","is_host":"true"},
        "not a call"]})");
    const auto calls = wait(api.liveTesselMeetings());
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0],
              (OpenCall{"m1", "A", "Acme",
                        QDateTime::fromString("2026-03-01T09:30:00.250Z", Qt::ISODateWithMs)}));
    EXPECT_EQ(calls[1].counterpart, "Unknown counterpart");
    EXPECT_EQ(calls[1].startedAt, QDateTime::fromString("2026-03-01T09:00:00Z", Qt::ISODate));
    EXPECT_EQ(calls[2].counterpart, "Unknown counterpart");
    EXPECT_EQ(calls[2].startedAt, std::nullopt);

    answer("list", R"({"meetings":{"id":"m1"}})");
    EXPECT_TRUE(wait(api.liveTesselMeetings()).empty());
    answer("list", R"({"meetings":[{"id":"m1","kind":"tessel","status":"live","is_host":true}]})");
    EXPECT_EQ(wordsOf(failureOf(api.liveTesselMeetings())),
              "The server response is missing title — check the server version and retry.");
}

TEST_F(MeetAPITest, StopOpenCallAsksTheServerWhetherAFailedStepHappenedAnyway) {
    // No recording: only the manifest and the end.
    QString id = wait(api.create("Call", "Someone", ""));
    server.resetLog();
    wait(api.stopOpenCall(id));
    EXPECT_EQ(server.routes(), (Routes{"manifest", "end"}));

    // Both answers lost after the server acted: the reads show it was done.
    id = recordingCall();
    server.drop("stop");
    server.drop("end");
    EXPECT_FALSE(failureOf(api.stopOpenCall(id)));
    EXPECT_EQ(server.state()["meetings"].back()["status"], "ended");

    // Refused and not done: the refusal stands. A sign-in refusal skips the read.
    id = recordingCall();
    answer("end", R"({"error":{"code":"internal","message":"boom"}})", 500);
    EXPECT_EQ(statusOf(failureOf(api.stopOpenCall(id))), 500);
    EXPECT_EQ(server.routes(), (Routes{"manifest", "stop", "end", "read"}));
    id = recordingCall();
    answer("stop", R"({"error":{"code":"session_expired","message":"x"}})", 401);
    EXPECT_EQ(statusOf(failureOf(api.stopOpenCall(id))), 401);
    EXPECT_EQ(server.routes(), (Routes{"manifest", "stop"}));
}

TEST(OpenCall, RefreshFailureAsksForASignInOnlyOnARefusedSession) {
    const ErrorPresentation recorded("Recorded.", "HTTP 401 · x · y · /meet");
    const HTTPFailure refused(403, "{}", "/meet/api/v1/meetings");
    EXPECT_EQ(
        OpenCall::refreshFailure(refused, recorded),
        ErrorPresentation("Couldn't check for open calls — sign in again.", recorded.detailLine));
    EXPECT_EQ(OpenCall::refreshFailure(refused, std::nullopt).detailLine,
              ErrorPresentation::from(refused).detailLine);
    const HTTPFailure down(503, "", "/meet");
    EXPECT_EQ(OpenCall::refreshFailure(down, recorded), recorded);
    EXPECT_EQ(OpenCall::refreshFailure(down, std::nullopt), ErrorPresentation::from(down));
}

TEST(MeetAPIAddress, OnlyASecureAddressWithNothingButAHostAndAPath) {
    for (const char* good : {"https://velmora.ai/meet", "http://localhost:8080/meet",
                             "http://127.0.0.1/meet", "http://[::1]:9/meet"}) {
        EXPECT_NO_THROW(MeetAPI::validateURL(QUrl(good))) << good;
    }
    for (const char* bad :
         {"http://velmora.ai/meet", "https://user@velmora.ai/meet", "https://u:p@velmora.ai/meet",
          "https://velmora.ai/meet?org=1", "https://velmora.ai/meet#top", "https:///meet",
          "ftp://velmora.ai/meet", "velmora.ai/meet"}) {
        EXPECT_THROW(MeetAPI::validateURL(QUrl(bad)), TesselError) << bad;
    }
}
