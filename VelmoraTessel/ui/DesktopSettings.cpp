#include "ui/DesktopSettings.h"

#include "errors/ErrorLog.h"

#include <QProcess>
#include <QStandardPaths>

#include <vector>

namespace tessel::app {

namespace {

bool desktopIs(const QProcessEnvironment& environment, const QString& name) {
    const QStringList desktops =
        environment.value(QStringLiteral("XDG_CURRENT_DESKTOP")).split(QLatin1Char(':'));
    return desktops.contains(name, Qt::CaseInsensitive);
}

std::optional<SettingsCommand> first(const FindProgram& find,
                                     const std::vector<SettingsCommand>& candidates) {
    for (const SettingsCommand& candidate : candidates) {
        const QString path = find(candidate.program);
        if (!path.isEmpty()) {
            return SettingsCommand{path, candidate.arguments};
        }
    }
    return std::nullopt;
}

SettingsCommand gnome(const QString& panel) {
    return {QStringLiteral("gnome-control-center"), {panel}};
}

SettingsCommand kde(const QString& module) {
    return {QStringLiteral("systemsettings"), {module}};
}

} // namespace

std::optional<SettingsCommand> soundSettings(const QProcessEnvironment& environment,
                                             const FindProgram& find) {
    // pavucontrol's second tab lists the recording streams.
    std::vector<SettingsCommand> candidates{
        {QStringLiteral("pavucontrol"), {QStringLiteral("--tab=2")}}};
    if (desktopIs(environment, QStringLiteral("KDE"))) {
        candidates.push_back(kde(QStringLiteral("kcm_pulseaudio")));
        candidates.push_back(gnome(QStringLiteral("sound")));
    } else {
        candidates.push_back(gnome(QStringLiteral("sound")));
        candidates.push_back(kde(QStringLiteral("kcm_pulseaudio")));
    }
    return first(find, candidates);
}

std::optional<SettingsCommand> notificationSettings(const QProcessEnvironment& environment,
                                                    const FindProgram& find) {
    if (desktopIs(environment, QStringLiteral("KDE"))) {
        return first(find, {kde(QStringLiteral("kcm_notifications"))});
    }
    if (desktopIs(environment, QStringLiteral("GNOME"))) {
        return first(find, {gnome(QStringLiteral("notifications"))});
    }
    return std::nullopt;
}

QString findOnPath(const QString& program) {
    return QStandardPaths::findExecutable(program);
}

bool launch(const SettingsCommand& command) {
    if (QProcess::startDetached(command.program, command.arguments)) {
        return true;
    }
    log::write(log::Level::warning, "app", QStringLiteral("Could not start ") + command.program);
    return false;
}

} // namespace tessel::app
