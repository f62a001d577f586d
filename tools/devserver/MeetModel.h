// The organisation's record of calls: meetings, host presence, recording parts
// and their segments, with the order rules of the meet API. Every method is one
// atomic step under the model's lock.
#pragma once

#include "Support.h"

#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace devserver {

class Storage;

class MeetModel {
public:
    explicit MeetModel(Storage& storage);
    // Writes the call indexes still owed before it returns.
    ~MeetModel();
    MeetModel(const MeetModel&) = delete;
    MeetModel& operator=(const MeetModel&) = delete;

    // The meet API, one method per request. Bodies are JSON objects.
    Reply create(const json& body);
    Reply list() const;
    Reply read(const std::string& id) const;
    Reply consent(const std::string& id) const;
    Reply start(const std::string& id);
    Reply acknowledge(const std::string& id, const json& body);
    Reply join(const std::string& id, const json& body);
    Reply snapshot(const std::string& id) const;
    Reply recording(const std::string& id, const json& body); // "request" or "stop"
    Reply manifest(const std::string& id) const;
    Reply presign(const std::string& id, const json& body);
    Reply complete(const std::string& id, const json& body);
    Reply end(const std::string& id);

    // The storage side: where a presigned segment's bytes go, and that they came.
    struct Upload {
        long long length = 0;
        std::filesystem::path file; // relative to the data dir
    };
    std::optional<Upload> upload(const std::string& meeting, const std::string& segment) const;
    void stored(const std::string& meeting, const std::string& segment, long long size);

    // What other members and the organisation's own systems do to a call.
    Reply stopByServer(const std::string& meeting);
    Reply takeover(const std::string& meeting, bool newRecording);
    Reply setNotice(const std::optional<std::string>& meeting, const json& version);
    json state() const;

private:
    struct Segment {
        std::string id;
        std::string chunk;
        std::string recording;
        std::string kind;
        int sequence = 0;
        long long length = 0; // as presigned
        std::optional<long long> storedSize;
        bool completed = false;
        std::string file;
    };
    struct Part {
        std::string id;
        std::string state = "recording";
        std::string startedAt;
        std::string stoppedAt;
        std::map<std::string, int> nextSequence; // per kind
    };
    struct Session {
        std::string id;
        std::string role;
    };
    struct Meeting {
        std::string id;
        std::string title;
        std::string counterpart;
        std::string kind;
        std::string captureSource;
        std::optional<std::string> project;
        std::string status = "created";
        std::string createdAt;
        std::string startedAt;
        std::string endedAt;
        json notice;
        json acknowledged; // the notice version acknowledged, or null
        std::vector<Session> presence;
        std::vector<Part> parts; // latest last
        std::map<std::string, Segment> segments;
        std::map<std::string, std::string> chunks; // chunk_uuid to segment id
    };

    // What a request needs of its call before its handler may act.
    enum class Needs { call, live, consent };
    template <typename Model, typename Work>
    static Reply withMeeting(Model& model, const std::string& id, Needs needs, Work&& work);

    Meeting* find(const std::string& id);
    const Meeting* find(const std::string& id) const;
    Reply requestRecording(Meeting& meeting, const json& body);
    Reply stopRecording(Meeting& meeting, const json& body);
    void stopPart(Part& part);
    void indexChanged(const Meeting& meeting);
    void writeIndexes();
    static json indexJSON(const Meeting& meeting);
    static json meetingJSON(const Meeting& meeting);
    static json partJSON(const Part& part, const Meeting& meeting);

    Storage& storage_;
    mutable std::mutex mutex_;
    std::map<std::string, Meeting> meetings_;
    std::vector<std::string> order_; // ids in creation order
    json defaultNotice_ = 3;
    // Calls whose index on disk is behind, for the index writer's thread.
    std::set<std::string> staleIndexes_;
    std::condition_variable indexWanted_;
    bool closing_ = false;
    std::thread indexWriter_;
};

} // namespace devserver
