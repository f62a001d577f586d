// Decides what a click on a sibling application's row does, and does it: opens
// the installed application, opens the web page, or downloads and installs the
// application and then opens it. Every contact with the system is a function,
// so the logic runs without the platform.
#pragma once

#include "apps/AppRegistry.h"
#include "apps/ZipAppInstaller.h"
#include "async/Async.h"

#include <QProcessEnvironment>
#include <QUrl>

#include <functional>
#include <optional>

namespace tessel {

struct AppLauncher {
    struct State {
        enum class Kind { installed, web, notInstalled };
        Kind kind = Kind::notInstalled;
        // installed: the application (a file URL); web: the page; notInstalled:
        // where to get it, if anywhere.
        std::optional<QUrl> url;

        static State installed(QUrl url) { return {Kind::installed, std::move(url)}; }
        static State web(QUrl url) { return {Kind::web, std::move(url)}; }
        static State notInstalled(std::optional<QUrl> url) {
            return {Kind::notInstalled, std::move(url)};
        }
        bool operator==(const State&) const = default;
    };

    // The installed application with this bundle identifier, or none.
    std::function<std::optional<QUrl>(const QString& bundleID)> resolver;
    std::function<Task<void>(QUrl application)> openApplication;
    std::function<Task<void>(QUrl application, QStringList arguments)> openApplicationWithArguments;
    std::function<bool(QUrl)> openURL;
    std::function<Task<ZipAppInstaller::Installation>(VelmoraApp, QUrl)> installArchive;

    State state(const VelmoraApp& app) const;
    // Gives the installation when this launch installed something. Fails with
    // the words a person reads under the row.
    Task<std::optional<ZipAppInstaller::Installation>> launch(VelmoraApp app,
                                                              std::optional<LaunchOrg> org) const;

    // The launcher of this desktop: applications found by their desktop entry
    // or AppDir and started detached; archives installed into ~/Applications.
    static AppLauncher system(const QProcessEnvironment& environment, const QString& home,
                              std::function<bool(QUrl)> openURL, Downloader download);
};

} // namespace tessel
