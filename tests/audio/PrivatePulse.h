// A PulseAudio daemon of the test's own: its own runtime directory, home and
// socket, reachable only through `address()`, stopped by its PID. Nothing of it
// leaks into the test's environment; its clients get theirs from `environment()`.
#pragma once

#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>
#include <vector>

namespace tessel::test {

class PrivatePulse {
public:
    // Loads the native protocol on a private socket, then `modules` in order.
    explicit PrivatePulse(const QStringList& modules);
    ~PrivatePulse();
    PrivatePulse(const PrivatePulse&) = delete;
    PrivatePulse& operator=(const PrivatePulse&) = delete;

    // Whether the daemon answers; when not, `log()` says why.
    bool isRunning() const { return running_; }
    QString log();

    QString address() const;
    QString directory() const { return directory_.path(); }
    QProcessEnvironment environment() const;

    // Runs pactl against this daemon; its standard output, or a failure of the test.
    QString pactl(const QStringList& arguments);
    // Starts paplay of `file` into `sink`; it ends when the sound has been played.
    QProcess& play(const QString& sink, const QString& file);

    // A WAV of `text` spoken by espeak-ng, in this daemon's directory.
    QString speech(const QString& name, const QString& text);

private:
    QTemporaryDir directory_;
    QProcess daemon_;
    std::vector<std::unique_ptr<QProcess>> players_;
    bool running_ = false;
};

} // namespace tessel::test
