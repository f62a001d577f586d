// The Apps section end to end: the archive comes from the local server over
// HTTPS, unzip unpacks it into a private home, and the application it held is
// started with the organisation and a session file.
#include "apps/AppsModel.h"
#include "apps/SessionHandoff.h"
#include "apps/ZipAppInstaller.h"

#include "net/HTTPClient.h"
#include "support/DevServer.h"
#include "support/Wait.h"
#include "support/Zip.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace tessel;
using namespace Qt::StringLiterals;

namespace {

QByteArray contentOf(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("missing");
}

TEST(AppsServerTest, TheLookoutIsDownloadedInstalledAndOpenedWithItsSession) {
    test::DevServer server(test::DevServer::Options{.https = true});
    const QString served = QString::fromStdString(server.dataDir()) + u"/downloads"_s;
    QDir().mkpath(served);
    test::writeZip(served + u"/TheLookout.zip"_s,
                   test::appDir(u"Lookout"_s, u"ai.velmora.lookout"_s));
    HTTPSession::Options options;
    options.caFile = QString::fromStdString(server.certPath());
    const HTTPClient client(std::make_shared<HTTPSession>(options));

    QTemporaryDir home;
    QProcessEnvironment environment;
    environment.insert(u"XDG_DATA_HOME"_s, home.filePath(u"data"_s));
    environment.insert(u"XDG_DATA_DIRS"_s, home.filePath(u"none"_s));
    const QString host = QUrl(QString::fromStdString(server.origin())).authority();
    const auto apps = AppRegistry::apps(host, [&](const QString& orgHost) {
        return SessionHandoff::write(
            orgHost, [](const QString&) { return std::optional(u"vses_member"_s); },
            home.filePath(u"handoff"_s));
    });
    AppsModel model({apps,
                     AppLauncher::system(
                         environment, home.path(), [](QUrl) { return false; },
                         ZipAppInstaller::downloader(client)),
                     LaunchOrg{u"acme.velmora.ai"_s, QUrl(u"https://acme.velmora.ai"_s)},
                     {},
                     {}});

    EXPECT_EQ(model.state(u"lookout"_s),
              AppLauncher::State::notInstalled(
                  QUrl(u"https://%1/meet/download/TheLookout.zip"_s.arg(host))));
    test::wait(model.activate(u"lookout"_s));
    // Always the user's own folder, whatever system folder could be written
    // (every one, for root), and nothing to say about it.
    const QString installed = home.filePath(u"Applications/Lookout.app"_s);
    EXPECT_EQ(model.message(u"lookout"_s), std::nullopt);
    EXPECT_EQ(model.state(u"lookout"_s),
              AppLauncher::State::installed(QUrl::fromLocalFile(installed)));
    const QStringList arguments = test::linesOnceWritten(installed + u"/arguments"_s);
    ASSERT_EQ(arguments.size(), 4) << arguments.join(u' ').toStdString();
    EXPECT_EQ(arguments.mid(0, 3),
              (QStringList{u"--org"_s, u"https://acme.velmora.ai"_s, u"--session-file"_s}));
    EXPECT_EQ(contentOf(arguments[3]), R"({"org_host":"acme.velmora.ai","token":"vses_member"})");
    EXPECT_EQ(QDir(home.filePath(u"Downloads"_s)).entryList(QDir::Files | QDir::Hidden),
              QStringList{u"The Lookout.zip"_s});

    // The file behind a redirect arrives whole; a missing one is a 404 with no body.
    const QString copy = home.filePath(u"copy.zip"_s);
    EXPECT_EQ(test::wait(client.download(QUrl(QString::fromStdString(server.origin()) +
                                              u"/r/meet/download/TheLookout.zip"_s),
                                         copy)),
              200);
    EXPECT_EQ(contentOf(copy), contentOf(served + u"/TheLookout.zip"_s));
    QFile::remove(served + u"/TheLookout.zip"_s);
    QDir(installed).removeRecursively();
    test::wait(model.activate(u"lookout"_s));
    EXPECT_EQ(model.message(u"lookout"_s), u"HTTP 404"_s);
}

} // namespace
