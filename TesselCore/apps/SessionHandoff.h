// Hands the member session of an organisation to a sibling application in a
// private file: only the file's path goes into the application's arguments.
#pragma once

#include <QProcessEnvironment>
#include <QString>

#include <functional>
#include <optional>

namespace tessel::SessionHandoff {

// The member session's token for an organisation's host, or none; may throw.
using TokenLookup = std::function<std::optional<QString>(const QString& orgHost)>;

// Writes {"token", "org_host"} to a new file <UUID>.json of mode 0600 in
// `root` (made with mode 0700 when missing) and gives its path. Never writes
// through an existing file or link, nor into a folder open to other users.
// Any failure gives none, silently: the application then opens without the
// session.
std::optional<QString> write(const QString& orgHost, const TokenLookup& keychain,
                             const QString& root);
// The same with the file's name chosen by `fileName`.
std::optional<QString> write(const QString& orgHost, const TokenLookup& keychain,
                             const QString& root, const std::function<QString()>& fileName);

// $XDG_RUNTIME_DIR/Velmora/handoff (per user, in memory, gone at logout), or
// the data directory's Velmora/handoff where there is no runtime directory.
QString defaultRoot(const QProcessEnvironment& environment, const QString& dataDirectory);

} // namespace tessel::SessionHandoff
