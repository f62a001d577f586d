#include "AppNotifications.h"

#include "DesktopActions.h"

#include "notify/NotifyAPI.h"

#include <QPointer>

namespace tessel::app {

namespace {

// One banner, delivered only while the member is still the one whose token
// fetched the row.
Task<void> postNotification(QPointer<AppModel> model, QPointer<DesktopNotifications> desktop,
                            NotifyDesktopNotification notification) {
    if (!model || !model->member() || !desktop) {
        throw Cancelled();
    }
    const QString token = model->member()->token;
    // Named, never a temporary inside the co_await: GCC 12 destroys a capturing
    // lambda there twice (GCC bug 100611), which freed the member's token and
    // silenced the feed after its first banner.
    std::function<bool()> canDeliver = [model, token] {
        return model && model->member() && model->member()->token == token;
    };
    co_await desktop->post(std::move(notification), std::move(canDeliver));
}

} // namespace

AppNotifications::AppNotifications(QSettings& settings, const QDBusConnection& bus,
                                   AppModel& appModel, const HTTPClient& http,
                                   const QString& serviceURL)
    : store_(std::make_shared<NotifyDefaultsStore>(settings)) {
    desktop_ = std::make_unique<DesktopNotifications>(
        bus, [&settings] { return NotifyDefaultsStore::desktopNotifications(settings); });
    QPointer<AppModel> model = &appModel;
    QPointer<DesktopNotifications> desktop = desktop_.get();
    QSettings* store = &settings;
    feed_ = std::make_unique<NotifyFeedModel>(
        [model, http, store, serviceURL]() -> std::shared_ptr<const NotifyFeedAPI> {
            if (!model) {
                throw Cancelled();
            }
            return std::make_shared<NotifyAPI>(std::nullopt, model->tokenProvider(), http, *store,
                                               serviceURL);
        },
        [model]() -> std::optional<QString> {
            if (!model || !model->member()) {
                return std::nullopt;
            }
            return model->org() + QStringLiteral(":") + model->member()->token;
        },
        [model, desktop](NotifyDesktopNotification notification) {
            return postNotification(model, desktop, std::move(notification));
        },
        store_);

    QPointer<NotifyFeedModel> feed = feed_.get();
    QObject::connect(desktop_.get(), &DesktopNotifications::activated, feed_.get(),
                     [model, feed](const QVariantMap& userInfo) {
                         spawn([model, feed, userInfo]() -> Task<void> {
                             // Named first: see postNotification.
                             DesktopNotifications::Inbox inbox = [model]() -> std::optional<QUrl> {
                                 return model ? std::optional(QUrl(model->inboxURL()))
                                              : std::nullopt;
                             };
                             DesktopNotifications::Opener open = openInDesktop;
                             DesktopNotifications::MarkRead markRead =
                                 [feed](std::vector<QString> ids) -> Task<void> {
                                 if (feed) {
                                     co_await feed->markRead(std::move(ids));
                                 }
                             };
                             co_await DesktopNotifications::handleNotificationClick(
                                 userInfo, std::move(inbox), std::move(open), std::move(markRead));
                         });
                     });
}

AppNotifications::~AppNotifications() {
    if (pollLoop_) {
        pollLoop_->cancel();
    }
}

void AppNotifications::startPolling() {
    QPointer<NotifyFeedModel> feed = feed_.get();
    pollLoop_ = BackgroundTask::start([feed](CancellationToken token) {
        return NotifyFeedModel::runPollLoop(feed, sleepFor, std::move(token));
    });
}

} // namespace tessel::app
