// Presigned storage: one segment per chunk_uuid however often it is asked for,
// and the PUTs storage refuses.
#include "MeetClient.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
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

TEST(Presign, OneSegmentPerChunkNumberedPerTrack) {
    DevServer server;
    MeetClient api(server);
    const MeetClient::Call call = api.openRecording();
    const std::string m = "/" + call.meeting;
    const std::string bytes = adtsFrames(2);

    const Answer first = api.presign(call, "audio_local", chunkUUID(1), bytes.size());
    ASSERT_EQ(first.status, 200) << first.text;
    EXPECT_EQ(first.body["state"], "pending");
    EXPECT_EQ(first.body["method"], "PUT");
    const std::string segment = first.body["segment_id"];
    const Answer again = api.presign(call, "audio_local", chunkUUID(1), bytes.size());
    EXPECT_EQ(again.body["segment_id"], segment);
    api.presign(call, "audio_local", chunkUUID(2), 99);
    api.presign(call, "audio_remote", chunkUUID(3), 99);
    std::map<std::string, std::pair<std::string, int>> sequences; // chunk to kind, sequence
    const json state = server.state();
    for (const json& s : state["meetings"][0]["parts"][0]["segment_list"]) {
        sequences[s["chunk_uuid"]] = {s["kind"], s["sequence"]};
    }
    EXPECT_EQ(sequences, (std::map<std::string, std::pair<std::string, int>>{
                             {chunkUUID(1), {"audio_local", 0}},
                             {chunkUUID(2), {"audio_local", 1}},
                             {chunkUUID(3), {"audio_remote", 0}}}));
    // The same chunk for another segment is a client bug.
    EXPECT_EQ(api.presign(call, "audio_local", chunkUUID(1), 12).code(), "chunk_conflict");

    const auto complete = [&](std::size_t length) {
        return api.post(m + "/recording/segment-complete",
                        json{{"segment_id", segment}, {"content_length", length}});
    };
    EXPECT_EQ(complete(bytes.size()).code(), "segment_missing");
    ASSERT_EQ(api.put(first.body["upload_url"], bytes).status, 200);
    EXPECT_EQ(complete(bytes.size() + 1).status, 422);
    const Answer done = complete(bytes.size());
    EXPECT_EQ(done.status, 200);
    EXPECT_EQ(done.body, (json{{"segment", {{"id", segment}, {"state", "completed"}}},
                               {"recording_state", "recording"}}));
    EXPECT_EQ(complete(bytes.size()).status, 200) << "a repeated completion is harmless";

    const Answer known = api.presign(call, "audio_local", chunkUUID(1), bytes.size());
    EXPECT_EQ(known.status, 200);
    EXPECT_EQ(known.body, (json{{"state", "completed"}, {"segment_id", segment}}));
    EXPECT_EQ(fileText(server.dataDir() + m + "/audio_local/000000.aac"), bytes);
}

TEST(Storage, RefusedPutsStoreNothingAndAGoodOneStoresOnce) {
    DevServer server;
    MeetClient api(server, "vses_storage_member");
    const MeetClient::Call call = api.openRecording();
    const std::string bytes = adtsFrames(3, 40);
    const Answer signed_ = api.presign(call, "audio_remote", chunkUUID(7), bytes.size());
    const std::string url = signed_.body["upload_url"];
    const std::string other =
        api.presign(call, "audio_remote", chunkUUID(8), bytes.size()).body["upload_url"];
    ASSERT_TRUE(url.starts_with(server.origin() + "/storage/" + call.meeting + "/"));

    std::string tampered = url;
    tampered.back() = tampered.back() == '0' ? '1' : '0';
    // The other segment's path with this one's signature.
    const std::string swapped = other.substr(0, other.find('?')) + url.substr(url.find('?'));
    // The length presigned, wrong inside.
    const auto frame = [](const std::function<void(ADTSHeader&)>& spoil) {
        ADTSHeader header;
        spoil(header);
        return adtsFrame(40, 0x22, header);
    };
    const std::string stereo = frame([](ADTSHeader& h) { h.channels = 2; }) + adtsFrames(2, 40);
    const std::string rate = adtsFrames(2, 40) + frame([](ADTSHeader& h) { h.samplingIndex = 4; });
    const std::string profile = frame([](ADTSHeader& h) { h.profile = 0; }) + adtsFrames(2, 40);
    const std::string nosync =
        adtsFrames(1, 40) + frame([](ADTSHeader& h) { h.sync = false; }) + adtsFrames(1, 40);
    const std::string overrun = adtsFrames(2, 40) + frame([](ADTSHeader& h) { h.lengthError = 1; });
    const std::string gap = adtsFrames(2, 40) + adtsFrame(30, 0x22) + std::string(10, 'x');

    struct Case {
        std::string url;
        std::string body;
        httplib::Headers headers;
        std::string contentType;
        int status;
        std::string words;
    };
    const Case cases[] = {
        {tampered, bytes, {}, "audio/aac", 403, "SignatureDoesNotMatch"},
        {swapped, bytes, {}, "audio/aac", 403, "SignatureDoesNotMatch"},
        {url.substr(0, url.find('?')), bytes, {}, "audio/aac", 403, "AccessDenied"},
        {url, bytes, {{"x-session-token", api.token}}, "audio/aac", 400, "x-session-token"},
        {url, bytes, {}, "application/octet-stream", 400, "audio/aac"},
        {url, bytes, {}, "", 400, "audio/aac"},
        {url, bytes.substr(1), {}, "audio/aac", 400, "IncompleteBody"},
        {url, stereo, {}, "audio/aac", 400, "channel configuration 2"},
        {url, rate, {}, "audio/aac", 400, "sampling index 4"},
        {url, profile, {}, "audio/aac", 400, "not AAC-LC"},
        {url, nosync, {}, "audio/aac", 400, "frame 2 at byte 47: no sync word"},
        {url, overrun, {}, "audio/aac", 400, "runs past the end"},
        {url, gap, {}, "audio/aac", 400, "no sync word"},
    };
    for (const Case& c : cases) {
        const Answer a = api.put(c.url, c.body, c.headers, c.contentType);
        EXPECT_EQ(a.status, c.status) << c.words << ": " << a.text;
        EXPECT_NE(a.text.find(c.words), std::string::npos) << c.words << ": " << a.text;
        EXPECT_TRUE(a.text.starts_with("<?xml")) << a.text;
    }
    EXPECT_FALSE(std::filesystem::exists(server.dataDir() + "/" + call.meeting + "/audio_remote"));

    const Answer stored = api.put(url, bytes);
    ASSERT_EQ(stored.status, 200) << stored.text;
    const Answer repeated = api.put(url, bytes);
    EXPECT_EQ(repeated.status, 200);
    ASSERT_TRUE(stored.headers.count("ETag"));
    EXPECT_EQ(repeated.headers.find("ETag")->second, stored.headers.find("ETag")->second);
    EXPECT_EQ(fileText(server.dataDir() + "/" + call.meeting + "/audio_remote/000000.aac"), bytes);
    const auto entries = std::filesystem::directory_iterator(server.dataDir() + "/" + call.meeting +
                                                             "/audio_remote");
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 1) << "no temporary files left";
}

TEST(Storage, ExpiredURLIsRefused) {
    DevServer::Options options;
    options.presignTTL = 0;
    DevServer server(options);
    MeetClient api(server);
    const MeetClient::Call call = api.openRecording();
    const std::string bytes = adtsFrames(1);
    const Answer signed_ = api.presign(call, "audio_local", chunkUUID(1), bytes.size());
    const Answer a = api.put(signed_.body["upload_url"], bytes);
    EXPECT_EQ(a.status, 403);
    EXPECT_NE(a.text.find("<Code>AccessDenied</Code><Message>Request has expired</Message>"),
              std::string::npos)
        << a.text;
}
