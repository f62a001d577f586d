// The ZIP installer with the system's zipinfo and unzip, archives written by
// Python and a scripted download.
#include "apps/ZipAppInstaller.h"

#include "errors/Failures.h"
#include "support/Files.h"
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

const VelmoraApp lookout{u"lookout"_s,
                         u"The Lookout"_s,
                         u"radio player"_s,
                         u"radio"_s,
                         u"ai.velmora.lookout"_s,
                         std::nullopt,
                         std::nullopt,
                         {}};
const QUrl archiveURL(u"https://velmora.ai/meet/download/TheLookout.zip"_s);

class ZipInstallerTest : public ::testing::Test {
protected:
    QTemporaryDir home;
    QString served = home.filePath(u"served.zip"_s);
    int status = 200;

    ZipAppInstaller::Context context() {
        ZipAppInstaller::Context context;
        context.home = home.path();
        context.download = [this](QUrl, QString destination, CancellationToken) -> Task<int> {
            QFile::remove(destination);
            QFile::copy(served, destination);
            return answer(status);
        };
        return context;
    }
    static Task<int> answer(int status) { co_return status; }

    ZipAppInstaller::Installation install(VelmoraApp app = lookout) {
        return test::wait(ZipAppInstaller::install(app, archiveURL, context()));
    }
    // The failure's words, or "installed".
    QString outcome(VelmoraApp app = lookout) {
        try {
            install(app);
            return u"installed"_s;
        } catch (const Failure& failure) {
            return failure.description();
        }
    }
    void serve(const std::vector<test::ZipEntry>& entries) {
        QFile::remove(served);
        test::writeZip(served, entries);
    }
    QStringList downloads() const {
        return QDir(home.filePath(u"Downloads"_s)).entryList(QDir::Files | QDir::Hidden);
    }
};

TEST(ZipNamesTest, EntriesNameTheBundlesThatHoldThem) {
    EXPECT_EQ(ZipAppInstaller::applicationNames(
                  {u"Folder/App.app/Contents/Info.plist"_s, u"A.app/B.app/x"_s, u"A.app/y"_s,
                   u"App.APP/x"_s, u"__MACOSX/C.app/x"_s, u"x/__MACOSX/D.app/x"_s, u"plain"_s}),
              (QStringList{u"A.app"_s, u"Folder/App.app"_s, u"x/__MACOSX/D.app"_s}));
    VelmoraApp slashed = lookout;
    slashed.name = u"A/B"_s;
    EXPECT_EQ(ZipAppInstaller::archiveName(slashed), u"A-B.zip"_s);
    EXPECT_TRUE(ZipAppInstaller::isArchive(QUrl(u"https://h/get/App.ZIP?x=1"_s)));
    EXPECT_FALSE(ZipAppInstaller::isArchive(QUrl(u"https://h/desktop"_s)));
}

// An entry left unread would go unchecked: the listing is read whole or refused.
TEST(ZipNamesTest, TheListingIsReadWholeOrNotAtAll) {
    const QString head = u"Archive:  a.zip\nZip file size: 733 bytes, number of entries: 2\n"_s;
    const QString link =
        u"lrwxrwxrwx  2.0 unx       23 b- stor 19800101.000000 Other.app/share\n"_s;
    const QString spaced =
        u"-rw-r--r--  2.0 unx        1 b- defN 19800101.000000   a 19800101.000000 b\n"_s;
    const QString totals = u"2 files, 24 bytes uncompressed, 24 bytes compressed:  0.0%\n"_s;
    using Entry = ZipAppInstaller::ListedEntry;
    EXPECT_EQ(
        ZipAppInstaller::parseListing(head + link + spaced + totals),
        (std::vector<Entry>{{u"Other.app/share"_s, u'l'}, {u"  a 19800101.000000 b"_s, u'-'}}));
    for (const QString& broken :
         {head + link + totals, head + link + u"warning\n"_s + spaced + totals,
          head + link + spaced, link + spaced + totals}) {
        EXPECT_THROW(ZipAppInstaller::parseListing(broken), TesselError) << broken.toStdString();
    }
}

TEST_F(ZipInstallerTest, EveryPathIsCheckedBeforeAnythingIsUnpacked) {
    const auto app = test::appDir(u"Lookout"_s, u"ai.velmora.lookout"_s);
    const QString outside = u"The ZIP contains a path outside its installation directory."_s;
    const QString none = u"The ZIP contains no application."_s;
    struct Case {
        std::vector<test::ZipEntry> entries;
        QString outcome;
    };
    const Case cases[] = {
        {{app[0], {u"App.app/Contents/../../x"_s, "x"}}, outside},
        {{app[0], app[1], {u"/etc/x"_s, "x"}}, outside},
        {{{u"__MACOSX/Lookout.app/AppRun"_s, "x"}}, none},
        {{}, none},
    };
    for (const Case& c : cases) {
        serve(c.entries);
        EXPECT_EQ(outcome(), c.outcome);
        EXPECT_FALSE(QFileInfo::exists(home.filePath(u"Applications"_s))) << "unpacked";
    }
}

// A link in one archive would let a later one write wherever it points.
TEST_F(ZipInstallerTest, ALinkIsRefusedAndOneAlreadyThereIsNeverFollowed) {
    auto linked = test::appDir(u"Lookout"_s, u"ai.velmora.lookout"_s);
    linked.push_back({u"Other.app/share"_s, "../../outside", false, true});
    serve(linked);
    EXPECT_EQ(outcome(), u"The ZIP contains a link, Other.app/share — applications are installed "
                         u"without links; ask for an archive that has none."_s);
    EXPECT_FALSE(QFileInfo::exists(home.filePath(u"Applications"_s))) << "unpacked";

    // As an earlier version left it: the link is replaced by what the archive holds.
    const QString outside = home.filePath(u"outside"_s);
    const QString share = home.filePath(u"Applications/Other.app/share"_s);
    ASSERT_TRUE(QDir().mkpath(outside) &&
                QDir().mkpath(home.filePath(u"Applications/Other.app"_s)));
    ASSERT_TRUE(QFile::link(u"../../outside"_s, share));
    auto clean = test::appDir(u"Lookout"_s, u"ai.velmora.lookout"_s);
    clean.push_back({u"Other.app/share/evil.desktop"_s, "[Desktop Entry]\n"});
    serve(clean);
    EXPECT_EQ(outcome(), u"installed"_s);
    EXPECT_EQ(QDir(outside).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
    EXPECT_FALSE(QFileInfo(share).isSymLink());
    EXPECT_TRUE(QFileInfo::exists(share + u"/evil.desktop"_s));
    EXPECT_EQ(QDir(home.filePath(u"Applications"_s))
                  .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
              (QStringList{u"Lookout.app"_s, u"Other.app"_s}))
        << "nothing of the unpacking is left beside them";
}

TEST_F(ZipInstallerTest, TheBundleMustBeTheOneAsked) {
    // Only a component that is exactly ".." counts; both bundles unpack.
    serve({{u"App.app/..hidden"_s, "x"}, {u"a..b/App.app/x"_s, "x"}});
    VelmoraApp unnamed = lookout;
    unnamed.bundleID.reset();
    EXPECT_EQ(outcome(unnamed), u"The ZIP does not contain The Lookout."_s);
    EXPECT_TRUE(QFileInfo::exists(home.filePath(u"Applications/App.app/..hidden"_s)));
    EXPECT_TRUE(QFileInfo::exists(home.filePath(u"Applications/a..b/App.app/x"_s)));

    serve(test::appDir(u"Other"_s, u"com.example.other"_s));
    EXPECT_EQ(outcome(), u"The ZIP does not contain ai.velmora.lookout."_s);
    EXPECT_TRUE(QFileInfo::exists(home.filePath(u"Applications/Other.app/AppRun"_s)));
}

TEST_F(ZipInstallerTest, ARefusedDownloadSpeaksWithItsBody) {
    test::writeFile(served, {});
    status = 404;
    EXPECT_EQ(outcome(), u"HTTP 404"_s);
    test::writeFile(served, "Gone for good.\n");
    status = 410;
    EXPECT_EQ(outcome(), u"Gone for good.\n"_s);
    status = 0;
    EXPECT_EQ(outcome(), u"The server's answer was not an HTTP response."_s);
    EXPECT_EQ(downloads(), QStringList());
}

TEST_F(ZipInstallerTest, InstallsIntoTheHomeFolderAndReplacesTheArchive) {
    serve(test::appDir(u"Lookout"_s, u"ai.velmora.lookout"_s));
    const auto first = install();
    const QString folder = home.filePath(u"Applications"_s);
    EXPECT_EQ(first, (ZipAppInstaller::Installation{folder + u"/Lookout.app"_s, folder}));
    EXPECT_TRUE(QFileInfo(first.application + u"/AppRun"_s).isExecutable());

    // A second download of the row replaces the first archive.
    auto second = test::appDir(u"Lookout"_s, u"ai.velmora.lookout"_s);
    second.push_back({u"Lookout.app/second"_s, "2"});
    serve(second);
    EXPECT_EQ(install(), first);
    EXPECT_TRUE(QFileInfo::exists(folder + u"/Lookout.app/second"_s));
    EXPECT_EQ(downloads(), QStringList{u"The Lookout.zip"_s});
    QFile archive(home.filePath(u"Downloads/The Lookout.zip"_s));
    QFile expected(served);
    ASSERT_TRUE(archive.open(QIODevice::ReadOnly) && expected.open(QIODevice::ReadOnly));
    EXPECT_EQ(archive.readAll(), expected.readAll());
}

} // namespace
