// A private session bus (dbus-daemon with no service directories, so nothing
// starts behind the test's back) and on it our stand-in notification server,
// velmora-notifyd. Both are stopped by PID when the object goes.
#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <vector>

namespace tessel::test {

class NotificationBus {
public:
    // Throws when the bus or the server doesn't come up.
    NotificationBus();
    ~NotificationBus();
    NotificationBus(const NotificationBus&) = delete;
    NotificationBus& operator=(const NotificationBus&) = delete;

    QDBusConnection connection() const { return QDBusConnection(name_); }

    void stopServer();

    // The calls of one kind the server recorded, in order.
    std::vector<QJsonObject> calls(const QString& call) const;
    // An order on the server's control interface (InvokeAction, Close, Refuse,
    // Delay, SetCapabilities); throws when it is refused.
    void control(const QString& method, const QVariantList& arguments) const;

private:
    QTemporaryDir dir_;
    QProcess daemon_;
    QProcess server_;
    QString address_;
    QString name_;
};

} // namespace tessel::test
