// The local server as the other suites lean on it: a whole call stored byte for
// byte, the requests it refuses, upload URLs that expire, HTTPS, and each fault
// a test can inject.
#include "support/DevServer.h"
#include "support/ScriptedAudio.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <tuple>

using namespace tessel::test;
using nlohmann::json;

namespace {

const std::string meetings = "/meet/api/v1/meetings";
const json request{{"action", "request"}, {"capture_protocol", 2}};

struct Answer {
    int status = 0; // 0: no HTTP answer at all
    json body;      // null unless the body is JSON
    std::string text;
    httplib::Headers headers;

    std::string code() const {
        return body.is_object() && body.contains("error") ? body["error"].value("code", "") : "";
    }
};

// A bare client of the meet API on the fixture's connection, so requests a
// correct client never sends can be sent too.
struct Client {
    const DevServer& server;
    std::string token = "vses_devserver_1";

    struct Call {
        std::string meeting, session, recording;
    };

    Answer send(const std::string& method, const std::string& path, const std::string& body,
                const std::string& type, httplib::Headers headers = {}) const {
        if (!token.empty()) {
            headers.emplace("x-session-token", token);
        }
        const auto c = server.client();
        const auto r = method == "GET"   ? c->Get(path, headers)
                       : method == "PUT" ? c->Put(path, headers, body, type)
                                         : c->Post(path, headers, body, type);
        Answer a;
        if (r) {
            a = {r->status, json::parse(r->body, nullptr, false), r->body, r->headers};
            a.body = a.body.is_discarded() ? json() : a.body;
        }
        return a;
    }
    Answer get(const std::string& path) const { return send("GET", meetings + path, "", ""); }
    // A string body goes as it is, JSON as JSON, null as no body.
    Answer post(const std::string& path, const json& body = nullptr) const {
        return send("POST", meetings + path,
                    body.is_string() ? body.get<std::string>()
                    : body.is_null() ? ""
                                     : body.dump(),
                    body.is_null() ? "" : "application/json");
    }
    // Storage takes no session token: a PUT with one is refused.
    Answer put(const std::string& url, const std::string& bytes,
               const std::string& type = "audio/aac", bool withToken = false) const {
        Client storage{server, withToken ? token : ""};
        return storage.send("PUT", url.substr(server.origin().size()), bytes, type);
    }

    static json createBody() {
        return json::parse(R"({"title": "Weekly sync", "counterpart": "Acme", "kind": "tessel",
                               "disclosure_acked": true, "capture_source": "desktop"})");
    }
    std::string create() const { return post("", createBody()).body["meeting"]["id"]; }
    // Create, start, acknowledge the notice, join as host, request a recording.
    Call open() const {
        Call call{create(), "", ""};
        const std::string m = "/" + call.meeting;
        post(m + "/start");
        post(m + "/consent/ack", {{"version", 3}});
        call.session = post(m + "/sessions", {{"role", "host"}}).body["session"]["id"];
        call.recording = post(m + "/recording", request).body["recording"]["id"];
        return call;
    }
    Answer presign(const Call& call, const std::string& kind, const std::string& chunk,
                   std::size_t length) const {
        return post("/" + call.meeting + "/recording/presign", {{"recording_id", call.recording},
                                                                {"kind", kind},
                                                                {"content_length", length},
                                                                {"chunk_uuid", chunk},
                                                                {"content_type", "audio/aac"}});
    }
    Answer complete(const Call& call, const json& segment, std::size_t length) const {
        return post("/" + call.meeting + "/recording/segment-complete",
                    {{"segment_id", segment}, {"content_length", length}});
    }
    // Presign, PUT and complete; returns the segment id.
    std::string upload(const Call& call, const std::string& kind, const std::string& chunk,
                       const std::string& bytes) const {
        const Answer signed_ = presign(call, kind, chunk, bytes.size());
        EXPECT_EQ(signed_.status, 200) << signed_.text;
        EXPECT_EQ(put(signed_.body.value("upload_url", ""), bytes).status, 200);
        EXPECT_EQ(complete(call, signed_.body["segment_id"], bytes.size()).status, 200);
        return signed_.body.value("segment_id", "");
    }
};

json with(json body, const char* key, const json& value) {
    body[key] = value;
    return body;
}

std::string chunk(int n) {
    char text[40];
    std::snprintf(text, sizeof text, "5F3A9C1E-0B2D-4E6F-8A7B-%012X", n);
    return text;
}

// AAC-LC 16 kHz mono ADTS, as the server's framing check wants it.
std::string frames(int count, char fill = 0x22) {
    return adtsFrames(count, 40, fill).toStdString();
}

std::string fileText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

} // namespace

TEST(DevServer, AWholeCallKeepsEachTrackOnDiskByteForByte) {
    DevServer server;
    const Client api{server};
    const Client::Call call = api.open();
    const std::string m = "/" + call.meeting;
    const std::string local0 = frames(3, 1);
    const std::string remote0 = frames(4, 2);
    const std::string local1 = frames(2, 3);
    const std::string first = api.upload(call, "audio_local", chunk(1), local0);
    api.upload(call, "audio_remote", chunk(2), remote0);
    api.upload(call, "audio_local", chunk(3), local1);
    // A retried presign of a stored chunk names its segment and asks for nothing.
    EXPECT_EQ(api.presign(call, "audio_local", chunk(1), local0.size()).body,
              (json{{"state", "completed"}, {"segment_id", first}}));
    EXPECT_EQ(api.get(m + "/recording/manifest").body["parts"][0]["segments"],
              (json{{"audio_local", 2}, {"audio_remote", 1}}));
    EXPECT_EQ(
        api.post(m + "/recording", {{"action", "stop"}, {"recording_id", call.recording}}).status,
        200);
    EXPECT_EQ(api.post(m + "/end").status, 200);
    EXPECT_EQ(api.get(m).body["status"], "ended");

    // Per track, numbered in order of first presign.
    const std::string dir = server.dataDir() + m;
    EXPECT_EQ(fileText(dir + "/audio_local/000000.aac"), local0);
    EXPECT_EQ(fileText(dir + "/audio_local/000001.aac"), local1);
    EXPECT_EQ(fileText(dir + "/audio_remote/000000.aac"), remote0);
    const json index = json::parse(fileText(dir + "/index.json"));
    ASSERT_EQ(index["segments"].size(), 3u);
    for (const json& segment : index["segments"]) {
        EXPECT_TRUE(segment["completed"].get<bool>());
    }

    // The log holds the call in order, the PUTs without a token, and never the token.
    for (const json& entry : server.requestLog()) {
        EXPECT_EQ(entry["has_token"], entry["route"] != "put") << entry.dump();
    }
    auto routes = server.routes();
    routes.resize(8);
    EXPECT_EQ(routes, (std::vector<std::string>{"create", "start", "ack", "join", "request",
                                                "presign", "put", "complete"}));
    EXPECT_EQ(fileText(server.logPath()).find(api.token), std::string::npos);
}

TEST(DevServer, RefusesRequestsOutOfOrderWithoutAGoodTokenOrWithABadBody) {
    DevServer server;
    const Client api{server};
    const std::string id = api.create();
    const std::string m = "/" + id;
    const json ack{{"version", 3}};
    const json join{{"role", "host"}};
    const json created = Client::createBody();
    using Step = std::tuple<std::string, json, int, std::string>; // path, body, status, code
    const auto run = [&](const std::vector<Step>& steps) {
        for (const auto& [path, body, status, code] : steps) {
            const Answer a = api.post(path, body);
            EXPECT_EQ(a.status, status) << path << " " << body << ": " << a.text;
            EXPECT_EQ(a.code(), code) << path << " " << body;
        }
    };
    run({
        {"", "{\"title\":", 400, "invalid_json"},
        {"", "[1,2]", 400, "invalid_json"},
        {"", with(created, "title", " \n\t"), 422, "validation_failed"},
        {"", with(created, "disclosure_acked", false), 422, "validation_failed"},
        {"", with(created, "colour", "blue"), 422, "unknown_field"},
        {m + "/consent/ack", ack, 409, "not_started"},
        {m + "/recording", request, 409, "not_started"},
        {m + "/start", nullptr, 200, ""},
        {m + "/start", nullptr, 409, "already_started"},
        {m + "/sessions", join, 409, "consent_required"},
        {m + "/consent/ack", {{"version", 2}}, 409, "notice_outdated"},
        {m + "/consent/ack", {{"version", "3"}}, 422, "validation_failed"},
        {m + "/consent/ack", ack, 200, ""},
        {m + "/recording", request, 409, "host_required"},
        {m + "/sessions", join, 201, ""},
        {m + "/recording",
         {{"action", "request"}, {"capture_protocol", 1}},
         422,
         "validation_failed"},
        {m + "/recording", request, 201, ""},
        {m + "/recording", request, 409, "recording_active"},
        {m + "/recording",
         {{"action", "stop"}, {"recording_id", "rec_x"}},
         404,
         "recording_not_found"},
    });
    EXPECT_EQ(api.send("POST", meetings, Client::createBody().dump(), "text/plain").status, 415);
    EXPECT_EQ(api.get("/mtg_unknown").code(), "meeting_not_found");
    EXPECT_EQ((Client{server, ""}).get("").code(), "unauthenticated");
    for (const char* token : {"Bearer vses_devserver_1", "vses_", "VSES_abc", "org_key_1"}) {
        EXPECT_EQ((Client{server, token}).get("").code(), "invalid_session") << token;
    }

    const Client::Call call{id, "", api.get(m + "/recording/manifest").body["parts"][0]["id"]};
    const std::string bytes = frames(3);
    const json good{{"recording_id", call.recording},
                    {"kind", "audio_local"},
                    {"content_length", bytes.size()},
                    {"chunk_uuid", chunk(1)},
                    {"content_type", "audio/aac"}};
    const std::string p = m + "/recording/presign";
    run({
        {p, with(good, "chunk_uuid", "5f3a9c1e-0b2d-4e6f-8a7b-000000000001"), 422,
         "validation_failed"},
        {p, with(good, "content_length", 0), 422, "validation_failed"},
        {p, with(good, "kind", "video"), 422, "validation_failed"},
        {p, with(good, "content_type", "audio/mpeg"), 422, "validation_failed"},
        {p, with(good, "recording_id", "rec_x"), 404, "recording_not_found"},
    });
    const Answer signed_ = api.post(p, good);
    const std::string url = signed_.body["upload_url"];
    EXPECT_EQ(api.post(p, with(good, "content_length", 12)).code(), "chunk_conflict");
    EXPECT_EQ(api.complete(call, signed_.body["segment_id"], bytes.size()).code(),
              "segment_missing");

    // Storage answers in its own XML words; a refused PUT stores nothing.
    std::string tampered = url;
    tampered.back() = tampered.back() == '0' ? '1' : '0';
    const auto spoilt = [&](int at, char value) {
        std::string out = bytes;
        out[at] = value;
        return out;
    };
    const std::pair<Answer, std::string> puts[] = {
        {api.put(tampered, bytes), "SignatureDoesNotMatch"},
        {api.put(url.substr(0, url.find('?')), bytes), "AccessDenied"},
        {api.put(url, bytes, "audio/aac", true), "x-session-token"},
        {api.put(url, bytes, "application/octet-stream"), "audio/aac"},
        {api.put(url, bytes.substr(1)), "IncompleteBody"},
        {api.put(url, spoilt(3, '\x80')), "channel configuration 2"},
        {api.put(url, spoilt(2, 0x50)), "sampling index 4"},
        {api.put(url, spoilt(47, '\xFE')), "frame 2 at byte 47"},
    };
    for (const auto& [a, words] : puts) {
        EXPECT_TRUE(a.status == 400 || a.status == 403) << words << ": " << a.status;
        EXPECT_NE(a.text.find(words), std::string::npos) << words << ": " << a.text;
    }
    EXPECT_FALSE(std::filesystem::exists(server.dataDir() + m + "/audio_local"));
    EXPECT_EQ(api.put(url, bytes).status, 200);
    EXPECT_EQ(api.complete(call, signed_.body["segment_id"], bytes.size() + 1).code(),
              "content_length_mismatch");
    EXPECT_EQ(api.complete(call, signed_.body["segment_id"], bytes.size()).status, 200);

    run({
        {m + "/end", nullptr, 200, ""},
        {m + "/end", nullptr, 409, "already_ended"},
        {m + "/sessions", join, 409, "meeting_ended"},
    });
    EXPECT_EQ(server.state()["meetings"].size(), 1u) << "refused creates made nothing";
}

TEST(DevServer, RefusesAnExpiredUploadURL) {
    DevServer server({.https = false, .presignTTL = 0});
    const Client api{server};
    const Client::Call call = api.open();
    const std::string bytes = frames(1);
    const Answer signed_ = api.presign(call, "audio_local", chunk(1), bytes.size());
    const Answer a = api.put(signed_.body["upload_url"], bytes);
    EXPECT_EQ(a.status, 403);
    EXPECT_NE(a.text.find("<Code>AccessDenied</Code><Message>Request has expired</Message>"),
              std::string::npos)
        << a.text;
}

TEST(DevServer, ServesHTTPSWithItsOwnCertificate) {
    DevServer server({.https = true});
    ASSERT_TRUE(server.origin().starts_with("https://127.0.0.1:"));
    const Client api{server}; // the fixture's client trusts the server's certificate
    const Client::Call call = api.open();
    const Answer signed_ = api.presign(call, "audio_local", chunk(1), 47);
    EXPECT_TRUE(signed_.body.value("upload_url", "").starts_with("https://"));
    api.upload(call, "audio_local", chunk(1), frames(1));

    httplib::Client trustingNothing(server.origin());
    trustingNothing.enable_server_certificate_verification(true);
    trustingNothing.set_ca_cert_path("/dev/null");
    EXPECT_FALSE(trustingNothing.Get(meetings));
}

TEST(DevServer, EachInjectedFaultDoesWhatItsNameSays) {
    DevServer server;
    const Client api{server};
    const Client::Call call = api.open();
    const std::string m = "/" + call.meeting;
    const std::string bytes = frames(2);

    // fail: answers without acting, `count` times, then the route works again.
    server.fail("create", 2, 503, R"({"error":{"code":"unavailable","message":"later"}})");
    EXPECT_EQ(api.post("", Client::createBody()).code(), "unavailable");
    EXPECT_EQ(api.post("", Client::createBody()).status, 503);
    EXPECT_EQ(server.state()["meetings"].size(), 1u);
    EXPECT_EQ(api.post("", Client::createBody()).status, 201);

    // drop: the bytes are stored, the answer never comes.
    const Answer signed_ = api.presign(call, "audio_local", chunk(1), bytes.size());
    server.drop("put");
    EXPECT_EQ(api.put(signed_.body["upload_url"], bytes).status, 0);
    EXPECT_EQ(fileText(server.dataDir() + m + "/audio_local/000000.aac"), bytes);

    // delay: late, but answered.
    server.delay("read", 1, 400);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(api.get(m).status, 200);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(400));

    // redirect: a 302 elsewhere, and the call not ended.
    server.redirect("end", 1, "https://login.example.org/again");
    const Answer moved = api.post(m + "/end");
    EXPECT_EQ(moved.status, 302);
    EXPECT_EQ(moved.headers.find("Location")->second, "https://login.example.org/again");
    EXPECT_EQ(api.get(m).body["status"], "live");

    // Server-side stop: no new segment, but one already stored still completes.
    server.stopRecording(call.meeting);
    EXPECT_EQ(api.presign(call, "audio_local", chunk(2), bytes.size()).code(),
              "recording_not_active");
    const Answer completed = api.complete(call, signed_.body["segment_id"], bytes.size());
    EXPECT_EQ(completed.status, 200);
    EXPECT_EQ(completed.body["recording_state"], "stopped");

    // Takeover: another host session is present instead; its new part supersedes ours.
    server.takeover(call.meeting, true);
    const json presence = api.get(m + "/sessions/snapshot").body["presence"];
    ASSERT_EQ(presence.size(), 1u);
    EXPECT_NE(presence[0]["id"], call.session);
    EXPECT_EQ(api.get(m + "/recording/manifest").body["parts"].size(), 2u);
    EXPECT_EQ(api.presign(call, "audio_local", chunk(3), bytes.size()).code(),
              "recording_superseded");

    // Revoke: this token is refused from now on, another still works.
    server.revoke(api.token);
    EXPECT_EQ(api.get(m).code(), "session_revoked");
    EXPECT_EQ((Client{server, "vses_devserver_2"}).get(m).status, 200);
}
