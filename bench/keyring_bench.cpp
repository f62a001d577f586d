// One session read from the Secret Service: the D-Bus calls it makes and its
// time. Runs itself on a private session bus with a gnome-keyring-daemon of its
// own, so the desktop's keyring is never touched.
#include "identity/SecretServiceStore.h"
#include "support/PrivateBus.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#pragma push_macro("signals")
#undef signals
#include <gio/gio.h>
#pragma pop_macro("signals")

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

bool keyringOnBus() {
    QProcess p;
    p.start("dbus-send",
            {"--session", "--print-reply", "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
             "org.freedesktop.DBus.NameHasOwner", "string:org.freedesktop.secrets"});
    p.waitForFinished();
    return p.readAllStandardOutput().contains("boolean true");
}

} // namespace

int main(int argc, char** argv) {
    if (!std::getenv("TESSEL_PRIVATE_BUS")) {
        return tessel::test::rerunOnPrivateBus(argc, argv, TESSEL_PRIVATE_BUS_CONFIG);
    }
    QCoreApplication app(argc, argv);
    const int reads = argc > 1 ? std::atoi(argv[1]) : 200;

    QTemporaryDir home;
    QDir(home.path()).mkpath("run");
    QFile::setPermissions(home.filePath("run"),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("HOME", home.path());
    env.insert("XDG_DATA_HOME", home.filePath("data"));
    env.insert("XDG_RUNTIME_DIR", home.filePath("run"));
    QProcess daemon;
    daemon.setProcessEnvironment(env);
    daemon.start("gnome-keyring-daemon", {"--foreground", "--components=secrets", "--unlock"});
    daemon.waitForStarted();
    daemon.write("pw");
    daemon.waitForBytesWritten();
    daemon.closeWriteChannel();
    for (int i = 0; i < 400 && !keyringOnBus(); ++i) {
        QThread::msleep(50);
    }

    const tessel::SecretServiceStore store;
    store.write("acme.test", R"({"token":"vses_bench"})");

    // Calls this process sends, seen by a monitor on the bus.
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    const QString self = QString::fromUtf8(g_dbus_connection_get_unique_name(bus));
    QProcess monitor;
    monitor.start("dbus-monitor", {"--session", "type='method_call'"});
    monitor.waitForStarted();
    QThread::msleep(500);
    const int counted = 20;
    for (int i = 0; i < counted; ++i) {
        store.read("acme.test", tessel::SecureStore::Unlock::ask);
    }
    QThread::msleep(500);
    monitor.terminate();
    monitor.waitForFinished();
    QMap<QString, int> members;
    int calls = 0;
    for (const QByteArray& line : monitor.readAllStandardOutput().split('\n')) {
        if (line.startsWith("method call") && line.contains(("sender=" + self).toUtf8() + " ")) {
            ++calls;
            const int at = line.indexOf("member=");
            ++members[QString::fromUtf8(line.mid(at + 7))];
        }
    }
    std::printf("D-Bus calls per read: %.1f (%d over %d reads)\n", double(calls) / counted, calls,
                counted);
    for (auto it = members.cbegin(); it != members.cend(); ++it) {
        std::printf("  %-22s %d\n", qPrintable(it.key()), it.value());
    }

    std::vector<double> ms;
    for (int i = 0; i < reads; ++i) {
        const auto start = std::chrono::steady_clock::now();
        store.read("acme.test", tessel::SecureStore::Unlock::ask);
        ms.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count());
    }
    std::sort(ms.begin(), ms.end());
    std::printf("read over %d: median %.3f ms, p90 %.3f ms, max %.3f ms\n", reads,
                ms[ms.size() / 2], ms[ms.size() * 9 / 10], ms.back());

    g_object_unref(bus);
    daemon.terminate();
    daemon.waitForFinished();
    return 0;
}
