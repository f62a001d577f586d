#include "NotificationBus.h"

#include "support/Processes.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QJsonDocument>

#include <signal.h>
#include <sys/prctl.h>

#include <stdexcept>

namespace tessel::test {

namespace {

const char* const busConfig = R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir=%1</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

QString firstLine(QProcess& process, const char* what) {
    const QDeadlineTimer deadline(15000);
    while (!process.canReadLine() && process.waitForReadyRead(deadline.remainingTime())) {
    }
    const QString line = QString::fromUtf8(process.readLine()).trimmed();
    if (line.isEmpty()) {
        throw std::runtime_error(std::string("NotificationBus: no first line from ") + what);
    }
    return line;
}

} // namespace

NotificationBus::NotificationBus() {
    static int count = 0;
    name_ = QStringLiteral("tessel-notification-bus-%1").arg(++count);
    const QString config = dir_.filePath(QStringLiteral("bus.conf"));
    QFile file(config);
    if (!file.open(QIODevice::WriteOnly) ||
        file.write(QString::fromLatin1(busConfig).arg(dir_.path()).toUtf8()) < 0) {
        throw std::runtime_error("NotificationBus: cannot write the bus configuration");
    }
    file.close();
    for (QProcess* process : {&daemon_, &server_}) {
        process->setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGTERM); });
        process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    }
    daemon_.start(QStringLiteral("dbus-daemon"),
                  {QStringLiteral("--config-file=") + config, QStringLiteral("--nofork"),
                   QStringLiteral("--print-address")});
    address_ = firstLine(daemon_, "dbus-daemon");
    if (!QDBusConnection::connectToBus(address_, name_).isConnected()) {
        throw std::runtime_error("NotificationBus: cannot connect to the private bus");
    }
    server_.start(QStringLiteral(TESSEL_NOTIFYD_PATH),
                  {QStringLiteral("--address"), address_, QStringLiteral("--record"),
                   dir_.filePath(QStringLiteral("calls.jsonl"))});
    if (!firstLine(server_, "velmora-notifyd")
             .startsWith(QStringLiteral("velmora-notifyd ready"))) {
        throw std::runtime_error("NotificationBus: velmora-notifyd did not start");
    }
}

NotificationBus::~NotificationBus() {
    QDBusConnection::disconnectFromBus(name_);
    stopProcess(server_);
    stopProcess(daemon_);
}

void NotificationBus::stopServer() {
    stopProcess(server_);
}

std::vector<QJsonObject> NotificationBus::calls(const QString& call) const {
    QFile file(dir_.filePath(QStringLiteral("calls.jsonl")));
    std::vector<QJsonObject> out;
    if (!file.open(QIODevice::ReadOnly)) {
        return out;
    }
    while (!file.atEnd()) {
        const QJsonObject entry = QJsonDocument::fromJson(file.readLine()).object();
        if (entry.value(QStringLiteral("call")).toString() == call) {
            out.push_back(entry);
        }
    }
    return out;
}

void NotificationBus::control(const QString& method, const QVariantList& arguments) const {
    QDBusMessage message = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("/control"),
        QStringLiteral("ai.velmora.Notifyd"), method);
    message.setArguments(arguments);
    const QDBusMessage reply = connection().call(message);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        throw std::runtime_error("NotificationBus: " + method.toStdString() +
                                 " refused: " + reply.errorMessage().toStdString());
    }
}

} // namespace tessel::test
