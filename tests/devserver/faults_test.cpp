// Each fault does what its name says, and only to the requests it was queued for.
#include "MeetClient.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <thread>

using namespace tessel::test;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

namespace {

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

json statusesOf(const json& log) {
    json out = json::array();
    for (const json& entry : log) {
        out.push_back(entry["status"]);
    }
    return out;
}

} // namespace

TEST(Faults, FailAnswersWithoutActingThenTheRouteWorksAgain) {
    DevServer server;
    MeetClient api(server);
    server.fail("create", 2, 503, R"({"error":{"code":"unavailable","message":"later"}})");
    for (int i = 0; i < 2; ++i) {
        const Answer a = api.post("", json{{"title", "T"},
                                           {"counterpart", "C"},
                                           {"kind", "tessel"},
                                           {"disclosure_acked", true},
                                           {"capture_source", "desktop"}});
        EXPECT_EQ(a.status, 503);
        EXPECT_EQ(a.code(), "unavailable");
    }
    EXPECT_TRUE(server.state()["meetings"].empty()) << "a failed request did nothing";
    api.create();
    EXPECT_EQ(statusesOf(server.requestLog()), (json{503, 503, 201}));
    EXPECT_EQ(server.requestLog()[0]["fault"], "fail");

    // Any bytes, in the order queued, and "*" for whatever comes next.
    server.injectFault({{"route", "list"},
                        {"mode", "fail"},
                        {"status", 200},
                        {"body_base64", "/wD+"},
                        {"content_type", "application/octet-stream"}});
    server.fail("list", 1, 502, "bad gateway", "text/plain");
    server.fail("*", 1, 500, "{}");
    const Answer bytes = api.get("");
    EXPECT_EQ(bytes.status, 200);
    EXPECT_EQ(bytes.text, std::string("\xFF\x00\xFE", 3));
    EXPECT_EQ(api.get("").status, 502);
    EXPECT_EQ(api.post("/mtg_none/start").status, 500);
    EXPECT_EQ(api.get("").status, 200);
}

TEST(Faults, DropActsAndThenSendsNoAnswer) {
    DevServer server;
    MeetClient api(server);
    const std::string meeting = api.create();
    server.drop("start");
    const Answer start = api.post("/" + meeting + "/start");
    EXPECT_EQ(start.status, 0);
    EXPECT_EQ(start.error, httplib::Error::Read);
    EXPECT_EQ(api.get("/" + meeting).body["status"], "live") << "the start happened";

    // The bytes of a dropped PUT are stored; the retry and completion succeed.
    const MeetClient::Call call = api.openRecording();
    const std::string bytes = adtsFrames(2);
    const Answer signed_ = api.presign(call, "audio_local", chunkUUID(1), bytes.size());
    server.drop("put");
    EXPECT_EQ(api.put(signed_.body["upload_url"], bytes).status, 0);
    EXPECT_TRUE(
        std::filesystem::exists(server.dataDir() + "/" + call.meeting + "/audio_local/000000.aac"));
    EXPECT_EQ(api.put(signed_.body["upload_url"], bytes).status, 200);

    const json log = server.requestLog();
    EXPECT_EQ(log[1]["status"], "dropped");
    EXPECT_EQ(log[1]["answer"], 200);
}

TEST(Faults, DelayStallsOneRequestWhileOthersAreServed) {
    DevServer server;
    MeetClient api(server);
    const std::string meeting = api.create();
    server.delay("read", 1, 800);
    const auto start = Clock::now();
    auto delayed = std::async(std::launch::async, [&] { return api.get("/" + meeting); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(api.get("").status, 200);
    EXPECT_LT(secondsSince(start), 0.6) << "the stalled request blocked another";
    EXPECT_EQ(delayed.get().status, 200);
    EXPECT_GE(secondsSince(start), 0.8);

    // Past the client's patience: the client gives up, the server still acts.
    server.delay("start", 1, 1500);
    MeetClient impatient(server);
    impatient.readTimeoutMs = 300;
    EXPECT_EQ(impatient.post("/" + meeting + "/start").status, 0);
    EXPECT_EQ(api.get("/" + meeting).body["status"], "created");
    EXPECT_TRUE(eventually([&] { return api.get("/" + meeting).body["status"] == "live"; }));
    int stalled = 0;
    for (const json& entry : server.requestLog()) {
        stalled += entry.value("delayed", false) ? 1 : 0;
    }
    EXPECT_EQ(stalled, 2);
}

TEST(Faults, RedirectAnswersWithALocationAndDoesNothing) {
    DevServer server;
    MeetClient api(server);
    const std::string meeting = api.create();
    server.redirect("start", 1, "https://login.example.org/again");
    const Answer a = api.post("/" + meeting + "/start");
    EXPECT_EQ(a.status, 302);
    EXPECT_EQ(a.headers.find("Location")->second, "https://login.example.org/again");
    EXPECT_EQ(api.get("/" + meeting).body["status"], "created");
}

TEST(Faults, NonsenseFaultsAreRefused) {
    DevServer server;
    for (const json& fault :
         {json{{"route", "teleport"}, {"mode", "fail"}},
          json{{"route", "list"}, {"mode", "explode"}}, json{{"route", "list"}, {"mode", "delay"}},
          json{{"route", "list"}, {"mode", "redirect"}},
          json{{"route", "list"}, {"mode", "fail"}, {"count", 0}}}) {
        EXPECT_THROW(server.injectFault(fault), std::runtime_error) << fault.dump();
    }
    EXPECT_TRUE(server.state()["faults"].empty());
}
