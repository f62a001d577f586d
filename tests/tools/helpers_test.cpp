// Helper tools: installation by content, the lookup of a tool, its PATH, and
// the model the strip observes.
#include "tools/HelperInstaller.h"

#include "errors/ErrorLog.h"
#include "errors/Failures.h"
#include "support/Files.h"
#include "support/HelpersRig.h"
#include "support/Wait.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <mutex>

using namespace tessel;
using namespace Qt::StringLiterals;

namespace {

struct stat facts(const QString& path) {
    struct stat st {};
    ::stat(QFile::encodeName(path).constData(), &st);
    return st;
}

unsigned modeOf(const QString& path) {
    return facts(path).st_mode & 07777;
}

class HelperInstallerTest : public ::testing::Test {
protected:
    QTemporaryDir bundle, data;
    QStringList logged;
    std::mutex mutex;
    log::ScopedSink sink{[this](log::Level level, const char* category, const QString& text) {
        std::lock_guard lock(mutex);
        if (level == log::Level::info && QByteArray(category) == "helpers") {
            logged << text;
        }
    }};

    void SetUp() override {
        for (const QString& name : HelperInstaller::names) {
            test::writeFile(bundle.filePath(name), "#!/bin/sh\necho " + name.toUtf8() + "\n");
        }
        test::writeFile(bundle.filePath(u"VERSION"_s), "1.2.3\n");
    }

    QString installed(const QString& name) const {
        return HelperInstaller::directory(data.path()) + u'/' + name;
    }

    // The run's failure text, or empty; what was logged.
    QString install(std::optional<QString> from = {}) {
        logged.clear();
        HelperInstaller installer(from ? from : std::optional(bundle.path()), data.path());
        try {
            test::wait(installer.installIfNeeded());
        } catch (const TesselError& error) {
            return error.message();
        }
        return {};
    }
};

TEST_F(HelperInstallerTest, KeepsTheBinDirectoryEqualToTheBundleByContent) {
    EXPECT_EQ(install(), u""_s);
    EXPECT_EQ(logged,
              (QStringList{u"Installed helper meterly"_s, u"Installed helper meterly-alerts"_s,
                           u"Installed helper vantor-accounts"_s,
                           u"Installed helper vantor-accounts-serve.py"_s,
                           u"Installed helper velmora-conductor-onboard"_s}));
    EXPECT_EQ(modeOf(HelperInstaller::directory(data.path())), 0755u);
    EXPECT_EQ(modeOf(installed(u"meterly"_s)), 0755u);
    EXPECT_EQ(modeOf(installed(u"VERSION"_s)), 0644u);

    // Unchanged: nothing written, nothing logged, drifted modes repaired.
    ::chmod(QFile::encodeName(installed(u"vantor-accounts"_s)), 0700);
    ::chmod(QFile::encodeName(installed(u"VERSION"_s)), 0600);
    const struct stat before = facts(installed(u"vantor-accounts"_s));
    EXPECT_EQ(install(), u""_s);
    EXPECT_EQ(logged, QStringList());
    EXPECT_EQ(facts(installed(u"vantor-accounts"_s)).st_ino, before.st_ino);
    EXPECT_EQ(modeOf(installed(u"vantor-accounts"_s)), 0755u);
    EXPECT_EQ(modeOf(installed(u"VERSION"_s)), 0644u);

    // Edited by hand, with a leftover from an interrupted run beside it.
    test::writeFile(installed(u"meterly"_s), "edited");
    test::writeFile(installed(u"meterly.tmp"_s), "half", QFile::ReadOwner);
    EXPECT_EQ(install(), u""_s);
    EXPECT_EQ(logged, QStringList{u"Updated helper meterly"_s});
    QFile meterly(installed(u"meterly"_s));
    ASSERT_TRUE(meterly.open(QIODevice::ReadOnly));
    EXPECT_EQ(meterly.readAll(), "#!/bin/sh\necho meterly\n");
    EXPECT_FALSE(QFile::exists(installed(u"meterly.tmp"_s)));
}

TEST_F(HelperInstallerTest, AMissingSourceStopsAtItsName) {
    QFile::remove(bundle.filePath(u"vantor-accounts"_s));
    const QString directory = HelperInstaller::directory(data.path());
    EXPECT_EQ(install(), u"Helpers could not be installed to "_s + directory + u": "_s +
                             bundle.filePath(u"vantor-accounts"_s) +
                             u": No such file or directory"_s);
    EXPECT_EQ(QDir(directory).entryList(QDir::Files),
              (QStringList{u"meterly"_s, u"meterly-alerts"_s}));
}

// A packaged program carries no helpers: nothing is installed, nothing
// checked, nothing shown; a missing tool is "not installed", not a failed
// installation.
TEST_F(HelperInstallerTest, WithoutACarriedFolderNothingHappens) {
    HelperInstaller none(std::nullopt, data.path());
    test::wait(none.installIfNeeded());
    EXPECT_FALSE(QFileInfo::exists(data.filePath(u"Velmora"_s)));

    int installs = 0;
    HelpersModel model({[&installs] {
                            ++installs;
                            return sleepFor(0);
                        },
                        {},
                        {},
                        false});
    test::wait(model.installIfNeeded());
    EXPECT_EQ(installs, 0);
    EXPECT_FALSE(model.busy() || model.ready() || model.pythonMissing() || model.error());

    EXPECT_EQ(HelperInstaller::notInstalled(u"meterly"_s, std::nullopt, u"to see it"_s),
              u"meterly is not installed — install it to see it."_s);
    EXPECT_EQ(HelperInstaller::notInstalled(u"meterly"_s, u"/h/bin"_s, u"to see it"_s),
              u"Helpers could not be installed to /h/bin: Could not resolve meterly."_s);
}

TEST(HelperLookupTest, ResolveTriesTheOverrideAloneElseThePlacesInOrder) {
    QTemporaryDir home;
    const QString privateBin = home.filePath(u".local/share/Velmora/bin"_s);
    for (const QString& dir :
         {privateBin, home.filePath(u"bin"_s), home.filePath(u".local/bin"_s)}) {
        QDir().mkpath(dir);
    }
    const auto tool = [](const QString& path, bool executable) {
        test::writeFile(path, "x",
                        executable ? QFile::ReadOwner | QFile::ExeOwner : QFile::ReadOwner);
    };
    tool(home.filePath(u"bin/vantor-accounts"_s), true);
    tool(home.filePath(u".local/bin/vantor-accounts"_s), true);
    tool(privateBin + u"/vantor-accounts"_s, false);
    tool(home.filePath(u"plain"_s), false);

    const auto resolve = [&](std::optional<QString> override) {
        QProcessEnvironment environment;
        if (override) {
            environment.insert(u"VANTOR_ACCOUNTS_BIN"_s, *override);
        }
        return HelperInstaller::resolve(u"vantor-accounts"_s, u"VANTOR_ACCOUNTS_BIN"_s, environment,
                                        home.path())
            .value_or(u"none"_s);
    };
    EXPECT_EQ(resolve(std::nullopt), home.filePath(u"bin/vantor-accounts"_s));
    EXPECT_EQ(resolve(u""_s), u"none"_s);
    EXPECT_EQ(resolve(home.filePath(u"plain"_s)), u"none"_s);
    EXPECT_EQ(resolve(home.filePath(u".local/bin/vantor-accounts"_s)),
              home.filePath(u".local/bin/vantor-accounts"_s));
    tool(privateBin + u"/vantor-accounts"_s, true);
    EXPECT_EQ(resolve(std::nullopt), privateBin + u"/vantor-accounts"_s);
    QFile::remove(privateBin + u"/vantor-accounts"_s);
    QFile::remove(home.filePath(u"bin/vantor-accounts"_s));
    EXPECT_EQ(resolve(std::nullopt), home.filePath(u".local/bin/vantor-accounts"_s));

    // After those places, the absolute folders of PATH in order (where a
    // package puts the tool); a relative entry is never taken.
    QFile::remove(home.filePath(u".local/bin/vantor-accounts"_s));
    for (const QString& dir : {u"rel"_s, u"a"_s, u"b"_s}) {
        QDir(home.path()).mkpath(dir);
    }
    tool(home.filePath(u"rel/vantor-accounts"_s), true);
    tool(home.filePath(u"vantor-accounts"_s), true);
    tool(home.filePath(u"a/vantor-accounts"_s), false);
    tool(home.filePath(u"b/vantor-accounts"_s), true);
    QProcessEnvironment withPath;
    withPath.insert(u"PATH"_s, u"rel::"_s + home.filePath(u"a"_s) + u':' + home.filePath(u"b"_s));
    const QString before = QDir::currentPath();
    QDir::setCurrent(home.path());
    EXPECT_EQ(HelperInstaller::resolve(u"vantor-accounts"_s, u"VANTOR_ACCOUNTS_BIN"_s, withPath,
                                       home.path()),
              home.filePath(u"b/vantor-accounts"_s));
    QDir::setCurrent(before);
    EXPECT_EQ(resolve(std::nullopt), u"none"_s);
}

TEST(HelperLookupTest, EnvironmentReplacesPathAndKeepsTheRest) {
    const QString data = u"/home/real/.local/share"_s;
    const auto path = [&](const QProcessEnvironment& base) {
        return HelperInstaller::environment(base, u"/home/real"_s, data).value(u"PATH"_s);
    };
    const QString fixed = u"/home/real/.local/share/Velmora/bin:/usr/bin:/bin:/usr/local/bin:"_s;

    QProcessEnvironment empty;
    EXPECT_EQ(HelperInstaller::environment(empty, u"/home/real"_s, data).keys(),
              QStringList{u"PATH"_s});
    EXPECT_EQ(path(empty), fixed + u"/home/real/bin:/home/real/.local/bin"_s);

    QProcessEnvironment other;
    other.insert(u"HOME"_s, u"/home/other"_s);
    other.insert(u"PATH"_s, u"/opt/x"_s);
    other.insert(u"LANG"_s, u"C.UTF-8"_s);
    const QProcessEnvironment result = HelperInstaller::environment(other, u"/home/real"_s, data);
    EXPECT_EQ(result.value(u"PATH"_s), fixed + u"/home/other/bin:/home/other/.local/bin"_s);
    EXPECT_EQ(result.value(u"LANG"_s), u"C.UTF-8"_s);
    EXPECT_EQ(result.value(u"HOME"_s), u"/home/other"_s);
}

TEST(HelpersModelTest, InstallsThenChecksPythonAndKeepsFailuresAsText) {
    test::HelpersRig rig;
    Task<void> first = rig.model.installIfNeeded();
    EXPECT_EQ(rig.state(), u"ready=0 busy=1 python=0 error=none"_s);
    test::wait(rig.model.installIfNeeded()); // ignored while busy
    test::wait(std::move(first));
    EXPECT_EQ(rig.installs, 1);
    EXPECT_EQ(rig.state(), u"ready=1 busy=0 python=0 error=none"_s);

    rig.python = {u""_s, u"not found"_s, 127};
    test::wait(rig.model.installIfNeeded());
    EXPECT_EQ(rig.state(), u"ready=0 busy=0 python=1 error=none"_s);

    // A failed package install leaves both standing; a good one clears the
    // error but doesn't look at Python again.
    test::wait(rig.model.installPython());
    EXPECT_EQ(rig.state(), u"ready=0 busy=0 python=1 error=/usr/bin/pkcon could not be started: "
                           u"No such file or directory"_s);
    rig.packageTool = ToolOutput{u"out"_s, u""_s, 4};
    test::wait(rig.model.installPython());
    EXPECT_EQ(rig.state(), u"ready=0 busy=0 python=1 error=out"_s);
    rig.packageTool = ToolOutput{u""_s, u""_s, 0};
    test::wait(rig.model.installPython());
    EXPECT_EQ(rig.state(), u"ready=0 busy=0 python=1 error=none"_s);

    rig.installFailure = u"Helpers could not be installed to /x: nope"_s;
    test::wait(rig.model.installIfNeeded());
    EXPECT_EQ(rig.state(),
              u"ready=0 busy=0 python=0 error=Helpers could not be installed to /x: nope"_s);
}

} // namespace
