// One organisation: an HTTPS host of its own. The host names the keyring item
// of its session and the entry of the organisation menu.
#pragma once

#include <QString>
#include <QUrl>

namespace tessel {

struct Org {
    QString host; // lower case; also the identity of the value
    QUrl url;     // "https://" + host
    QString name; // the host's first label, as shown in menus

    // Throws TesselError "Enter a valid organisation host." Non-ASCII is refused.
    static Org fromHost(const QString& host);
    // The typed address: https exactly, no user, password or port; a path is
    // ignored. Throws TesselError "Enter an HTTPS organisation URL."
    static Org fromURL(const QString& url);

    // `url` with the path component "meet".
    QUrl meetURL() const;

    bool operator==(const Org&) const = default;
};

} // namespace tessel
