#include "apps/DesktopApps.h"

#include "apps/ZipAppInstaller.h"
#include "errors/Failures.h"
#include "tools/ToolRunner.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

using namespace Qt::StringLiterals;

namespace tessel::DesktopApps {

namespace {

// The keys of the "[Desktop Entry]" group, string escapes (\s \n \t \r \\)
// undone.
QHash<QString, QString> entryKeys(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        throw TesselError(u"The desktop entry %1 could not be read."_s.arg(path));
    }
    QHash<QString, QString> keys;
    bool inEntry = false;
    for (const QString& raw : QString::fromUtf8(file.readAll()).split(u'\n')) {
        const QString line = raw.trimmed();
        if (line.isEmpty() || line.startsWith(u'#')) {
            continue;
        }
        if (line.startsWith(u'[')) {
            inEntry = line == u"[Desktop Entry]"_s;
            continue;
        }
        const auto equals = line.indexOf(u'=');
        if (!inEntry || equals <= 0) {
            continue;
        }
        const QString key = line.left(equals).trimmed();
        const QString value = line.mid(equals + 1).trimmed();
        QString unescaped;
        for (qsizetype i = 0; i < value.size(); ++i) {
            if (value[i] != u'\\' || i + 1 == value.size()) {
                unescaped += value[i];
                continue;
            }
            switch (const QChar next = value[++i]; next.unicode()) {
            case 's':
                unescaped += u' ';
                break;
            case 'n':
                unescaped += u'\n';
                break;
            case 't':
                unescaped += u'\t';
                break;
            case 'r':
                unescaped += u'\r';
                break;
            case '\\':
                unescaped += u'\\';
                break;
            default:
                unescaped += u'\\';
                unescaped += next;
            }
        }
        if (!keys.contains(key)) {
            keys.insert(key, unescaped);
        }
    }
    return keys;
}

// Splits an Exec value at blanks; double quotes group, and a backslash takes
// the next character as it is. Gives none for an unterminated quote.
std::optional<QStringList> splitCommand(const QString& exec) {
    QStringList arguments;
    QString current;
    bool inArgument = false;
    bool quoted = false;
    for (qsizetype i = 0; i < exec.size(); ++i) {
        const QChar c = exec[i];
        if (c == u'\\' && i + 1 < exec.size()) {
            current += exec[++i];
            inArgument = true;
        } else if (c == u'"') {
            quoted = !quoted;
            inArgument = true;
        } else if (!quoted && (c == u' ' || c == u'\t')) {
            if (inArgument) {
                arguments << std::exchange(current, {});
                inArgument = false;
            }
        } else {
            current += c;
            inArgument = true;
        }
    }
    if (quoted) {
        return std::nullopt;
    }
    if (inArgument) {
        arguments << current;
    }
    return arguments;
}

// "%%" is a percent sign; every other field code is dropped, and an argument
// that was only field codes goes with them.
std::optional<QString> withoutFieldCodes(const QString& argument) {
    QString result;
    bool onlyCodes = true;
    for (qsizetype i = 0; i < argument.size(); ++i) {
        if (argument[i] == u'%' && i + 1 < argument.size()) {
            if (argument[++i] == u'%') {
                result += u'%';
                onlyCodes = false;
            }
            continue;
        }
        result += argument[i];
        onlyCodes = false;
    }
    if (onlyCodes && !argument.isEmpty()) {
        return std::nullopt;
    }
    return result;
}

} // namespace

Places places(const QProcessEnvironment& environment, const QString& home) {
    Places result;
    QString dataHome = environment.value(u"XDG_DATA_HOME"_s);
    if (dataHome.isEmpty()) {
        dataHome = home + u"/.local/share"_s;
    }
    QString dataDirs = environment.value(u"XDG_DATA_DIRS"_s);
    if (dataDirs.isEmpty()) {
        dataDirs = u"/usr/local/share:/usr/share"_s;
    }
    for (const QString& dir : QStringList{dataHome} + dataDirs.split(u':', Qt::SkipEmptyParts)) {
        result.entryDirectories << dir + u"/applications"_s;
    }
    result.appDirDirectories = {home + u"/Applications"_s};
    return result;
}

std::optional<QUrl> find(const Places& places, const QString& bundleID) {
    for (const QString& dir : places.entryDirectories) {
        const QFileInfo entry(dir + u'/' + bundleID + u".desktop"_s);
        if (entry.isFile()) {
            return QUrl::fromLocalFile(entry.absoluteFilePath());
        }
    }
    for (const QString& dir : places.appDirDirectories) {
        for (const QFileInfo& appDir :
             QDir(dir).entryInfoList({u"*.app"_s}, QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
            if (ZipAppInstaller::bundleIdentifier(appDir.absoluteFilePath()) == bundleID) {
                return QUrl::fromLocalFile(appDir.absoluteFilePath());
            }
        }
    }
    return std::nullopt;
}

QStringList command(const QString& desktopEntry) {
    const QString exec = entryKeys(desktopEntry).value(u"Exec"_s);
    const std::optional<QStringList> parts = splitCommand(exec);
    QStringList result;
    for (const QString& part : parts.value_or(QStringList())) {
        if (auto argument = withoutFieldCodes(part)) {
            result << *argument;
        }
    }
    if (result.isEmpty() || result.first().isEmpty()) {
        throw TesselError(u"The desktop entry %1 has no command to run."_s.arg(desktopEntry));
    }
    return result;
}

Task<void> open(QUrl url, QStringList arguments) {
    const QString path = url.toLocalFile();
    QStringList commandLine;
    QString workingDirectory;
    if (QFileInfo(path).isDir()) {
        commandLine << path + u"/AppRun"_s;
    } else {
        commandLine = command(path);
        workingDirectory = entryKeys(path).value(u"Path"_s);
    }
    QProcess process;
    process.setProgram(commandLine.takeFirst());
    process.setArguments(commandLine + arguments);
    process.setStandardInputFile(QProcess::nullDevice());
    process.setWorkingDirectory(workingDirectory);
    if (!process.startDetached()) {
        QString reason = process.errorString();
        if (reason.startsWith(u"execve: "_s)) {
            reason.remove(0, 8);
        }
        throw ToolLaunchError(process.program(), reason);
    }
    co_return;
}

} // namespace tessel::DesktopApps
