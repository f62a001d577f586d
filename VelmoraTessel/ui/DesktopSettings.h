// The desktop's own settings for sound and for notifications, found by what
// is installed and by XDG_CURRENT_DESKTOP. None when nothing fits: the caller
// hides its button rather than show a dead one.
#pragma once

#include <QProcessEnvironment>
#include <QStringList>

#include <functional>
#include <optional>

namespace tessel::app {

struct SettingsCommand {
    QString program; // a full path
    QStringList arguments;
};

// `find` resolves a program name to its path, or empty.
using FindProgram = std::function<QString(const QString&)>;

// pavucontrol on its recording tab, else GNOME's or KDE's sound settings.
std::optional<SettingsCommand> soundSettings(const QProcessEnvironment& environment,
                                             const FindProgram& find);
// GNOME's or KDE's notification settings, by the desktop in use.
std::optional<SettingsCommand> notificationSettings(const QProcessEnvironment& environment,
                                                    const FindProgram& find);

// The system's lookup on PATH.
QString findOnPath(const QString& program);

// Starts the command detached; false when it could not be started.
bool launch(const SettingsCommand& command);

} // namespace tessel::app
