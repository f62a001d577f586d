// The HTTP(S) front of the server: routes meet, storage and control requests,
// checks tokens and bodies, applies queued faults and logs every answer.
#pragma once

#include "AuthModel.h"
#include "Faults.h"
#include "MeetModel.h"
#include "NotifyModel.h"
#include "RequestLog.h"
#include "Storage.h"
#include "UpdateFeed.h"

#include <httplib.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace devserver {

struct Options {
    std::string host = "127.0.0.1";
    int port = 0; // any free port
    bool https = false;
    std::string dataDir;
    std::string logPath;
    std::string basePath = "/meet";
    std::string notifyBasePath = "/notify";
    double presignTTL = 900; // seconds; zero or less gives URLs that have already expired
    bool fsync = true;       // off only for benchmarks, so the disk is not what they measure
};

class Server {
public:
    // The data dir must exist; with https the certificate is written into it.
    explicit Server(Options options);
    ~Server();

    // Binds and returns the origin, e.g. "http://127.0.0.1:41234".
    std::string bind();
    // Serves until stop(); false when serving failed.
    bool run();
    // From any thread; also ends stalls of delay faults.
    void stop();

    const std::string& certificatePath() const { return certPath_; }

private:
    struct Target {
        std::string route = "unknown"; // the fault and log name
        std::string meeting;
        std::string segment; // storage only
        bool storage = false;
        bool wrongMethod = false;
        bool notify = false;
        bool auth = false;
        bool update = false;
    };

    void handle(const httplib::Request& request, httplib::Response& response);
    void control(const httplib::Request& request, httplib::Response& response);
    Target classify(const httplib::Request& request, const json& body) const;
    Reply meet(const Target& target, const httplib::Request& request, const json& body);
    Reply notify(const Target& target, const httplib::Request& request, const json& body);
    void put(const Target& target, const httplib::Request& request, httplib::Response& response);
    std::optional<Reply> refuseToken(const httplib::Request& request) const;
    bool dropConnection(const httplib::Request& request) const;
    void pause(int milliseconds);

    Options options_;
    std::string certPath_;
    std::unique_ptr<httplib::Server> http_;
    int port_ = 0;
    Storage storage_;
    MeetModel model_{storage_};
    NotifyModel notify_;
    AuthModel auth_;
    UpdateFeed updates_;
    Faults faults_;
    std::unique_ptr<RequestLog> log_;

    mutable std::mutex tokensMutex_;
    std::set<std::string> revoked_;

    std::mutex stopMutex_;
    std::condition_variable stopped_;
    bool stopping_ = false;
};

} // namespace devserver
