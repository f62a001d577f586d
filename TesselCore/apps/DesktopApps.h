// Sibling applications on a Linux desktop: found by the desktop entry named
// after their bundle identifier, or as an AppDir ("Name.app/" with AppRun and
// one "<bundle id>.desktop" at its top) in ~/Applications, and started
// detached with arguments of our own.
#pragma once

#include "async/Async.h"

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <optional>

namespace tessel::DesktopApps {

struct Places {
    QStringList entryDirectories;  // XDG applications directories, in order
    QStringList appDirDirectories; // where AppDirs are installed
};

// $XDG_DATA_HOME (or ~/.local/share), then $XDG_DATA_DIRS (or
// /usr/local/share:/usr/share), each with "applications"; ~/Applications.
Places places(const QProcessEnvironment& environment, const QString& home);

// The file URL of "<bundleID>.desktop" or of the AppDir with that identifier.
std::optional<QUrl> find(const Places& places, const QString& bundleID);

// The desktop entry's command line: Exec parsed by the Desktop Entry rules,
// its field codes dropped. Throws TesselError for an entry without a usable Exec.
QStringList command(const QString& desktopEntry);

// Starts the application at `url` (a desktop entry or an AppDir) with
// `arguments` appended, detached. Fails with ToolLaunchError or TesselError.
Task<void> open(QUrl url, QStringList arguments);

} // namespace tessel::DesktopApps
