// The maker's sibling applications, as the Apps section lists them.
#pragma once

#include <QString>
#include <QStringList>
#include <QUrl>

#include <functional>
#include <optional>
#include <vector>

namespace tessel {

// What a launch needs of the selected organisation.
struct LaunchOrg {
    QString host;
    QUrl url;
};

// One row of the registry. Rows compare by everything but `argumentsForOrg`.
struct VelmoraApp {
    QString id;
    QString name;
    QString subtitle;
    QString symbol;
    std::optional<QString> bundleID; // none: the row is only a web page
    std::optional<QUrl> webURL;      // opened when nothing is installed
    std::optional<QUrl> getURL;      // a ZIP archive or an install page
    // The launch arguments for an organisation; empty for a row without any.
    std::function<QStringList(const LaunchOrg&)> argumentsForOrg;

    bool operator==(const VelmoraApp& other) const {
        return id == other.id && name == other.name && subtitle == other.subtitle &&
               symbol == other.symbol && bundleID == other.bundleID && webURL == other.webURL &&
               getURL == other.getURL;
    }
};

namespace AppRegistry {

// Writes a session handoff file for an organisation's host; gives its path or
// none (SessionHandoff::write bound to the keychain and the handoff root).
using HandoffWriter = std::function<std::optional<QString>(const QString& orgHost)>;

// "desktop", "lookout" and "meet", in this order; their pages and archives lie
// under https://<defaultOrgHost>.
std::vector<VelmoraApp> apps(const QString& defaultOrgHost, HandoffWriter writeHandoff);

} // namespace AppRegistry

} // namespace tessel
