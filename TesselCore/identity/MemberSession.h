// A signed-in member's session: what a device sign-in gives and the keyring keeps.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>

#include <functional>
#include <optional>

namespace tessel {

// The wall clock: only for when a session ends and times a person reads.
using WallClockFunction = std::function<QDateTime()>;
QDateTime wallClockNow();

struct MemberSession {
    QString token; // begins with "vses_"
    std::optional<QString> email;
    QDateTime expiresAt; // UTC, millisecond precision

    bool isExpired(const QDateTime& now) const { return expiresAt <= now; }

    // The stored form: {"email", "expiresAt", "token"}, `email` left out when
    // none, `expiresAt` in seconds since 2001-01-01T00:00:00Z.
    QByteArray toJSON() const;
    // Throws DecodingError when the bytes are not that form.
    static MemberSession fromJSON(const QByteArray& bytes);

    bool operator==(const MemberSession&) const = default;
};

} // namespace tessel
