// The auth service's answers to a device sign-in: the code, and each poll for
// the session; and the session as the keyring gives it back.
#include "FuzzInput.h"

#include "identity/DeviceLogin.h"
#include "identity/MemberSession.h"

using namespace tessel;
using namespace Qt::StringLiterals;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const QByteArray body = fuzz::bytes(data, size);
    const QDateTime now = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);

    try {
        const DeviceGrant grant =
            DeviceLogin::grantFrom(JSON::parse(body), QUrl(u"https://auth.velmora.ai"_s));
        FUZZ_CHECK(grant.expiresIn > 0 && grant.expiresIn <= 900 && grant.interval > 0);
        FUZZ_CHECK(grant.verificationURL.host() == u"auth.velmora.ai"_s);
    } catch (const Failure&) {
    }
    for (const int status : {200, 400, 428, 500}) {
        try {
            const PollResult result = DeviceLogin::pollResultFrom(HTTPResponse{body, status}, now);
            if (result.kind == PollResult::Kind::success) {
                FUZZ_CHECK(result.session && result.session->token.startsWith(u"vses_"_s));
                FUZZ_CHECK(result.session->expiresAt > now);
            }
        } catch (const Failure&) {
        }
    }
    try {
        (void)MemberSession::fromJSON(body);
    } catch (const Failure&) {
    }
    return 0;
}
