// velmora-notifyd: a desktop notification server of our own for tests and the
// demo. Prints one ready line once it owns org.freedesktop.Notifications.
#include "NotificationServer.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

const char* const usage = "usage: velmora-notifyd --record FILE [--address BUS_ADDRESS]\n"
                          "  --address defaults to the session bus of the environment\n";

int signalPipe[2] = {-1, -1};

void onSignal(int) {
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(signalPipe[1], &byte, 1);
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QString record;
    QString address;
    const QStringList arguments = app.arguments();
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        if ((argument == u"--record"_s || argument == u"--address"_s) && i + 1 < arguments.size()) {
            (argument == u"--record"_s ? record : address) = arguments[++i];
        } else {
            std::fputs(usage, stderr);
            return 2;
        }
    }
    if (record.isEmpty()) {
        std::fputs(usage, stderr);
        return 2;
    }

    // SIGTERM ends the loop, so the record file is closed in order.
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, signalPipe) != 0) {
        return 1;
    }
    QSocketNotifier stopper(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&stopper, &QSocketNotifier::activated, &app, &QCoreApplication::quit);
    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);

    QDBusConnection bus = address.isEmpty()
                              ? QDBusConnection::sessionBus()
                              : QDBusConnection::connectToBus(address, u"velmora-notifyd"_s);
    if (!bus.isConnected()) {
        std::fprintf(stderr, "velmora-notifyd: no bus: %s\n",
                     qPrintable(bus.lastError().message()));
        return 1;
    }
    NotificationServer server(bus, record);
    if (!server.isRecording()) {
        std::fprintf(stderr, "velmora-notifyd: cannot write %s\n", qPrintable(record));
        return 1;
    }
    NotificationControl control(server);
    const auto exported = QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals;
    if (!bus.registerObject(u"/org/freedesktop/Notifications"_s, &server, exported) ||
        !bus.registerObject(u"/control"_s, &control, QDBusConnection::ExportAllSlots)) {
        std::fprintf(stderr, "velmora-notifyd: cannot register its objects\n");
        return 1;
    }
    const auto owned = bus.interface()->registerService(
        u"org.freedesktop.Notifications"_s, QDBusConnectionInterface::DontQueueService,
        QDBusConnectionInterface::DontAllowReplacement);
    if (!owned.isValid() || owned.value() != QDBusConnectionInterface::ServiceRegistered) {
        std::fprintf(stderr, "velmora-notifyd: org.freedesktop.Notifications is taken\n");
        return 1;
    }
    std::printf("velmora-notifyd ready %s pid=%lld\n", qPrintable(bus.baseService()),
                static_cast<long long>(::getpid()));
    std::fflush(stdout);
    return app.exec();
}
