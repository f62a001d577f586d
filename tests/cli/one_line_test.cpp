// The command form as a person runs it, against the local server and a sound
// server of the test's own, on a machine without a journal: however the capture
// ends, standard error holds its one line and the log goes to its file.
#include "support/DevServer.h"
#include "support/PrivatePulse.h"
#include "support/Processes.h"

#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace tessel::test;

TEST(CaptureCommand, RefusedUploadsEndInOneLineOnStandardErrorAndTheLogInItsFile) {
    PrivatePulse pulse({"module-null-sink sink_name=speakers rate=48000 channels=2",
                        "module-null-sink sink_name=micsink channels=1",
                        "module-remap-source source_name=mic master=micsink.monitor"});
    pulse.pactl({"set-default-sink", "speakers"});
    pulse.pactl({"set-default-source", "mic"});
    DevServer server;
    server.fail("put", 10000, 503, "<Error><Code>SlowDown</Code></Error>");

    QTemporaryDir state;
    QProcessEnvironment environment = pulse.environment();
    environment.insert("XDG_STATE_HOME", state.path());
    environment.insert("VELMORA_TESSEL_JOURNAL_SOCKET", state.filePath("no-journal"));
    const Ran app =
        runToEnd(TESSEL_APP_PATH,
                 {"capture", "--base-url", QString::fromStdString(server.meetBase()), "--token",
                  "vses_cli", "--title", "Refused", "--counterpart", "Storage", "--seconds", "2"},
                 environment, 120000);
    EXPECT_EQ(app.status, 1) << app.err.toStdString();
    EXPECT_EQ(app.err.count('\n'), 1) << app.err.toStdString();
    EXPECT_TRUE(app.err.startsWith("Velmora Tessel: Some audio has not uploaded"))
        << app.err.toStdString();

    const QString logPath = state.filePath("velmora/tessel.log");
    struct stat st {};
    ASSERT_EQ(::stat(logPath.toLocal8Bit().constData(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    QFile log(logPath);
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    EXPECT_TRUE(log.readAll().contains("HTTP 503")) << "each refused upload is logged";
}
