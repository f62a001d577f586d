#include "notify/DesktopNotifications.h"

#include <QCoroDBusPendingCall>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QPointer>

namespace tessel {

using namespace Qt::Literals::StringLiterals;

namespace {

const QString service = u"org.freedesktop.Notifications"_s;
const QString objectPath = u"/org/freedesktop/Notifications"_s;
const QString interface = u"org.freedesktop.Notifications"_s;
const QString defaultAction = u"default"_s;

QDBusMessage methodCall(const QString& method) {
    return QDBusMessage::createMethodCall(service, objectPath, interface, method);
}

// No server owns the name, or there is no bus at all.
bool isAbsentServer(const QDBusMessage& reply) {
    const QString name = reply.errorName();
    return name == u"org.freedesktop.DBus.Error.ServiceUnknown"_s ||
           name == u"org.freedesktop.DBus.Error.NameHasNoOwner"_s ||
           name == u"org.freedesktop.DBus.Error.Disconnected"_s;
}

[[noreturn]] void throwRefusal(const QDBusMessage& reply) {
    QString text = reply.errorMessage();
    if (text.isEmpty()) {
        text = reply.errorName();
    }
    throw TesselError(text);
}

} // namespace

struct DesktopNotifications::PermissionRequest {
    std::shared_ptr<BackgroundTask> task;
    Authorization status = Authorization::notDetermined;
    std::exception_ptr failure;

    static Task<void> ask(QDBusConnection bus, std::shared_ptr<PermissionRequest> request) {
        if (!bus.isConnected()) {
            request->status = Authorization::denied;
            co_return;
        }
        const QDBusPendingCall pending = bus.asyncCall(methodCall(u"GetServerInformation"_s));
        const QDBusMessage reply = co_await pending;
        if (reply.type() != QDBusMessage::ErrorMessage) {
            request->status = Authorization::authorized;
        } else if (isAbsentServer(reply)) {
            request->status = Authorization::denied;
        } else {
            try {
                throwRefusal(reply);
            } catch (...) {
                request->failure = std::current_exception();
            }
        }
    }
};

DesktopNotifications::DesktopNotifications(QDBusConnection bus, Switch enabled, QObject* parent)
    : QObject(parent), bus_(std::move(bus)), enabled_(std::move(enabled)) {
    bus_.connect(service, objectPath, interface, u"ActionInvoked"_s, this,
                 SLOT(actionInvoked(uint, QString)));
    bus_.connect(service, objectPath, interface, u"NotificationClosed"_s, this,
                 SLOT(notificationClosed(uint, uint)));
    // A new server counts its ids from the start again.
    auto* watcher =
        new QDBusServiceWatcher(service, bus_, QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
            &DesktopNotifications::serverChanged);
}

Task<DesktopNotifications::Authorization> DesktopNotifications::authorization() {
    QPointer<DesktopNotifications> self(this);
    std::shared_ptr<PermissionRequest> request = permissionRequest_;
    if (!request) {
        request = std::make_shared<PermissionRequest>();
        permissionRequest_ = request;
        request->task = BackgroundTask::start([bus = bus_, request](CancellationToken) {
            return PermissionRequest::ask(bus, request);
        });
    }
    co_await request->task->finished();
    if (self && permissionRequest_ == request) {
        permissionRequest_.reset();
    }
    if (request->failure) {
        std::rethrow_exception(request->failure);
    }
    co_return request->status;
}

Task<uint> DesktopNotifications::notify(QDBusConnection bus, QString title, QString body,
                                        uint replaces, bool sound, QStringList actions) {
    // A server that reads markup would take a row's "<b>" for formatting.
    const QDBusPendingCall asked = bus.asyncCall(methodCall(u"GetCapabilities"_s));
    const QDBusMessage capabilities = co_await asked;
    if (capabilities.type() != QDBusMessage::ErrorMessage && !capabilities.arguments().isEmpty() &&
        capabilities.arguments().constFirst().toStringList().contains(u"body-markup"_s)) {
        body = body.toHtmlEscaped();
    }
    QVariantMap hints{{u"urgency"_s, QVariant::fromValue(uchar(1))}};
    if (sound) {
        hints.insert(u"sound-name"_s, u"message-new-instant"_s);
    } else {
        hints.insert(u"suppress-sound"_s, true);
    }
    QDBusMessage call = methodCall(u"Notify"_s);
    call << u"Velmora"_s << replaces << QString() << title << body << actions << hints
         << qint32(-1);
    const QDBusPendingCall pending = bus.asyncCall(call);
    const QDBusMessage reply = co_await pending;
    if (reply.type() == QDBusMessage::ErrorMessage) {
        throwRefusal(reply);
    }
    co_return reply.arguments().isEmpty() ? 0u : reply.arguments().constFirst().toUInt();
}

Task<void> DesktopNotifications::postAlert(QString title, QString body) {
    co_await notify(bus_, std::move(title), std::move(body), 0, true, QStringList());
}

Task<void> DesktopNotifications::post(NotifyDesktopNotification notification,
                                      std::function<bool()> canDeliver) {
    QPointer<DesktopNotifications> self(this);
    if (!canDeliver()) {
        throw Cancelled();
    }
    const Authorization status = co_await authorization();
    if (!self) {
        throw Cancelled();
    }
    if (status != Authorization::authorized && status != Authorization::provisional) {
        throw TesselError(u"Desktop notifications are off."_s);
    }
    // The sign-in or the switch may have changed while the bus answered.
    if (!canDeliver() || !enabled_()) {
        throw Cancelled();
    }
    const QString identifier = requestIdentifier(notification.id);
    const QStringList actions{defaultAction, u"Open"_s};
    const uint id = co_await notify(bus_, notification.title, notification.body,
                                    replaces_.value(identifier, 0u), notification.sound, actions);
    if (!self) {
        co_return;
    }
    QVariantMap info{{u"id"_s, notification.id}};
    if (notification.link) {
        info.insert(u"link"_s, *notification.link);
    }
    replaces_.insert(identifier, id);
    userInfo_.insert(id, info);
}

void DesktopNotifications::actionInvoked(uint id, const QString& action) {
    // Other applications' banners and other buttons are not clicks on ours.
    const auto found = userInfo_.constFind(id);
    if (action != defaultAction || found == userInfo_.cend()) {
        return;
    }
    emit activated(*found);
}

void DesktopNotifications::notificationClosed(uint id, uint) {
    // Closing marks nothing read; the banner is only gone.
    if (userInfo_.remove(id) == 0) {
        return;
    }
    for (auto it = replaces_.begin(); it != replaces_.end();) {
        it = it.value() == id ? replaces_.erase(it) : std::next(it);
    }
}

void DesktopNotifications::serverChanged() {
    replaces_.clear();
    userInfo_.clear();
}

QUrl DesktopNotifications::destination(const std::optional<QString>& link, const QUrl& inbox) {
    if (!link) {
        return inbox;
    }
    const QUrl relative(*link, QUrl::StrictMode);
    if (!relative.isValid() || link->trimmed().isEmpty()) {
        return inbox;
    }
    const QUrl resolved = inbox.resolved(relative);
    const QString scheme = resolved.scheme().toLower();
    if ((scheme != u"https"_s && scheme != u"http"_s) || resolved.host().isEmpty()) {
        return inbox;
    }
    return resolved;
}

Task<void> DesktopNotifications::handleNotificationClick(QVariantMap userInfo, Inbox inbox,
                                                         Opener open, MarkRead markRead) {
    const QVariant id = userInfo.value(u"id"_s);
    if (id.metaType() != QMetaType::fromType<QString>()) {
        co_return; // not a row of the feed
    }
    std::optional<QString> link;
    if (const QVariant value = userInfo.value(u"link"_s);
        value.metaType() == QMetaType::fromType<QString>()) {
        link = value.toString();
    }
    const std::optional<QUrl> box = inbox();
    if (!box) {
        co_return;
    }
    // Opening first: a slow or failing mark-read never holds the link back.
    open(destination(link, *box));
    std::vector<QString> ids{id.toString()};
    co_await markRead(std::move(ids));
}

} // namespace tessel
