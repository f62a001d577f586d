// Device sign-in: the program asks the auth service for a pair of codes, the
// member approves the short one in the browser, and the program polls until
// the service hands out a member session. Only a "vses_" member session is
// accepted, never an organisation key, and the verification page must lie on
// the auth service's own host.
#pragma once

#include "async/Async.h"
#include "identity/MemberSession.h"
#include "net/HTTPClient.h"
#include "net/JSON.h"

#include <QUrl>

#include <functional>
#include <optional>

namespace tessel {

struct DeviceGrant {
    QString deviceCode; // the secret the program polls with
    QString userCode;   // what the member compares or types
    QUrl verificationURL;
    double expiresIn = 0; // seconds, at most 900
    double interval = 0;  // the poll pause as the service set it

    bool operator==(const DeviceGrant&) const = default;
};

struct PollResult {
    enum class Kind { success, pending, slowDown, expired, denied };
    Kind kind = Kind::pending;
    std::optional<MemberSession> session; // with `success` only

    static PollResult success(MemberSession session) { return {Kind::success, std::move(session)}; }
    bool operator==(const PollResult&) const = default;
};

// Where a sign-in's time comes from: `now` is monotonic seconds, `sleep` fails
// on cancellation, `wallClock` dates the session's end.
struct SignInClock {
    NowFunction now = monotonicNow;
    SleepFunction sleep = [](double seconds, CancellationToken token) {
        return sleepFor(seconds, std::move(token));
    };
    WallClockFunction wallClock = wallClockNow;
};

class DeviceLogin {
public:
    using Clock = SignInClock;

    // `authURL` is the base of the auth service; the program passes
    // "velmora-tessel" as `clientName`.
    DeviceLogin(QUrl authURL, QString clientName, HTTPClient http, Clock clock = {});

    Task<DeviceGrant> requestCode(CancellationToken token = {}) const;
    // One request; an error status is an answer, not a throw, when it says why.
    Task<PollResult> pollOnce(DeviceGrant grant, CancellationToken token = {}) const;
    // Polls until the member approved, declined, or the code ran out.
    Task<MemberSession> signIn(DeviceGrant grant, CancellationToken token = {}) const;

    // The waiting loop with all its time sources passed in. The first request
    // goes out one pause after the start and never at or after the deadline;
    // `slowDown` adds 5 s to the pause, a timed-out request doubles it.
    using PollOperation = std::function<Task<PollResult>()>;
    static Task<MemberSession> poll(DeviceGrant grant, NowFunction now, SleepFunction sleep,
                                    PollOperation operation, CancellationToken token = {});

    // The service's answers, read: to the code request (throws TesselError
    // for one this program can't use) and to one poll at `now` (throws
    // DecodingError, TesselError or HTTPFailure).
    static DeviceGrant grantFrom(const JSON& answer, const QUrl& authURL);
    static PollResult pollResultFrom(const HTTPResponse& response, const QDateTime& now);

    const QUrl& authURL() const { return authURL_; }
    const HTTPClient& http() const { return http_; }

private:
    HTTPRequest post(const QString& path, const QByteArray& body) const;
    static Task<DeviceGrant> requestCode(DeviceLogin self, CancellationToken token);
    static Task<PollResult> pollOnce(DeviceLogin self, DeviceGrant grant, CancellationToken token);

    QUrl authURL_;
    QString clientName_;
    HTTPClient http_;
    Clock clock_;
};

} // namespace tessel
