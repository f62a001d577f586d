// The notification feed as the tray application runs it: desktop banners on
// the session bus, the feed whose API, session and notifier read the
// application model at each call and hold it weakly, and the poll loop.
#pragma once

#include "app/AppModel.h"
#include "notify/DesktopNotifications.h"
#include "notify/NotifyFeedModel.h"
#include "notify/NotifyFeedStore.h"

#include <QSettings>

#include <memory>

namespace tessel::app {

class AppNotifications {
public:
    // `settings` and `model` outlive this; `serviceURL` is the feed's service.
    AppNotifications(QSettings& settings, const QDBusConnection& bus, AppModel& model,
                     const HTTPClient& http, const QString& serviceURL);
    // Ends the poll loop.
    ~AppNotifications();
    AppNotifications(const AppNotifications&) = delete;
    AppNotifications& operator=(const AppNotifications&) = delete;

    // The poll loop, from the end of launching on.
    void startPolling();

    DesktopNotifications& desktop() { return *desktop_; }
    NotifyFeedModel& feed() { return *feed_; }

private:
    std::shared_ptr<NotifyDefaultsStore> store_;
    std::unique_ptr<DesktopNotifications> desktop_;
    std::unique_ptr<NotifyFeedModel> feed_;
    std::shared_ptr<BackgroundTask> pollLoop_;
};

} // namespace tessel::app
