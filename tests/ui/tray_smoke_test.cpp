// The real tray application under Xvfb, on a private session bus with a
// stand-in StatusNotifierWatcher: its item registers, Activate over D-Bus
// opens the popover, Escape closes it through the first dismissal tier, and
// a second launch raises the running one and ends with status 0.
#include "support/FakeTool.h"
#include "support/Processes.h"
#include "support/Wait.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace tessel::test;

namespace {

// Reads a process's output until `pattern` shows up or the time runs out.
bool waitFor(QProcess& process, QByteArray& seen, const QByteArray& pattern, int ms = 20000,
             QProcess::ProcessChannel channel = QProcess::StandardOutput) {
    QElapsedTimer timer;
    timer.start();
    process.setReadChannel(channel);
    while (!seen.contains(pattern)) {
        if (timer.elapsed() > ms || process.state() == QProcess::NotRunning) {
            seen += process.readAll();
            return seen.contains(pattern);
        }
        process.waitForReadyRead(100);
        seen += process.readAll();
    }
    return true;
}

class TraySmoke : public ::testing::Test {
protected:
    void SetUp() override {
        // Xvfb writes the display it took to the descriptor it is given.
        xvfb.setProgram("bash");
        xvfb.setArguments({"-c", "exec Xvfb -displayfd 1 -screen 0 1024x768x24 -nolisten tcp"});
        xvfb.start();
        QByteArray out;
        ASSERT_TRUE(waitFor(xvfb, out, "\n")) << "Xvfb did not start";
        display = ":" + QString::fromLatin1(out.trimmed());

        bus.start("dbus-daemon",
                  {"--nofork", "--print-address=1", "--config-file=" TESSEL_PRIVATE_BUS_CONFIG});
        QByteArray address;
        ASSERT_TRUE(waitFor(bus, address, "\n")) << "the private bus did not start";
        env.insert("DBUS_SESSION_BUS_ADDRESS", QString::fromLatin1(address.trimmed()));
        env.insert("DISPLAY", display);
        env.insert("QT_QPA_PLATFORM", "xcb");
        env.insert("HOME", home.path());
        env.insert("XDG_CONFIG_HOME", home.filePath("config"));
        env.insert("XDG_DATA_HOME", home.filePath("data"));
        env.insert("XDG_STATE_HOME", home.filePath("state"));
        env.insert("XDG_RUNTIME_DIR", home.path());
        env.remove("VELMORA_TESSEL_ENDPOINTS");

        watcher.setProcessEnvironment(env);
        watcher.start(TESSEL_SNI_WATCHER);
        QByteArray ready;
        ASSERT_TRUE(waitFor(watcher, ready, "watching\n")) << ready.constData();
    }

    void TearDown() override {
        for (QProcess* process : {&app, &watcher, &bus, &xvfb}) {
            stopProcess(*process);
        }
    }

    // "IsViewable" while the popover is on screen.
    QString popoverState() {
        const QString info =
            runToEnd("xwininfo", {"-display", display, "-name", "Velmora"}, env).out;
        const auto at = info.indexOf("Map State: ");
        return at < 0 ? QString() : info.mid(at + 11).section('\n', 0, 0);
    }

    QProcess xvfb, bus, watcher, app;
    QString display;
    QTemporaryDir home;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
};

} // namespace

TEST_F(TraySmoke, ItemRegistersActivateOpensThePopoverEscapeClosesIt) {
    app.setProcessEnvironment(env);
    app.start(TESSEL_APP_PATH, {});
    QByteArray registered;
    ASSERT_TRUE(waitFor(watcher, registered, "registered ")) << "no item registered";
    ASSERT_TRUE(waitFor(watcher, registered, "\n"));
    const QString item =
        QString::fromLatin1(registered.mid(registered.indexOf("registered ") + 11)).trimmed();
    EXPECT_NE(popoverState(), "IsViewable");

    const Ran reply =
        runToEnd("gdbus",
                 {"call", "--session", "--dest", item, "--object-path", "/StatusNotifierItem",
                  "--method", "org.kde.StatusNotifierItem.Activate", "--", "100", "5"},
                 env);
    ASSERT_EQ(reply.status, 0) << reply.err.toStdString();
    ASSERT_TRUE(eventually([&] { return popoverState() == "IsViewable"; }))
        << popoverState().toStdString();

    // A second launch raises this one and ends at once with 0.
    EXPECT_EQ(runToEnd(TESSEL_APP_PATH, {}, env).status, 0);
    EXPECT_EQ(popoverState(), "IsViewable");

    runToEnd("xdotool", {"key", "Escape"}, env);
    EXPECT_TRUE(eventually([&] { return popoverState() != "IsViewable"; }))
        << popoverState().toStdString();
    // Without a journal the log is a file of the user's state.
    if (!QFile::exists("/run/systemd/journal/socket")) {
        QFile log(home.filePath("state/velmora/tessel.log"));
        EXPECT_TRUE(eventually([&] {
            log.close();
            return log.open(QIODevice::ReadOnly) &&
                   log.readAll().contains("tessel popover: dismissed via tier 1");
        })) << log.fileName().toStdString();
    }
}

// The subscription watch starts with the application: `meterly` (the stand-in,
// found through METERLY_BIN) runs once launching ends, and its usable reading
// is kept for the next start.
TEST_F(TraySmoke, TheSubscriptionWatchReadsOnceLaunchingEnds) {
    const FakeTool tool;
    tool.answer(nlohmann::json::array(
        {{{"args", {"status", "--json"}}, {"steps", nlohmann::json::array({{{"stdout", R"({
        "fetched_at": "2024-05-06T10:00:00Z", "alerts": [], "next": {}, "timeline": [],
        "seats": [{"id": "claude:work", "provider": "claude", "provider_label": "Claude",
                   "account": "work", "live": true, "note": "",
                   "advice": {"verb": "ok", "reason": ""},
                   "windows": [{"kind": "session", "label": "5h", "used_pct": 4}]}]})"}}})}}}));
    QProcessEnvironment withTool = tool.environment(env);
    withTool.insert("METERLY_BIN", tool.install("meterly"));
    app.setProcessEnvironment(withTool);
    app.start(TESSEL_APP_PATH, {});
    const QString saved = home.filePath("data/Velmora/last-subs.json");
    ASSERT_TRUE(eventually([&] { return QFile::exists(saved); }, 20));
    const auto runs = tool.runs();
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0]["tool"], "meterly");
    EXPECT_EQ(runs[0]["args"], nlohmann::json::array({"status", "--json"}));
}
