// Where member sessions live: one item per organisation host in the secure
// store, holding the session's JSON form. Sessions never touch the user
// defaults or a file. Safe from any thread; an unlock prompt blocks the caller.
//
// Copies share a memory of the sessions read or saved in this run. A keyring
// that locks or refuses does not revoke a session: the remembered one is served
// meanwhile. With no keyring service at all, a sign-in lives in that memory for
// this run only; nothing secret is ever written anywhere else instead.
#pragma once

#include "identity/MemberSession.h"
#include "identity/SecureStore.h"

#include <QStringList>

#include <memory>
#include <optional>

namespace tessel {

class SessionKeychain {
public:
    // The real store is SecretServiceStore; `now` decides what has expired.
    explicit SessionKeychain(std::shared_ptr<const SecureStore> store,
                             WallClockFunction now = wallClockNow);

    // None when there is no item or the session has ended (the item stays, and
    // `hosts` still lists it), and when no keyring service runs and this run
    // holds none. A locked or refusing store gives the session this run read
    // or saved last; without one it throws TesselError "The keyring refused the
    // session (…) …"; an unreadable item DecodingError.
    std::optional<MemberSession> load(const QString& orgHost) const;
    // What a request needs at each call: the session as `load` gives it, but
    // while one is remembered a locked item is never unlocked for it (that would
    // put the unlock prompt in front of the user at every request).
    std::optional<MemberSession> current(const QString& orgHost) const;

    enum class Kept { inKeyring, forThisRunOnly };
    // Only "vses_" member sessions; the item is replaced, never doubled. With
    // no keyring service the session is held for this run only.
    Kept save(const MemberSession& session, const QString& orgHost) const;
    // An absent item is no failure.
    void remove(const QString& orgHost) const;
    // The hosts with a stored session, ended ones too, and those this run holds.
    QStringList hosts() const;

private:
    struct Memory;
    std::optional<MemberSession> read(const QString& orgHost, SecureStore::Unlock unlock) const;

    std::shared_ptr<const SecureStore> store_;
    WallClockFunction now_;
    std::shared_ptr<Memory> memory_;
};

} // namespace tessel
