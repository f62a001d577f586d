// The one HTTP transport. It never follows a redirect, keeps no cookies and no
// cache, never sends a request twice, and remembers per URL path what went wrong
// last, so a screen can say why uploads stall without the caller keeping score.
#pragma once

#include "async/Async.h"
#include "errors/ErrorPresentation.h"

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace tessel {

struct HTTPResponse {
    QByteArray body;
    int status = 0;
};

// A finished request as the caller builds it: the client adds nothing.
struct HTTPRequest {
    QUrl url;
    QByteArray method = "GET";
    std::vector<std::pair<QByteArray, QByteArray>> headers;
    QByteArray body;
    // Seconds without progress after which the request ends. The session's own
    // limit applies when it is shorter.
    double timeout = 60;
    // A non-2xx answer for which this holds is the normal course of the
    // exchange (a device-code poll that is not approved yet): remembered as
    // any other, but not logged.
    std::function<bool(const HTTPResponse&)> expectedRefusal;

    void setHeader(const QByteArray& name, const QByteArray& value);
};

class HTTPTransport;

// Owns the one libcurl multi handle that carries every request of the clients
// built on it, and with it the connections they reuse. Lives on the main thread
// and is driven by its loop; every client copy and every running request keeps
// it alive.
class HTTPSession {
public:
    struct Options {
        double inactivitySeconds = 30; // no byte moved for this long ends a request
        double totalSeconds = 90;      // no request lasts longer than this
        // A PEM file of CA certificates trusted besides the system's, so a
        // local server's own certificate verifies; empty for none.
        QString caFile;
        // A connection idle this long is not used again (whole seconds, at
        // least 1). Many servers close a connection after 5 idle seconds
        // (Apache's and the local server's default); a request sent into one
        // as it closes is lost, and is never sent twice here.
        double reuseIdleSeconds = 4;
    };

    HTTPSession();
    explicit HTTPSession(Options options);
    ~HTTPSession();
    HTTPSession(const HTTPSession&) = delete;
    HTTPSession& operator=(const HTTPSession&) = delete;

    const Options& options() const { return options_; }

private:
    friend class HTTPClient;
    Options options_;
    std::shared_ptr<HTTPTransport> transport_;
};

class HTTPDiagnostics;

// A small value; copies share the session and the failure memory.
class HTTPClient {
public:
    HTTPClient();
    explicit HTTPClient(std::shared_ptr<HTTPSession> session);

    // A client on the same session whose failures stay until `clearFailures()`,
    // a newer failure of the same path, or the bound of 16 paths removes them.
    HTTPClient withRetainedFailures() const;

    // Bytes and status of any HTTP answer; throws on transport failures and
    // `Cancelled` when the token ends the request.
    Task<HTTPResponse> send(HTTPRequest request, CancellationToken token = {}) const;
    // Bytes of a 2xx answer; `HTTPFailure` for any other status.
    Task<QByteArray> checked(HTTPRequest request, CancellationToken token = {}) const;

    // A file, not an API call: streamed into `path` following redirects (to
    // HTTPS only), with the session's inactivity limit but no whole-request
    // limit, the status of the final answer given (0 when it wasn't HTTP),
    // nothing recorded among the failures.
    Task<int> download(QUrl url, QString path, CancellationToken token = {}) const;

    std::optional<ErrorPresentation> latestFailure() const;
    void clearFailures() const;

    const std::shared_ptr<HTTPSession>& session() const { return session_; }

private:
    HTTPClient(std::shared_ptr<HTTPSession> session, std::shared_ptr<HTTPDiagnostics> diagnostics);

    std::shared_ptr<HTTPSession> session_;
    std::shared_ptr<HTTPDiagnostics> diagnostics_;
};

} // namespace tessel
