// What the organisation does to a call behind the client's back, and how the
// server runs: HTTPS with its own certificate, another base path, SIGTERM.
#include "MeetClient.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <thread>

using namespace tessel::test;
using nlohmann::json;

TEST(Control, ServerStopRefusesNewSegmentsButCompletesStartedOnes) {
    DevServer server;
    MeetClient api(server);
    const MeetClient::Call call = api.openRecording();
    const std::string m = "/" + call.meeting;
    const std::string bytes = adtsFrames(2);
    const Answer started = api.presign(call, "audio_local", chunkUUID(1), bytes.size());
    ASSERT_EQ(api.put(started.body["upload_url"], bytes).status, 200);

    server.stopRecording(call.meeting);
    EXPECT_EQ(api.get(m + "/sessions/snapshot").body["recording_state"], "stopped");
    EXPECT_EQ(api.get(m + "/recording/manifest").body["parts"].back()["state"], "stopped");
    EXPECT_EQ(api.presign(call, "audio_local", chunkUUID(2), bytes.size()).code(),
              "recording_not_active");
    const Answer completed =
        api.post(m + "/recording/segment-complete", json{{"segment_id", started.body["segment_id"]},
                                                         {"content_length", bytes.size()}});
    EXPECT_EQ(completed.status, 200);
    EXPECT_EQ(completed.body["recording_state"], "stopped");
    EXPECT_EQ(api.presign(call, "audio_local", chunkUUID(1), bytes.size()).body["state"],
              "completed");
    EXPECT_EQ(api.post(m + "/recording", json{{"action", "stop"}, {"recording_id", call.recording}})
                  .code(),
              "recording_not_active");
}

TEST(Control, TakeoverReplacesPresenceAndMayStartAnotherPart) {
    DevServer server;
    MeetClient api(server);
    const MeetClient::Call call = api.openRecording();
    const std::string m = "/" + call.meeting;
    const std::string bytes = adtsFrames(2);

    server.takeover(call.meeting, false);
    json snapshot = api.get(m + "/sessions/snapshot").body;
    ASSERT_EQ(snapshot["presence"].size(), 1u);
    EXPECT_NE(snapshot["presence"][0]["id"], call.session);
    EXPECT_EQ(snapshot["recording_state"], "recording");
    EXPECT_EQ(api.get(m + "/recording/manifest").body["parts"].size(), 1u);

    server.takeover(call.meeting, true);
    const json parts = api.get(m + "/recording/manifest").body["parts"];
    ASSERT_EQ(parts.size(), 2u);
    EXPECT_EQ(parts[0]["state"], "stopped");
    EXPECT_EQ(parts[1]["state"], "recording");
    EXPECT_EQ(api.presign(call, "audio_local", chunkUUID(1), bytes.size()).code(),
              "recording_superseded");

    // The new part numbers its segments from zero without touching the first's.
    const MeetClient::Call next{call.meeting, "", parts[1]["id"]};
    api.upload(next, "audio_local", chunkUUID(2), bytes);
    EXPECT_TRUE(std::filesystem::exists(server.dataDir() + m + "/" + next.recording +
                                        "/audio_local/000000.aac"));
}

TEST(Control, NewNoticeNeedsANewAcknowledgement) {
    DevServer server;
    MeetClient api(server);
    const std::string m = "/" + api.create();
    api.post(m + "/start");
    api.post(m + "/consent/ack", json{{"version", 3}});
    server.setNoticeVersion(m.substr(1), 4);
    EXPECT_EQ(api.get(m + "/consent").body["notice"]["version"], 4);
    EXPECT_EQ(api.post(m + "/sessions", json{{"role", "host"}}).code(), "consent_required");
    EXPECT_EQ(api.post(m + "/consent/ack", json{{"version", 3}}).code(), "notice_outdated");
    EXPECT_EQ(api.post(m + "/consent/ack", json{{"version", 4}}).status, 200);
    EXPECT_EQ(api.post(m + "/sessions", json{{"role", "host"}}).status, 201);
}

TEST(Running, HttpsServesWithItsOwnCertificate) {
    DevServer::Options options;
    options.https = true;
    DevServer server(options);
    ASSERT_TRUE(server.origin().starts_with("https://127.0.0.1:"));
    ASSERT_TRUE(std::filesystem::exists(server.certificatePath()));

    httplib::Client verifying(server.origin());
    verifying.set_ca_cert_path(server.certificatePath());
    verifying.enable_server_certificate_verification(true);
    const auto listed =
        verifying.Get("/meet/api/v1/meetings", {{"x-session-token", "vses_tls_member"}});
    ASSERT_TRUE(listed) << httplib::to_string(listed.error());
    EXPECT_EQ(listed->status, 200);

    httplib::Client trustingNothing(server.origin());
    trustingNothing.enable_server_certificate_verification(true);
    trustingNothing.set_ca_cert_path("/dev/null");
    EXPECT_FALSE(trustingNothing.Get("/meet/api/v1/meetings"));

    // The whole segment road over TLS, and a dropped answer on a TLS connection.
    MeetClient api(server);
    const MeetClient::Call call = api.openRecording();
    const Answer signed_ = api.presign(call, "audio_local", chunkUUID(1), 47);
    EXPECT_TRUE(signed_.body["upload_url"].get<std::string>().starts_with("https://"));
    api.upload(call, "audio_local", chunkUUID(1), adtsFrames(1));
    server.drop("list");
    EXPECT_EQ(api.get("").status, 0);
}

TEST(Running, AnotherBasePathAndAStopThatWaitsForNoConnection) {
    DevServer::Options options;
    options.basePath = "/org/meet";
    DevServer server(options);
    EXPECT_EQ(server.meetBase(), server.origin() + "/org/meet");
    MeetClient api(server);
    const std::string meeting = api.create();
    EXPECT_EQ(
        api.raw("GET", "/meet/api/v1/meetings", {{"x-session-token", api.token}}, "", "").status,
        404);

    // An idle keep-alive connection, as Qt keeps them, and a stalled request.
    auto idle = server.client();
    idle->set_keep_alive(true);
    ASSERT_TRUE(idle->Get("/org/meet/api/v1/meetings", {{"x-session-token", api.token}}));
    server.delay("read", 1, 60000);
    std::thread stalled([&] { api.get("/" + meeting); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto start = std::chrono::steady_clock::now();
    const int status = server.stop();
    stalled.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}
