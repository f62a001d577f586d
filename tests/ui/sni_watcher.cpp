// A stand-in for the desktop's org.kde.StatusNotifierWatcher on a private
// bus: it accepts items and a host, and prints "registered <service>" for
// each item, so a test knows when the tray icon is up.
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QObject>
#include <QStringList>

#include <cstdio>

class Watcher : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ items)

public:
    bool hostRegistered() const { return true; }
    int protocolVersion() const { return 0; }
    QStringList items() const { return items_; }

public slots:
    void RegisterStatusNotifierItem(const QString& service) {
        // Qt passes its unique bus name; a path alone means the sender's name.
        const QString name = service.startsWith(u'/') ? message().service() : service;
        items_ << name;
        std::printf("registered %s\n", qPrintable(name));
        std::fflush(stdout);
        emit StatusNotifierItemRegistered(name);
    }
    void RegisterStatusNotifierHost(const QString&) {}

signals:
    void StatusNotifierItemRegistered(const QString& service);
    void StatusNotifierHostRegistered();

private:
    QStringList items_;
};

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QDBusConnection bus = QDBusConnection::sessionBus();
    Watcher watcher;
    if (!bus.registerObject("/StatusNotifierWatcher", &watcher,
                            QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals |
                                QDBusConnection::ExportAllProperties) ||
        !bus.registerService("org.kde.StatusNotifierWatcher")) {
        std::fprintf(stderr, "sni_watcher: cannot take the watcher's name\n");
        return 1;
    }
    std::printf("watching\n");
    std::fflush(stdout);
    return app.exec();
}

#include "sni_watcher.moc"
