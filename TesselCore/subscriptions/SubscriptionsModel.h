// What the subscription window and the status item show: when a reading is
// taken and from which tool, what a good and a bad reading do, the captions,
// the alerts that go out as desktop notifications, and a switch of account.
// Reads through `meterly` when it is installed, else through the accounts tool;
// the last usable reading stays on show when a refresh fails.
#pragma once

#include "async/Async.h"
#include "notify/DesktopNotifications.h"
#include "subscriptions/AccountsModel.h"
#include "subscriptions/Meterly.h"
#include "subscriptions/MeterlyPresentation.h"

#include <QDateTime>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QTimer>

#include <functional>
#include <memory>
#include <optional>

namespace tessel {

// Main thread only. Never fails to its callers: failures end as sentences in
// `errors` and as captions, and the reading on show stays.
class SubscriptionsModel : public QObject {
    Q_OBJECT

public:
    using Authorization = DesktopNotifications::Authorization;
    // Wall-clock time: readings carry the tool's own times.
    using Clock = std::function<QDateTime()>;
    // Takes the place of the desktop for an alert's body.
    using Notifier = std::function<Task<void>(QString body)>;

    static constexpr double refreshInterval = 300;
    static constexpr double guardInterval = 60;

    struct Parts {
        std::shared_ptr<MeterlyClient> client; // none: `meterly` is not installed
        AccountsModel* accounts = nullptr;     // outlives the model
        std::shared_ptr<MeterlyAlertsStore> alertsStore;
        MeterlySnapshotStore snapshotStore;
        // What the window says when neither tool is there.
        QString notInstalled;
        // The refresh timer and the permission work; the application passes true.
        bool startingServices = false;
        QPointer<DesktopNotifications> desktop;
        std::optional<Notifier> notifier;
        Clock now;
        SleepFunction sleep = sleepFor;
    };

    explicit SubscriptionsModel(Parts parts, QObject* parent = nullptr);
    ~SubscriptionsModel() override;

    // `fresh`: a person asked. Within a minute of the last attempt no tool
    // runs; a person then sees how old the reading is.
    Task<void> refresh(bool fresh);
    // Switches new sessions to the account `name`, then reads again once the
    // minute since the last attempt has passed.
    Task<void> use(QString name);

    // Observable: `changed` tells the views.
    const std::optional<MeterlySnapshot>& snapshot() const { return snapshot_; }
    const QStringList& errors() const { return errors_; }
    bool isFetching() const { return isFetching_; }
    const std::optional<QString>& refreshCaption() const { return refreshCaption_; }
    const std::optional<QString>& failureCaption() const { return failureCaption_; }
    bool showingFailedRefresh() const { return showingFailedRefresh_; }
    Authorization notificationAuthorization() const { return notificationAuthorization_; }
    const std::optional<QString>& switchingName() const { return switchingName_; }

    bool isInstalled() const { return isInstalled_; }
    // "v.circle.fill" when a seat needs attention, else "v.circle".
    QString menuSymbol() const;
    std::optional<QDateTime> lastFetch() const;
    // `errors` cleaned for a person, with the seats of the reading on show.
    QStringList displayErrors() const;

signals:
    void changed();

private:
    void failedRefresh(const QString& description);
    void showRefreshCaption();
    Task<void> deliverNotifications();
    Task<void> notify(MeterlyPresentation::Notification notification);
    void updateNotificationAuthorization();
    static Task<void> readAuthorization(QPointer<SubscriptionsModel> model,
                                        QPointer<DesktopNotifications> desktop);
    static Task<void> deliverOne(QPointer<SubscriptionsModel> model,
                                 QList<MeterlyPresentation::Notification> notifications,
                                 QString key);
    std::shared_ptr<BackgroundTask> after(double seconds, std::function<void()> then);

    Parts parts_;
    bool isInstalled_;
    std::optional<MeterlySnapshot> snapshot_;
    QStringList errors_;
    bool isFetching_ = false;
    std::optional<QString> refreshCaption_;
    std::optional<QString> failureCaption_;
    bool showingFailedRefresh_ = false;
    Authorization notificationAuthorization_ = Authorization::notDetermined;
    std::optional<QString> switchingName_;
    std::optional<QDateTime> lastAttempt_;
    std::optional<QDateTime> lastRead_; // when the last attempt's tool answered
    QTimer timer_;
    std::shared_ptr<BackgroundTask> captionTask_;
    std::shared_ptr<BackgroundTask> fadeTask_;
};

} // namespace tessel
