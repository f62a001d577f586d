#include "apps/ZipAppInstaller.h"

#include "errors/Failures.h"
#include "errors/SystemError.h"
#include "tools/ToolRunner.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QScopeGuard>
#include <QStringDecoder>
#include <QTemporaryFile>

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>

using namespace Qt::StringLiterals;

namespace tessel::ZipAppInstaller {

namespace {

// The code transport failures of this kind carry.
constexpr int badServerResponse = URLError::protocolFailure;

void makeDirectory(const QString& path) {
    std::error_code error;
    std::filesystem::create_directories(QFile::encodeName(path).toStdString(), error);
    if (error) {
        throw SystemError(path, error.value());
    }
}

// Invocations are built as named values: GCC 12 destroys an aggregate
// temporary in a co_await operand twice.
ToolInvocation systemTool(const QString& path, const QStringList& arguments) {
    ToolInvocation invocation;
    invocation.executable = path;
    invocation.arguments = arguments;
    invocation.mergeErrorIntoOutput = true;
    return invocation;
}

// Runs a system tool with the output of both streams in one text; a non-zero
// status fails with that text.
Task<QString> run(QString path, QStringList arguments, CancellationToken token) {
    const ToolInvocation invocation = systemTool(path, arguments);
    const ToolOutput output = co_await runTool(invocation, token);
    if (output.exitCode != 0) {
        throw TesselError(output.standardOutput.isEmpty()
                              ? u"%1 exited with status %2."_s.arg(path).arg(output.exitCode)
                              : output.standardOutput);
    }
    co_return output.standardOutput;
}

// zipinfo reports an archive without entries as a failure: "Empty zipfile.",
// status 1. That is an empty listing.
Task<QStringList> entriesOf(QString archive, CancellationToken token) {
    const ToolInvocation invocation = systemTool(zipinfo, QStringList{u"-1"_s, archive});
    const ToolOutput output = co_await runTool(invocation, token);
    if (output.exitCode == 1 && output.standardOutput.trimmed() == u"Empty zipfile."_s) {
        co_return QStringList();
    }
    if (output.exitCode != 0) {
        throw TesselError(output.standardOutput.isEmpty()
                              ? u"%1 exited with status %2."_s.arg(zipinfo).arg(output.exitCode)
                              : output.standardOutput);
    }
    co_return output.standardOutput.split(u'\n', Qt::SkipEmptyParts);
}

// The answer's body as the failure's words: the text unchanged, or
// "HTTP <status>" when there is none.
QString refusal(const QString& path, int status) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        throw SystemError(path, errno ? errno : EIO);
    }
    const QByteArray body = file.readAll();
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString text = decoder.decode(body);
    if (decoder.hasError()) {
        throw TesselError(u"The answer to the download could not be read as UTF-8 text."_s);
    }
    return text.isEmpty() ? u"HTTP %1"_s.arg(status) : text;
}

} // namespace

Downloader downloader(HTTPClient client) {
    return [client](QUrl url, QString path, CancellationToken token) {
        return client.download(std::move(url), std::move(path), std::move(token));
    };
}

bool isArchive(const QUrl& url) {
    return QFileInfo(url.path()).suffix().toLower() == u"zip"_s;
}

QString destination(const Context& context) {
    return context.home + u"/Applications"_s;
}

QString archiveName(const VelmoraApp& app) {
    return QString(app.name).replace(u'/', u'-') + u".zip"_s;
}

bool staysInside(const QString& entry) {
    return !entry.startsWith(u'/') && !entry.split(u'/', Qt::SkipEmptyParts).contains(u".."_s);
}

QStringList applicationNames(const QStringList& entries) {
    std::set<QString> names;
    for (const QString& entry : entries) {
        const QStringList parts = entry.split(u'/', Qt::SkipEmptyParts);
        if (parts.isEmpty() || parts.first() == u"__MACOSX"_s) {
            continue;
        }
        for (qsizetype i = 0; i < parts.size(); ++i) {
            if (parts[i].endsWith(u".app"_s)) {
                names.insert(parts.first(i + 1).join(u'/'));
                break;
            }
        }
    }
    return QStringList(names.begin(), names.end());
}

std::optional<QString> bundleIdentifier(const QString& appDir) {
    const QStringList entries =
        QDir(appDir).entryList({u"*.desktop"_s}, QDir::Files | QDir::Hidden);
    if (entries.size() != 1) {
        return std::nullopt;
    }
    return entries.first().chopped(8);
}

Task<Installation> install(VelmoraApp app, QUrl url, Context context, CancellationToken token) {
    const QString downloads = context.home + u"/Downloads"_s;
    makeDirectory(downloads);
    QString temporary;
    {
        QTemporaryFile file(downloads + u"/.velmora-download-XXXXXX.part"_s);
        file.setAutoRemove(false);
        if (!file.open()) {
            throw SystemError(downloads, errno ? errno : EACCES);
        }
        temporary = file.fileName();
    }
    // Whatever happens, the temporary download goes; a failure to remove it
    // doesn't matter.
    const auto removeTemporary = qScopeGuard([temporary] { QFile::remove(temporary); });

    const int status = co_await context.download(url, temporary, token);
    if (status == 0) {
        throw URLError(badServerResponse, u"The server's answer was not an HTTP response."_s);
    }
    if (status < 200 || status > 299) {
        throw TesselError(refusal(temporary, status));
    }

    // rename replaces an earlier archive of the same name in one step.
    const QString archive = downloads + u'/' + archiveName(app);
    if (::rename(QFile::encodeName(temporary).constData(),
                 QFile::encodeName(archive).constData()) != 0) {
        throw SystemError(archive, errno);
    }

    const QStringList entries = co_await entriesOf(archive, token);
    for (const QString& entry : entries) {
        if (!staysInside(entry)) {
            throw TesselError(u"The ZIP contains a path outside its installation directory."_s);
        }
    }
    const QStringList names = applicationNames(entries);
    if (names.isEmpty()) {
        throw TesselError(u"The ZIP contains no application."_s);
    }

    const QString directory = destination(context);
    makeDirectory(directory);
    const QStringList unzipArguments{u"-o"_s, u"-q"_s, archive, u"-d"_s, directory};
    co_await run(unzip, unzipArguments, token);

    std::optional<QString> application;
    if (app.bundleID) {
        for (const QString& name : names) {
            const QString path = directory + u'/' + name;
            if (QFileInfo(path).isDir() && bundleIdentifier(path) == app.bundleID) {
                application = path;
                break;
            }
        }
    } else if (names.size() == 1) {
        application = directory + u'/' + names.first();
    }
    if (!application) {
        throw TesselError(u"The ZIP does not contain %1."_s.arg(app.bundleID.value_or(app.name)));
    }
    co_return Installation{*application, directory};
}

} // namespace tessel::ZipAppInstaller
