// The two sibling tools as real processes: velmora-faketool plays them, found
// through the override variables and run with the helpers' PATH.
#include "subscriptions/Meterly.h"

#include "support/FakeTool.h"
#include "support/Wait.h"
#include "tools/HelperInstaller.h"

#include <QDir>
#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::test;
using namespace Qt::Literals::StringLiterals;
using nlohmann::json;

namespace {

struct SiblingToolsTest : ::testing::Test {
    FakeTool tool;

    void SetUp() override { tool.exportToProcess(); }

    static QProcessEnvironment overriding(const char* variable, const QString& path) {
        QProcessEnvironment environment;
        environment.insert(QString::fromLatin1(variable), path);
        return environment;
    }
};

} // namespace

TEST_F(SiblingToolsTest, AccountsTool) {
    const QString installed = tool.install(u"vantor-accounts"_s);
    const auto binary = VantorAccountsCLI::resolveBinary(
        overriding("VANTOR_ACCOUNTS_BIN", installed), QDir::homePath());
    ASSERT_EQ(binary, installed);
    tool.answer(json::array({
        {{"args", {"--tsv", "status"}},
         {"steps", json::array({{{"stdout", "*\tmain\t\t42\t\t\t\t\t30d\t\n"}}})}},
        {{"args_prefix", {"use"}}, {"exit", 2}},
    }));
    const auto client = VantorAccountsClient::create(VantorAccountsCLI::runner(*binary), 0);
    EXPECT_EQ(wait(client->status()).size(), 1);
    EXPECT_THROW(wait(client->use(u"x"_s)), VantorAccountsError);

    const auto runs = tool.runs();
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(runs[1]["args"], json::array({"use", "x"}));
    const QString privateBin = HelperInstaller::directory(
        HelperInstaller::dataDirectory(QProcessEnvironment::systemEnvironment(), QDir::homePath()));
    EXPECT_TRUE(QString::fromStdString(runs[0]["path"]).startsWith(privateBin + u":/usr/bin:"_s));
}

TEST_F(SiblingToolsTest, MeterlyReading) {
    const QString installed = tool.install(u"meterly"_s);
    EXPECT_FALSE(MeterlyCLI::resolveBinary(overriding("METERLY_BIN", installed + u".gone"_s),
                                           QDir::homePath()));
    const auto binary =
        MeterlyCLI::resolveBinary(overriding("METERLY_BIN", installed), QDir::homePath());
    ASSERT_EQ(binary, installed);
    EXPECT_EQ(MeterlyCLI::notInstalled(std::nullopt),
              u"meterly is not installed — install it to see the usage of your subscriptions."_s);

    const std::string reading =
        R"({"fetched_at":"2024-05-06T10:00:00Z","seats":[],"alerts":[],"next":{},"timeline":[]})";
    tool.answer(json::array({{{"steps", json::array({{{"stdout", reading}}})}}}));
    EXPECT_EQ(wait(MeterlyClient::create(MeterlyCLI::runner(*binary), 60)->status()).fetchedAt,
              u"2024-05-06T10:00:00Z"_s);

    EXPECT_EQ(tool.runs().at(0)["args"], json::array({"status", "--json"}));
}
