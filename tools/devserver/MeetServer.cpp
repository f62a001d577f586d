#include "MeetServer.h"

#include "Certificate.h"

#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <random>
#include <sstream>
#include <thread>

namespace devserver {

namespace fs = std::filesystem;

namespace {

double monotonic() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

std::string randomHex(size_t bytes) {
    std::vector<unsigned char> raw(bytes);
    RAND_bytes(raw.data(), static_cast<int>(raw.size()));
    static const char* digits = "0123456789abcdef";
    std::string out;
    for (unsigned char c : raw) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

std::string isoNow() {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<int>(millis));
    return text;
}

std::string errorBody(const std::string& code, const std::string& message) {
    return json{{"error", {{"code", code}, {"message", message}}}}.dump();
}

std::vector<std::string> split(const std::string& path) {
    std::vector<std::string> parts;
    std::stringstream stream(path);
    std::string piece;
    while (std::getline(stream, piece, '/')) {
        if (!piece.empty()) {
            parts.push_back(piece);
        }
    }
    return parts;
}

bool isUpperUUID(const std::string& text) {
    if (text.size() != 36) {
        return false;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (c != '-') {
                return false;
            }
        } else if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) {
            return false;
        }
    }
    return true;
}

// Whole ADTS frames of AAC-LC, 16 kHz, mono, chained exactly to the end.
std::string adtsProblem(const std::string& body) {
    size_t at = 0;
    int frames = 0;
    while (at < body.size()) {
        if (body.size() - at < 7) {
            return "truncated ADTS header at byte " + std::to_string(at);
        }
        const auto* b = reinterpret_cast<const unsigned char*>(body.data() + at);
        if (b[0] != 0xFF || (b[1] & 0xF6) != 0xF0) {
            return "no ADTS sync word at byte " + std::to_string(at);
        }
        if ((b[2] >> 6) != 1) {
            return "ADTS profile is not AAC-LC at byte " + std::to_string(at);
        }
        if (((b[2] >> 2) & 0xF) != 8) {
            return "ADTS sampling rate is not 16000 Hz at byte " + std::to_string(at);
        }
        if ((((b[2] & 1) << 2) | (b[3] >> 6)) != 1) {
            return "ADTS channel configuration is not mono at byte " + std::to_string(at);
        }
        const size_t length = (static_cast<size_t>(b[3] & 3) << 11) | (b[4] << 3) | (b[5] >> 5);
        if (length < 8 || at + length > body.size()) {
            return "ADTS frame length does not fit at byte " + std::to_string(at);
        }
        at += length;
        ++frames;
    }
    return frames == 0 ? "empty body" : "";
}

void writeAtomically(const fs::path& path, const std::string& bytes) {
    fs::create_directories(path.parent_path());
    const fs::path temporary = path.string() + ".tmp-" + randomHex(4);
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        out.flush();
        if (!out) {
            throw std::runtime_error("cannot write " + temporary.string());
        }
    }
    fs::rename(temporary, path);
}

std::string fingerprint(const std::string& token) {
    return token.substr(0, std::min<size_t>(5, token.size())) + "…(" +
           std::to_string(token.size()) + ")";
}

} // namespace

MeetServer::MeetServer(Options options) : options_(std::move(options)), secret_(randomHex(32)) {
    if (options_.dataDir.empty()) {
        char pattern[] = "/tmp/velmora-devserver.XXXXXX";
        options_.dataDir = ::mkdtemp(pattern);
    }
    fs::create_directories(options_.dataDir);
    if (options_.logPath.empty()) {
        options_.logPath = options_.dataDir + "/requests.jsonl";
    }
    logFile_.open(options_.logPath, std::ios::app);

    if (options_.https) {
        certPath_ = options_.dataDir + "/cert.pem";
        const std::string keyPath = options_.dataDir + "/key.pem";
        writeSelfSignedCertificate(certPath_, keyPath);
        server_ = std::make_unique<httplib::SSLServer>(certPath_.c_str(), keyPath.c_str());
    } else {
        server_ = std::make_unique<httplib::Server>();
    }
    // Stalled answers must not hold up the others.
    server_->new_task_queue = [] { return new httplib::ThreadPool(32); };
    auto handler = [this](const httplib::Request& request, httplib::Response& response) {
        handle(request, response);
    };
    server_->Get(".*", handler);
    server_->Post(".*", handler);
    server_->Put(".*", handler);
    server_->Delete(".*", handler);
}

MeetServer::~MeetServer() {
    stop();
}

std::string MeetServer::bind() {
    port_ = options_.port == 0
                ? server_->bind_to_any_port(options_.host)
                : (server_->bind_to_port(options_.host, options_.port) ? options_.port : -1);
    if (port_ <= 0) {
        throw std::runtime_error("cannot bind " + options_.host);
    }
    const std::string host =
        options_.host.find(':') != std::string::npos ? "[" + options_.host + "]" : options_.host;
    origin_ =
        std::string(options_.https ? "https" : "http") + "://" + host + ":" + std::to_string(port_);
    return origin_;
}

void MeetServer::run() {
    server_->listen_after_bind();
}

void MeetServer::stop() {
    if (server_) {
        server_->stop();
    }
}

std::vector<std::string> MeetServer::meetParts(const std::string& path) const {
    const std::string prefix = options_.basePath + "/api/v1/meetings";
    if (path == prefix || path == prefix + "/") {
        return {""};
    }
    if (path.rfind(prefix + "/", 0) != 0) {
        return {};
    }
    auto parts = split(path.substr(prefix.size()));
    parts.insert(parts.begin(), "");
    return parts; // a leading "" marks a meet path
}

std::string MeetServer::classify(const std::string& method,
                                 const std::vector<std::string>& p) const {
    const size_t n = p.size() - 1; // without the marker
    auto at = [&](size_t i) { return p[i + 1]; };
    if (n == 0) {
        return method == "POST" ? "create" : method == "GET" ? "list" : "";
    }
    if (n == 1) {
        return method == "GET" ? "read" : "";
    }
    const std::string second = at(1);
    if (n == 2) {
        if (second == "consent" && method == "GET") {
            return "consent";
        }
        if (second == "start" && method == "POST") {
            return "start";
        }
        if (second == "sessions" && method == "POST") {
            return "join";
        }
        if (second == "recording" && method == "POST") {
            return "recording";
        }
        if (second == "end" && method == "POST") {
            return "end";
        }
        return "";
    }
    if (n == 3) {
        const std::string third = at(2);
        if (second == "consent" && third == "ack" && method == "POST") {
            return "ack";
        }
        if (second == "sessions" && third == "snapshot" && method == "GET") {
            return "snapshot";
        }
        if (second == "recording" && third == "manifest" && method == "GET") {
            return "manifest";
        }
        if (second == "recording" && third == "presign" && method == "POST") {
            return "presign";
        }
        if (second == "recording" && third == "segment-complete" && method == "POST") {
            return "complete";
        }
    }
    return "";
}

void MeetServer::handle(const httplib::Request& request, httplib::Response& response) {
    if (request.path.rfind("/_control/", 0) == 0) {
        control(request, response);
        return;
    }
    json entry{{"t", monotonic()},
               {"method", request.method},
               {"path", request.path},
               {"has_token", request.has_header("x-session-token")},
               {"content_type", request.get_header_value("Content-Type")}};
    if (request.has_header("x-session-token")) {
        entry["token"] = fingerprint(request.get_header_value("x-session-token"));
    }

    std::string route;
    const auto meetPath = meetParts(request.path);
    const auto storagePath = split(request.path);
    json body = nullptr;
    if (!meetPath.empty()) {
        route = classify(request.method, meetPath);
        if (!request.body.empty()) {
            body = json::parse(request.body, nullptr, false);
        }
        if (route == "recording") {
            const std::string action = body.is_object() ? body.value("action", "") : "";
            route = action == "stop" ? "stop" : "request";
        }
        entry["body"] = body.is_discarded() ? json(request.body) : body;
    } else if (storagePath.size() == 3 && storagePath[0] == "storage" && request.method == "PUT") {
        route = "put";
        entry["body_length"] = request.body.size();
    }
    entry["route"] = route;

    std::optional<Fault> fault;
    {
        std::lock_guard lock(mutex_);
        for (const std::string& key : {route, std::string("*")}) {
            auto& queue = faults_[key];
            if (!route.empty() && !queue.empty()) {
                fault = queue.front();
                queue.pop_front();
                break;
            }
        }
    }
    if (fault && fault->mode == "fail") {
        response.status = fault->status;
        response.set_content(fault->body, fault->contentType);
        entry["status"] = response.status;
        entry["fault"] = "fail";
        record(entry);
        return;
    }
    if (fault && fault->mode == "redirect") {
        response.status = 302;
        response.set_header("Location", fault->location);
        entry["status"] = 302;
        entry["fault"] = "redirect";
        record(entry);
        return;
    }
    if (fault && fault->mode == "delay") {
        std::this_thread::sleep_for(std::chrono::milliseconds(fault->delayMs));
        entry["delayed"] = true;
    }

    Answer answer;
    if (route.empty()) {
        answer = {404, errorBody("not_found", "No such route."), "application/json"};
    } else if (route == "put") {
        answer = storage(storagePath, request);
    } else {
        answer = meet(route, meetPath, request, entry);
    }

    if (fault && fault->mode == "drop") {
        dropConnection(request);
        entry["status"] = "dropped";
        entry["answer_status"] = answer.status;
        record(entry);
        return;
    }
    response.status = answer.status;
    response.set_content(answer.body, answer.contentType);
    entry["status"] = answer.status;
    record(entry);
}

MeetServer::Answer MeetServer::meet(const std::string& route, const std::vector<std::string>& p,
                                    const httplib::Request& request, json& entry) {
    const std::string token = request.get_header_value("x-session-token");
    if (token.empty()) {
        return {401, errorBody("unauthenticated", "Missing session token")};
    }
    {
        std::lock_guard lock(mutex_);
        if (revoked_.contains(token)) {
            return {401, errorBody("session_revoked", "Session revoked")};
        }
    }
    if (token.rfind("vses_", 0) != 0) {
        return {401, errorBody("invalid_session", "Session token is not valid")};
    }

    const bool needsBody = route == "create" || route == "ack" || route == "join" ||
                           route == "request" || route == "stop" || route == "presign" ||
                           route == "complete";
    json body = json::object();
    if (needsBody) {
        if (request.get_header_value("Content-Type").rfind("application/json", 0) != 0) {
            return {415, errorBody("unsupported_media_type", "Send JSON bodies.")};
        }
        body = json::parse(request.body, nullptr, false);
        if (body.is_discarded() || !body.is_object()) {
            return {400, errorBody("invalid_json", "Body must be a JSON object.")};
        }
    }
    auto badRequest = [](const std::string& message) {
        return Answer{422, errorBody("invalid_request", message)};
    };

    std::lock_guard lock(mutex_);
    if (route == "create") {
        const auto title = body.value("title", json()),
                   counterpart = body.value("counterpart", json());
        if (!title.is_string() ||
            title.get<std::string>().find_first_not_of(" \t\r\n") == std::string::npos) {
            return badRequest("Title is required.");
        }
        if (!counterpart.is_string() || counterpart.get<std::string>().empty()) {
            return badRequest("Counterpart is required.");
        }
        if (body.value("kind", "") != "tessel" || body.value("disclosure_acked", false) != true ||
            body.value("capture_source", "") != "desktop") {
            return badRequest("Kind, disclosure and capture source are required.");
        }
        if (body.contains("project_slug") && !body["project_slug"].is_string()) {
            return badRequest("Project slug must be text.");
        }
        Meeting meeting;
        meeting.id = "mtg_" + randomHex(8);
        meeting.fields = {{"title", title},
                          {"counterpart", counterpart},
                          {"kind", "tessel"},
                          {"project_slug", body.value("project_slug", json())}};
        meetings_[meeting.id] = meeting;
        order_.push_back(meeting.id);
        entry["meeting"] = meeting.id;
        json answer = meeting.fields;
        answer["id"] = meeting.id;
        answer["status"] = meeting.status;
        return {201, json{{"meeting", answer}}.dump()};
    }
    if (route == "list") {
        json list = json::array();
        for (const auto& id : order_) {
            const Meeting& m = meetings_.at(id);
            json item = m.fields;
            item["id"] = m.id;
            item["status"] = m.status;
            item["is_host"] = true;
            if (!m.startedAt.empty()) {
                item["started_at"] = m.startedAt;
            }
            list.push_back(item);
        }
        return {200, json{{"meetings", list}}.dump()};
    }

    auto found = meetings_.find(p[1]);
    if (found == meetings_.end()) {
        return {404, errorBody("not_found", "Meeting not found.")};
    }
    Meeting& m = found->second;
    auto conflict = [](const std::string& code, const std::string& message) {
        return Answer{409, errorBody(code, message)};
    };
    Recording* latest = m.parts.empty() ? nullptr : &m.parts.back();

    if (route == "read") {
        json meeting = m.fields;
        meeting["id"] = m.id;
        meeting["status"] = m.status;
        return {200, json{{"meeting", meeting}, {"status", m.status}}.dump()};
    }
    if (route == "consent") {
        return {200, json{{"notice",
                           {{"version", m.noticeVersion},
                            {"text", "This call is recorded to take notes."}}}}
                         .dump()};
    }
    if (route == "start") {
        if (m.status != "created") {
            return conflict("already_started", "The call has already started.");
        }
        m.status = "live";
        m.startedAt = isoNow();
        return {200, json{{"meeting", {{"id", m.id}, {"status", m.status}}}}.dump()};
    }
    if (route == "ack") {
        if (m.status != "live") {
            return conflict("not_started", "The call has not started.");
        }
        if (body.size() != 1 || !body.contains("version") || !body["version"].is_number()) {
            return badRequest("Version is required.");
        }
        if (body["version"].get<double>() != m.noticeVersion.get<double>()) {
            return conflict("notice_outdated", "The notice has changed.");
        }
        m.acknowledged = true;
        return {200, json{{"acknowledged", true}}.dump()};
    }
    if (route == "join") {
        if (body.value("role", "") != "host") {
            return badRequest("Role must be host.");
        }
        if (m.status != "live") {
            return conflict("not_started", "The call has not started.");
        }
        if (!m.acknowledged) {
            return conflict("consent_required", "Acknowledge the notice first.");
        }
        const std::string id = "hs_" + randomHex(8);
        m.presence.push_back(id);
        return {201, json{{"session", {{"id", id}, {"role", "host"}}}}.dump()};
    }
    if (route == "snapshot") {
        json presence = json::array();
        for (const auto& id : m.presence) {
            presence.push_back({{"id", id}, {"role", "host"}});
        }
        return {200,
                json{{"presence", presence}, {"recording_state", latest ? latest->state : "none"}}
                    .dump()};
    }
    if (route == "request") {
        if (body.value("capture_protocol", json()) != json(2)) {
            return badRequest("Capture protocol 2 is required.");
        }
        if (m.status != "live") {
            return conflict("not_started", "The call is not live.");
        }
        if (!m.acknowledged) {
            return conflict("consent_required", "Acknowledge the notice first.");
        }
        if (m.presence.empty()) {
            return conflict("host_required", "Join as host first.");
        }
        if (latest && latest->state == "recording") {
            return conflict("recording_active", "A recording is already running.");
        }
        Recording recording;
        recording.id = "rec_" + randomHex(8);
        m.parts.push_back(recording);
        return {201, json{{"recording", {{"id", recording.id}, {"state", "recording"}}}}.dump()};
    }
    if (route == "stop") {
        const json id = body.value("recording_id", json());
        if (!id.is_string()) {
            return badRequest("Recording id is required.");
        }
        if (!latest || latest->id != id.get<std::string>()) {
            return {404, errorBody("not_found", "Recording not found.")};
        }
        if (latest->state != "recording") {
            return conflict("recording_not_active", "The recording is not running.");
        }
        latest->state = "stopped";
        return {200, json{{"recording", {{"id", latest->id}, {"state", "stopped"}}}}.dump()};
    }
    if (route == "manifest") {
        json parts = json::array();
        for (const auto& part : m.parts) {
            json counts = json::object();
            for (const auto& [id, segment] : m.segments) {
                if (segment.recording == part.id && segment.completed) {
                    counts[segment.kind] = counts.value(segment.kind, 0) + 1;
                }
            }
            parts.push_back({{"id", part.id}, {"state", part.state}, {"segments", counts}});
        }
        return {200, json{{"parts", parts}}.dump()};
    }
    if (route == "presign") {
        const std::string kind = body.value("kind", "");
        const json length = body.value("content_length", json());
        const std::string chunk = body.value("chunk_uuid", "");
        if (kind != "audio_local" && kind != "audio_remote") {
            return badRequest("Kind must be audio_local or audio_remote.");
        }
        if (!length.is_number() || length.get<double>() < 1) {
            return badRequest("Content length must be a positive number.");
        }
        if (!isUpperUUID(chunk)) {
            return badRequest("Chunk UUID must be an upper-case UUID.");
        }
        if (body.value("content_type", "") != "audio/aac") {
            return badRequest("Content type must be audio/aac.");
        }
        const json recordingID = body.value("recording_id", json());
        if (!latest || !recordingID.is_string() || latest->id != recordingID.get<std::string>()) {
            return conflict("recording_not_active", "That recording is not the current one.");
        }
        if (auto known = m.chunks.find(chunk); known != m.chunks.end()) {
            const Segment& segment = m.segments.at(known->second);
            if (segment.completed) {
                return {200, json{{"state", "completed"}, {"segment_id", segment.id}}.dump()};
            }
        }
        if (latest->state != "recording") {
            return conflict("recording_not_active", "The recording is not running.");
        }
        Segment* segment = nullptr;
        if (auto known = m.chunks.find(chunk); known != m.chunks.end()) {
            segment = &m.segments.at(known->second);
        } else {
            Segment fresh;
            fresh.id = "seg_" + randomHex(8);
            fresh.chunk = chunk;
            fresh.kind = kind;
            fresh.recording = latest->id;
            fresh.sequence = latest->nextSequence[kind]++;
            m.chunks[chunk] = fresh.id;
            segment = &(m.segments[fresh.id] = fresh);
        }
        segment->length = static_cast<long long>(length.get<double>());
        entry["segment"] = segment->id;
        entry["sequence"] = segment->sequence;
        return {200, json{{"state", "pending"},
                          {"segment_id", segment->id},
                          {"upload_url", uploadURL(m, *segment)},
                          {"method", "PUT"}}
                         .dump()};
    }
    if (route == "complete") {
        const json id = body.value("segment_id", json());
        const json length = body.value("content_length", json());
        if (!id.is_string() || !length.is_number()) {
            return badRequest("Segment id and content length are required.");
        }
        auto segment = m.segments.find(id.get<std::string>());
        if (segment == m.segments.end()) {
            return {404, errorBody("not_found", "Segment not found.")};
        }
        if (!segment->second.stored) {
            return conflict("segment_missing", "The segment has not been uploaded.");
        }
        if (static_cast<long long>(length.get<double>()) != segment->second.length) {
            return badRequest("Content length does not match the upload.");
        }
        segment->second.completed = true;
        std::string recordingState = "recording";
        for (const auto& part : m.parts) {
            if (part.id == segment->second.recording) {
                recordingState = part.state;
            }
        }
        json index = json::array();
        for (const auto& [segmentID, s] : m.segments) {
            index.push_back({{"segment_id", s.id},
                             {"chunk_uuid", s.chunk},
                             {"kind", s.kind},
                             {"sequence", s.sequence},
                             {"size", s.length},
                             {"completed", s.completed}});
        }
        writeAtomically(fs::path(options_.dataDir) / m.id / "index.json", index.dump(2));
        return {200, json{{"segment", {{"id", segment->second.id}, {"state", "completed"}}},
                          {"recording_state", recordingState}}
                         .dump()};
    }
    if (route == "end") {
        if (m.status != "live") {
            return conflict(m.status == "ended" ? "already_ended" : "not_started",
                            "The call is not live.");
        }
        m.status = "ended";
        for (auto& part : m.parts) {
            part.state = "stopped";
        }
        return {200, json{{"meeting", {{"id", m.id}, {"status", m.status}}}}.dump()};
    }
    return {404, errorBody("not_found", "No such route.")};
}

std::string MeetServer::signature(const std::string& path, long long expires) const {
    const std::string message = "PUT\n" + path + "\n" + std::to_string(expires);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha256(), secret_.data(), static_cast<int>(secret_.size()),
         reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest, &length);
    static const char* digits = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
        hex += digits[digest[i] >> 4];
        hex += digits[digest[i] & 15];
    }
    return hex;
}

std::string MeetServer::uploadURL(const Meeting& meeting, const Segment& segment) const {
    const std::string path = "/storage/" + meeting.id + "/" + segment.id;
    const long long expires =
        static_cast<long long>(std::time(nullptr)) + static_cast<long long>(options_.presignTTL);
    return origin_ + path + "?expires=" + std::to_string(expires) +
           "&signature=" + signature(path, expires);
}

std::string MeetServer::storedPath(const Meeting& meeting, const Segment& segment) const {
    char name[32];
    std::snprintf(name, sizeof name, "%06d.aac", segment.sequence);
    return (fs::path(options_.dataDir) / meeting.id / segment.kind / name).string();
}

MeetServer::Answer MeetServer::storage(const std::vector<std::string>& parts,
                                       const httplib::Request& request) {
    auto s3Error = [](int status, const std::string& code, const std::string& message) {
        return Answer{status,
                      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Error><Code>" + code +
                          "</Code><Message>" + message + "</Message></Error>",
                      "application/xml"};
    };
    const std::string expiresText = request.get_param_value("expires");
    const std::string given = request.get_param_value("signature");
    long long expires = 0;
    try {
        expires = std::stoll(expiresText);
    } catch (...) {
        return s3Error(403, "AccessDenied", "Query-string authentication requires expires.");
    }
    if (given != signature(request.path, expires)) {
        return s3Error(403, "SignatureDoesNotMatch",
                       "The request signature we calculated does not match the signature you "
                       "provided.");
    }
    if (expires < static_cast<long long>(std::time(nullptr))) {
        return s3Error(403, "AccessDenied", "Request has expired");
    }
    if (request.has_header("x-session-token")) {
        return s3Error(400, "InvalidRequest", "Storage requests carry no session token.");
    }
    if (request.get_header_value("Content-Type") != "audio/aac") {
        return s3Error(400, "InvalidArgument", "Content-Type must be audio/aac.");
    }
    if (const std::string problem = adtsProblem(request.body); !problem.empty()) {
        return s3Error(400, "InvalidArgument", "Body is not ADTS AAC-LC 16 kHz mono: " + problem);
    }

    std::lock_guard lock(mutex_);
    auto meeting = meetings_.find(parts[1]);
    if (meeting == meetings_.end()) {
        return s3Error(404, "NoSuchKey", "The specified key does not exist.");
    }
    auto segment = meeting->second.segments.find(parts[2]);
    if (segment == meeting->second.segments.end()) {
        return s3Error(404, "NoSuchKey", "The specified key does not exist.");
    }
    if (static_cast<long long>(request.body.size()) != segment->second.length) {
        return s3Error(400, "IncompleteBody",
                       "The body length does not match the presigned content length.");
    }
    writeAtomically(storedPath(meeting->second, segment->second), request.body);
    segment->second.stored = true;
    Answer answer{200, "", "text/plain"};
    return answer;
}

void MeetServer::dropConnection(const httplib::Request& request) const {
    // The connection's socket is the one whose peer is this request's client.
    DIR* fds = ::opendir("/proc/self/fd");
    if (fds == nullptr) {
        return;
    }
    while (dirent* item = ::readdir(fds)) {
        const int fd = std::atoi(item->d_name);
        struct stat st {};
        if (fd <= 2 || ::fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode)) {
            continue;
        }
        sockaddr_storage local{}, peer{};
        socklen_t localLength = sizeof local, peerLength = sizeof peer;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0 ||
            ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0) {
            continue;
        }
        auto portOf = [](const sockaddr_storage& a) {
            return a.ss_family == AF_INET6
                       ? ntohs(reinterpret_cast<const sockaddr_in6&>(a).sin6_port)
                       : ntohs(reinterpret_cast<const sockaddr_in&>(a).sin_port);
        };
        if (portOf(local) == port_ && portOf(peer) == request.remote_port) {
            ::shutdown(fd, SHUT_RDWR);
        }
    }
    ::closedir(fds);
}

void MeetServer::record(json entry) {
    std::lock_guard lock(mutex_);
    entry["seq"] = ++sequence_;
    logFile_ << entry.dump() << '\n';
    logFile_.flush();
    log_.push_back(std::move(entry));
}

json MeetServer::stateJSON() const {
    json meetings = json::array();
    for (const auto& id : order_) {
        const Meeting& m = meetings_.at(id);
        json parts = json::array();
        for (const auto& part : m.parts) {
            json segments = json::array();
            for (const auto& [segmentID, s] : m.segments) {
                if (s.recording == part.id) {
                    segments.push_back({{"id", s.id},
                                        {"chunk_uuid", s.chunk},
                                        {"kind", s.kind},
                                        {"sequence", s.sequence},
                                        {"stored", s.stored},
                                        {"completed", s.completed}});
                }
            }
            parts.push_back({{"id", part.id}, {"state", part.state}, {"segments", segments}});
        }
        meetings.push_back({{"id", m.id},
                            {"status", m.status},
                            {"acknowledged", m.acknowledged},
                            {"presence", m.presence},
                            {"parts", parts}});
    }
    return {{"meetings", meetings}, {"data_dir", options_.dataDir}};
}

void MeetServer::control(const httplib::Request& request, httplib::Response& response) {
    const std::string action = request.path.substr(std::string("/_control/").size());
    json body = request.body.empty() ? json::object() : json::parse(request.body, nullptr, false);
    if (body.is_discarded() || !body.is_object()) {
        response.status = 400;
        response.set_content(errorBody("invalid_json", "Body must be a JSON object."),
                             "application/json");
        return;
    }
    auto ok = [&](const json& answer) { response.set_content(answer.dump(), "application/json"); };
    std::lock_guard lock(mutex_);
    if (action == "faults" && request.method == "POST") {
        Fault fault;
        fault.mode = body.value("mode", "fail");
        fault.status = body.value("status", 500);
        fault.body = body.value("body", "");
        fault.contentType = body.value("content_type", "application/json");
        fault.delayMs = body.value("delay_ms", 0);
        fault.location = body.value("location", origin_ + "/elsewhere");
        const int count = body.value("count", 1);
        for (int i = 0; i < count; ++i) {
            faults_[body.value("route", "*")].push_back(fault);
        }
        ok({{"queued", count}});
    } else if (action == "faults" && request.method == "DELETE") {
        faults_.clear();
        ok({{"cleared", true}});
    } else if (action == "revoke") {
        revoked_.insert(body.value("token", ""));
        ok({{"revoked", true}});
    } else if (action == "stop-recording" || action == "takeover" || action == "notice") {
        auto found = meetings_.find(body.value("meeting", ""));
        if (found == meetings_.end()) {
            response.status = 404;
            response.set_content(errorBody("not_found", "Meeting not found."), "application/json");
            return;
        }
        Meeting& m = found->second;
        if (action == "stop-recording") {
            if (!m.parts.empty()) {
                m.parts.back().state = "stopped";
            }
        } else if (action == "takeover") {
            m.presence = {"hs_" + randomHex(8)};
            if (body.value("new_recording", false)) {
                if (!m.parts.empty()) {
                    m.parts.back().state = "stopped";
                }
                Recording recording;
                recording.id = "rec_" + randomHex(8);
                m.parts.push_back(recording);
            }
        } else {
            m.noticeVersion = body.value("version", m.noticeVersion);
        }
        ok({{"meeting", m.id}});
    } else if (action == "log") {
        ok(json(log_));
    } else if (action == "reset-log") {
        log_.clear();
        ok({{"cleared", true}});
    } else if (action == "state") {
        ok(stateJSON());
    } else {
        response.status = 404;
        response.set_content(errorBody("not_found", "Unknown control action."), "application/json");
    }
}

} // namespace devserver
