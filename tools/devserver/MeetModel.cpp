#include "MeetModel.h"

#include "BodyReader.h"
#include "Storage.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <regex>
#include <utility>

namespace devserver {

namespace {

const char* const noticeText =
    "This call is recorded and transcribed for your organisation. Everyone on the call "
    "must be told before the recording starts.";

Reply notFound() {
    return errorReply(404, "meeting_not_found", "Meeting not found.");
}

std::string trimmed(const std::string& text) {
    const auto blank = [](unsigned char c) { return std::isspace(c) != 0; };
    const auto first = std::find_if_not(text.begin(), text.end(), blank);
    const auto last = std::find_if_not(text.rbegin(), text.rend(), blank).base();
    return first < last ? std::string(first, last) : std::string();
}

bool upperUUID(const std::string& text) {
    static const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
    return std::regex_match(text, form);
}

// The order rules shared by the requests that need a running call.
template <typename M> std::optional<Reply> notLive(const M& meeting) {
    if (meeting.status == "created") {
        return errorReply(409, "not_started", "The meeting has not started.");
    }
    if (meeting.status != "live") {
        return errorReply(409, "meeting_ended", "The meeting has ended.");
    }
    return std::nullopt;
}

template <typename M> std::optional<Reply> noConsent(const M& meeting) {
    if (meeting.acknowledged.is_null() || meeting.acknowledged != meeting.notice) {
        return errorReply(409, "consent_required",
                          "Acknowledge the current recording notice first.");
    }
    return std::nullopt;
}

} // namespace

// Under the lock: the call, or the refusal for one that is unknown or not in
// the state the request needs.
template <typename Model, typename Work>
Reply MeetModel::withMeeting(Model& model, const std::string& id, Needs needs, Work&& work) {
    std::lock_guard lock(model.mutex_);
    auto* found = model.find(id);
    if (!found) {
        return notFound();
    }
    auto& meeting = *found;
    if (needs != Needs::call) {
        if (auto refused = notLive(meeting)) {
            return *refused;
        }
    }
    if (needs == Needs::consent) {
        if (auto refused = noConsent(meeting)) {
            return *refused;
        }
    }
    return work(meeting);
}

MeetModel::Meeting* MeetModel::find(const std::string& id) {
    const auto found = meetings_.find(id);
    return found == meetings_.end() ? nullptr : &found->second;
}

const MeetModel::Meeting* MeetModel::find(const std::string& id) const {
    const auto found = meetings_.find(id);
    return found == meetings_.end() ? nullptr : &found->second;
}

json MeetModel::meetingJSON(const Meeting& m) {
    json out{{"id", m.id},      {"title", m.title},         {"counterpart", m.counterpart},
             {"kind", m.kind},  {"status", m.status},       {"capture_source", m.captureSource},
             {"is_host", true}, {"created_at", m.createdAt}};
    if (m.project) {
        out["project_slug"] = *m.project;
    }
    if (!m.startedAt.empty()) {
        out["started_at"] = m.startedAt;
    }
    if (!m.endedAt.empty()) {
        out["ended_at"] = m.endedAt;
    }
    return out;
}

json MeetModel::partJSON(const Part& part, const Meeting& meeting) {
    json counts{{"audio_local", 0}, {"audio_remote", 0}};
    for (const auto& [id, segment] : meeting.segments) {
        if (segment.recording == part.id && segment.completed) {
            counts[segment.kind] = counts[segment.kind].get<int>() + 1;
        }
    }
    json out{{"id", part.id},
             {"state", part.state},
             {"segments", counts},
             {"started_at", part.startedAt}};
    if (!part.stoppedAt.empty()) {
        out["stopped_at"] = part.stoppedAt;
    }
    return out;
}

Reply MeetModel::create(const json& body) {
    BodyReader r(body, {"title", "counterpart", "kind", "disclosure_acked", "capture_source",
                        "project_slug"});
    const std::string title = r.text("title");
    if (trimmed(title).empty()) {
        r.reject("title", "Title is required.");
    }
    const std::string counterpart = r.text("counterpart");
    if (r.text("kind") != "tessel") {
        r.reject("kind", "kind must be \"tessel\".");
    }
    if (!r.flag("disclosure_acked")) {
        r.reject("disclosure_acked", "The recording disclosure must be acknowledged.");
    }
    const std::string source = r.text("capture_source");
    if (source != "desktop") {
        r.reject("capture_source", "capture_source must be \"desktop\".");
    }
    const auto project = r.optionalText("project_slug");
    if (project && trimmed(*project).empty()) {
        r.reject("project_slug", "project_slug must not be empty; leave it out instead.");
    }
    if (r.problem()) {
        return *r.problem();
    }

    std::lock_guard lock(mutex_);
    Meeting meeting;
    meeting.id = "mtg_" + randomHex(8);
    meeting.title = title;
    meeting.counterpart = counterpart;
    meeting.kind = "tessel";
    meeting.captureSource = source;
    meeting.project = project;
    meeting.createdAt = isoNow();
    meeting.notice = defaultNotice_;
    order_.push_back(meeting.id);
    const json out = meetingJSON(meeting);
    meetings_.emplace(meeting.id, std::move(meeting));
    return Reply{201, {{"meeting", out}}};
}

Reply MeetModel::list() const {
    std::lock_guard lock(mutex_);
    json meetings = json::array();
    for (const auto& id : order_) {
        meetings.push_back(meetingJSON(meetings_.at(id)));
    }
    return Reply{200, {{"meetings", meetings}}};
}

Reply MeetModel::read(const std::string& id) const {
    return withMeeting(*this, id, Needs::call, [](const Meeting& m) {
        return Reply{200, {{"meeting", meetingJSON(m)}, {"status", m.status}}};
    });
}

Reply MeetModel::consent(const std::string& id) const {
    return withMeeting(*this, id, Needs::call, [](const Meeting& m) {
        return Reply{200, {{"notice", {{"version", m.notice}, {"text", noticeText}}}}};
    });
}

Reply MeetModel::start(const std::string& id) {
    return withMeeting(*this, id, Needs::call, [](Meeting& m) {
        if (m.status == "live") {
            return errorReply(409, "already_started", "The meeting has already started.");
        }
        if (m.status != "created") {
            return errorReply(409, "meeting_ended", "The meeting has ended.");
        }
        m.status = "live";
        m.startedAt = isoNow();
        return Reply{200, {{"meeting", meetingJSON(m)}}};
    });
}

Reply MeetModel::acknowledge(const std::string& id, const json& body) {
    BodyReader r(body, {"version"});
    const json version = r.number("version");
    if (r.problem()) {
        return *r.problem();
    }
    return withMeeting(*this, id, Needs::live, [&](Meeting& m) {
        if (version != m.notice) {
            return errorReply(
                409, "notice_outdated",
                "The recording notice has changed; read it again before acknowledging.");
        }
        m.acknowledged = version;
        return Reply{200, {{"consent", {{"version", version}, {"acknowledged", true}}}}};
    });
}

Reply MeetModel::join(const std::string& id, const json& body) {
    BodyReader r(body, {"role"});
    if (r.text("role") != "host") {
        r.reject("role", "role must be \"host\".");
    }
    if (r.problem()) {
        return *r.problem();
    }
    return withMeeting(*this, id, Needs::consent, [](Meeting& m) {
        // A repeated join is a second session: the server can't tell a retry from
        // another window, which is why the client reconciles by reading presence.
        m.presence.push_back(Session{"hs_" + randomHex(8), "host"});
        return Reply{201, {{"session", {{"id", m.presence.back().id}, {"role", "host"}}}}};
    });
}

Reply MeetModel::snapshot(const std::string& id) const {
    return withMeeting(*this, id, Needs::call, [](const Meeting& m) {
        json presence = json::array();
        for (const auto& session : m.presence) {
            presence.push_back({{"id", session.id}, {"role", session.role}});
        }
        const std::string state = m.parts.empty() ? "none" : m.parts.back().state;
        return Reply{200, {{"presence", presence}, {"recording_state", state}}};
    });
}

Reply MeetModel::recording(const std::string& id, const json& body) {
    const json* action = body.is_object() && body.contains("action") ? &body["action"] : nullptr;
    if (!action || !action->is_string() || (*action != "request" && *action != "stop")) {
        BodyReader r(body, {"action", "capture_protocol", "recording_id"});
        r.reject("action", "action must be \"request\" or \"stop\".");
        return *r.problem();
    }
    return withMeeting(*this, id, Needs::call, [&](Meeting& m) {
        return *action == "request" ? requestRecording(m, body) : stopRecording(m, body);
    });
}

Reply MeetModel::requestRecording(Meeting& m, const json& body) {
    BodyReader r(body, {"action", "capture_protocol"});
    if (r.number("capture_protocol") != 2) {
        r.reject("capture_protocol", "Only capture protocol 2 is supported.");
    }
    if (r.problem()) {
        return *r.problem();
    }
    if (auto refused = notLive(m)) {
        return *refused;
    }
    if (auto refused = noConsent(m)) {
        return *refused;
    }
    if (m.presence.empty()) {
        return errorReply(409, "host_required", "Join as host before requesting a recording.");
    }
    if (!m.parts.empty() && m.parts.back().state == "recording") {
        return errorReply(409, "recording_active", "A recording is already running.");
    }
    Part part;
    part.id = "rec_" + randomHex(8);
    part.startedAt = isoNow();
    m.parts.push_back(part);
    return Reply{201, {{"recording", {{"id", part.id}, {"state", part.state}}}}};
}

Reply MeetModel::stopRecording(Meeting& m, const json& body) {
    BodyReader r(body, {"action", "recording_id"});
    const std::string recording = r.text("recording_id");
    if (r.problem()) {
        return *r.problem();
    }
    const auto part = std::find_if(m.parts.begin(), m.parts.end(),
                                   [&](const Part& p) { return p.id == recording; });
    if (part == m.parts.end()) {
        return errorReply(404, "recording_not_found", "Recording not found.");
    }
    if (&*part != &m.parts.back()) {
        return errorReply(409, "recording_superseded", "A later recording replaced this one.");
    }
    if (part->state != "recording") {
        return errorReply(409, "recording_not_active", "The recording is not running.");
    }
    stopPart(*part);
    return Reply{200, {{"recording", {{"id", part->id}, {"state", part->state}}}}};
}

void MeetModel::stopPart(Part& part) {
    if (part.state == "recording") {
        part.state = "stopped";
        part.stoppedAt = isoNow();
    }
}

Reply MeetModel::manifest(const std::string& id) const {
    return withMeeting(*this, id, Needs::call, [](const Meeting& m) {
        json parts = json::array();
        for (const auto& part : m.parts) {
            parts.push_back(partJSON(part, m));
        }
        return Reply{200, {{"parts", parts}}};
    });
}

Reply MeetModel::presign(const std::string& id, const json& body) {
    BodyReader r(body, {"recording_id", "kind", "content_length", "chunk_uuid", "content_type"});
    const std::string recording = r.text("recording_id");
    const std::string kind = r.text("kind");
    if (kind != "audio_local" && kind != "audio_remote") {
        r.reject("kind", "kind must be \"audio_local\" or \"audio_remote\".");
    }
    const long long length = r.positive("content_length");
    const std::string chunk = r.text("chunk_uuid");
    if (!upperUUID(chunk)) {
        r.reject("chunk_uuid", "chunk_uuid must be a UUID in upper-case text.");
    }
    if (r.text("content_type") != "audio/aac") {
        r.reject("content_type", "Only audio/aac segments are accepted.");
    }
    if (r.problem()) {
        return *r.problem();
    }

    return withMeeting(*this, id, Needs::call, [&](Meeting& m) {
        const auto part = std::find_if(m.parts.begin(), m.parts.end(),
                                       [&](const Part& p) { return p.id == recording; });
        if (part == m.parts.end()) {
            return errorReply(404, "recording_not_found", "Recording not found.");
        }
        Segment* segment = nullptr;
        if (const auto known = m.chunks.find(chunk); known != m.chunks.end()) {
            segment = &m.segments.at(known->second);
            // What the server already holds is acknowledged whatever became of the
            // recording since: that is what makes a retried upload safe.
            if (segment->completed) {
                return Reply{200, {{"state", "completed"}, {"segment_id", segment->id}}};
            }
            if (segment->recording != recording || segment->kind != kind ||
                segment->length != length) {
                return errorReply(409, "chunk_conflict",
                                  "This chunk_uuid was presigned for another segment.");
            }
        }
        if (&*part != &m.parts.back()) {
            return errorReply(409, "recording_superseded", "A later recording replaced this one.");
        }
        if (part->state != "recording") {
            return errorReply(409, "recording_not_active", "The recording is not running.");
        }
        if (!segment) {
            Segment fresh;
            fresh.id = "seg_" + randomHex(8);
            fresh.chunk = chunk;
            fresh.recording = recording;
            fresh.kind = kind;
            fresh.length = length;
            fresh.sequence = part->nextSequence[kind]++;
            char name[16];
            std::snprintf(name, sizeof name, "%06d.aac", fresh.sequence);
            // The first part's tracks sit right under the call; a later part (after a
            // takeover) gets a folder of its own so its sequence numbers don't clash.
            const std::string folder = part == m.parts.begin() ? m.id : m.id + "/" + part->id;
            fresh.file = folder + "/" + kind + "/" + name;
            m.chunks[chunk] = fresh.id;
            segment = &m.segments.emplace(fresh.id, fresh).first->second;
            indexChanged(m);
        }
        return Reply{200,
                     {{"state", "pending"},
                      {"segment_id", segment->id},
                      {"upload_url", storage_.presignedURL(m.id, segment->id)},
                      {"method", "PUT"}}};
    });
}

Reply MeetModel::complete(const std::string& id, const json& body) {
    BodyReader r(body, {"segment_id", "content_length"});
    const std::string segmentID = r.text("segment_id");
    const long long length = r.positive("content_length");
    if (r.problem()) {
        return *r.problem();
    }
    return withMeeting(*this, id, Needs::call, [&](Meeting& m) {
        const auto found = m.segments.find(segmentID);
        if (found == m.segments.end()) {
            return errorReply(404, "segment_not_found", "Segment not found.");
        }
        Segment& segment = found->second;
        if (!segment.storedSize) {
            return errorReply(409, "segment_missing",
                              "The segment's bytes have not been uploaded.");
        }
        if (*segment.storedSize != length) {
            return errorReply(422, "content_length_mismatch",
                              "content_length is " + std::to_string(length) +
                                  " but storage holds " + std::to_string(*segment.storedSize) +
                                  " bytes.");
        }
        if (!segment.completed) {
            segment.completed = true;
            indexChanged(m);
        }
        const auto part = std::find_if(m.parts.begin(), m.parts.end(),
                                       [&](const Part& p) { return p.id == segment.recording; });
        return Reply{200,
                     {{"segment", {{"id", segment.id}, {"state", "completed"}}},
                      {"recording_state", part->state}}};
    });
}

Reply MeetModel::end(const std::string& id) {
    return withMeeting(*this, id, Needs::call, [this](Meeting& m) {
        if (m.status == "ended") {
            return errorReply(409, "already_ended", "The meeting has already ended.");
        }
        // A call abandoned before it started may be ended too.
        m.status = "ended";
        m.endedAt = isoNow();
        if (!m.parts.empty()) {
            stopPart(m.parts.back());
        }
        return Reply{200, {{"meeting", meetingJSON(m)}, {"status", m.status}}};
    });
}

std::optional<MeetModel::Upload> MeetModel::upload(const std::string& meeting,
                                                   const std::string& segment) const {
    std::lock_guard lock(mutex_);
    const Meeting* m = find(meeting);
    if (!m) {
        return std::nullopt;
    }
    const auto found = m->segments.find(segment);
    if (found == m->segments.end()) {
        return std::nullopt;
    }
    return Upload{found->second.length, found->second.file};
}

void MeetModel::stored(const std::string& meeting, const std::string& segment, long long size) {
    std::lock_guard lock(mutex_);
    Meeting* m = find(meeting);
    if (!m || !m->segments.contains(segment)) {
        return;
    }
    m->segments.at(segment).storedSize = size;
    indexChanged(*m);
}

// The index of a call lists every segment it holds, so writing it costs in
// proportion to the call. Written on every change it made the server, not the
// client, the limit of an upload (24 ms of CPU a segment at a thousand
// segments). So a change only marks the call, and one thread writes each marked
// index at most every 100 ms, and once more at shutdown.
MeetModel::MeetModel(Storage& storage)
    : storage_(storage), indexWriter_([this] { writeIndexes(); }) {}

MeetModel::~MeetModel() {
    {
        std::lock_guard lock(mutex_);
        closing_ = true;
    }
    indexWanted_.notify_all();
    indexWriter_.join();
}

void MeetModel::indexChanged(const Meeting& m) {
    if (staleIndexes_.insert(m.id).second) {
        indexWanted_.notify_all();
    }
}

void MeetModel::writeIndexes() {
    std::unique_lock lock(mutex_);
    for (;;) {
        indexWanted_.wait(lock, [this] { return closing_ || !staleIndexes_.empty(); });
        if (closing_ && staleIndexes_.empty()) {
            return;
        }
        // Gathers the changes of the next 100 ms into one write.
        indexWanted_.wait_for(lock, std::chrono::milliseconds(100), [this] { return closing_; });
        std::vector<std::pair<std::string, json>> indexes;
        for (const std::string& id : std::exchange(staleIndexes_, {})) {
            if (const Meeting* m = find(id)) {
                indexes.emplace_back(id, indexJSON(*m));
            }
        }
        lock.unlock();
        for (const auto& [id, index] : indexes) {
            try {
                storage_.writeIndex(id, index);
            } catch (const std::exception& error) {
                std::fprintf(stderr, "velmora-devserver: %s\n", error.what());
            }
        }
        lock.lock();
    }
}

json MeetModel::indexJSON(const Meeting& m) {
    json segments = json::array();
    for (const auto& part : m.parts) {
        for (const char* kind : {"audio_local", "audio_remote"}) {
            std::vector<const Segment*> track;
            for (const auto& [id, segment] : m.segments) {
                if (segment.recording == part.id && segment.kind == kind) {
                    track.push_back(&segment);
                }
            }
            std::sort(track.begin(), track.end(),
                      [](auto* a, auto* b) { return a->sequence < b->sequence; });
            for (const Segment* s : track) {
                segments.push_back({{"chunk_uuid", s->chunk},
                                    {"segment_id", s->id},
                                    {"recording_id", s->recording},
                                    {"kind", s->kind},
                                    {"sequence", s->sequence},
                                    {"size", s->length},
                                    {"stored", s->storedSize.has_value()},
                                    {"completed", s->completed},
                                    {"file", s->file}});
            }
        }
    }
    return {{"meeting", m.id}, {"segments", segments}};
}

Reply MeetModel::stopByServer(const std::string& meeting) {
    return withMeeting(*this, meeting, Needs::call, [this](Meeting& m) {
        if (m.parts.empty()) {
            return errorReply(409, "no_recording", "The meeting has no recording.");
        }
        stopPart(m.parts.back());
        return Reply{200, {{"recording", {{"id", m.parts.back().id}, {"state", "stopped"}}}}};
    });
}

Reply MeetModel::takeover(const std::string& meeting, bool newRecording) {
    return withMeeting(*this, meeting, Needs::live, [&](Meeting& m) {
        // Opening the call elsewhere replaces every host session this server knew.
        m.presence = {Session{"hs_" + randomHex(8), "host"}};
        json out{{"session", {{"id", m.presence.back().id}, {"role", "host"}}}};
        if (newRecording) {
            if (!m.parts.empty()) {
                stopPart(m.parts.back());
            }
            Part part;
            part.id = "rec_" + randomHex(8);
            part.startedAt = isoNow();
            m.parts.push_back(part);
            out["recording"] = {{"id", part.id}, {"state", part.state}};
        }
        return Reply{200, out};
    });
}

Reply MeetModel::setNotice(const std::optional<std::string>& meeting, const json& version) {
    const Reply set{200, {{"notice", {{"version", version}}}}};
    if (!meeting) {
        std::lock_guard lock(mutex_);
        defaultNotice_ = version;
        return set;
    }
    // A new notice needs a new acknowledgement before anything else is allowed.
    return withMeeting(*this, *meeting, Needs::call, [&](Meeting& m) {
        m.notice = version;
        return set;
    });
}

json MeetModel::state() const {
    std::lock_guard lock(mutex_);
    json meetings = json::array();
    for (const auto& id : order_) {
        const Meeting& m = meetings_.at(id);
        json out = meetingJSON(m);
        out["notice_version"] = m.notice;
        out["acknowledged_version"] = m.acknowledged;
        out["presence"] = json::array();
        for (const auto& session : m.presence) {
            out["presence"].push_back({{"id", session.id}, {"role", session.role}});
        }
        out["parts"] = json::array();
        for (const auto& part : m.parts) {
            json p = partJSON(part, m);
            p["segment_list"] = json::array();
            for (const auto& [sid, s] : m.segments) {
                if (s.recording == part.id) {
                    p["segment_list"].push_back({{"id", s.id},
                                                 {"chunk_uuid", s.chunk},
                                                 {"kind", s.kind},
                                                 {"sequence", s.sequence},
                                                 {"content_length", s.length},
                                                 {"stored", s.storedSize.has_value()},
                                                 {"completed", s.completed},
                                                 {"file", s.file}});
                }
            }
            out["parts"].push_back(p);
        }
        meetings.push_back(out);
    }
    return {{"meetings", meetings}, {"default_notice_version", defaultNotice_}};
}

} // namespace devserver
