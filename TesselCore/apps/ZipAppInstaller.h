// Installs a sibling application offered as a ZIP archive: downloads it into
// ~/Downloads, proves from its table of contents that every entry stays inside
// the installation directory and that none is a link, unpacks it with the
// system's unzip into ~/Applications and finds the application (an AppDir,
// "Name.app/") that came out of it. A system folder is never written, even
// when it could be.
#pragma once

#include "apps/AppRegistry.h"
#include "async/Async.h"
#include "net/HTTPClient.h"

#include <QString>
#include <QStringList>
#include <QUrl>

#include <functional>
#include <optional>
#include <vector>

namespace tessel {

// Fetches a URL into a file, following redirects to HTTPS only, with no
// time-out of its own. Gives the HTTP status of the final answer (0 when it
// wasn't an HTTP answer); throws on transport failures and `Cancelled`.
using Downloader =
    std::function<Task<int>(QUrl url, QString destinationPath, CancellationToken token)>;

namespace ZipAppInstaller {

// The real download: `HTTPClient::download`, which follows redirects to HTTPS.
Downloader downloader(HTTPClient client);

inline const QString zipinfo = QStringLiteral("/usr/bin/zipinfo");
inline const QString unzip = QStringLiteral("/usr/bin/unzip");

struct Installation {
    QString application; // the installed AppDir
    QString directory;   // where it was installed

    bool operator==(const Installation&) const = default;
};

// What `install` takes from outside.
struct Context {
    QString home;
    Downloader download;
};

// True when the URL's path ends in ".zip", in any case.
bool isArchive(const QUrl& url);
// ~/Applications, the per-user place of AppImages and AppDirs.
QString destination(const Context& context);
// The archive's name in ~/Downloads: the app's name, "/" made "-", + ".zip".
QString archiveName(const VelmoraApp& app);

// Fails with the installer's words (TesselError), the downloader's failure,
// a URLError for an answer that isn't HTTP, a SystemError of a file operation
// or a ToolLaunchError.
Task<Installation> install(VelmoraApp app, QUrl url, Context context, CancellationToken token = {});

// One entry of the archive's table of contents as zipinfo lists it.
struct ListedEntry {
    QString name; // as zipinfo prints it: a control character as ^X
    QChar type;   // the first letter of its permissions: 'd' folder, 'l' link, '-' file, …

    bool operator==(const ListedEntry&) const = default;
};

// The entries of `zipinfo -s -T`: two lines of header, one line per entry,
// the totals. Throws TesselError when a line is not of that form or the count
// disagrees with the header: an entry left unread would go unchecked.
std::vector<ListedEntry> parseListing(const QString& output);

// The checks on an archive's entry names, in order of use.
bool staysInside(const QString& entry);
QStringList applicationNames(const QStringList& entries);
// The bundle identifier of an AppDir: the name of the one desktop entry at
// its top, without ".desktop"; none without exactly one.
std::optional<QString> bundleIdentifier(const QString& appDir);

} // namespace ZipAppInstaller

} // namespace tessel
