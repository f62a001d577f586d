// The client of the organisation's meet server: every request but the storage
// PUT goes through `call`. A plain value, cheap to build wherever it is needed.
#pragma once

#include "async/Async.h"
#include "net/HTTPClient.h"
#include "net/JSON.h"

#include <QDateTime>
#include <QUrl>

#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace tessel {

// The member's current session token, asked at every request so a new sign-in
// reaches a running capture at once. Callable from any thread.
using TokenProvider = std::function<std::optional<QString>()>;

// What `begin` reports after each step the server confirmed.
struct BeginProgress {
    enum class Kind { joined, requested, started, acknowledged };
    Kind kind;
    QString id; // the host session's or the recording's id for joined/requested

    static BeginProgress joined(QString id) { return {Kind::joined, std::move(id)}; }
    static BeginProgress requested(QString id) { return {Kind::requested, std::move(id)}; }
    static BeginProgress started() { return {Kind::started, {}}; }
    static BeginProgress acknowledged() { return {Kind::acknowledged, {}}; }
    bool operator==(const BeginProgress&) const = default;
};

// A call open on the server with this member as host.
struct OpenCall {
    QString id;
    QString title;
    QString counterpart;
    std::optional<QDateTime> startedAt;

    bool operator==(const OpenCall&) const = default;

    // The lines for a failed list of open calls.
    static ErrorPresentation refreshFailure(const std::exception& error,
                                            const std::optional<ErrorPresentation>& diagnostic);
};

class MeetAPI {
public:
    using Progress = std::function<Task<void>(BeginProgress)>;

    // Throws TesselError when the address is not a secure meet address.
    MeetAPI(QUrl baseURL, TokenProvider tokenProvider, HTTPClient http);

    static void validateURL(const QUrl& url);
    static bool isLoopbackHost(const QString& host);

    // `path` is empty for the collection and begins with a slash otherwise.
    Task<JSON> call(QString path, QByteArray method, std::optional<JSON::Object> body = {},
                    CancellationToken token = {}) const;

    Task<QString> create(QString title, QString counterpart, QString project) const;

    // Takes a created call to a running recording, skipping what an earlier try
    // already got confirmed; the notice is always read anew. Returns the host
    // session id and the recording id.
    Task<std::pair<QString, QString>> begin(QString meeting, bool started, bool acknowledged,
                                            std::optional<QString> session,
                                            std::optional<QString> recording,
                                            Progress progress) const;

    Task<std::vector<OpenCall>> liveTesselMeetings() const;
    // The calls of a list answer that are this program's, live, with the
    // member as host; throws TesselError for one without its id or title.
    static std::vector<OpenCall> openCalls(const JSON& answer);

    // Closes a call left by another run, with no audio and no session behind it.
    Task<void> stopOpenCall(QString id) const;

    const QUrl& baseURL() const { return baseURL_; }
    const HTTPClient& http() const { return http_; }
    const TokenProvider& tokenProvider() const { return tokenProvider_; }

    // The closed states of a call, as the server reports them.
    static bool isClosedStatus(const JSON& status);

private:
    QUrl baseURL_;
    TokenProvider tokenProvider_;
    HTTPClient http_;
};

} // namespace tessel
