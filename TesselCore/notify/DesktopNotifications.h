// The bridge between the feed and the desktop's notification server
// (org.freedesktop.Notifications): one banner per row, and a click brought
// back to a browser and to the feed's mark-read. The server answering at all
// is the permission: a desktop has no prompt to ask.
#pragma once

#include "async/Async.h"
#include "notify/NotifyFeedModel.h"

#include <QDBusConnection>
#include <QHash>
#include <QObject>
#include <QUrl>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace tessel {

class DesktopNotifications : public QObject {
    Q_OBJECT

public:
    enum class Authorization { notDetermined, denied, authorized, provisional, ephemeral };

    // The user's "Desktop notifications" switch as stored at the moment.
    using Switch = std::function<bool()>;

    // `bus` is the session bus the desktop's server is on; a process opens it
    // once, so tests hand in a private one.
    DesktopNotifications(QDBusConnection bus, Switch enabled, QObject* parent = nullptr);

    // Authorised while a server answers on the bus, denied when none is there.
    // Callers at the same moment share one question to the bus.
    Task<Authorization> authorization();

    // Shows one banner. Throws `Cancelled` when `canDeliver` turns false or the
    // switch is off, TesselError "Desktop notifications are off." without a
    // server, and the server's refusal in its words.
    Task<void> post(NotifyDesktopNotification notification, std::function<bool()> canDeliver);

    // One banner of its own, with sound and no click: the subscription alerts.
    // The caller has asked for authorization. Throws the server's refusal.
    Task<void> postAlert(QString title, QString body);

    // What a click does, without the platform: open the row's link (or the
    // organisation's inbox), then mark the row read.
    using Inbox = std::function<std::optional<QUrl>()>;
    using Opener = std::function<void(const QUrl&)>;
    using MarkRead = std::function<Task<void>(std::vector<QString>)>;
    static Task<void> handleNotificationClick(QVariantMap userInfo, Inbox inbox, Opener open,
                                              MarkRead markRead);
    // Where a link leads: resolved against the inbox, and only to a web page.
    static QUrl destination(const std::optional<QString>& link, const QUrl& inbox);

    static QString requestIdentifier(const QString& id) { return QStringLiteral("notify-") + id; }

signals:
    // A click on one of our banners: "id", and "link" when the row has one.
    void activated(const QVariantMap& userInfo);

private slots:
    void actionInvoked(uint id, const QString& action);
    void notificationClosed(uint id, uint reason);
    void serverChanged();

private:
    struct PermissionRequest;

    // Notify, with the body escaped for a server that reads markup; the
    // banner's id.
    static Task<uint> notify(QDBusConnection bus, QString title, QString body, uint replaces,
                             bool sound, QStringList actions);

    QDBusConnection bus_;
    Switch enabled_;
    std::shared_ptr<PermissionRequest> permissionRequest_;
    // The server's id of the banner of each request identifier, so a row posted
    // again replaces its banner; and what each banner carries.
    QHash<QString, uint> replaces_;
    QHash<uint, QVariantMap> userInfo_;
};

} // namespace tessel
