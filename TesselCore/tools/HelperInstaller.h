// The helper tools: an application that carries them (a tryout with the
// stand-ins) brings the user's private bin directory up to date with them by
// content at each start; a packaged one carries none, the tools coming from
// their own packages. Also the rules every caller of a sibling tool shares:
// where its file is found (`resolve`), which PATH it runs with
// (`environment`), and what a section says when it is missing (`notInstalled`).
#pragma once

#include "async/Async.h"
#include "tools/ToolRunner.h"

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <memory>
#include <optional>

class QThreadPool;

namespace tessel {

class HelperInstaller {
public:
    // The tools, in the order they are installed; "VERSION" follows them.
    static const QStringList names;

    // `dataDirectory` is where the user's application data lives
    // (~/.local/share); the helpers go to its "Velmora/bin".
    HelperInstaller(std::optional<QString> bundleDirectory, QString dataDirectory);
    ~HelperInstaller();
    HelperInstaller(const HelperInstaller&) = delete;
    HelperInstaller& operator=(const HelperInstaller&) = delete;

    const std::optional<QString>& bundleDirectory() const { return bundleDirectory_; }
    const QString& directory() const { return directory_; }

    // Installs on the installer's own thread, one run at a time; fails with
    // `TesselError` in the words of `failure`. Files installed before a failing
    // name stay. Without a bundle directory there is nothing to install, and
    // nothing is touched.
    Task<void> installIfNeeded();

    // The helpers the build put beside the executable
    // (<prefix>/bin/../share/velmora-tessel/helpers), or none.
    static std::optional<QString> bundledDirectory(const QString& executableDirectory);
    // This user's data directory: XDG_DATA_HOME, else ~/.local/share.
    static QString dataDirectory(const QProcessEnvironment& environment, const QString& home);
    static QString directory(const QString& dataDirectory) {
        return dataDirectory + QStringLiteral("/Velmora/bin");
    }
    static QString failure(const QString& reason, const QString& directory) {
        return QStringLiteral("Helpers could not be installed to ") + directory +
               QStringLiteral(": ") + reason;
    }
    // The line of a section whose tool `name` is missing. A program that
    // carries helpers installs them into `installDirectory`, so there the
    // tool's absence is a failed installation; one that carries none says the
    // tool is not installed and what installing it gives (`gives`, "to see
    // your subscriptions").
    static QString notInstalled(const QString& name, const std::optional<QString>& installDirectory,
                                const QString& gives);

    // Where the tool `name` is: the file the variable `override` names when
    // the environment holds it (and nothing else), else the first executable of
    // the private bin directory, ~/bin, ~/.local/bin, /usr/local/bin and then
    // the absolute folders of the environment's PATH, where a package puts it.
    static std::optional<QString> resolve(const QString& name, const QString& override,
                                          const QProcessEnvironment& environment,
                                          const QString& home);
    // `base` with PATH replaced: the private bin directory of the user's real
    // home, /usr/bin, /bin, /usr/local/bin, then base's HOME (or the user's)
    // followed by /bin and by /.local/bin.
    static QProcessEnvironment environment(const QProcessEnvironment& base);
    static QProcessEnvironment environment(const QProcessEnvironment& base, const QString& userHome,
                                           const QString& dataDirectory);

private:
    std::optional<QString> bundleDirectory_;
    QString directory_;
    std::shared_ptr<QThreadPool> queue_;
};

// The Python 3 that the helpers need.
namespace HelperPython {

inline const QString python = QStringLiteral("/usr/bin/python3");
inline const QString packageTool = QStringLiteral("/usr/bin/pkcon");

// Runners bound to those tools, with the helpers' environment of this process.
ToolRunner pythonRunner();
ToolRunner packageToolRunner();

// True when `python --version` exits with 0; false for another status or a
// tool that cannot start.
Task<bool> isAvailable(ToolRunner runner);
// `pkcon install -y python3`; a non-zero status fails with the tool's error
// output, or its output when that is empty.
Task<void> installPackage(ToolRunner runner);

} // namespace HelperPython

} // namespace tessel
