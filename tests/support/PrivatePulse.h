// A PulseAudio daemon of a test's own, for tests that record real sound.
#pragma once

#include "support/Child.h"

#include <QProcessEnvironment>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>
#include <optional>
#include <vector>

namespace tessel::test {

// Its own runtime directory, home and socket, reachable only through
// `address()`, stopped by its PID. Nothing of it leaks into the test's
// environment; its clients get theirs from `environment()`.
class PrivatePulse {
public:
    // Loads the native protocol on a private socket, then `modules` in order.
    // Fails the test when the daemon doesn't answer.
    explicit PrivatePulse(const QStringList& modules);
    ~PrivatePulse();
    PrivatePulse(const PrivatePulse&) = delete;
    PrivatePulse& operator=(const PrivatePulse&) = delete;

    QString address() const { return "unix:" + directory_.filePath("xdg/native"); }
    QProcessEnvironment environment() const;

    // Runs a client of this daemon to its end; its standard output, if it succeeded.
    std::optional<QString> run(const QString& program, const QStringList& arguments,
                               int milliseconds = 30000) const;
    // pactl against this daemon; a failure of the test when it fails.
    QString pactl(const QStringList& arguments) const;
    // Starts paplay of `file` into `sink`; it ends when the sound has been played.
    Child& play(const QString& sink, const QString& file);
    // A WAV of `text` spoken by espeak-ng, in this daemon's directory.
    QString speech(const QString& name, const QString& text) const;

private:
    QTemporaryDir directory_;
    std::unique_ptr<Child> daemon_;
    std::vector<std::unique_ptr<Child>> players_;
    mutable int runs_ = 0;
};

} // namespace tessel::test
