#include "apps/ZipAppInstaller.h"

#include "errors/Failures.h"
#include "errors/SystemError.h"
#include "tools/ToolRunner.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QStringDecoder>
#include <QTemporaryFile>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
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

const QString unreadableListing = u"The ZIP's table of contents could not be read — download "
                                  u"it again, or ask for an archive that zipinfo can list."_s;

QString linkRefusal(const QString& entry) {
    return u"The ZIP contains a link, %1 — applications are installed without links; ask for "
           u"an archive that has none."_s.arg(entry);
}

std::filesystem::path nativePath(const QString& path) {
    return QFile::encodeName(path).toStdString();
}

// Lists an archive's entries. zipinfo reports an archive without entries as a
// failure: "Empty zipfile.", status 1. Its warnings go to standard error, so
// the listing is read from standard output alone.
Task<std::vector<ListedEntry>> entriesOf(QString archive, CancellationToken token) {
    ToolInvocation invocation = systemTool(zipinfo, QStringList{u"-s"_s, u"-T"_s, archive});
    invocation.mergeErrorIntoOutput = false;
    const ToolOutput output = co_await runTool(invocation, token);
    if (output.exitCode == 1) {
        try {
            if (parseListing(output.standardOutput).empty()) {
                co_return std::vector<ListedEntry>();
            }
        } catch (const TesselError&) {
            // Not the empty archive: the tool's own words follow.
        }
    }
    if (output.exitCode != 0) {
        const QString text = output.standardOutput + output.standardError;
        throw TesselError(text.isEmpty()
                              ? u"%1 exited with status %2."_s.arg(zipinfo).arg(output.exitCode)
                              : text);
    }
    co_return parseListing(output.standardOutput);
}

// unzip makes what an entry marked as a link says; the listing should have
// shown every one, and this catches any it didn't.
void refuseLinks(const QString& folder) {
    std::error_code error;
    for (auto it = std::filesystem::recursive_directory_iterator(nativePath(folder), error);
         !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
        if (it->is_symlink()) {
            const auto relative = it->path().lexically_relative(nativePath(folder));
            throw TesselError(linkRefusal(QFile::decodeName(relative.c_str())));
        }
    }
    if (error) {
        throw SystemError(folder, error.value());
    }
}

// Moves what unzip made into the destination, folder by folder. Whatever
// stands in the way and isn't a folder to merge with (a link above all) is
// replaced, never followed.
void moveInto(const std::filesystem::path& from, const std::filesystem::path& to) {
    std::vector<std::filesystem::path> names;
    std::error_code error;
    for (auto it = std::filesystem::directory_iterator(from, error);
         !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
        names.push_back(it->path().filename());
    }
    if (error) {
        throw SystemError(QFile::decodeName(from.c_str()), error.value());
    }
    for (const auto& name : names) {
        const auto source = from / name;
        const auto target = to / name;
        struct stat existing {};
        const bool exists = ::lstat(target.c_str(), &existing) == 0;
        const bool folder = std::filesystem::is_directory(std::filesystem::symlink_status(source));
        if (exists && folder && S_ISDIR(existing.st_mode)) {
            moveInto(source, target);
            continue;
        }
        if (exists && (folder || S_ISDIR(existing.st_mode))) {
            std::filesystem::remove_all(target, error);
        }
        if (error || ::rename(source.c_str(), target.c_str()) != 0) {
            throw SystemError(QFile::decodeName(target.c_str()), error ? error.value() : errno);
        }
    }
}

// Unzips into a fresh private folder inside the destination and moves the
// result into place: unzip itself would follow a link that already stands at
// the destination, left there by an earlier archive.
Task<void> unpack(QString archive, QString directory, CancellationToken token) {
    QByteArray staging = QFile::encodeName(directory + u"/.velmora-unpack-XXXXXX"_s);
    if (!::mkdtemp(staging.data())) {
        throw SystemError(directory, errno);
    }
    const QString folder = QFile::decodeName(staging);
    const auto removeStaging = qScopeGuard([folder] {
        std::error_code ignored;
        std::filesystem::remove_all(nativePath(folder), ignored);
    });
    const QStringList arguments{u"-o"_s, u"-q"_s, archive, u"-d"_s, folder};
    co_await run(unzip, arguments, token);
    refuseLinks(folder);
    moveInto(nativePath(folder), nativePath(directory));
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

std::vector<ListedEntry> parseListing(const QString& output) {
    // "-rw-r--r--  3.0 unx  1234 tx defN 20240131.235959 Name.app/AppRun": seven
    // fields without spaces, one space, the name, which may hold spaces too.
    static const QRegularExpression entryLine(
        uR"(^(\S+) +\S+ +\S+ +\d+ +\S\S +\S+ +\d{8}\.\d{6} (.+)$)"_s);
    static const QRegularExpression sizeLine(
        uR"(^Zip file size: \d+ bytes, number of entries: (\d+)$)"_s);
    static const QRegularExpression totalsLine(
        uR"(^(\d+) files?, \d+ bytes uncompressed, \d+ bytes compressed: .*%$)"_s);

    QStringList lines = output.split(u'\n');
    while (!lines.isEmpty() && lines.last().isEmpty()) {
        lines.removeLast();
    }
    const auto size = lines.size() >= 3 && lines[0].startsWith(u"Archive:  "_s)
                          ? sizeLine.match(lines[1])
                          : QRegularExpressionMatch();
    bool counted = false;
    const qint64 declared = size.captured(1).toLongLong(&counted);
    if (!counted) {
        throw TesselError(unreadableListing);
    }
    if (declared == 0 && lines.size() == 3 && lines[2] == u"Empty zipfile."_s) {
        return {};
    }
    const auto totals = totalsLine.match(lines.last());
    if (lines.size() - 3 != declared || !totals.hasMatch() ||
        totals.captured(1).toLongLong() != declared) {
        throw TesselError(unreadableListing);
    }
    std::vector<ListedEntry> entries;
    for (qsizetype i = 2; i < lines.size() - 1; ++i) {
        const auto entry = entryLine.match(lines[i]);
        if (!entry.hasMatch()) {
            throw TesselError(unreadableListing);
        }
        entries.push_back({entry.captured(2), entry.captured(1).front()});
    }
    return entries;
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

    const std::vector<ListedEntry> listed = co_await entriesOf(archive, token);
    QStringList entries;
    for (const ListedEntry& entry : listed) {
        if (!staysInside(entry.name)) {
            throw TesselError(u"The ZIP contains a path outside its installation directory."_s);
        }
        // A link would let this archive, or a later one unpacked through it,
        // write wherever it points.
        if (entry.type == u'l') {
            throw TesselError(linkRefusal(entry.name));
        }
        entries << entry.name;
    }
    const QStringList names = applicationNames(entries);
    if (names.isEmpty()) {
        throw TesselError(u"The ZIP contains no application."_s);
    }

    const QString directory = destination(context);
    makeDirectory(directory);
    co_await unpack(archive, directory, token);

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
