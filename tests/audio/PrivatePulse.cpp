#include "PrivatePulse.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QThread>

#include <gtest/gtest.h>

namespace tessel::test {

PrivatePulse::PrivatePulse(const QStringList& modules) {
    QDir(directory_.path()).mkpath("xdg");
    QDir(directory_.path()).mkpath("home");

    QStringList arguments{"-n",
                          "--daemonize=no",
                          "--exit-idle-time=-1",
                          "--use-pid-file=no",
                          "--log-target=stderr",
                          "-L",
                          "module-native-protocol-unix socket=" +
                              directory_.filePath("xdg/native") + " auth-anonymous=1"};
    for (const QString& module : modules) {
        arguments << "-L" << module;
    }
    QProcessEnvironment daemonEnvironment = environment();
    daemonEnvironment.remove("PULSE_SERVER");
    daemon_.setProcessEnvironment(daemonEnvironment);
    daemon_.setProcessChannelMode(QProcess::MergedChannels);
    daemon_.start("pulseaudio", arguments);
    if (!daemon_.waitForStarted(10000)) {
        return;
    }
    // Ready when it answers, not after a fixed sleep.
    const QDeadlineTimer deadline(15000);
    while (!deadline.hasExpired() && daemon_.state() == QProcess::Running) {
        QProcess info;
        info.setProcessEnvironment(environment());
        info.start("pactl", {"info"});
        if (info.waitForFinished(5000) && info.exitCode() == 0) {
            running_ = true;
            return;
        }
        QThread::msleep(50);
    }
}

PrivatePulse::~PrivatePulse() {
    for (auto& player : players_) {
        if (player->state() != QProcess::NotRunning) {
            player->kill();
            player->waitForFinished(5000);
        }
    }
    if (daemon_.state() != QProcess::NotRunning) {
        daemon_.terminate(); // SIGTERM to its PID
        if (!daemon_.waitForFinished(5000)) {
            daemon_.kill();
            daemon_.waitForFinished(5000);
        }
    }
}

QString PrivatePulse::log() {
    return QString::fromUtf8(daemon_.readAll());
}

QString PrivatePulse::address() const {
    return "unix:" + directory_.filePath("xdg/native");
}

QProcessEnvironment PrivatePulse::environment() const {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("XDG_RUNTIME_DIR", directory_.filePath("xdg"));
    environment.insert("HOME", directory_.filePath("home"));
    environment.insert("PULSE_SERVER", address());
    return environment;
}

QString PrivatePulse::pactl(const QStringList& arguments) {
    QProcess process;
    process.setProcessEnvironment(environment());
    process.start("pactl", arguments);
    const bool finished = process.waitForFinished(10000);
    EXPECT_TRUE(finished && process.exitCode() == 0)
        << "pactl " << arguments.join(' ').toStdString() << ": "
        << process.readAllStandardError().toStdString();
    return QString::fromUtf8(process.readAllStandardOutput());
}

QProcess& PrivatePulse::play(const QString& sink, const QString& file) {
    auto& player = players_.emplace_back(std::make_unique<QProcess>());
    player->setProcessEnvironment(environment());
    player->start("paplay", {"-d", sink, file});
    EXPECT_TRUE(player->waitForStarted(10000));
    return *player;
}

QString PrivatePulse::speech(const QString& name, const QString& text) {
    const QString path = directory_.filePath(name + ".wav");
    QProcess espeak;
    espeak.start("espeak-ng", {"-w", path, text});
    EXPECT_TRUE(espeak.waitForFinished(30000) && espeak.exitCode() == 0)
        << espeak.readAllStandardError().toStdString();
    return path;
}

} // namespace tessel::test
