#include "tools/HelperInstaller.h"

#include "errors/ErrorLog.h"
#include "errors/Failures.h"

#include <QCoroFuture>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFuture>
#include <QPromise>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QThreadPool>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

using namespace Qt::StringLiterals;

namespace tessel {

const QStringList HelperInstaller::names = {
    u"meterly"_s,
    u"meterly-alerts"_s,
    u"vantor-accounts"_s,
    u"vantor-accounts-serve.py"_s,
    u"velmora-conductor-onboard"_s,
};

namespace {

const QString versionName = u"VERSION"_s;

// A failed step of the installation, in words; `run` turns it into the
// installer's failure.
struct StepFailure {
    QString reason;
};

QString systemReason(const QString& path, int error) {
    return u"%1: %2"_s.arg(path, QString::fromLocal8Bit(std::strerror(error)));
}

QByteArray readAll(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        throw StepFailure{u"%1: %2"_s.arg(path, file.errorString())};
    }
    QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        throw StepFailure{u"%1: %2"_s.arg(path, file.errorString())};
    }
    return bytes;
}

std::optional<QByteArray> readIfPresent(const QString& path) {
    try {
        return readAll(path);
    } catch (const StepFailure&) {
        return std::nullopt;
    }
}

void setMode(const QString& path, mode_t mode) {
    if (::chmod(QFile::encodeName(path).constData(), mode) != 0) {
        throw StepFailure{systemReason(path, errno)};
    }
}

bool exists(const QString& path) {
    struct stat st {};
    return ::lstat(QFile::encodeName(path).constData(), &st) == 0;
}

// Never writes through an existing file or link; the mode is set after
// creation so the umask doesn't narrow it.
void writeNew(const QString& path, const QByteArray& bytes, mode_t mode) {
    const int fd = ::open(QFile::encodeName(path).constData(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0) {
        throw StepFailure{systemReason(path, errno)};
    }
    qsizetype done = 0;
    int error = 0;
    while (done < bytes.size() && error == 0) {
        const ssize_t n = ::write(fd, bytes.constData() + done, bytes.size() - done);
        if (n > 0) {
            done += n;
        } else if (n < 0 && errno != EINTR) {
            error = errno;
        }
    }
    if (error == 0 && ::fchmod(fd, mode) != 0) {
        error = errno;
    }
    if (::close(fd) != 0 && error == 0) {
        error = errno;
    }
    if (error != 0) {
        throw StepFailure{systemReason(path, error)};
    }
}

void installOne(const QString& source, const QString& directory, const QString& name) {
    const QByteArray bytes = readAll(source + u'/' + name);
    const QString target = directory + u'/' + name;
    const std::optional<QByteArray> current = readIfPresent(target);
    const mode_t mode = name == versionName ? 0644 : 0755;
    if (current && QCryptographicHash::hash(*current, QCryptographicHash::Sha256) ==
                       QCryptographicHash::hash(bytes, QCryptographicHash::Sha256)) {
        setMode(target, mode);
        return;
    }
    const QString temporary = target + u".tmp"_s;
    const QByteArray temporaryPath = QFile::encodeName(temporary);
    // Leaving this name, however, the temporary file goes.
    const auto removeTemporary = qScopeGuard([&temporaryPath] { ::unlink(temporaryPath); });
    if (exists(temporary) && ::unlink(temporaryPath) != 0) {
        throw StepFailure{systemReason(temporary, errno)};
    }
    writeNew(temporary, bytes, mode);
    if (::rename(temporaryPath, QFile::encodeName(target).constData()) != 0) {
        throw StepFailure{systemReason(target, errno != 0 ? errno : EIO)};
    }
    if (name != versionName) {
        log::write(log::Level::info, "helpers",
                   u"%1 helper %2"_s.arg(current ? u"Updated"_s : u"Installed"_s, name));
    }
}

void install(const QString& bundleDirectory, const QString& directory) {
    try {
        std::error_code error;
        const std::filesystem::path path = QFile::encodeName(directory).toStdString();
        std::filesystem::create_directories(path, error);
        if (error) {
            throw StepFailure{systemReason(directory, error.value())};
        }
        setMode(directory, 0755);
        for (const QString& name : HelperInstaller::names + QStringList{versionName}) {
            installOne(bundleDirectory, directory, name);
        }
    } catch (const StepFailure& failure) {
        throw TesselError(HelperInstaller::failure(failure.reason, directory));
    }
}

} // namespace

HelperInstaller::HelperInstaller(std::optional<QString> bundleDirectory, QString dataDirectory)
    : bundleDirectory_(std::move(bundleDirectory)), directory_(directory(dataDirectory)),
      queue_(std::make_shared<QThreadPool>()) {
    queue_->setMaxThreadCount(1);
}

HelperInstaller::~HelperInstaller() = default;

Task<void> HelperInstaller::installIfNeeded() {
    if (!bundleDirectory_) {
        co_return;
    }
    // Everything the work needs is copied: the installer may go while it runs.
    QPromise<void> promise;
    QFuture<void> done = promise.future();
    promise.start();
    queue_->start([bundle = *bundleDirectory_, directory = directory_,
                   promise = std::make_shared<QPromise<void>>(std::move(promise))] {
        try {
            install(bundle, directory);
        } catch (...) {
            promise->setException(std::current_exception());
        }
        promise->finish();
    });
    co_await done;
}

std::optional<QString> HelperInstaller::bundledDirectory(const QString& executableDirectory) {
    const QString path =
        QDir::cleanPath(executableDirectory + u"/../share/velmora-tessel/helpers"_s);
    return QFileInfo(path).isDir() ? std::optional(path) : std::nullopt;
}

QString HelperInstaller::dataDirectory(const QProcessEnvironment& environment,
                                       const QString& home) {
    // As QStandardPaths::GenericDataLocation reads it.
    const QString xdg = environment.value(u"XDG_DATA_HOME"_s);
    return xdg.isEmpty() ? home + u"/.local/share"_s : xdg;
}

std::optional<QString> HelperInstaller::resolve(const QString& name, const QString& override,
                                                const QProcessEnvironment& environment,
                                                const QString& home) {
    QStringList candidates;
    if (environment.contains(override)) {
        candidates << environment.value(override);
    } else {
        candidates << directory(dataDirectory(environment, home)) + u'/' + name
                   << home + u"/bin/"_s + name << home + u"/.local/bin/"_s + name
                   << u"/usr/local/bin/"_s + name;
        // An empty or relative entry would name the current folder, which is
        // no place to take a program from.
        for (const QString& folder : environment.value(u"PATH"_s).split(u':')) {
            if (folder.startsWith(u'/')) {
                candidates << folder + u'/' + name;
            }
        }
    }
    for (const QString& candidate : candidates) {
        const QFileInfo file(candidate);
        if (!candidate.isEmpty() && file.isFile() && file.isExecutable()) {
            return QFileInfo(candidate).absoluteFilePath();
        }
    }
    return std::nullopt;
}

QString HelperInstaller::notInstalled(const QString& name,
                                      const std::optional<QString>& installDirectory,
                                      const QString& gives) {
    if (installDirectory) {
        return failure(u"Could not resolve %1."_s.arg(name), *installDirectory);
    }
    return u"%1 is not installed — install it %2."_s.arg(name, gives);
}

QProcessEnvironment HelperInstaller::environment(const QProcessEnvironment& base) {
    return environment(base, QDir::homePath(),
                       QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation));
}

QProcessEnvironment HelperInstaller::environment(const QProcessEnvironment& base,
                                                 const QString& userHome,
                                                 const QString& dataDirectory) {
    QProcessEnvironment result = base;
    const QString home = base.contains(u"HOME"_s) ? base.value(u"HOME"_s) : userHome;
    result.insert(u"PATH"_s, directory(dataDirectory) + u":/usr/bin:/bin:/usr/local/bin:"_s + home +
                                 u"/bin:"_s + home + u"/.local/bin"_s);
    return result;
}

namespace HelperPython {

ToolRunner pythonRunner() {
    return makeToolRunner(python,
                          HelperInstaller::environment(QProcessEnvironment::systemEnvironment()));
}

ToolRunner packageToolRunner() {
    return makeToolRunner(packageTool,
                          HelperInstaller::environment(QProcessEnvironment::systemEnvironment()));
}

Task<bool> isAvailable(ToolRunner runner) {
    try {
        // Named, not braced in the co_await: GCC 12 miscompiles the temporary.
        const QStringList arguments{u"--version"_s};
        const ToolOutput output = co_await runner(arguments, CancellationToken());
        co_return output.exitCode == 0;
    } catch (const Cancelled&) {
        throw;
    } catch (const std::exception&) {
        co_return false;
    }
}

Task<void> installPackage(ToolRunner runner) {
    const QStringList arguments{u"install"_s, u"-y"_s, u"python3"_s};
    const ToolOutput output = co_await runner(arguments, CancellationToken());
    if (output.exitCode != 0) {
        throw TesselError(output.standardError.isEmpty() ? output.standardOutput
                                                         : output.standardError);
    }
}

} // namespace HelperPython

} // namespace tessel
