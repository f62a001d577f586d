// Device sign-in against the local server over HTTPS, with time injected:
// what the code and token answers may hold, and when the polls go out.
#include "errors/ErrorLog.h"
#include "identity/DeviceLogin.h"
#include "identity/Endpoints.h"
#include "net/HTTPFailure.h"
#include "support/DevServer.h"
#include "support/Files.h"
#include "support/Wait.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::test;

namespace {

const QDateTime wall = QDateTime::fromSecsSinceEpoch(1'900'000'000, Qt::UTC);

class DeviceSignIn : public ::testing::Test {
protected:
    DeviceSignIn() {
        // The endpoints file a person writes to run against this server; the
        // name "localhost" lets a sub-domain be told apart.
        origin = "https://localhost:" + server.origin().substr(server.origin().rfind(':') + 1);
        const nlohmann::json file{{"auth_service_url", origin}, {"ca_file", server.certPath()}};
        endpoints = Endpoints::load(
            writeFile(dir.filePath("endpoints.json"), QByteArray::fromStdString(file.dump())));
    }

    Task<void> sleep(double seconds, CancellationToken token) {
        token.check();
        sleeps.push_back(seconds);
        now += seconds;
        co_return;
    }

    DeviceLogin login(double inactivitySeconds = 30) {
        auto options = endpoints.httpOptions();
        options.inactivitySeconds = inactivitySeconds;
        return DeviceLogin(endpoints.authServiceURL, "velmora-tessel",
                           HTTPClient(std::make_shared<HTTPSession>(options)),
                           {[this] { return now; },
                            [this](double s, CancellationToken t) { return sleep(s, t); },
                            [] { return wall; }});
    }

    DevServer server{{.https = true}};
    std::string origin;
    QTemporaryDir dir;
    Endpoints endpoints;
    double now = 0;
    std::vector<double> sleeps;
};

template <typename T> std::pair<std::optional<T>, QString> outcome(Task<T> task) {
    try {
        return {wait(std::move(task)), {}};
    } catch (const Failure& failure) {
        return {std::nullopt, failure.description()};
    }
}

const QString codeExpired = "The sign-in code expired — choose Sign in to request a new code.";

} // namespace

TEST_F(DeviceSignIn, CodeAnswers) {
    const DeviceGrant real = wait(login().requestCode());
    EXPECT_EQ(real.verificationURL.toString(),
              QString::fromStdString(origin + "/device?user_code=") + real.userCode);
    EXPECT_EQ(real.expiresIn, 900);
    EXPECT_EQ(real.interval, 5);

    const QString odd = "The sign-in response has an unexpected verification URL — confirm the "
                        "auth service configuration before retrying.";
    const QString expired = "The sign-in code is already expired — request a fresh code.";
    const std::string page = origin + "/device";
    struct Row {
        std::string members;
        QString failure = {};
        std::string verification = {};
        double expiresIn = 0, interval = 0;
    };
    for (const Row& row : std::vector<Row>{
             {R"("verification_uri_complete": 7, "verification_uri": ")" + page +
                  R"(?x", "expires_in": 1800, "interval": 0.2)",
              "", page + "?x", 900, 0.2},
             {R"("expires_in": "soon")", "", page, 900, 5},
             {R"("verification_uri": "http)" + page.substr(5) + "\"", odd},
             {R"("verification_uri": "https://auth.localhost/device")", odd},
             {R"("verification_uri": "HTTPS://localhost/device")", odd},
             {R"("expires_in": 0)", expired},
             {R"("interval": 0)", expired},
         }) {
        SCOPED_TRACE(row.members);
        server.script("device_code", 1, 200,
                      R"({"device_code": "d", "user_code": "U", )" + row.members + "}");
        const auto [grant, failure] = outcome(login().requestCode());
        EXPECT_EQ(failure, row.failure);
        if (grant) {
            EXPECT_EQ(*grant, (DeviceGrant{"d", "U", QUrl(QString::fromStdString(row.verification)),
                                           row.expiresIn, row.interval}));
        }
    }
}

TEST_F(DeviceSignIn, TokenAnswers) {
    using Kind = PollResult::Kind;
    const QString noMemberSession =
        "Sign-in did not return a vses_ member session — verify the device-token response "
        "field with velmora-auth; organisation API keys cannot host calls.";
    struct Row {
        int status;
        std::string body;
        std::optional<Kind> kind;
        QString failure = {};
        double days = 0;
        std::optional<QString> email = {};
    };
    for (const Row& row : std::vector<Row>{
             {200, R"({"error": "access_denied"})", Kind::denied},
             {400, R"({"error": "slow_down"})", Kind::slowDown},
             {400, R"({"error": "expired_token"})", Kind::expired},
             {400,
              R"({"error": "invalid_grant"})",
              {},
              "Sign-in refused: invalid_grant — request a new code or ask your organisation "
              "administrator to restore member access."},
             {500,
              R"({"message": "down"})",
              {},
              "Something went wrong talking to the server. "
              "Details below."},
             {500, "<html>down</html>", {}, "json"},
             {200, R"({"access_token": "sk_live_1"})", {}, noMemberSession},
             {200, R"(["vses_1"])", {}, noMemberSession},
             {200, R"({"session_token": "vses_1", "expires_in": 86400})", Kind::success, {}, 1},
             {200,
              R"({"access_token": "vses_1", "expires_in": 1e7, "user": {"email": "u@x"}})",
              Kind::success,
              {},
              7,
              "u@x"},
             {200,
              R"({"session_token": "vses_1", "expires_in": "x", "email": "e@x"})",
              Kind::success,
              {},
              7,
              "e@x"},
             {200, R"({"session_token": "vses_1", "expires_in": -1})", Kind::expired},
         }) {
        SCOPED_TRACE(row.body);
        server.script("device_token", 1, row.status, row.body);
        const auto [result, failure] = outcome(login().pollOnce({"dc", "U", {}, 900, 5}));
        EXPECT_EQ(result ? std::optional(result->kind) : std::nullopt, row.kind);
        if (row.failure == "json") {
            EXPECT_TRUE(failure.contains("isn't in the correct format")) << failure.toStdString();
        } else {
            EXPECT_EQ(failure, row.failure);
        }
        if (result && result->session) {
            EXPECT_EQ(*result->session,
                      (MemberSession{"vses_1", row.email, wall.addDays(qint64(row.days))}));
        }
    }
}

// Two slow_downs from 5 s give pauses of 5, 10 and 15 s; a request that times
// out doubles the pause to 30 s.
TEST_F(DeviceSignIn, PollScheduleBacksOff) {
    const DeviceLogin quick = login(0.3);
    const DeviceGrant grant = wait(quick.requestCode());
    server.authorize("approve", grant.userCode.toStdString(), {{"email", "m@velmora.test"}});
    server.script("device_token", 2, 400, R"({"error": "slow_down"})");
    server.delay("device_token", 1, 1500);

    const MemberSession session = wait(quick.signIn(grant));
    EXPECT_TRUE(session.token.startsWith("vses_"));
    EXPECT_EQ(session.email, "m@velmora.test");
    EXPECT_EQ(sleeps, (std::vector<double>{5, 10, 15, 30}));
}

// The last pause ends at the deadline, and no request goes out then.
TEST_F(DeviceSignIn, PollStopsAtTheDeadline) {
    struct Row {
        double expiresIn, interval;
        std::vector<double> sleeps;
        long requests;
    };
    for (const Row& row : std::vector<Row>{
             {3, 5, {3}, 0},
             {12, 5, {5, 5, 2}, 2},
             {3.5, 0.2, {1, 1, 1, 0.5}, 3},
         }) {
        DeviceGrant grant = wait(login().requestCode());
        grant.expiresIn = row.expiresIn;
        grant.interval = row.interval;
        server.resetLog();
        sleeps.clear();
        EXPECT_EQ(outcome(login().signIn(grant)).second, codeExpired);
        EXPECT_EQ(sleeps, row.sleeps);
        EXPECT_EQ(server.requests("device_token"), row.requests);
    }
}

TEST_F(DeviceSignIn, DeclinedOrExpiredOnTheServer) {
    for (const auto& [action, failure] : std::vector<std::pair<std::string, QString>>{
             {"deny", "Sign-in was declined — choose Sign in and approve the new code in your "
                      "browser."},
             {"expire", codeExpired},
         }) {
        const DeviceGrant grant = wait(login().requestCode());
        server.authorize(action, grant.userCode.toStdString());
        server.resetLog();
        EXPECT_EQ(outcome(login().signIn(grant)).second, failure);
        EXPECT_EQ(server.requests("device_token"), 1);
    }
}

// "Not approved yet" is the normal wait: nothing is logged for it. A refusal
// still is.
TEST_F(DeviceSignIn, PendingPollsLogNothing) {
    std::vector<QString> logged;
    const log::ScopedSink sink(
        [&](log::Level, const char*, const QString& text) { logged.push_back(text); });
    DeviceGrant grant = wait(login().requestCode());
    grant.expiresIn = 12;
    server.resetLog();
    EXPECT_EQ(outcome(login().signIn(grant)).second, codeExpired);
    EXPECT_EQ(server.requests("device_token"), 2);
    EXPECT_EQ(logged, std::vector<QString>());

    server.script("device_token", 1, 400, R"({"error": "invalid_grant"})");
    outcome(login().pollOnce(grant));
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_TRUE(logged[0].contains("invalid_grant")) << logged[0].toStdString();
}
