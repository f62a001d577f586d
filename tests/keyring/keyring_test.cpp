// The session keyring on a real Secret Service: gnome-keyring-daemon on this
// binary's private bus, checked from outside with secret-tool and dbus-send.
#include "errors/Failures.h"
#include "identity/SecretServiceStore.h"
#include "identity/SessionKeychain.h"
#include "support/Processes.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <gtest/gtest.h>

#pragma push_macro("signals")
#undef signals
#include <libsecret/secret.h>
#pragma pop_macro("signals")

using namespace tessel;
using namespace Qt::StringLiterals;

namespace {

QString run(const QString& program, const QStringList& arguments) {
    return test::runToEnd(program, arguments).out;
}

bool keyringOnBus() {
    return run("dbus-send", {"--session", "--print-reply", "--dest=org.freedesktop.DBus",
                             "/org/freedesktop/DBus", "org.freedesktop.DBus.NameHasOwner",
                             "string:org.freedesktop.secrets"})
        .contains("boolean true");
}

class Keyring : public ::testing::Test {
protected:
    // A keyring daemon with its own files; with `unlock` its login collection
    // is created (or opened) with a password, as a desktop login does.
    void startDaemon(bool unlock) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        QDir(home.path()).mkpath("run");
        QFile::setPermissions(home.filePath("run"), QFileDevice::ReadOwner |
                                                        QFileDevice::WriteOwner |
                                                        QFileDevice::ExeOwner);
        env.insert("HOME", home.path());
        env.insert("XDG_DATA_HOME", home.filePath("data"));
        env.insert("XDG_RUNTIME_DIR", home.filePath("run"));
        daemon.setProcessEnvironment(env);
        daemon.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QStringList arguments{"--foreground", "--components=secrets"};
        if (unlock) {
            arguments << "--unlock";
        }
        daemon.start("gnome-keyring-daemon", arguments);
        daemon.waitForStarted();
        if (unlock) {
            daemon.write("pw"); // an empty password never creates the login collection
            daemon.waitForBytesWritten();
        }
        daemon.closeWriteChannel();
        const QDeadlineTimer deadline(20000);
        while (!keyringOnBus() && !deadline.hasExpired()) {
            QThread::msleep(50);
        }
        if (!keyringOnBus()) {
            throw std::runtime_error("gnome-keyring-daemon did not come on the bus");
        }
    }

    void stopDaemon() {
        // libsecret keeps one connection to the service per process.
        secret_service_disconnect();
        daemon.terminate();
        daemon.waitForFinished(10000);
        const QDeadlineTimer deadline(20000);
        while (keyringOnBus() && !deadline.hasExpired()) {
            QThread::msleep(50);
        }
    }

    void TearDown() override { stopDaemon(); }

    static QStringList itemsOf(const QString& host) {
        return run("secret-tool",
                   {"search", "--all", "service", "ai.velmora.tessel", "account", host})
            .split('\n')
            .filter(QRegularExpression("^\\[/"));
    }

    static MemberSession session(const QString& token, qint64 seconds) {
        return {token, "m@velmora.test", QDateTime::currentDateTimeUtc().addSecs(seconds)};
    }

    // The failure must be the refusal with the store's code, never a quiet absence.
    static void expectRefused(const std::function<void()>& operation, int code) {
        QString message = "no failure";
        try {
            operation();
        } catch (const TesselError& error) {
            message = error.message();
        }
        EXPECT_TRUE(message.startsWith(u"The keyring refused the session (%1) — unlock your login "
                                       u"keyring and allow Velmora Tessel access, then sign in "
                                       u"again. · "_s.arg(code)))
            << message.toStdString();
    }

    QTemporaryDir home;
    QProcess daemon;
    const SessionKeychain keychain{std::make_shared<SecretServiceStore>()};
};

} // namespace

TEST_F(Keyring, OneItemPerHostReplacedAndRemoved) {
    startDaemon(true);
    // An ended session loads as none, and its item stays listed.
    keychain.save(session("vses_ended", -1), "old.test");
    EXPECT_EQ(keychain.load("old.test"), std::nullopt);
    EXPECT_EQ(itemsOf("old.test").size(), 1);
    const MemberSession first = session("vses_first", 3600);
    const MemberSession second = session("vses_second", 7200);
    keychain.save(first, "acme.test");
    keychain.save(second, "acme.test");
    keychain.save(first, "zeta.test");
    EXPECT_EQ(itemsOf("acme.test").size(), 1);
    EXPECT_EQ(keychain.load("acme.test"), second);
    QStringList hosts = keychain.hosts();
    hosts.sort();
    EXPECT_EQ(hosts, QStringList({"acme.test", "old.test", "zeta.test"}));
    EXPECT_THROW(keychain.save(session("sk_org_key", 60), "acme.test"), TesselError);

    keychain.remove("acme.test");
    keychain.remove("acme.test");
    keychain.remove("never.test");
    EXPECT_EQ(keychain.load("acme.test"), std::nullopt);
    EXPECT_FALSE(keychain.hosts().contains("acme.test"));
    EXPECT_TRUE(itemsOf("acme.test").isEmpty());
}

// Locked, the store is refused, never mistaken for an empty one; a session this
// run already read stays served, without putting the unlock prompt up.
TEST_F(Keyring, LockedCollectionRefusesEveryChange) {
    startDaemon(true);
    keychain.save(session("vses_kept", 3600), "acme.test");
    ASSERT_TRUE(run("dbus-send", {"--session", "--print-reply", "--dest=org.freedesktop.secrets",
                                  "/org/freedesktop/secrets", "org.freedesktop.Secret.Service.Lock",
                                  "array:objpath:/org/freedesktop/secrets/collection/login"})
                    .contains("/collection/login"));

    EXPECT_EQ(keychain.current("acme.test").value().token, "vses_kept");
    const SessionKeychain another{std::make_shared<SecretServiceStore>()};
    for (const auto& operation : std::vector<std::function<void()>>{
             [&] { another.load("acme.test"); },
             [&] { keychain.save(session("vses_new", 3600), "acme.test"); },
             [&] { keychain.save(session("vses_new", 3600), "new.test"); },
             [&] { keychain.remove("acme.test"); },
         }) {
        expectRefused(operation, SECRET_ERROR_IS_LOCKED);
    }
    EXPECT_EQ(keychain.hosts(), QStringList({"acme.test"}));
}

TEST_F(Keyring, DaemonStartedWithoutUnlockRefuses) {
    // No login collection at all: nothing can be stored.
    startDaemon(false);
    expectRefused([&] { keychain.save(session("vses_a", 60), "acme.test"); },
                  G_DBUS_ERROR_UNKNOWN_METHOD); // "Object does not exist at path …"
    EXPECT_EQ(keychain.load("acme.test"), std::nullopt);
    stopDaemon();

    // A login collection from an earlier session, not unlocked at this start.
    startDaemon(true);
    keychain.save(session("vses_a", 3600), "acme.test");
    stopDaemon();
    startDaemon(false);
    const SessionKeychain another{std::make_shared<SecretServiceStore>()};
    expectRefused([&] { another.load("acme.test"); }, SECRET_ERROR_IS_LOCKED);
}

// The desktop's own tool finds the session under the organisation's host, in
// the form the program reads back.
TEST_F(Keyring, SavedSessionIsFoundBySecretTool) {
    startDaemon(true);
    const MemberSession member = session("vses_member", 3600);
    keychain.save(member, "acme.velmora.test");
    const QString stored = run(
        "secret-tool", {"lookup", "service", "ai.velmora.tessel", "account", "acme.velmora.test"});
    EXPECT_EQ(MemberSession::fromJSON(stored.toUtf8()), member);
}

// The store keeps its connection to the service: a restarted keyring daemon is
// reached again, not refused for a session the new daemon never opened.
// (DaemonStartedWithoutUnlockRefuses restarts with no event loop running.)
TEST_F(Keyring, ReadsAfterTheDaemonRestarts) {
    startDaemon(true);
    const MemberSession member = session("vses_member", 3600);
    keychain.save(member, "acme.test");
    ASSERT_EQ(keychain.load("acme.test"), member);
    stopDaemon();
    startDaemon(true);
    // As the program's event loop does, let the connection follow the new owner.
    const QDeadlineTimer settle(300);
    while (!settle.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    EXPECT_EQ(keychain.load("acme.test"), member);
    keychain.save(session("vses_next", 3600), "acme.test");
    EXPECT_EQ(keychain.load("acme.test")->token, "vses_next");
}
