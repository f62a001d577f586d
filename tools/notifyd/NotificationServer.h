// The desktop's notification server as a test sees it: it answers the four
// calls of org.freedesktop.Notifications, writes every call it receives as one
// JSON line, and takes orders on its own control interface (ai.velmora.Notifyd
// at /control): click a banner, close one, refuse a call, answer slowly.
#pragma once

#include <QDBusConnection>
#include <QDBusContext>
#include <QFile>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

class NotificationServer : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    NotificationServer(QDBusConnection bus, const QString& recordPath);

    bool isRecording() const { return record_.isOpen(); }

    // Orders from the control interface. `method` is one of the four calls,
    // or "*" for all of them.
    void invokeAction(uint id, const QString& key);
    void close(uint id, uint reason);
    void refuse(const QString& method, const QString& errorName, const QString& message);
    void delay(const QString& method, int milliseconds);
    void setCapabilities(const QStringList& capabilities);

public slots:
    QStringList GetCapabilities();
    uint Notify(const QString& appName, uint replacesId, const QString& appIcon,
                const QString& summary, const QString& body, const QStringList& actions,
                const QVariantMap& hints, int expireTimeout);
    void CloseNotification(uint id);
    QString GetServerInformation(QString& vendor, QString& version, QString& specVersion);

signals:
    void ActionInvoked(uint id, const QString& actionKey);
    void NotificationClosed(uint id, uint reason);

private:
    struct Refusal {
        QString name;
        QString message;
    };
    // Records the call; answers it with an error or later when told to, and
    // returns false then: the slot's own return value is not sent.
    bool answerNow(const QString& method, QJsonObject entry, const QVariantList& answer);
    void write(QJsonObject entry);

    QDBusConnection bus_;
    QFile record_;
    qint64 sequence_ = 0;
    uint nextId_ = 1;
    QHash<uint, QString> open_; // id to summary
    QStringList capabilities_{QStringLiteral("actions"), QStringLiteral("body"),
                              QStringLiteral("body-markup")};
    QHash<QString, Refusal> refusals_;
    QHash<QString, int> delays_;
};

// The control interface, on the same connection.
class NotificationControl : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "ai.velmora.Notifyd")

public:
    explicit NotificationControl(NotificationServer& server) : server_(server) {}

public slots:
    void InvokeAction(uint id, const QString& key) { server_.invokeAction(id, key); }
    void Close(uint id, uint reason) { server_.close(id, reason); }
    void Refuse(const QString& method, const QString& errorName, const QString& message) {
        server_.refuse(method, errorName, message);
    }
    void Delay(const QString& method, int milliseconds) { server_.delay(method, milliseconds); }
    void SetCapabilities(const QStringList& capabilities) { server_.setCapabilities(capabilities); }

private:
    NotificationServer& server_;
};
