#include "support/PrivatePulse.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>

namespace tessel::test {

PrivatePulse::PrivatePulse(const QStringList& modules) {
    QDir(directory_.path()).mkpath("xdg");
    QDir(directory_.path()).mkpath("home");
    QStringList arguments =
        QString("-n --daemonize=no --exit-idle-time=-1 --use-pid-file=no --log-target=stderr")
            .split(' ');
    arguments << "-L"
              << "module-native-protocol-unix auth-anonymous=1 socket=" +
                     directory_.filePath("xdg/native");
    for (const QString& module : modules) {
        arguments << "-L" << module;
    }
    QProcessEnvironment daemonEnvironment = environment();
    daemonEnvironment.remove("PULSE_SERVER");
    const QString log = directory_.filePath("daemon.log");
    daemon_ = std::make_unique<Child>("pulseaudio", arguments, daemonEnvironment.toStringList(),
                                      log, log);
    // Ready when it answers, not after a fixed sleep.
    const QDeadlineTimer deadline(15000);
    while (daemon_->running() && !deadline.hasExpired()) {
        if (run("pactl", {"info"}, 5000)) {
            return;
        }
        QThread::msleep(50);
    }
    QFile text(log);
    text.open(QIODevice::ReadOnly);
    ADD_FAILURE() << "pulseaudio did not come up: " << text.readAll().toStdString();
}

PrivatePulse::~PrivatePulse() {
    players_.clear(); // killed and reaped
    daemon_->signal(SIGTERM);
    if (!daemon_->waitFor(5000)) {
        daemon_->signal(SIGKILL);
        daemon_->waitFor(5000);
    }
}

QProcessEnvironment PrivatePulse::environment() const {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("XDG_RUNTIME_DIR", directory_.filePath("xdg"));
    environment.insert("HOME", directory_.filePath("home"));
    environment.insert("PULSE_SERVER", address());
    return environment;
}

std::optional<QString> PrivatePulse::run(const QString& program, const QStringList& arguments,
                                         int milliseconds) const {
    const QString output = directory_.filePath(QString("run-%1.out").arg(++runs_));
    Child child(program, arguments, environment().toStringList(), output);
    if (child.waitFor(milliseconds) != 0) {
        return std::nullopt;
    }
    QFile file(output);
    file.open(QIODevice::ReadOnly);
    return QString::fromUtf8(file.readAll());
}

QString PrivatePulse::pactl(const QStringList& arguments) const {
    const auto out = run("pactl", arguments);
    EXPECT_TRUE(out) << "pactl " << arguments.join(' ').toStdString();
    return out.value_or(QString());
}

Child& PrivatePulse::play(const QString& sink, const QString& file) {
    auto& player = players_.emplace_back(std::make_unique<Child>(
        "paplay", QStringList{"-d", sink, file}, environment().toStringList()));
    EXPECT_TRUE(player->started());
    return *player;
}

QString PrivatePulse::speech(const QString& name, const QString& text) const {
    const QString path = directory_.filePath(name + ".wav");
    EXPECT_TRUE(run("espeak-ng", {"-w", path, text})) << "espeak-ng";
    return path;
}

} // namespace tessel::test
