// Where member sessions live: one item per organisation host in the secure
// store, holding the session's JSON form. Sessions never touch the user
// defaults or a file. Safe from any thread; an unlock prompt blocks the caller.
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
    // `hosts` still lists it). A locked or refusing store throws TesselError
    // "Keychain refused the session (…) …"; an unreadable item DecodingError.
    std::optional<MemberSession> load(const QString& orgHost) const;
    // Only "vses_" member sessions; the item is replaced, never doubled.
    void save(const MemberSession& session, const QString& orgHost) const;
    // An absent item is no failure.
    void remove(const QString& orgHost) const;
    // The hosts with a stored session, ended ones too.
    QStringList hosts() const;

private:
    std::shared_ptr<const SecureStore> store_;
    WallClockFunction now_;
};

} // namespace tessel
