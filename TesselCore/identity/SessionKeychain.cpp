#include "identity/SessionKeychain.h"

#include "errors/Failures.h"

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

// The store's own words go after the sentence, so they reach the detail line.
template <typename Operation> auto checked(Operation operation) {
    try {
        return operation();
    } catch (const SecureStoreRefusal& refusal) {
        throw TesselError(u"Keychain refused the session (%1) — unlock your login keyring and "
                          u"allow Velmora Tessel access, then sign in again. · %2"_s.arg(
                              QString::number(refusal.code), refusal.message));
    }
}

} // namespace

SessionKeychain::SessionKeychain(std::shared_ptr<const SecureStore> store, WallClockFunction now)
    : store_(std::move(store)), now_(std::move(now)) {}

std::optional<MemberSession> SessionKeychain::load(const QString& orgHost) const {
    const auto bytes = checked([&] { return store_->read(orgHost); });
    if (!bytes) {
        return std::nullopt;
    }
    MemberSession session = MemberSession::fromJSON(*bytes);
    if (session.isExpired(now_())) {
        return std::nullopt;
    }
    return session;
}

void SessionKeychain::save(const MemberSession& session, const QString& orgHost) const {
    if (!session.token.startsWith(u"vses_"_s)) {
        throw TesselError(
            u"Only vses_ member sessions can be saved — sign in with the device code."_s);
    }
    checked([&] { store_->write(orgHost, session.toJSON()); });
}

void SessionKeychain::remove(const QString& orgHost) const {
    checked([&] { store_->erase(orgHost); });
}

QStringList SessionKeychain::hosts() const {
    try {
        return store_->accounts();
    } catch (const SecureStoreRefusal& refusal) {
        throw TesselError(u"Keychain refused the organisation list (%1). · %2"_s.arg(
            QString::number(refusal.code), refusal.message));
    }
}

} // namespace tessel
