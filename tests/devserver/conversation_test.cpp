// The meet API as a client meets it: a whole call, the order rules, token
// rules and the bodies the server refuses.
#include "MeetClient.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

using namespace tessel::test;
using nlohmann::json;

namespace {

std::string fileText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream out;
    out << in.rdbuf();
    return out.str();
}

} // namespace

TEST(Conversation, WholeCallFromCreateToEndKeepsTheSegmentsOnDisk) {
    DevServer server;
    MeetClient api(server, "vses_whole_call_token");

    const Answer created = api.post("", json{{"title", "  Weekly sync "},
                                             {"counterpart", "Acme"},
                                             {"kind", "tessel"},
                                             {"disclosure_acked", true},
                                             {"capture_source", "desktop"},
                                             {"project_slug", "apollo"}});
    ASSERT_EQ(created.status, 201) << created.text;
    const json meeting = created.body["meeting"];
    EXPECT_EQ(meeting["title"], "  Weekly sync ") << "kept as sent";
    EXPECT_EQ(meeting["status"], "created");
    const std::string id = meeting["id"];
    const std::string m = "/" + id;

    json listed = api.get("").body["meetings"];
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0]["is_host"], true);
    EXPECT_FALSE(listed[0].contains("started_at"));

    const json notice = api.get(m + "/consent").body["notice"];
    EXPECT_EQ(notice["version"], 3);
    EXPECT_EQ(api.post(m + "/start").status, 200);
    listed = api.get("").body["meetings"];
    EXPECT_EQ(listed[0]["status"], "live");
    EXPECT_TRUE(std::regex_match(listed[0].value("started_at", ""),
                                 std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)")));
    EXPECT_EQ(api.get(m).body["status"], "live");
    EXPECT_EQ(api.post(m + "/consent/ack", json{{"version", notice["version"]}}).status, 200);
    const json session = api.post(m + "/sessions", json{{"role", "host"}}).body["session"];
    EXPECT_EQ(session["role"], "host");
    const Answer requested =
        api.post(m + "/recording", json{{"action", "request"}, {"capture_protocol", 2}});
    ASSERT_EQ(requested.status, 201);
    EXPECT_EQ(requested.body["recording"]["state"], "recording");
    const MeetClient::Call call{id, session["id"], requested.body["recording"]["id"]};

    const std::string local0 = adtsFrames(3, 40, 0x01);
    const std::string local1 = adtsFrames(2, 50, 0x02);
    const std::string remote0 = adtsFrames(4, 30, 0x03);
    api.upload(call, "audio_local", chunkUUID(1), local0);
    api.upload(call, "audio_remote", chunkUUID(2), remote0);
    api.upload(call, "audio_local", chunkUUID(3), local1);

    const json snapshot = api.get(m + "/sessions/snapshot").body;
    EXPECT_EQ(snapshot["presence"], json::array({session}));
    EXPECT_EQ(snapshot["recording_state"], "recording");
    const json parts = api.get(m + "/recording/manifest").body["parts"];
    ASSERT_EQ(parts.size(), 1u);
    EXPECT_EQ(parts[0]["id"], call.recording);
    EXPECT_EQ(parts[0]["segments"], (json{{"audio_local", 2}, {"audio_remote", 1}}));

    EXPECT_EQ(api.post(m + "/recording", json{{"action", "stop"}, {"recording_id", call.recording}})
                  .status,
              200);
    EXPECT_EQ(api.get(m + "/sessions/snapshot").body["recording_state"], "stopped");
    EXPECT_EQ(api.post(m + "/end").status, 200);
    EXPECT_EQ(api.get(m).body["status"], "ended");

    // Per track, numbered in order of first presign, byte for byte.
    const std::string dir = server.dataDir() + "/" + id;
    EXPECT_EQ(fileText(dir + "/audio_local/000000.aac"), local0);
    EXPECT_EQ(fileText(dir + "/audio_local/000001.aac"), local1);
    EXPECT_EQ(fileText(dir + "/audio_remote/000000.aac"), remote0);
    const json index = json::parse(fileText(dir + "/index.json"));
    ASSERT_EQ(index["segments"].size(), 3u);
    for (const json& segment : index["segments"]) {
        EXPECT_TRUE(segment["completed"].get<bool>());
    }
    EXPECT_EQ(index["segments"][1]["chunk_uuid"], chunkUUID(3));
    EXPECT_EQ(index["segments"][1]["sequence"], 1);

    // The log holds the conversation in order, the PUTs without a token, and
    // never the token itself.
    std::vector<std::string> routes;
    for (const json& entry : server.requestLog()) {
        routes.push_back(entry["route"]);
        if (entry["route"] == "put") {
            EXPECT_FALSE(entry["has_token"].get<bool>());
            EXPECT_EQ(entry["body"], local0.size()) << "the first PUT's byte count";
            break;
        }
    }
    const std::vector<std::string> opening = {"create",  "list",    "consent", "start",
                                              "list",    "read",    "ack",     "join",
                                              "request", "presign", "put"};
    EXPECT_EQ(routes, opening);
    EXPECT_EQ(fileText(server.logPath()).find(api.token), std::string::npos);
}

TEST(Conversation, RequestsOutOfOrderAreRefusedWithTheirCodes) {
    DevServer server;
    MeetClient api(server);
    const std::string m = "/" + api.create();
    const json ack{{"version", 3}};
    const json join{{"role", "host"}};
    const json request{{"action", "request"}, {"capture_protocol", 2}};

    struct Step {
        const char* path;
        std::optional<json> body;
        int status;
        const char* code;
    };
    const auto run = [&](const std::vector<Step>& steps) {
        for (const Step& step : steps) {
            const Answer a = api.post(m + step.path, step.body);
            EXPECT_EQ(a.status, step.status) << step.path << " " << a.text;
            EXPECT_EQ(a.code(), step.code) << step.path;
        }
    };
    run({
        {"/consent/ack", ack, 409, "not_started"},
        {"/sessions", join, 409, "not_started"},
        {"/recording", request, 409, "not_started"},
        {"/start", std::nullopt, 200, ""},
        {"/start", std::nullopt, 409, "already_started"},
        {"/sessions", join, 409, "consent_required"},
        {"/recording", request, 409, "consent_required"},
        {"/consent/ack", json{{"version", 2}}, 409, "notice_outdated"},
        {"/consent/ack", ack, 200, ""},
        {"/recording", request, 409, "host_required"},
        {"/sessions", join, 201, ""},
        {"/recording", request, 201, ""},
        {"/recording", request, 409, "recording_active"},
    });
    const std::string recording = api.get(m + "/recording/manifest").body["parts"][0]["id"];
    const json stop{{"action", "stop"}, {"recording_id", recording}};
    run({
        {"/recording", json{{"action", "stop"}, {"recording_id", "rec_unknown"}}, 404,
         "recording_not_found"},
        {"/recording", stop, 200, ""},
        {"/recording", stop, 409, "recording_not_active"},
        {"/recording", request, 201, ""}, // a second part
        {"/recording", stop, 409, "recording_superseded"},
        {"/end", std::nullopt, 200, ""},
        {"/end", std::nullopt, 409, "already_ended"},
        {"/start", std::nullopt, 409, "meeting_ended"},
        {"/sessions", join, 409, "meeting_ended"},
    });
    // Ending the call stopped the part that was still recording.
    const json parts = api.get(m + "/recording/manifest").body["parts"];
    ASSERT_EQ(parts.size(), 2u);
    EXPECT_EQ(parts[1]["state"], "stopped");

    // A repeated join is another session, as the server can't tell a retry.
    MeetClient other(server);
    const MeetClient::Call call = other.openRecording();
    other.post("/" + call.meeting + "/sessions", join);
    EXPECT_EQ(other.get("/" + call.meeting + "/sessions/snapshot").body["presence"].size(), 2u);
}

TEST(Conversation, TokensMissingMalformedOrRevokedAreRefused) {
    DevServer server;
    MeetClient api(server, "vses_first_member");
    const std::string meeting = api.create();

    const Answer missing = api.raw("GET", "/meet/api/v1/meetings", {}, "", "");
    EXPECT_EQ(missing.status, 401);
    EXPECT_EQ(missing.body, json::parse(R"({"error":{"code":"unauthenticated",
                                            "message":"Missing session token"}})"));
    for (const char* token : {"Bearer vses_first_member", "vses_", "VSES_abc", "org_key_1"}) {
        MeetClient bad(server, token);
        const Answer a = bad.get("");
        EXPECT_EQ(a.status, 401) << token;
        EXPECT_EQ(a.code(), "invalid_session") << token;
    }

    server.revoke("vses_first_member");
    const Answer revoked = api.post("/" + meeting + "/start");
    EXPECT_EQ(revoked.status, 401);
    EXPECT_EQ(revoked.body["error"]["message"], "Session revoked");
    EXPECT_EQ(api.get("/" + meeting).status, 401);
    MeetClient renewed(server, "vses_first_member_2");
    EXPECT_EQ(renewed.get("/" + meeting).body["status"], "created") << "refused, not acted on";
}

TEST(Conversation, MalformedBodiesAreRefusedAndChangeNothing) {
    DevServer server;
    MeetClient api(server);
    const json good{{"title", "T"},
                    {"counterpart", "C"},
                    {"kind", "tessel"},
                    {"disclosure_acked", true},
                    {"capture_source", "desktop"}};
    const auto with = [&](const char* key, json value) {
        json body = good;
        if (value.is_discarded()) {
            body.erase(key);
        } else {
            body[key] = value;
        }
        return body.dump();
    };
    const httplib::Headers token{{"x-session-token", api.token}};
    struct Case {
        std::string body;
        std::string contentType;
        int status;
        const char* code;
    };
    const Case cases[] = {
        {good.dump(), "text/plain", 415, "unsupported_media_type"},
        {good.dump(), "", 415, "unsupported_media_type"},
        {"{\"title\":", "application/json", 400, "invalid_json"},
        {"[1,2]", "application/json", 400, "invalid_json"},
        {with("title", " \n\t"), "application/json", 422, "validation_failed"},
        {with("title", 7), "application/json", 422, "validation_failed"},
        {with("counterpart", json::value_t::discarded), "application/json", 422,
         "validation_failed"},
        {with("disclosure_acked", false), "application/json", 422, "validation_failed"},
        {with("kind", "zoom"), "application/json", 422, "validation_failed"},
        {with("project_slug", ""), "application/json", 422, "validation_failed"},
        {with("colour", "blue"), "application/json", 422, "unknown_field"},
    };
    for (const Case& c : cases) {
        const Answer a = api.raw("POST", "/meet/api/v1/meetings", token, c.body, c.contentType);
        EXPECT_EQ(a.status, c.status) << c.body << " " << a.text;
        EXPECT_EQ(a.code(), c.code) << c.body;
    }
    EXPECT_EQ(
        api.raw("POST", "/meet/api/v1/meetings", token, with("title", "  "), "application/json")
            .body["error"]["message"],
        "Title is required.");
    EXPECT_TRUE(server.state()["meetings"].empty());

    const MeetClient::Call call = api.openRecording();
    const std::string m = "/" + call.meeting;
    const json presign{{"recording_id", call.recording},
                       {"kind", "audio_local"},
                       {"content_length", 100},
                       {"chunk_uuid", chunkUUID(1)},
                       {"content_type", "audio/aac"}};
    const auto spoilt = [&](const char* key, json value) {
        json body = presign;
        body[key] = value;
        return body;
    };
    for (const json& body :
         {spoilt("chunk_uuid", "5f3a9c1e-0b2d-4e6f-8a7b-000000000001"), spoilt("content_length", 0),
          spoilt("content_length", 10.5), spoilt("content_length", "100"), spoilt("kind", "video"),
          spoilt("content_type", "audio/mpeg")}) {
        EXPECT_EQ(api.post(m + "/recording/presign", body).status, 422) << body.dump();
    }
    EXPECT_EQ(api.post(m + "/recording/presign", spoilt("recording_id", "rec_x")).status, 404);
    EXPECT_EQ(api.post(m + "/consent/ack", json{{"version", "3"}}).status, 422);
    EXPECT_EQ(
        api.post(m + "/recording", json{{"action", "request"}, {"capture_protocol", 1}}).status,
        422);
    EXPECT_EQ(api.post(m + "/recording", json{{"action", "pause"}}).status, 422);
    EXPECT_EQ(api.get("/mtg_unknown").code(), "meeting_not_found");
    EXPECT_EQ(api.get(m + "/recording/nothing").status, 404);
    EXPECT_EQ(api.get(m + "/start").status, 405);
    EXPECT_TRUE(server.state()["meetings"][0]["parts"][0]["segment_list"].empty());
}
