#include "AppUpdates.h"

#include "DesktopActions.h"

#include "app/AppVersion.h"
#include "errors/ErrorLog.h"

#include <QProcess>

namespace tessel::app {

namespace {

// A package manager's build installs its updates through it.
#ifdef TESSEL_PACKAGED
constexpr bool packageManaged = true;
#else
constexpr bool packageManaged = false;
#endif

} // namespace

std::unique_ptr<FeedUpdateEngine>
makeUpdateEngine(const Endpoints& endpoints, HTTPClient http,
                 std::function<void(const QString& image)> relaunch) {
    std::optional<QString> appImage;
    if (qEnvironmentVariableIsSet("APPIMAGE")) {
        appImage = qEnvironmentVariable("APPIMAGE");
    }
    std::optional<QUrl> feed;
    if (endpoints.updateFeedURL.isValid() && !endpoints.updateFeedURL.isEmpty()) {
        feed = endpoints.updateFeedURL;
    }
    return std::make_unique<FeedUpdateEngine>(FeedUpdateEngine::Dependencies{
        .feedURL = feed,
        .currentVersion = AppVersion::shortVersion(),
        .http = std::move(http),
        .appImage = appImage,
        .packageManaged = packageManaged,
        .openURL = openInDesktop,
        .tell = tell,
        .relaunch = std::move(relaunch),
    });
}

void relaunchInto(const QString& image, SingleInstance& instance,
                  const std::function<void()>& terminate) {
    // The new version takes the bus name; this one ends.
    instance.release();
    if (!QProcess::startDetached(image, {})) {
        log::error(QStringLiteral("The new version at %1 could not be started.").arg(image));
    }
    terminate();
}

} // namespace tessel::app
