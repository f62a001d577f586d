#include "identity/DeviceLogin.h"

#include "net/HTTPFailure.h"
#include "net/JSON.h"

#include <cmath>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

constexpr double maxGrantSeconds = 900;
constexpr double maxSessionSeconds = 604800; // seven days
const QString grantType = u"urn:ietf:params:oauth:grant-type:device_code"_s;

TesselError codeExpired() {
    return TesselError(u"The sign-in code expired — choose Sign in to request a new code."_s);
}

QUrl appendingPath(QUrl url, const QString& path) {
    QString base = url.path();
    if (!base.endsWith(u'/')) {
        base += u'/';
    }
    url.setPath(base + path);
    return url;
}

// The rule is about the text the service sent: QUrl would lower-case "HTTPS".
void checkVerificationURL(const QString& text, const QUrl& authURL) {
    const QUrl url(text, QUrl::StrictMode);
    if (!url.isValid() || !text.startsWith(u"https:"_s) || url.host().isEmpty() ||
        url.host() != authURL.host()) {
        throw TesselError(u"The sign-in response has an unexpected verification URL — confirm "
                          u"the auth service configuration before retrying."_s);
    }
}

// The answer to a poll while the code waits for approval.
bool isPending(const JSON& answer) {
    return answer["error"].string() == u"authorization_pending"_s;
}

bool timedOut(const URLError& error) {
    return error.errorCode() == URLError::timedOut;
}

} // namespace

DeviceLogin::DeviceLogin(QUrl authURL, QString clientName, HTTPClient http, Clock clock)
    : authURL_(std::move(authURL)), clientName_(std::move(clientName)), http_(std::move(http)),
      clock_(std::move(clock)) {}

HTTPRequest DeviceLogin::post(const QString& path, const QByteArray& body) const {
    HTTPRequest request;
    request.url = appendingPath(authURL_, path);
    request.method = "POST";
    request.timeout = 60;
    request.setHeader("Content-Type", "application/json");
    request.body = body;
    return request;
}

Task<DeviceGrant> DeviceLogin::requestCode(CancellationToken token) const {
    return requestCode(*this, std::move(token));
}

Task<PollResult> DeviceLogin::pollOnce(DeviceGrant grant, CancellationToken token) const {
    return pollOnce(*this, std::move(grant), std::move(token));
}

DeviceGrant DeviceLogin::grantFrom(const JSON& answer, const QUrl& authURL) {
    QString verification = appendingPath(authURL, u"device"_s).toString();
    if (const auto complete = answer["verification_uri_complete"].string()) {
        verification = *complete;
    } else if (const auto plain = answer["verification_uri"].string()) {
        verification = *plain;
    }
    checkVerificationURL(verification, authURL);

    const double expiresIn = answer["expires_in"].number().value_or(maxGrantSeconds);
    const auto interval = answer["interval"].number();
    if (!(expiresIn > 0) || (interval && !(*interval > 0))) {
        throw TesselError(u"The sign-in code is already expired — request a fresh code."_s);
    }
    return DeviceGrant{answer.requiredString(u"device_code"_s),
                       answer.requiredString(u"user_code"_s), QUrl(verification),
                       std::min(expiresIn, maxGrantSeconds), interval.value_or(5.0)};
}

PollResult DeviceLogin::pollResultFrom(const HTTPResponse& response, const QDateTime& now) {
    const JSON answer = JSON::parse(response.body);

    if (const auto error = answer["error"].string()) {
        if (isPending(answer)) {
            return PollResult{PollResult::Kind::pending, {}};
        }
        if (*error == u"slow_down"_s) {
            return PollResult{PollResult::Kind::slowDown, {}};
        }
        if (*error == u"expired_token"_s) {
            return PollResult{PollResult::Kind::expired, {}};
        }
        if (*error == u"access_denied"_s) {
            return PollResult{PollResult::Kind::denied, {}};
        }
        throw TesselError(u"Sign-in refused: %1 — request a new code or ask your organisation "
                          u"administrator to restore member access."_s.arg(*error));
    }
    if (response.status < 200 || response.status > 299) {
        throw HTTPFailure(response.status, u"Device sign-in failed"_s, u"unknown path"_s);
    }

    auto sessionToken = answer["session_token"].string();
    if (!sessionToken) {
        sessionToken = answer["access_token"].string();
    }
    if (!answer.isObject() || !sessionToken || !sessionToken->startsWith(u"vses_"_s)) {
        throw TesselError(u"Sign-in did not return a vses_ member session — verify the "
                          u"device-token response field with velmora-auth; organisation API "
                          u"keys cannot host calls."_s);
    }
    double lifetime = maxSessionSeconds;
    if (const auto expiresIn = answer["expires_in"].number()) {
        if (!(*expiresIn > 0)) {
            return PollResult{PollResult::Kind::expired, {}};
        }
        lifetime = std::min(*expiresIn, maxSessionSeconds);
    }
    auto email = answer["email"].string();
    if (!email) {
        email = answer["user"]["email"].string();
    }
    return PollResult::success(
        MemberSession{*sessionToken, email, now.addMSecs(std::llround(lifetime * 1000))});
}

Task<DeviceGrant> DeviceLogin::requestCode(DeviceLogin self, CancellationToken token) {
    const QByteArray body = JSON(JSON::Object{{u"client_name"_s, self.clientName_}}).dump();
    const JSON answer =
        JSON::parse(co_await self.http_.checked(self.post(u"v1/auth/device/code"_s, body), token));
    co_return grantFrom(answer, self.authURL_);
}

Task<PollResult> DeviceLogin::pollOnce(DeviceLogin self, DeviceGrant grant,
                                       CancellationToken token) {
    const QByteArray body =
        JSON(JSON::Object{{u"device_code"_s, grant.deviceCode}, {u"grant_type"_s, grantType}})
            .dump();
    HTTPRequest request = self.post(u"v1/auth/device/token"_s, body);
    // Waiting for approval is how every sign-in begins, not a failure to log.
    request.expectedRefusal = [](const HTTPResponse& answer) {
        try {
            return isPending(JSON::parse(answer.body));
        } catch (const std::exception&) {
            return false;
        }
    };
    const HTTPResponse response = co_await self.http_.send(std::move(request), token);
    co_return pollResultFrom(response, self.clock_.wallClock());
}

Task<MemberSession> DeviceLogin::signIn(DeviceGrant grant, CancellationToken token) const {
    PollOperation operation = [self = *this, grant, token] { return self.pollOnce(grant, token); };
    return poll(std::move(grant), clock_.now, clock_.sleep, std::move(operation), std::move(token));
}

Task<MemberSession> DeviceLogin::poll(DeviceGrant grant, NowFunction now, SleepFunction sleep,
                                      PollOperation operation, CancellationToken token) {
    const double deadline = now() + grant.expiresIn;
    double delay = std::max(grant.interval, 1.0);
    for (;;) {
        if (!(now() < deadline)) {
            throw codeExpired();
        }
        token.check();
        co_await sleep(std::max(0.0, std::min(delay, deadline - now())), token);
        if (!(now() < deadline)) {
            throw codeExpired();
        }
        PollResult result;
        try {
            result = co_await operation();
        } catch (const URLError& error) {
            if (!timedOut(error)) {
                throw;
            }
            // A network that answers nothing is asked less often, not given up on.
            delay *= 2;
            continue;
        }
        switch (result.kind) {
        case PollResult::Kind::success:
            co_return std::move(*result.session);
        case PollResult::Kind::pending:
            break;
        case PollResult::Kind::slowDown:
            delay += 5;
            break;
        case PollResult::Kind::expired:
            throw codeExpired();
        case PollResult::Kind::denied:
            throw TesselError(u"Sign-in was declined — choose Sign in and approve the new code in "
                              u"your browser."_s);
        }
    }
}

} // namespace tessel
