// The application model against the local server: a scripted audio source, a
// keyring in memory, time running a hundred times faster, and a "browser"
// that approves every sign-in code it is shown.
#include "errors/ErrorLog.h"
#include "net/HTTPFailure.h"
#include "support/AppModelRig.h"
#include "support/Wait.h"

#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::test;

namespace {

const QString alpha = "alpha.velmora.test";
const QString beta = "beta.velmora.test";

class AppModelTest : public ::testing::Test, protected AppModelRig {
protected:
    AppModelTest() {
        openURL = [this](const QUrl& url) { browse(url); };
    }

    // The member approves any code whose page opens.
    void browse(const QUrl& url) {
        opened.push_back(url);
        if (url.path() == "/device" && approveCodes && model && model->grant()) {
            server.authorize("approve", model->grant()->userCode.toStdString(),
                             {{"token", "vses_renewed"}});
        }
    }

    void saveMember(const QString& host, const QString& token, qint64 seconds = 3600) {
        SessionKeychain(store, [this] {
            return wall;
        }).save({token, std::nullopt, wall.addSecs(seconds)}, host);
    }

    bool settled() {
        return !model->loadingOpenCalls() && !model->stoppingOpenCall() && !model->signingIn();
    }

    std::string statusOf(const QString& meeting) {
        // Held by name: a loop over a part of a temporary reads freed memory.
        const auto state = server.state();
        for (const auto& entry : state["meetings"]) {
            if (entry["id"] == meeting.toStdString()) {
                return entry["status"];
            }
        }
        return "absent";
    }

    // A call left open on the server by an earlier run of the program.
    QString leftOpenCall() {
        saveMember(alpha, "vses_earlier");
        auto earlier = makeModel(false);
        earlier->changeOrganisation();
        EXPECT_TRUE(wait(earlier->start("Weekly sync", "Acme", "", true)));
        return earlier->capture()->meetingID().value_or("");
    }

    std::vector<QUrl> opened;
    bool approveCodes = true;
    std::unique_ptr<AppModel> model;
};

} // namespace

TEST_F(AppModelTest, ExpiredMemberGetsTheSignInLineAndNoCapture) {
    saveMember(alpha, "vses_short", 60);
    model = makeModel();
    ASSERT_TRUE(model->member());
    wall = wall.addSecs(120);

    EXPECT_FALSE(wait(model->start("Weekly sync", "Acme", "", true)));
    EXPECT_EQ(model->capture(), nullptr);
    EXPECT_FALSE(model->startingCapture());
    EXPECT_EQ(model->error(), HTTPFailure(401, "", "").humanLine());
    EXPECT_EQ(audio->prepared, 0);
    EXPECT_EQ(server.requests("create"), 0);
}

TEST_F(AppModelTest, LostSignInDuringStartKeepsTheCaptureAndResumesAfterSignIn) {
    saveMember(alpha, "vses_revoked");
    server.revoke("vses_revoked");
    model = makeModel();

    EXPECT_FALSE(wait(model->start("Weekly sync", "Acme", "", true)));
    ASSERT_NE(model->capture(), nullptr);
    EXPECT_EQ(model->capture()->state(), CaptureState::needsSignIn);
    EXPECT_FALSE(model->error());
    EXPECT_FALSE(model->canStartCapture());
    EXPECT_FALSE(model->updates().canCheckForUpdates());

    model->signIn();
    ASSERT_TRUE(eventually([&] { return model->capture()->state() == CaptureState::listening; }));
    EXPECT_EQ(model->member()->token, "vses_renewed");
    EXPECT_EQ(opened.front().path(), "/device");
    EXPECT_TRUE(model->capture()->meetingID());
}

TEST_F(AppModelTest, ServerErrorAtStartKeepsTheCaptureToBeStopped) {
    saveMember(alpha, "vses_member");
    model = makeModel();
    server.fail("start", 1, 500, R"({"error":{"code":"boom","message":"Boom."}})");

    EXPECT_FALSE(wait(model->start("Weekly sync", "Acme", "", true)));
    ASSERT_NE(model->capture(), nullptr);
    EXPECT_TRUE(model->capture()->meetingID());
    EXPECT_FALSE(model->canStartCapture());
    EXPECT_TRUE(model->error());

    // Stopping it closes the call and keeps its id for the notes link.
    const QString meeting = *model->capture()->meetingID();
    wait(model->stop(false));
    EXPECT_EQ(model->capture(), nullptr);
    EXPECT_EQ(model->savedCallID(), meeting);
    EXPECT_TRUE(model->canStartCapture());
}

TEST_F(AppModelTest, ChangingOrganisationDuringAListDropsTheOldAnswer) {
    saveMember(alpha, "vses_alpha");
    saveMember(beta, "vses_beta_member");
    // The first list would show a call that only the old organisation has.
    server.script("list", 1, 200,
                  R"({"meetings":[{"id":"ghost","title":"Old","kind":"tessel","status":"live",)"
                  R"("is_host":true}]})");
    model = makeModel();
    ASSERT_TRUE(model->loadingOpenCalls());
    bool ghostShown = false;
    QObject::connect(model.get(), &AppModel::openCallsChanged, [&] {
        for (const OpenCall& call : model->openCalls()) {
            ghostShown = ghostShown || call.id == "ghost";
        }
    });
    model->selectOrg(beta);
    EXPECT_EQ(model->org(), beta);
    EXPECT_EQ(model->member()->token, "vses_beta_member");

    ASSERT_TRUE(eventually([&] { return server.requests("list") == 2 && settled(); }));
    EXPECT_FALSE(ghostShown);
    EXPECT_TRUE(model->openCalls().empty());
    const auto log = server.requestLog();
    std::vector<nlohmann::json> lists;
    for (const auto& entry : log) {
        if (entry["route"] == "list") {
            lists.push_back(entry);
        }
    }
    ASSERT_EQ(lists.size(), 2u);
    EXPECT_EQ(lists[1]["token"]["length"], QString("vses_beta_member").size());
}

TEST_F(AppModelTest, SignInRunsTheOpenCallStopThatWaitedForIt) {
    const QString meeting = leftOpenCall();
    saveMember(alpha, "vses_stale");
    server.revoke("vses_stale");
    model = makeModel(false);
    model->changeOrganisation();

    wait(model->stopOpenCall(meeting, false));
    EXPECT_EQ(model->pendingOpenCallStop(), meeting);
    EXPECT_EQ(model->error(), HTTPFailure::signInLine);

    model->signIn();
    ASSERT_TRUE(eventually([&] { return !model->pendingOpenCallStop() && settled(); }));
    EXPECT_NE(statusOf(meeting), "live");
    // The stop went the browser's way, to the lobby.
    EXPECT_EQ(opened.back(), endpoints.requestURL(QUrl("https://" + alpha + "/meet/")));
}

TEST_F(AppModelTest, ConflictOnStoppingAnOpenCallListsAgain) {
    const QString meeting = leftOpenCall();
    model = makeModel();
    ASSERT_TRUE(eventually([&] { return settled() && model->openCalls().size() == 1; }));
    server.fail("manifest", 1, 409,
                R"({"error":{"code":"conflict","message":"Already stopped."}})");
    server.resetLog();

    wait(model->stopOpenCall(meeting, false));
    EXPECT_EQ(server.routes(), (std::vector<std::string>{"manifest", "list"}));
    EXPECT_TRUE(model->error());
    EXPECT_FALSE(model->stoppingOpenCall());
    EXPECT_EQ(model->openCalls().size(), 1u);
}

// A failed list is logged once, whether the transport refused it (and wrote
// the line) or its answer made no sense.
TEST_F(AppModelTest, AFailedListIsLoggedOnce) {
    saveMember(alpha, "vses_member");
    model = makeModel(false);
    model->changeOrganisation();
    std::vector<QString> logged;
    const log::ScopedSink sink([&](log::Level level, const char*, const QString& text) {
        if (level == log::Level::error) {
            logged.push_back(text);
        }
    });
    for (const auto& [status, body] : std::vector<std::pair<int, std::string>>{
             {500, R"({"error":{"code":"boom","message":"Boom."}})"}, {200, "[1"}}) {
        server.script("list", 1, status, body);
        logged.clear();
        wait(model->refreshOpenCalls());
        ASSERT_TRUE(model->errorDetails()) << body;
        EXPECT_EQ(logged, std::vector<QString>{*model->errorDetails()}) << body;
    }
}
