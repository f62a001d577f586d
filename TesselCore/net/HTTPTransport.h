// The libcurl side of the HTTP client, private to it: one multi handle driven by
// the Qt loop through curl's socket interface (a socket notifier per socket and
// direction, one timer for curl's own timeouts), so requests run on the main
// thread without a thread of their own and reuse their connections.
//
// A request leaves exactly once. libcurl sends a request again by itself when a
// reused connection dies before any answer; that repeat is refused before it
// leaves, and the caller gets the connection's failure instead.
#pragma once

#include "async/Async.h"
#include "net/HTTPClient.h"

#include <QObject>
#include <QTimer>

#include <memory>
#include <unordered_map>
#include <vector>

class QSocketNotifier;

namespace tessel {

struct Transfer;

class HTTPTransport : public QObject {
public:
    explicit HTTPTransport(HTTPSession::Options options);
    ~HTTPTransport() override;

    // Sends `request` once and returns any HTTP answer. Throws `URLError` when the
    // exchange fails, `TesselError` when the URL isn't HTTP, and `Cancelled` at
    // once when the token ends it. Records nothing.
    Task<HTTPResponse> perform(HTTPRequest request, CancellationToken token);

    // Fetches `url` into the file at `path` (created or emptied), following
    // redirects to HTTPS only, with the inactivity limit and no whole-request
    // limit: a download lasts as long as it moves. A redirect to anything else
    // fails with `URLError`.
    // Gives the final answer's status, 0 when there was no HTTP answer. Throws
    // `URLError`, `SystemError` when the file can't be written, `Cancelled`.
    Task<int> download(QUrl url, QString path, CancellationToken token);

    // For the awaiter: hand a prepared transfer to curl, or take it back.
    void start(const std::shared_ptr<Transfer>& transfer, const CancellationToken& token);
    enum class Ending { running, finished, cancelled, timedOut };
    void end(Transfer* transfer, Ending ending);

private:
    struct Watch {
        QSocketNotifier* read = nullptr;
        QSocketNotifier* write = nullptr;
    };

    static int onSocket(void* easy, int socket, int what, void* self, void* socketData);
    static int onTimer(void* multi, long milliseconds, void* self);

    void watch(int socket, int what);
    void act(int socket, int flags);
    void collect();
    void checkIdle();
    void armIdleCheck();

    HTTPSession::Options options_;
    void* multi_ = nullptr;
    QTimer curlTimer_;
    QTimer idleTimer_;
    std::unordered_map<int, Watch> sockets_;
    std::vector<Transfer*> running_;
    // The extra trusted certificates, read once; a problem with the file is
    // reported by every request rather than ignored.
    std::vector<void*> extraCertificates_;
    QString caProblem_;
    bool closing_ = false;
};

} // namespace tessel
