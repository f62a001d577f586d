#include "MeetClient.h"

#include <cstdio>
#include <stdexcept>

namespace tessel::test {

using nlohmann::json;

namespace {

const std::string collection = "/api/v1/meetings";

Answer toAnswer(const httplib::Result& result) {
    Answer out;
    out.error = result.error();
    if (!result) {
        return out;
    }
    out.status = result->status;
    out.text = result->body;
    out.headers = result->headers;
    out.body = json::parse(out.text, nullptr, false);
    if (out.body.is_discarded()) {
        out.body = nullptr;
    }
    return out;
}

} // namespace

std::string Answer::code() const {
    if (body.is_object() && body.contains("error") && body["error"].is_object()) {
        return body["error"].value("code", "");
    }
    return {};
}

const Answer& expectStatus(const Answer& answer, int status, const std::string& what) {
    if (answer.status != status) {
        throw std::runtime_error(what + ": expected " + std::to_string(status) + ", got " +
                                 std::to_string(answer.status) + " (" +
                                 httplib::to_string(answer.error) + ") " + answer.text);
    }
    return answer;
}

MeetClient::MeetClient(const DevServer& server, std::string token)
    : token(std::move(token)), server_(server) {}

Answer MeetClient::raw(const std::string& method, const std::string& fullPath,
                       const httplib::Headers& headers, const std::string& body,
                       const std::string& contentType) const {
    auto client = server_.client();
    client->set_read_timeout(readTimeoutMs / 1000, (readTimeoutMs % 1000) * 1000);
    if (method == "GET") {
        return toAnswer(client->Get(fullPath, headers));
    }
    if (method == "PUT") {
        return toAnswer(client->Put(fullPath, headers, body, contentType));
    }
    return toAnswer(client->Post(fullPath, headers, body, contentType));
}

Answer MeetClient::get(const std::string& path) const {
    const std::string base = server_.meetBase().substr(server_.origin().size());
    return raw("GET", base + collection + path, {{"x-session-token", token}}, "", "");
}

Answer MeetClient::post(const std::string& path, const std::optional<json>& body) const {
    const std::string base = server_.meetBase().substr(server_.origin().size());
    return raw("POST", base + collection + path, {{"x-session-token", token}},
               body ? body->dump() : "", body ? "application/json" : "");
}

Answer MeetClient::put(const std::string& url, const std::string& bytes,
                       const httplib::Headers& headers, const std::string& contentType) const {
    if (!url.starts_with(server_.origin() + "/")) {
        throw std::runtime_error("upload URL on another origin: " + url);
    }
    return raw("PUT", url.substr(server_.origin().size()), headers, bytes, contentType);
}

std::string MeetClient::create(const std::string& title) const {
    const Answer a = expectStatus(post("", json{{"title", title},
                                                {"counterpart", "Acme"},
                                                {"kind", "tessel"},
                                                {"disclosure_acked", true},
                                                {"capture_source", "desktop"}}),
                                  201, "create");
    return a.body["meeting"]["id"].get<std::string>();
}

MeetClient::Call MeetClient::openRecording() const {
    Call call;
    call.meeting = create();
    const std::string m = "/" + call.meeting;
    const json version =
        expectStatus(get(m + "/consent"), 200, "consent").body["notice"]["version"];
    expectStatus(post(m + "/start"), 200, "start");
    expectStatus(post(m + "/consent/ack", json{{"version", version}}), 200, "ack");
    call.session = expectStatus(post(m + "/sessions", json{{"role", "host"}}), 201, "join")
                       .body["session"]["id"];
    call.recording =
        expectStatus(post(m + "/recording", json{{"action", "request"}, {"capture_protocol", 2}}),
                     201, "request")
            .body["recording"]["id"];
    return call;
}

Answer MeetClient::presign(const Call& call, const std::string& kind, const std::string& chunk,
                           std::size_t length) const {
    return post("/" + call.meeting + "/recording/presign", json{{"recording_id", call.recording},
                                                                {"kind", kind},
                                                                {"content_length", length},
                                                                {"chunk_uuid", chunk},
                                                                {"content_type", "audio/aac"}});
}

std::string MeetClient::upload(const Call& call, const std::string& kind, const std::string& chunk,
                               const std::string& bytes) const {
    const Answer signed_ = expectStatus(presign(call, kind, chunk, bytes.size()), 200, "presign");
    const std::string segment = signed_.body["segment_id"];
    expectStatus(put(signed_.body["upload_url"], bytes), 200, "PUT");
    expectStatus(post("/" + call.meeting + "/recording/segment-complete",
                      json{{"segment_id", segment}, {"content_length", bytes.size()}}),
                 200, "segment-complete");
    return segment;
}

std::string adtsFrame(std::size_t payload, char fill, ADTSHeader h) {
    const std::size_t length = payload + 7 + static_cast<std::size_t>(h.lengthError);
    const unsigned char header[7] = {
        static_cast<unsigned char>(h.sync ? 0xFF : 0xFE),
        0xF1, // MPEG-4, layer 0, no CRC
        static_cast<unsigned char>((h.profile << 6) | (h.samplingIndex << 2) | (h.channels >> 2)),
        static_cast<unsigned char>(((h.channels & 3) << 6) | ((length >> 11) & 3)),
        static_cast<unsigned char>((length >> 3) & 0xFF),
        static_cast<unsigned char>(((length & 7) << 5) | 0x1F),
        0xFC,
    };
    return std::string(reinterpret_cast<const char*>(header), 7) + std::string(payload, fill);
}

std::string adtsFrames(int frames, std::size_t payload, char fill) {
    std::string out;
    for (int i = 0; i < frames; ++i) {
        out += adtsFrame(payload, fill);
    }
    return out;
}

std::string chunkUUID(int n) {
    char text[40];
    std::snprintf(text, sizeof text, "5F3A9C1E-0B2D-4E6F-8A7B-%012X", n);
    return text;
}

} // namespace tessel::test
