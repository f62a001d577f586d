// The organisation's side of a call, on loopback: the meet API, presigned
// storage that keeps segments on disk, a log of every request, and a control
// interface that injects faults.
#pragma once

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace devserver {

using nlohmann::json;

struct Options {
    std::string host = "127.0.0.1";
    int port = 0;
    bool https = false;
    std::string dataDir;
    std::string logPath;
    std::string basePath = "/meet";
    double presignTTL = 900;
};

class MeetServer {
public:
    explicit MeetServer(Options options);
    ~MeetServer();

    // Binds and returns the origin ("http://127.0.0.1:port"); then `run()`.
    std::string bind();
    void run();
    void stop();
    bool isRunning() const { return server_->is_running(); }
    const std::string& certificatePath() const { return certPath_; }
    const std::string& dataDir() const { return options_.dataDir; }
    const std::string& logPath() const { return options_.logPath; }

private:
    struct Segment {
        std::string id;
        std::string chunk;
        std::string kind;
        std::string recording;
        int sequence = 0;
        long long length = 0;
        bool stored = false;
        bool completed = false;
    };
    struct Recording {
        std::string id;
        std::string state = "recording";
        std::map<std::string, int> nextSequence;
    };
    struct Meeting {
        std::string id;
        json fields; // title, counterpart, kind, ...
        std::string status = "created";
        std::string startedAt;
        json noticeVersion = 3;
        bool acknowledged = false;
        std::vector<std::string> presence;
        std::vector<Recording> parts;
        std::map<std::string, Segment> segments;   // by id
        std::map<std::string, std::string> chunks; // chunk_uuid -> segment id
    };
    struct Fault {
        std::string mode; // fail, drop, delay, redirect
        int status = 500;
        std::string body;
        std::string contentType = "application/json";
        int delayMs = 0;
        std::string location;
    };
    struct Answer {
        int status = 200;
        std::string body;
        std::string contentType = "application/json";
    };

    void handle(const httplib::Request& request, httplib::Response& response);
    void control(const httplib::Request& request, httplib::Response& response);
    Answer meet(const std::string& route, const std::vector<std::string>& parts,
                const httplib::Request& request, json& logEntry);
    Answer storage(const std::vector<std::string>& parts, const httplib::Request& request);
    std::string classify(const std::string& method, const std::vector<std::string>& parts) const;
    std::vector<std::string> meetParts(const std::string& path) const;
    std::string uploadURL(const Meeting& meeting, const Segment& segment) const;
    std::string signature(const std::string& path, long long expires) const;
    std::string storedPath(const Meeting& meeting, const Segment& segment) const;
    void dropConnection(const httplib::Request& request) const;
    void record(json entry);
    json stateJSON() const;

    Options options_;
    std::unique_ptr<httplib::Server> server_;
    int port_ = 0;
    std::string origin_;
    std::string certPath_;
    std::string secret_;

    mutable std::mutex mutex_;
    std::map<std::string, Meeting> meetings_;
    std::vector<std::string> order_; // meeting ids in creation order
    std::set<std::string> revoked_;
    std::map<std::string, std::deque<Fault>> faults_;
    std::vector<json> log_;
    std::ofstream logFile_;
    long long sequence_ = 0;
};

} // namespace devserver
