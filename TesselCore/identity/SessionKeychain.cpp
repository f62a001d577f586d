#include "identity/SessionKeychain.h"

#include "errors/Failures.h"

#include <map>
#include <mutex>

using namespace Qt::StringLiterals;

namespace tessel {

struct SessionKeychain::Memory {
    std::mutex mutex;
    std::map<QString, MemberSession> sessions;

    std::optional<MemberSession> find(const QString& host) {
        const std::lock_guard lock(mutex);
        const auto found = sessions.find(host);
        return found == sessions.end() ? std::nullopt : std::optional(found->second);
    }
    void keep(const QString& host, const std::optional<MemberSession>& session) {
        const std::lock_guard lock(mutex);
        if (session) {
            sessions.insert_or_assign(host, *session);
        } else {
            sessions.erase(host);
        }
    }
    QStringList hosts() {
        const std::lock_guard lock(mutex);
        QStringList out;
        for (const auto& [host, session] : sessions) {
            out << host;
        }
        return out;
    }
};

namespace {

using Kind = SecureStoreRefusal::Kind;

// The store's own words go after the sentence, so they reach the detail line.
[[noreturn]] void refuse(const SecureStoreRefusal& refusal) {
    throw TesselError(u"The keyring refused the session (%1) — unlock your login keyring and "
                      u"allow Velmora Tessel access, then sign in again. · %2"_s.arg(
                          QString::number(refusal.code), refusal.message));
}

} // namespace

SessionKeychain::SessionKeychain(std::shared_ptr<const SecureStore> store, WallClockFunction now)
    : store_(std::move(store)), now_(std::move(now)), memory_(std::make_shared<Memory>()) {}

std::optional<MemberSession> SessionKeychain::read(const QString& orgHost,
                                                   SecureStore::Unlock unlock) const {
    std::optional<QByteArray> bytes;
    try {
        bytes = store_->read(orgHost, unlock);
    } catch (const SecureStoreRefusal& refusal) {
        // Nothing can be saved without a service, so nothing is missing.
        std::optional<MemberSession> remembered = memory_->find(orgHost);
        if (!remembered && refusal.kind != Kind::noService) {
            refuse(refusal);
        }
        return remembered;
    }
    std::optional<MemberSession> session;
    if (bytes) {
        session = MemberSession::fromJSON(*bytes);
    }
    memory_->keep(orgHost, session);
    return session;
}

std::optional<MemberSession> SessionKeychain::load(const QString& orgHost) const {
    std::optional<MemberSession> session = read(orgHost, SecureStore::Unlock::ask);
    if (session && session->isExpired(now_())) {
        return std::nullopt;
    }
    return session;
}

std::optional<MemberSession> SessionKeychain::current(const QString& orgHost) const {
    const bool remembered = memory_->find(orgHost).has_value();
    std::optional<MemberSession> session =
        read(orgHost, remembered ? SecureStore::Unlock::never : SecureStore::Unlock::ask);
    if (session && session->isExpired(now_())) {
        return std::nullopt;
    }
    return session;
}

SessionKeychain::Kept SessionKeychain::save(const MemberSession& session,
                                            const QString& orgHost) const {
    if (!session.token.startsWith(u"vses_"_s)) {
        throw TesselError(
            u"Only vses_ member sessions can be saved — sign in with the device code."_s);
    }
    try {
        store_->write(orgHost, session.toJSON());
    } catch (const SecureStoreRefusal& refusal) {
        if (refusal.kind != Kind::noService) {
            refuse(refusal);
        }
        memory_->keep(orgHost, session);
        return Kept::forThisRunOnly;
    }
    memory_->keep(orgHost, session);
    return Kept::inKeyring;
}

void SessionKeychain::remove(const QString& orgHost) const {
    try {
        store_->erase(orgHost);
    } catch (const SecureStoreRefusal& refusal) {
        if (refusal.kind != Kind::noService) {
            refuse(refusal);
        }
    }
    memory_->keep(orgHost, std::nullopt);
}

QStringList SessionKeychain::hosts() const {
    QStringList hosts;
    try {
        hosts = store_->accounts();
    } catch (const SecureStoreRefusal& refusal) {
        if (refusal.kind != Kind::noService) {
            throw TesselError(u"The keyring refused the organisation list (%1). · %2"_s.arg(
                QString::number(refusal.code), refusal.message));
        }
    }
    for (const QString& host : memory_->hosts()) {
        if (!hosts.contains(host)) {
            hosts << host;
        }
    }
    return hosts;
}

} // namespace tessel
