// A bare client of the local server for its contract tests: JSON over httplib
// with a session token, the usual conversation in steps, and ADTS test data.
#pragma once

#include "support/DevServer.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace tessel::test {

struct Answer {
    int status = 0; // 0: no HTTP answer at all
    httplib::Error error = httplib::Error::Success;
    nlohmann::json body; // null unless the body is JSON
    std::string text;
    httplib::Headers headers;

    std::string code() const; // error.code of a meet error body, or ""
};

class MeetClient {
public:
    explicit MeetClient(const DevServer& server, std::string token = "vses_contract_1");

    // Paths are relative to the meetings collection: "", "/{id}/start", ...
    Answer get(const std::string& path) const;
    Answer post(const std::string& path,
                const std::optional<nlohmann::json>& body = std::nullopt) const;
    // Anything at all, for requests a correct client wouldn't send.
    Answer raw(const std::string& method, const std::string& fullPath,
               const httplib::Headers& headers, const std::string& body,
               const std::string& contentType) const;
    // A PUT to an upload URL of this server, with Content-Type audio/aac unless
    // another is given ("" for none).
    Answer put(const std::string& url, const std::string& bytes,
               const httplib::Headers& headers = {},
               const std::string& contentType = "audio/aac") const;

    // The usual conversation; each step throws when the server refuses it.
    std::string create(const std::string& title = "Weekly sync") const;
    struct Call {
        std::string meeting;
        std::string session;
        std::string recording;
    };
    Call openRecording() const; // create, consent, start, ack, join, request
    Answer presign(const Call& call, const std::string& kind, const std::string& chunk,
                   std::size_t length) const;
    // Presign, PUT and complete; returns the segment id.
    std::string upload(const Call& call, const std::string& kind, const std::string& chunk,
                       const std::string& bytes) const;

    std::string token;
    int readTimeoutMs = 10000;

private:
    const DevServer& server_;
};

// Throws with the server's answer unless it has `status`.
const Answer& expectStatus(const Answer& answer, int status, const std::string& what);

// ADTS frames as an AAC-LC 16 kHz mono encoder makes them; the fields can be
// spoilt one at a time to build malformed data.
struct ADTSHeader {
    int profile = 1;       // AAC-LC
    int samplingIndex = 8; // 16000 Hz
    int channels = 1;
    int lengthError = 0; // added to the frame length field
    bool sync = true;
};
std::string adtsFrame(std::size_t payload, char fill = 0x22, ADTSHeader header = {});
std::string adtsFrames(int frames, std::size_t payload = 40, char fill = 0x22);

// An upper-case UUID text numbered `n`.
std::string chunkUUID(int n);

} // namespace tessel::test
