// The onboarding tool's report: closed enums, what is derived from it, and
// which web addresses may be opened.
#include "infra/InfraStatus.h"

#include "errors/Failures.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tessel;
using namespace Qt::StringLiterals;
using nlohmann::json;

namespace {

json row(const std::string& url, const std::string& state = "running") {
    return {{"slug", "acme"},
            {"org_url", url},
            {"mode", "supervisor"},
            {"port", 7400},
            {"conductor", {{"state", state}}},
            {"tunnel", {{"state", "stopped"}, {"label", nullptr}}}};
}

InfraStatus decode(const json& document) {
    return InfraStatus::decode(QByteArray::fromStdString(document.dump()));
}

json statusReport(json orgs, json supervisor = {{"loaded", true}, {"label", "dev.velmora.agent"}}) {
    return {{"supervisor", std::move(supervisor)}, {"next_port", 7401}, {"orgs", std::move(orgs)}};
}

TEST(InfraStatusTest, DecodesOnlyTheKnownForms) {
    const InfraStatus status = decode(statusReport({row("https://acme.example")}));
    ASSERT_EQ(status.orgs.size(), 1);
    InfraStatus::Conductor onlyState;
    onlyState.state = InfraStatus::State::running;
    EXPECT_EQ(status.orgs[0].conductor, onlyState);
    EXPECT_EQ(status.orgs[0].port, 7400);
    EXPECT_EQ(status.nextPort, 7401);

    json paused = statusReport({row("https://a.example"), row("https://b.example", "paused")});
    json fractional = statusReport(json::array());
    fractional["next_port"] = 7401.5;
    json noOrgs = statusReport(json::array());
    noOrgs.erase("orgs");
    for (const json& bad : {paused, fractional, noOrgs}) {
        EXPECT_THROW(decode(bad), DecodingError) << bad.dump();
    }
    try {
        decode(paused);
    } catch (const DecodingError& error) {
        EXPECT_TRUE(error.description().contains(u"orgs[1].conductor.state"_s));
    }
}

TEST(InfraStatusTest, DerivedValues) {
    const InfraStatus status =
        decode(statusReport({row("https:///nohost"), row("https://Acme.Example/x")},
                            {{"loaded", false}, {"label", "dev.velmora.agent"}, {"detail", ""}}));
    EXPECT_EQ(status.supervisor.humanLine(), u""_s);
    EXPECT_EQ(InfraStatus::Supervisor({false, u"dev.velmora.agent"_s, std::nullopt}).humanLine(),
              u"dev.velmora.agent is not loaded"_s);
    ASSERT_TRUE(status.organisation(u"acme.example"_s));
    EXPECT_EQ(status.organisation(u"acme.example"_s)->orgURL, u"https://Acme.Example/x"_s);
    EXPECT_FALSE(status.organisation(u""_s));
}

TEST(InfraStatusTest, WebURLChecksTheRawText) {
    const std::pair<QString, bool> cases[] = {
        {u"https://acme.example:8443/app?x=@"_s, true},
        {u"http://127.0.0.1:7400"_s, true},
        {u"HTTPS://acme.example"_s, false},
        {u"Http://acme.example"_s, false},
        {u"ftp://acme.example"_s, false},
        {u"https://user@acme.example"_s, false},
        {u"https://user:pw@acme.example"_s, false},
        {u"https://@acme.example"_s, false},
        {u"https:///path"_s, false},
        {u"https://acme example"_s, false},
        {u"acme.example"_s, false},
    };
    for (const auto& [text, accepted] : cases) {
        EXPECT_EQ(InfraCLI::webURL(text).has_value(), accepted) << text.toStdString();
    }
}

} // namespace
