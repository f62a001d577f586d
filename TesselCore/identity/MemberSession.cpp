#include "identity/MemberSession.h"

#include "errors/Failures.h"
#include "net/JSON.h"

#include <cmath>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {
// 2001-01-01T00:00:00Z, the epoch of the stored form.
constexpr qint64 referenceEpochMs = 978307200000;
} // namespace

QDateTime wallClockNow() {
    return QDateTime::currentDateTimeUtc();
}

QByteArray MemberSession::toJSON() const {
    JSON::Object object{
        {u"token"_s, token},
        {u"expiresAt"_s,
         static_cast<double>(expiresAt.toMSecsSinceEpoch() - referenceEpochMs) / 1000.0}};
    if (email) {
        object.emplace(u"email"_s, *email);
    }
    return JSON(std::move(object)).dump();
}

MemberSession MemberSession::fromJSON(const QByteArray& bytes) {
    const JSON json = JSON::parse(bytes);
    const auto token = json["token"].string();
    const auto seconds = json["expiresAt"].number();
    const JSON& email = json["email"];
    // Past some thousands of years the milliseconds no longer fit the clock's
    // integer: such a date is no session's.
    constexpr double maxSeconds = 1e11;
    if (!token || !seconds || !(std::fabs(*seconds) <= maxSeconds) ||
        !(email.isNull() || email.string())) {
        throw DecodingError(u"The stored session is not a member session."_s);
    }
    return MemberSession{*token, email.string(),
                         QDateTime::fromMSecsSinceEpoch(
                             referenceEpochMs + std::llround(*seconds * 1000.0), Qt::UTC)};
}

} // namespace tessel
