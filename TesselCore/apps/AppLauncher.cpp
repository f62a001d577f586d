#include "apps/AppLauncher.h"

#include "apps/DesktopApps.h"
#include "errors/Failures.h"

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

// Opens the application with the organisation's arguments when there are any.
Task<void> openApplication(AppLauncher launcher, VelmoraApp app, std::optional<LaunchOrg> org,
                           QUrl url) {
    if (org && app.argumentsForOrg) {
        const QStringList arguments = app.argumentsForOrg(*org);
        co_await launcher.openApplicationWithArguments(url, arguments);
    } else {
        co_await launcher.openApplication(url);
    }
}

void openPage(const AppLauncher& launcher, const VelmoraApp& app, const QUrl& url) {
    if (!launcher.openURL(url)) {
        throw TesselError(u"Could not open the page for %1."_s.arg(app.name));
    }
}

Task<std::optional<ZipAppInstaller::Installation>> launchApp(AppLauncher launcher, VelmoraApp app,
                                                             std::optional<LaunchOrg> org) {
    using Kind = AppLauncher::State::Kind;
    const AppLauncher::State state = launcher.state(app);
    switch (state.kind) {
    case Kind::installed:
        co_await openApplication(launcher, app, org, *state.url);
        co_return std::nullopt;
    case Kind::web:
        openPage(launcher, app, *state.url);
        co_return std::nullopt;
    case Kind::notInstalled:
        break;
    }
    if (!state.url) {
        throw TesselError(u"No install page is available for %1."_s.arg(app.name));
    }
    if (!ZipAppInstaller::isArchive(*state.url)) {
        openPage(launcher, app, *state.url);
        co_return std::nullopt;
    }
    const ZipAppInstaller::Installation installation =
        co_await launcher.installArchive(app, *state.url);
    // A failure to open is the launch's result, though the application is installed.
    co_await openApplication(launcher, app, org, QUrl::fromLocalFile(installation.application));
    co_return installation;
}

} // namespace

AppLauncher::State AppLauncher::state(const VelmoraApp& app) const {
    if (app.bundleID) {
        if (auto url = resolver(*app.bundleID)) {
            return State::installed(*url);
        }
    }
    if (app.webURL) {
        return State::web(*app.webURL);
    }
    return State::notInstalled(app.getURL);
}

Task<std::optional<ZipAppInstaller::Installation>>
AppLauncher::launch(VelmoraApp app, std::optional<LaunchOrg> org) const {
    // A copy runs the launch, so this launcher may go meanwhile.
    return launchApp(*this, std::move(app), std::move(org));
}

AppLauncher AppLauncher::system(const QProcessEnvironment& environment, const QString& home,
                                std::function<bool(QUrl)> openURL, Downloader download) {
    const DesktopApps::Places places = DesktopApps::places(environment, home);
    AppLauncher launcher;
    launcher.resolver = [places](const QString& bundleID) {
        return DesktopApps::find(places, bundleID);
    };
    launcher.openApplication = [](QUrl url) { return DesktopApps::open(url, {}); };
    launcher.openApplicationWithArguments = &DesktopApps::open;
    launcher.openURL = std::move(openURL);
    launcher.installArchive = [home, download](VelmoraApp app, QUrl url) {
        ZipAppInstaller::Context context;
        context.home = home;
        context.download = download;
        return ZipAppInstaller::install(std::move(app), std::move(url), std::move(context));
    };
    return launcher;
}

} // namespace tessel
