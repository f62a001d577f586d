// Installs a sibling application offered as a ZIP archive: downloads it into
// ~/Downloads, proves from its table of contents that every entry stays inside
// the installation directory, unpacks it with the system's unzip and finds the
// application (an AppDir, "Name.app/") that came out of it.
#pragma once

#include "apps/AppRegistry.h"
#include "async/Async.h"
#include "net/HTTPClient.h"

#include <QString>
#include <QStringList>
#include <QUrl>

#include <functional>
#include <optional>

namespace tessel {

// Fetches a URL into a file, following redirects, with no time-out of its own.
// Gives the HTTP status of the final answer (0 when it wasn't an HTTP answer);
// throws on transport failures and `Cancelled`.
using Downloader =
    std::function<Task<int>(QUrl url, QString destinationPath, CancellationToken token)>;

namespace ZipAppInstaller {

// The real download: `HTTPClient::download`, which follows redirects.
Downloader downloader(HTTPClient client);

inline const QString systemApplications = QStringLiteral("/Applications");
inline const QString zipinfo = QStringLiteral("/usr/bin/zipinfo");
inline const QString unzip = QStringLiteral("/usr/bin/unzip");

struct Installation {
    QString application; // the installed AppDir
    QString directory;   // where it was installed
    // None when it went to the system's applications directory.
    std::optional<QString> notice;

    bool operator==(const Installation& other) const {
        return application == other.application && directory == other.directory;
    }
};

// What `install` takes from outside.
struct Context {
    QString home;
    std::function<bool(const QString& path)> isWritable; // default: access(W_OK)
    Downloader download;
    QString systemApplications = ZipAppInstaller::systemApplications;
};

// True when the URL's path ends in ".zip", in any case.
bool isArchive(const QUrl& url);
// The system's applications directory when it can be written, else ~/Applications.
QString destination(const Context& context);
// The archive's name in ~/Downloads: the app's name, "/" made "-", + ".zip".
QString archiveName(const VelmoraApp& app);

// Fails with the installer's words (TesselError), the downloader's failure,
// a URLError for an answer that isn't HTTP, a SystemError of a file operation
// or a ToolLaunchError.
Task<Installation> install(VelmoraApp app, QUrl url, Context context, CancellationToken token = {});

// The checks on an archive's entry names, in order of use.
bool staysInside(const QString& entry);
QStringList applicationNames(const QStringList& entries);
// The bundle identifier of an AppDir: the name of the one desktop entry at
// its top, without ".desktop"; none without exactly one.
std::optional<QString> bundleIdentifier(const QString& appDir);

} // namespace ZipAppInstaller

} // namespace tessel
