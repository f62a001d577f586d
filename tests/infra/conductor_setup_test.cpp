// The set-up run against the stand-in tool: what it is given, what it may
// print, and that its private directory is gone whatever the outcome.
#include "infra/ConductorSetup.h"

#include "support/FakeTool.h"
#include "support/QtPrint.h"
#include "support/Wait.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace tessel;
using namespace Qt::StringLiterals;
using nlohmann::json;

namespace {

using Name = ConductorStep::Name;
using State = ConductorStep::State;

std::string line(const std::string& step, const std::string& state, const std::string& detail) {
    return json{{"step", step}, {"state", state}, {"detail", detail}}.dump() + "\n";
}

json out(const std::string& text, bool expand = false) {
    return {{"stdout", text}, {"expand", expand}};
}

const ConductorSecretValues secrets = {
    {ConductorSecret::serviceToken, u"svc-abcdef"_s},
    {ConductorSecret::v2Key, u"v2-secret"_s},
    {ConductorSecret::tunnelToken, u""_s},
    {ConductorSecret::tunnelID, u"tun-42"_s},
    {ConductorSecret::agentID, u"agent-7"_s},
};

class ConductorSetupTest : public ::testing::Test {
protected:
    test::FakeTool tool;
    QTemporaryDir scratch;
    QString tempRoot = scratch.filePath(u"run/Velmora/tmp"_s);
    StreamingToolRunner runner =
        makeStreamingToolRunner(tool.install(u"velmora-conductor-onboard"_s), tool.environment());
    int refreshes = 0;

    void run(ConductorSetupModel& model, const QString& slug = u"acme"_s, qint64 port = 7400,
             bool dryRun = false) {
        test::wait(model.run(u"acme.example"_s, QUrl(u"https://acme.example"_s), slug, port,
                             secrets, dryRun, [this]() -> Task<void> {
                                 ++refreshes;
                                 co_return;
                             }));
        EXPECT_FALSE(model.isRunning());
    }
    ConductorSetupModel model(StreamingToolRunner r) {
        return ConductorSetupModel(InfraTool{[r] { return std::optional(r); }, u"missing"_s},
                                   tempRoot);
    }
    QStringList leftInRoot() const {
        return QDir(tempRoot).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    }
    static json statusWithOpenURL(const std::string& openURL) {
        return {{"args", {"status", "--json"}},
                {"steps",
                 {out(json{{"supervisor", {{"loaded", true}, {"label", "velmora-agent.service"}}},
                           {"next_port", 7402},
                           {"orgs",
                            {{{"slug", "acme"},
                              {"org_url", "https://ACME.example"},
                              {"mode", "supervisor"},
                              {"conductor", {{"state", "running"}, {"open_url", openURL}}},
                              {"tunnel", {{"state", "running"}}}}}}}
                          .dump())}}};
    }
};

TEST_F(ConductorSetupTest, BadSlugOrPortCreatesNothing) {
    tool.answer({{{"args_prefix", {"setup"}}, {"exit", 1}}});
    const std::pair<QString, qint64> refused[] = {{u""_s, 7400},   {u"Acme"_s, 7400},
                                                  {u"-a"_s, 7400}, {u"a_b"_s, 7400},
                                                  {u"acme"_s, 0},  {u"acme"_s, 65536}};
    for (const auto& [slug, port] : refused) {
        auto setup = model(runner);
        run(setup, slug, port);
        EXPECT_EQ(setup.failure(), ConductorSetupModel::validationFailure) << slug.toStdString();
    }
    EXPECT_FALSE(QDir(tempRoot).exists());
    EXPECT_TRUE(tool.runs().empty());

    auto setup = model(runner);
    run(setup, u"a-1"_s, 65535);
    EXPECT_EQ(tool.runs().size(), 1u);
}

TEST_F(ConductorSetupTest, ARunGivesSecretsOnlyInPrivateFilesAndShowsThemRedacted) {
    tool.answer({{{"args_prefix", {"setup"}},
                  {"steps",
                   {out(line("write-config", "running", "writing")),
                    out("\n  \n"),
                    out(line("preflight", "done", "token ${--service-token-file} ok"), true),
                    {{"sleep", 0.05}},
                    out(line("write-config", "done", "written")),
                    out(line("verify", "done", "agent ${--agent-id} answered"), true)}}},
                 statusWithOpenURL("https://acme.example:7400/")});
    auto setup = model(runner);
    run(setup);

    EXPECT_EQ(setup.failure(), std::nullopt);
    EXPECT_TRUE(setup.succeeded());
    EXPECT_EQ(refreshes, 1);
    EXPECT_EQ(setup.openURL(), QUrl(u"https://acme.example:7400/"_s));
    const QList<ConductorStep> expected = {
        {Name::preflight, State::done, u"token [redacted] ok"_s},
        {Name::writeConfig, State::done, u"written"_s},
        {Name::verify, State::done, u"agent [redacted] answered"_s}};
    EXPECT_EQ(setup.steps(), expected);

    const json given = tool.runs().at(0);
    const std::string args = given["args"].dump();
    EXPECT_EQ(args.find("svc-abcdef"), std::string::npos);
    EXPECT_EQ(args.find("v2-secret"), std::string::npos);
    EXPECT_EQ(args.find("tunnel-token"), std::string::npos); // empty: neither file nor argument
    EXPECT_EQ(given["args"][0], "setup");
    EXPECT_EQ(given["args"].back(), "--json");
    EXPECT_NE(args.find(R"("--tunnel-id","tun-42","--agent-id","agent-7")"), std::string::npos);
    EXPECT_EQ(given["files"]["--service-token-file"]["mode"], "0600");
    EXPECT_EQ(given["files"]["--service-token-file"]["content"], "svc-abcdef");
    EXPECT_EQ(given["files"]["--v2-key-file"]["content"], "v2-secret");
    EXPECT_EQ(tool.runs().at(1)["args"], json({"status", "--json"}));

    EXPECT_TRUE(QDir(tempRoot).exists());
    EXPECT_EQ(leftInRoot(), QStringList());
}

TEST_F(ConductorSetupTest, EveryFailureIsOneRedactedLineAndLeavesNoDirectory) {
    struct Case {
        json steps;
        int exit;
        QString failure;
    };
    const std::vector<Case> cases = {
        {{out(line("preflight", "done", "ok")), out("oops ${--v2-key-file}\n", true),
          out(line("verify", "done", "ok"))},
         0,
         u"oops [redacted]"_s},
        {{out(line("preflight", "done", "ok")), out(line("write-tunnel", "skipped", "none"))},
         0,
         ConductorSetupModel::noVerificationFailure},
        {{out(line("preflight", "done", "ok")),
          out(line("start-conductor", "running", "port busy"))},
         2,
         u"port busy"_s},
        {{{{"stderr", "bad token ${--service-token-file}\n"}, {"expand", true}}},
         2,
         u"bad token [redacted]"_s},
        {{out(line("preflight", "failed", "no docker for tun-42")),
          out(line("preflight", "done", "later lines are ignored"))},
         0,
         u"no docker for [redacted]"_s},
    };
    for (const Case& c : cases) {
        tool.answer({{{"args_prefix", {"setup"}}, {"steps", c.steps}, {"exit", c.exit}}});
        auto setup = model(runner);
        run(setup);
        EXPECT_EQ(setup.failure(), c.failure);
        EXPECT_FALSE(setup.succeeded());
        EXPECT_EQ(leftInRoot(), QStringList()) << c.failure.toStdString();
    }
    EXPECT_EQ(refreshes, 0);
}

// $XDG_RUNTIME_DIR is only a name: the folder behind it, and the Velmora folder
// in it, must be the user's own and closed to others before a secret goes there.
TEST_F(ConductorSetupTest, ARuntimeFolderOpenToOthersIsRefused) {
    tool.answer({{{"args_prefix", {"setup"}}, {"steps", {out(line("verify", "done", "ok"))}}}});
    const QString shared = scratch.filePath(u"shared"_s);
    ASSERT_TRUE(QDir().mkpath(shared));
    const QByteArray native = QFile::encodeName(shared);
    ASSERT_EQ(::chmod(native.constData(), 0777), 0);
    QProcessEnvironment environment;
    environment.insert(u"XDG_RUNTIME_DIR"_s, shared);
    const QString root =
        ConductorSetupModel::defaultTempRoot(environment, scratch.filePath(u"data"_s));
    const auto refuse = [&](const QString& folder) {
        ConductorSetupModel setup(InfraTool{[this] { return std::optional(runner); }, u"missing"_s},
                                  root);
        run(setup);
        EXPECT_EQ(setup.failure(), u"The folder %1 is open to other users — secrets are not put "
                                   u"there; make it yours with mode 0700 or set XDG_RUNTIME_DIR "
                                   u"to a private folder."_s.arg(folder));
        EXPECT_FALSE(QFileInfo::exists(root)) << root.toStdString();
    };
    refuse(shared);

    EXPECT_TRUE(tool.runs().empty());

    // Another user's Velmora folder in an otherwise private runtime folder.
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can give a folder to another user";
    }
    ASSERT_EQ(::chmod(native.constData(), 0700), 0);
    const QString velmora = shared + u"/Velmora"_s;
    const QByteArray velmoraNative = QFile::encodeName(velmora);
    ASSERT_EQ(::mkdir(velmoraNative.constData(), 0777), 0);
    ASSERT_EQ(::chmod(velmoraNative.constData(), 0777), 0);
    ASSERT_EQ(::chown(velmoraNative.constData(), 65534, 65534), 0);
    refuse(velmora);
    EXPECT_TRUE(tool.runs().empty());
}

TEST_F(ConductorSetupTest, ADryRunSucceedsWithoutRereading) {
    tool.answer(
        {{{"args_prefix", {"setup"}},
          {"steps",
           {out(line("preflight", "skipped", "dry")), out(line("verify", "skipped", "dry"))}}}});
    auto setup = model(runner);
    run(setup, u"acme"_s, 7400, true);
    EXPECT_TRUE(setup.succeeded());
    EXPECT_TRUE(setup.wasDryRun());
    EXPECT_EQ(refreshes, 0);
    EXPECT_EQ(tool.runs().size(), 1u);
    EXPECT_NE(tool.runs()[0]["args"].dump().find(R"("--dry-run","--json"])"), std::string::npos);
}

TEST_F(ConductorSetupTest, AnOpenURLWithASecretIsNeverOffered) {
    tool.answer({{{"args_prefix", {"setup"}}, {"steps", {out(line("verify", "done", "ok"))}}},
                 statusWithOpenURL("https://acme.example/?agent=agent-7")});
    auto setup = model(runner);
    run(setup);
    EXPECT_TRUE(setup.succeeded());
    EXPECT_EQ(setup.failure(), std::nullopt);
    EXPECT_EQ(setup.openURL(), std::nullopt);
}

TEST_F(ConductorSetupTest, ACancelledRunLeavesNoDirectory) {
    tool.answer({{{"args_prefix", {"setup"}},
                  {"steps", {out(line("preflight", "running", "")), {{"sleep", 600}}}}}});
    CancellationToken token;
    const StreamingToolRunner cancelling = [this, token](QStringList arguments, LineCallback onLine,
                                                         CancellationToken) {
        const LineCallback cancelFirst = [token, onLine](QString text) {
            token.cancel();
            return onLine(text);
        };
        return runner(arguments, cancelFirst, token);
    };
    auto setup = model(cancelling);
    run(setup);
    EXPECT_FALSE(setup.succeeded());
    EXPECT_EQ(leftInRoot(), QStringList());
}

TEST(RedactorTest, TheLongerSecretGoesFirst) {
    const Redactor redact(
        {{ConductorSecret::v2Key, u"abc"_s}, {ConductorSecret::tunnelToken, u"abcdef"_s}});
    EXPECT_EQ(redact(u"xabcdefy abc"_s), u"x[redacted]y [redacted]"_s);
}

// A line that isn't a step is shown as it came, so a secret may arrive in any
// of JSON's spellings of it.
TEST(RedactorTest, EveryJSONSpellingOfASecretGoes) {
    const Redactor redact({{ConductorSecret::serviceToken, u"svc \"quoted\" é/🔑\\-0123456789"_s}});
    const QString spellings[] = {
        u"svc \"quoted\" é/🔑\\-0123456789"_s,
        u"svc \\\"quoted\\\" é/🔑\\\\-0123456789"_s,
        u"svc \\\"quoted\\\" \\u00e9\\/\\ud83d\\udd11\\\\-0123456789"_s,
        u"svc \\u0022quoted\\u0022 \\u00E9/\\uD83D\\uDD11\\u005c-\\u0030123456789"_s,
    };
    for (const QString& spelling : spellings) {
        EXPECT_EQ(redact(u"{\"detail\": \""_s + spelling + u"\" x"_s),
                  u"{\"detail\": \"[redacted]\" x"_s)
            << spelling.toStdString();
    }
    EXPECT_TRUE(redact.reveals(spellings[2]));
    EXPECT_EQ(redact(u"svc \\\"quoted"_s), u"svc \\\"quoted"_s) << "a piece is not the secret";
}

} // namespace
