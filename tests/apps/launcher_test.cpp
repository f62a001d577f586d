// The app registry, the launcher's decisions and the Apps section's state, with
// scripted system functions; then the desktop's own launcher on real files.
#include "apps/AppLauncher.h"
#include "apps/AppsModel.h"
#include "apps/DesktopApps.h"

#include "errors/Failures.h"
#include "support/Files.h"
#include "support/Wait.h"
#include "support/Zip.h"

#include <QDir>
#include <QFile>
#include <QProcessEnvironment>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace tessel;
using namespace Qt::StringLiterals;

namespace {

using State = AppLauncher::State;

const LaunchOrg acme{u"acme.velmora.ai"_s, QUrl(u"https://acme.velmora.ai/"_s)};

// A launcher whose system is a table: what is installed, what was opened.
struct Rig {
    QHash<QString, QUrl> installed;
    QStringList opened;
    bool pagesOpen = true;
    std::optional<QString> installFailure;
    QString installedFile;
    int handoffs = 0;
    std::vector<VelmoraApp> apps = AppRegistry::apps(u"velmora.ai"_s, [this](const QString& host) {
        ++handoffs;
        return std::optional(u"/run/handoff/"_s + host + u".json"_s);
    });
    AppLauncher launcher{
        [this](const QString& id) -> std::optional<QUrl> {
            return installed.contains(id) ? std::optional(installed[id]) : std::nullopt;
        },
        [this](QUrl url) -> Task<void> { return open(this, url, {}); },
        [this](QUrl url, QStringList arguments) -> Task<void> {
            return open(this, url, arguments);
        },
        [this](QUrl url) {
            opened << u"page "_s + url.toString();
            return pagesOpen;
        },
        [this](VelmoraApp, QUrl url) -> Task<ZipAppInstaller::Installation> {
            return install(this, url);
        },
    };

    static Task<void> open(Rig* rig, QUrl url, QStringList arguments) {
        rig->opened << (QStringList{u"app"_s, url.toLocalFile()} + arguments).join(u' ');
        co_return;
    }
    static Task<ZipAppInstaller::Installation> install(Rig* rig, QUrl url) {
        co_await sleepFor(0.01);
        rig->opened << u"install "_s + url.toString();
        if (rig->installFailure) {
            throw TesselError(*rig->installFailure);
        }
        co_return ZipAppInstaller::Installation{rig->installedFile, u"/home/u/Applications"_s};
    }
    const VelmoraApp& app(const QString& id) const {
        return *std::find_if(apps.begin(), apps.end(), [&](const auto& a) { return a.id == id; });
    }
    QString launch(const QString& id, std::optional<LaunchOrg> org = acme) {
        return launch(app(id), org);
    }
    QString launch(const VelmoraApp& row, std::optional<LaunchOrg> org) {
        try {
            test::wait(launcher.launch(row, org));
            return opened.join(u" | "_s);
        } catch (const Failure& failure) {
            return failure.description();
        }
    }
};

TEST(AppLauncherTest, StateAndLaunchFollowTheRow) {
    Rig rig;
    EXPECT_EQ(rig.launcher.state(rig.app(u"meet"_s)),
              State::web(QUrl(u"https://velmora.ai/meet"_s)));
    EXPECT_EQ(rig.launcher.state(rig.app(u"desktop"_s)),
              State::notInstalled(QUrl(u"https://velmora.ai/desktop"_s)));
    VelmoraApp both = rig.app(u"desktop"_s);
    both.webURL = QUrl(u"https://velmora.ai/web"_s);
    EXPECT_EQ(rig.launcher.state(both), State::web(*both.webURL));
    rig.installed[u"ai.velmora.desktop"_s] = QUrl::fromLocalFile(u"/apps/Velmora.app"_s);
    EXPECT_EQ(rig.launcher.state(both),
              State::installed(QUrl::fromLocalFile(u"/apps/Velmora.app"_s)));

    // Installed, with and without an organisation; no handoff without one.
    rig.installed[u"ai.velmora.lookout"_s] = QUrl::fromLocalFile(u"/apps/Lookout.app"_s);
    EXPECT_EQ(rig.launch(u"lookout"_s, std::nullopt), u"app /apps/Lookout.app"_s);
    EXPECT_EQ(rig.handoffs, 0);
    rig.opened.clear();
    EXPECT_EQ(rig.launch(u"lookout"_s), u"app /apps/Lookout.app --org https://acme.velmora.ai/ "
                                        u"--session-file /run/handoff/acme.velmora.ai.json"_s);
    rig.opened.clear();
    EXPECT_EQ(rig.launch(u"desktop"_s), u"app /apps/Velmora.app --org https://acme.velmora.ai/"_s);

    // Not installed: a page that isn't an archive is opened like a web row.
    Rig fresh;
    EXPECT_EQ(fresh.launch(u"desktop"_s), u"page https://velmora.ai/desktop"_s);
    fresh.pagesOpen = false;
    EXPECT_EQ(fresh.launch(u"meet"_s), u"Could not open the page for Meet."_s);
    VelmoraApp nowhere = fresh.app(u"desktop"_s);
    nowhere.getURL.reset();
    EXPECT_EQ(fresh.launch(nowhere, acme), u"No install page is available for Velmora."_s);
}

TEST(AppsModelTest, ARowLaunchesOnceAndKeepsItsInstallation) {
    Rig rig;
    QTemporaryDir dir;
    rig.installedFile = dir.filePath(u"Lookout.app"_s);
    QDir().mkpath(rig.installedFile);
    int dismissed = 0;
    bool memberSignedIn = true;
    AppsModel model({rig.apps, rig.launcher, acme,
                     [&](const VelmoraApp& app) { return app.id == u"meet"_s && memberSignedIn; },
                     [&] { ++dismissed; }});

    // An archive row downloads with the popover open; a second click meanwhile
    // does nothing.
    Task<void> first = model.activate(u"lookout"_s);
    EXPECT_TRUE(model.isInstalling(u"lookout"_s));
    test::wait(model.activate(u"lookout"_s));
    test::wait(std::move(first));
    EXPECT_EQ(dismissed, 0);
    EXPECT_EQ(rig.opened.first(), u"install https://velmora.ai/meet/download/TheLookout.zip"_s);
    EXPECT_EQ(rig.opened.size(), 2);
    EXPECT_FALSE(model.isInstalling(u"lookout"_s));
    EXPECT_EQ(model.message(u"lookout"_s), std::nullopt);

    // The lookup doesn't know it yet: installed while the file exists.
    const State installed = State::installed(QUrl::fromLocalFile(rig.installedFile));
    model.refreshStates();
    EXPECT_EQ(model.state(u"lookout"_s), installed);
    QDir(rig.installedFile).removeRecursively();
    model.refreshStates();
    EXPECT_EQ(model.state(u"lookout"_s).kind, State::Kind::notInstalled);

    // The Meet row of a signed-in member opens the lobby: dismissed, no launch.
    test::wait(model.activate(u"meet"_s));
    EXPECT_EQ(dismissed, 1);
    EXPECT_EQ(rig.opened.size(), 2);
    memberSignedIn = false;
    test::wait(model.activate(u"meet"_s));
    EXPECT_EQ(rig.opened.last(), u"page https://velmora.ai/meet"_s);

    rig.installFailure = u"The ZIP contains no application."_s;
    AppsModel failing({rig.apps, rig.launcher, acme, {}, {}});
    test::wait(failing.activate(u"lookout"_s));
    EXPECT_EQ(failing.message(u"lookout"_s), u"The ZIP contains no application."_s);
    EXPECT_FALSE(failing.isInstalling(u"lookout"_s));
}

TEST(DesktopAppsTest, ExecIsParsedAndFieldCodesDropped) {
    QTemporaryDir dir;
    const std::pair<QByteArray, QStringList> cases[] = {
        {"Exec=lookout %U", {u"lookout"_s}},
        {R"(Exec="/opt/The Lookout/run" --x=%f "a \"q\"" 100%% %k)",
         {u"/opt/The Lookout/run"_s, u"--x="_s, u"a \"q\""_s, u"100%"_s}},
        {R"(Exec=run\sme "a\\\\b")", {u"run"_s, u"me"_s, u"a\\b"_s}},
    };
    for (const auto& [line, command] : cases) {
        const QString entry =
            test::writeFile(dir.filePath(u"a.desktop"_s), "[Desktop Entry]\nName=A\n" + line +
                                                              "\n[Desktop Action x]\nExec=other\n");
        EXPECT_EQ(DesktopApps::command(entry), command) << line.constData();
    }
}

// The desktop's launcher runs a desktop entry's Exec with the organisation
// added; the AppDir road is the Apps section's end-to-end test.
TEST(DesktopAppsTest, OpensByDesktopEntryWithItsArguments) {
    QTemporaryDir home;
    const QString dataHome = home.filePath(u"data"_s);
    QProcessEnvironment environment;
    environment.insert(u"XDG_DATA_HOME"_s, dataHome);
    environment.insert(u"XDG_DATA_DIRS"_s, home.filePath(u"none"_s));
    QDir().mkpath(dataHome + u"/applications"_s);
    const QString script = test::writeFile(
        home.filePath(u"velmora-desktop"_s),
        "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$0.tmp\" && mv \"$0.tmp\" \"$0.arguments\"\n",
        QFile::ReadOwner | QFile::ExeOwner);
    test::writeFile(dataHome + u"/applications/ai.velmora.desktop.desktop"_s,
                    "[Desktop Entry]\nType=Application\nName=Velmora\nExec=\"" + script.toUtf8() +
                        "\" --from-entry %U\n");

    const AppLauncher launcher =
        AppLauncher::system(environment, home.path(), [](QUrl) { return false; }, {});
    const VelmoraApp desktop = AppRegistry::apps(u"velmora.ai"_s, {}).at(0);
    ASSERT_EQ(desktop.bundleID, u"ai.velmora.desktop"_s);
    EXPECT_EQ(launcher.state(desktop).kind, State::Kind::installed);
    test::wait(launcher.launch(desktop, acme));
    EXPECT_EQ(test::linesOnceWritten(script + u".arguments"_s),
              (QStringList{u"--from-entry"_s, u"--org"_s, u"https://acme.velmora.ai/"_s}));
}

} // namespace
