// The infrastructure block and the set-up window against the stand-in tool
// playing the checked-in scenario: real processes, real widgets offscreen.
#include "ui/ConductorSetupWindow.h"
#include "ui/InfraView.h"

#include "support/FakeTool.h"
#include "support/QtPrint.h"
#include "support/Wait.h"

#include <QApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTemporaryDir>
#include <QThread>
#include <QToolButton>

#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::app;
using namespace Qt::StringLiterals;
using nlohmann::json;

namespace {

json scenarioRuns() {
    QFile file(QStringLiteral(TESSEL_SCENARIOS_DIR "/conductor-onboard.json"));
    if (!file.open(QIODevice::ReadOnly)) {
        throw std::runtime_error("cannot read the conductor-onboard scenario");
    }
    return json::parse(file.readAll().toStdString()).at("runs");
}

template <typename Condition> bool waitUntil(Condition done) {
    QDeadlineTimer deadline(60000);
    while (!done() && !deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QThread::msleep(5);
    }
    return done();
}

// The shown widget of that type with that object name or text, or null.
template <typename Widget> Widget* shown(QWidget* parent, const QString& name) {
    for (Widget* widget : parent->findChildren<Widget*>()) {
        if (widget->isVisible() &&
            (widget->objectName() == name || widget->property("text").toString() == name)) {
            return widget;
        }
    }
    return nullptr;
}

class InfraViewsTest : public ::testing::Test {
protected:
    test::FakeTool tool;
    QTemporaryDir scratch;
    StreamingToolRunner runner =
        makeStreamingToolRunner(tool.install(u"velmora-conductor-onboard"_s), tool.environment());
    InfraTool infraTool{[this] { return std::optional(runner); }, u"not installed"_s};
    InfraModel infra{infraTool, monotonicNow, sleepFor};
    std::vector<QUrl> opened;

    void SetUp() override { tool.answer(scenarioRuns()); }
};

TEST_F(InfraViewsTest, TheWizardRunsToSuccessAndKeepsNoSecret) {
    using Org = ConductorSetupWindow::Organisation;
    const Org initech{u"initech.example"_s, u"initech"_s, QUrl(u"https://initech.example"_s)};
    ConductorSetupWindow::Context context{
        [initech] {
            return QList<Org>{{u"acme.example"_s, u"acme"_s, QUrl()}, initech};
        },
        [initech] { return std::optional(initech); }, [] {},
        [this](const QUrl& url) { opened.push_back(url); }, QUrl(u"https://docs.example/rb"_s)};
    const QString tempRoot = scratch.filePath(u"Velmora/tmp"_s);
    ConductorSetupWindow window(&infra, std::make_unique<ConductorSetupModel>(infraTool, tempRoot),
                                context);
    window.show();
    ASSERT_TRUE(waitUntil([&] { return infra.status() && !infra.busy(); }));
    EXPECT_EQ(shown<QLineEdit>(&window, u"slug"_s)->text(), u"initech"_s);
    EXPECT_EQ(shown<QLineEdit>(&window, u"port"_s)->text(), u"7402"_s);
    auto* serviceToken = shown<QLineEdit>(&window, u"service-token"_s);
    EXPECT_EQ(serviceToken->echoMode(), QLineEdit::Password);
    serviceToken->setText(u"svc-7f3a9"_s);
    shown<QLineEdit>(&window, u"tunnel-id"_s)->setText(u"tun-19"_s);

    QPushButton* setUp = shown<QPushButton>(&window, u"Set up"_s);
    ASSERT_TRUE(setUp && setUp->isEnabled());
    setUp->click();
    ASSERT_TRUE(waitUntil([&] { return !window.setup()->isRunning(); }));

    EXPECT_EQ(window.setup()->failure(), std::nullopt);
    ASSERT_TRUE(shown<QLabel>(&window, u"complete"_s));
    EXPECT_EQ(shown<QLabel>(&window, u"complete"_s)->text(), u"Setup complete"_s);
    ASSERT_EQ(window.setup()->steps().size(), 5);
    EXPECT_EQ(window.setup()->steps()[0].detail, u"service token [redacted] accepted"_s);
    EXPECT_EQ(window.setup()->steps()[3].detail,
              u"velmora-tunnel-initech.service for tunnel [redacted]"_s);
    EXPECT_EQ(serviceToken->text(), u""_s);
    EXPECT_TRUE(infra.status()->organisation(u"initech.example"_s)); // reread after the run
    shown<QPushButton>(&window, u"Open conductor"_s)->click();
    EXPECT_EQ(opened, std::vector<QUrl>{QUrl(u"http://127.0.0.1:7402/"_s)});
}

TEST_F(InfraViewsTest, TheRowsFollowTheOrganisation) {
    int setups = 0;
    int closes = 0;
    InfraView view(&infra, {[&] { ++setups; }, [this](const QUrl& url) { opened.push_back(url); },
                            [&] { ++closes; }});
    view.setOrg(u"acme.example"_s, u"acme"_s);
    view.show();
    spawn([this] { return infra.refresh(true); });
    ASSERT_TRUE(waitUntil([&] { return shown<QToolButton>(&view, u"Restart conductor"_s); }));
    EXPECT_FALSE(shown<QPushButton>(&view, u"setUpConductor"_s));

    shown<QToolButton>(&view, u"Open tunnel log"_s)->click();
    EXPECT_EQ(opened.back(),
              QUrl::fromLocalFile(QDir::homePath() +
                                  u"/.local/state/velmora-conductor/acme-tunnel.log"_s));
    EXPECT_EQ(closes, 1);

    shown<QToolButton>(&view, u"Restart conductor"_s)->click();
    ASSERT_TRUE(waitUntil([&] { return tool.runs().size() == 3 && !infra.busy(); }));
    EXPECT_EQ(tool.runs()[1]["args"], json({"restart", "acme"}));

    view.setOrg(u"globex.example"_s, u"globex"_s); // isolated: neither restart nor set-up
    ASSERT_TRUE(waitUntil([&] { return !shown<QToolButton>(&view, u"Restart conductor"_s); }));
    EXPECT_FALSE(shown<QPushButton>(&view, u"setUpConductor"_s));

    view.setOrg(u"initech.example"_s, u"initech"_s); // not in the report
    ASSERT_TRUE(waitUntil([&] { return shown<QPushButton>(&view, u"setUpConductor"_s); }));
    QPushButton* setUp = shown<QPushButton>(&view, u"setUpConductor"_s);
    EXPECT_EQ(setUp->toolTip(), u"Set up conductor for initech"_s);
    setUp->click();
    EXPECT_EQ(setups, 1);
}

// A missing tool is one quiet line, not that line again in red.
TEST(InfraViewNotInstalledTest, SaysSoOnce) {
    InfraModel missing{InfraTool{[] { return std::optional<StreamingToolRunner>(); },
                                 u"velmora-conductor-onboard is not installed"_s},
                       monotonicNow, sleepFor};
    InfraView view(&missing, {});
    view.setOrg(u"acme.example"_s, u"acme"_s);
    view.show();
    test::wait(missing.refresh(true));
    ASSERT_TRUE(missing.error());
    int said = 0;
    for (QLabel* label : view.findChildren<QLabel*>()) {
        said += label->isVisible() && label->text() == *missing.error();
    }
    EXPECT_EQ(said, 1);
    EXPECT_FALSE(shown<QLabel>(&view, u"infraError"_s));
}

} // namespace
