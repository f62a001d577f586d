// The popover's Apps rows on real widgets offscreen, with a scripted launcher:
// Tab reaches each row's one button only, and that button keeps the focus
// while its row's state changes under it.
#include "apps/AppsModel.h"
#include "ui/AppsView.h"
#include "ui/Widgets.h"

#include "support/Wait.h"

#include <QAbstractButton>
#include <QAccessible>
#include <QApplication>
#include <QDir>
#include <QPointer>
#include <QTemporaryDir>
#include <QVBoxLayout>

#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::app;
using namespace tessel::test;
using namespace Qt::Literals::StringLiterals;

namespace {

struct Rig {
    QHash<QString, QUrl> installed;
    QString installedFile;
    AppLauncher launcher{
        [this](const QString& id) -> std::optional<QUrl> {
            return installed.contains(id) ? std::optional(installed[id]) : std::nullopt;
        },
        [](QUrl) { return done(); },
        [](QUrl, QStringList) { return done(); },
        [](QUrl) { return true; },
        [this](VelmoraApp, QUrl) { return install(installedFile); },
    };
    AppsModel model{
        {AppRegistry::apps(u"velmora.ai"_s, [](const QString&) { return std::nullopt; }),
         launcher,
         std::nullopt,
         {},
         {}}};

    static Task<void> done() { co_return; }
    static Task<ZipAppInstaller::Installation> install(QString file) {
        co_await sleepFor(0.2);
        co_return ZipAppInstaller::Installation{file, QFileInfo(file).path()};
    }
};

QString accessibleName(QWidget* widget) {
    return QAccessible::queryAccessibleInterface(widget)->text(QAccessible::Name);
}

} // namespace

TEST(AppsViewTest, TabReachesOneButtonPerRowAndItKeepsTheFocus) {
    Rig rig;
    QTemporaryDir dir;
    rig.installedFile = dir.filePath(u"TheLookout.app"_s);
    QDir().mkpath(rig.installedFile);
    QWidget window;
    auto* view = new AppsView(&window);
    (new QVBoxLayout(&window))->addWidget(view);
    rig.model.refreshStates();
    view->setModel(&rig.model);
    window.show();
    window.activateWindow();
    ASSERT_TRUE(eventually([&] { return window.isActiveWindow(); }));

    const auto stops = [&] {
        QStringList names;
        for (QWidget* stop : rowOrder(&window)) {
            names << accessibleName(stop);
        }
        return names.join(u", "_s).toStdString();
    };
    EXPECT_EQ(stops(), "Get, Get, Open");

    // Installed behind the popover's back: the same button now opens it.
    QPointer<QWidget> desktop = rowOrder(&window).value(0);
    desktop->setFocus(Qt::TabFocusReason);
    rig.installed[u"ai.velmora.desktop"_s] = QUrl::fromLocalFile(rig.installedFile);
    rig.model.refreshStates();
    QApplication::processEvents();
    ASSERT_TRUE(desktop);
    EXPECT_TRUE(desktop->hasFocus());
    EXPECT_EQ(accessibleName(desktop), u"Open"_s);

    // While the Lookout downloads the focus rests on its progress, then comes back.
    QPointer<QWidget> lookout = rowOrder(&window).value(1);
    lookout->setFocus(Qt::TabFocusReason);
    qobject_cast<QAbstractButton*>(lookout.data())->click();
    ASSERT_TRUE(rig.model.isInstalling(u"lookout"_s));
    QApplication::processEvents();
    ASSERT_TRUE(QApplication::focusWidget());
    EXPECT_EQ(accessibleName(QApplication::focusWidget()),
              u"Downloading and installing The Lookout"_s);
    ASSERT_TRUE(eventually([&] { return !rig.model.isInstalling(u"lookout"_s); }));
    QApplication::processEvents();
    ASSERT_TRUE(lookout);
    EXPECT_TRUE(lookout->hasFocus());
    EXPECT_EQ(accessibleName(lookout), u"Open"_s);
}
