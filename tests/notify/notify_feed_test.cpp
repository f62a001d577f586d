// The feed against the local server, in this process, on virtual time: quiet
// seeding, the watermark's tolerance, the wait after a lost sign-in, answers
// that come back to a changed sign-in, refused banners, and a restart.
#include "notify/NotifyFeedModel.h"

#include "errors/ErrorLog.h"
#include "net/HTTPFailure.h"
#include "support/DevServer.h"
#include "support/Wait.h"

#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::test;
using namespace Qt::Literals::StringLiterals;
using nlohmann::json;

namespace {

const QDateTime epoch = QDateTime::fromString(u"2030-01-01T00:00:00.000Z"_s, Qt::ISODateWithMs);

std::string at(double seconds) {
    return epoch.addMSecs(qint64(seconds * 1000)).toString(Qt::ISODateWithMs).toStdString();
}

json row(const std::string& id, double seconds, const std::string& urgency = "normal") {
    return {{"id", id},
            {"title", "T " + id},
            {"created_at", at(seconds)},
            {"urgency_effective", urgency},
            {"link", "/inbox/" + id}};
}

// The model on a settings file, the local server, a recording notifier and a
// clock that moves only when told.
struct Feed {
    std::optional<DevServer> ownServer;
    std::string origin;
    QTemporaryDir dir;
    QString settingsPath;
    QSettings settings;
    std::shared_ptr<NotifyDefaultsStore> store = std::make_shared<NotifyDefaultsStore>(settings);
    HTTPClient http;
    bool signedIn = true;
    double seconds = 0;
    std::vector<QString> shown;
    std::function<void(const QString& id)> desktop = [](const QString&) {}; // throws to refuse
    std::vector<QString> lines;
    log::ScopedSink sink{
        [this](log::Level, const char*, const QString& text) { lines.push_back(text); }};
    std::unique_ptr<NotifyFeedModel> model;

    explicit Feed(std::string serverOrigin = {}, QString path = {})
        : origin(serverOrigin.empty() ? ownServer.emplace().origin() : serverOrigin),
          settingsPath(path.isEmpty() ? dir.filePath(u"VelmoraTessel.conf"_s) : path),
          settings(settingsPath, QSettings::IniFormat) {}

    NotifyFeedModel& build() {
        const TokenProvider token = [this] { return std::optional(u"vses_feed"_s); };
        model = std::make_unique<NotifyFeedModel>(
            [this, token] {
                return std::make_shared<NotifyAPI>(std::nullopt, token, http, settings,
                                                   QString::fromStdString(origin) + u"/notify"_s);
            },
            [this] { return signedIn ? std::optional(u"127.0.0.1:vses_feed"_s) : std::nullopt; },
            [this](NotifyDesktopNotification n) -> Task<void> {
                desktop(n.id);
                shown.push_back(n.id);
                co_return;
            },
            store, [this] { return epoch.addMSecs(qint64(seconds * 1000)); });
        return *model;
    }
    void poll() { wait(model->poll()); }
    void add(const std::vector<json>& rows, bool exact = false) const {
        ownServer->control("notify/rows", {{"rows", rows}, {"exact", exact}});
    }
    bool logged(const QString& line) const {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }
};

} // namespace

TEST(NotifyFeed, FirstPollSeedsQuietly) {
    // Three old rows become history; with none the watermark is now.
    for (const bool withRows : {true, false}) {
        Feed feed;
        if (withRows) {
            feed.add({row("a", -100), row("b", -10), row("c", -50)});
        }
        feed.seconds = 7;
        feed.build();
        feed.poll();
        EXPECT_TRUE(feed.shown.empty());
        EXPECT_TRUE(feed.model->seededQuietly());
        EXPECT_EQ(feed.store->shownIDs(),
                  withRows ? (QStringList{u"c"_s, u"b"_s, u"a"_s}) : QStringList());
        EXPECT_EQ(feed.store->shownCreatedAtWatermark(), epoch.addSecs(withRows ? -10 : 7));

        feed.add({row("new", 20)});
        feed.seconds = 37;
        feed.poll();
        EXPECT_EQ(feed.shown, std::vector<QString>{u"new"_s});
    }
}

// The popover rebuilds on `changed`: a poll that finds things as they were
// must not send it, one that finds a new row must.
TEST(NotifyFeed, ChangedOnlyWhenThereIsNews) {
    Feed feed;
    feed.add({row("a", -10)});
    feed.build();
    feed.poll();
    int changes = 0;
    QObject::connect(feed.model.get(), &NotifyFeedModel::changed, [&changes] { ++changes; });
    feed.seconds = 30;
    feed.poll();
    EXPECT_EQ(feed.ownServer->requests("notify_count"), 2);
    EXPECT_EQ(changes, 0);
    feed.add({row("b", 35)});
    feed.seconds = 60;
    feed.poll();
    EXPECT_EQ(feed.model->unread(), 2);
    EXPECT_GE(changes, 1);
}

TEST(NotifyFeed, RowsAgainstShownIDsAndTheWatermark) {
    Feed feed;
    feed.store->setShownIDs({u"old"_s});
    feed.store->setShownCreatedAtWatermark(epoch);
    feed.add({row("old", -1), row("edge", -600), row("inside", -599), row("digest", 5, "digest")});
    feed.add({row("inside", -599), {{"id", "bad"}, {"created_at", "yesterday"}}});
    feed.build();
    feed.poll();

    EXPECT_EQ(feed.shown, std::vector<QString>{u"inside"_s}); // once, though listed twice
    EXPECT_TRUE(feed.logged(u"row edge: older than the watermark; skipped"_s));
    EXPECT_TRUE(feed.logged(u"row bad: created_at 'yesterday' did not parse; skipped"_s));
    EXPECT_EQ(feed.store->shownIDs(), (QStringList{u"old"_s, u"inside"_s}));
    EXPECT_EQ(feed.store->shownCreatedAtWatermark(), epoch); // an older row leaves it
    EXPECT_EQ(feed.model->unread(), 6);

    // A click marks one row read on the server.
    wait(feed.model->markRead({u"inside"_s}));
    EXPECT_EQ(feed.model->unread(), 4); // both "inside" rows
}

TEST(NotifyFeed, AfterA401NoRequestFor300Seconds) {
    Feed feed;
    feed.ownServer->revoke("vses_feed");
    feed.build();
    feed.poll();
    EXPECT_EQ(feed.model->humanLine(), HTTPFailure::signInLine);
    EXPECT_EQ(feed.model->nextPollInterval(), 300);
    EXPECT_EQ(feed.model->loopDelay(), 30);
    for (feed.seconds = 30; feed.seconds < 300; feed.seconds += 30) {
        feed.model->setDesktopNotifications(feed.seconds != 60); // off and on again
        feed.poll();
    }
    EXPECT_EQ(feed.ownServer->requests("notify_count"), 1);
    feed.seconds = 300;
    feed.poll();
    EXPECT_EQ(feed.ownServer->requests("notify_count"), 2);
    EXPECT_EQ(feed.model->consecutiveFailures(), 2);
}

TEST(NotifyFeed, ASignOutDuringCountStoresNothing) {
    Feed feed;
    feed.add({row("a", 0)});
    feed.ownServer->delay("notify_count", 1, 300);
    feed.build();
    auto polling = feed.model->poll();
    feed.signedIn = false;
    wait(std::move(polling));
    EXPECT_FALSE(feed.model->seededQuietly());
    EXPECT_TRUE(feed.store->shownIDs().isEmpty());
    EXPECT_FALSE(feed.store->shownCreatedAtWatermark());

    feed.poll();
    EXPECT_TRUE(feed.logged(u"poll skipped: not signed in"_s));
    EXPECT_EQ(feed.model->unread(), 0);
}

TEST(NotifyFeed, ARefusedRowIsTriedAgainAtTheNextPoll) {
    Feed feed;
    feed.store->setShownIDs({u"x"_s});
    feed.store->setShownCreatedAtWatermark(epoch);
    feed.add({row("r1", 1), row("r2", 2)});
    int refusals = 2;
    feed.desktop = [&](const QString& id) {
        if (id == u"r2"_s && refusals-- > 0) {
            throw TesselError(u"Desktop notifications are off."_s);
        }
    };
    feed.build();
    feed.poll(); // r2 refused, then r1 shown
    EXPECT_EQ(feed.shown, std::vector<QString>{u"r1"_s});
    EXPECT_EQ(feed.model->deliveryFailures(), 0);
    EXPECT_FALSE(feed.model->deliveryLine());

    feed.seconds = 30;
    feed.poll(); // r2 refused again
    EXPECT_EQ(feed.model->deliveryFailures(), 1);
    EXPECT_EQ(feed.model->deliveryLine(),
              u"Desktop notifications are off for Velmora in your desktop's notification "
              u"settings."_s);

    feed.seconds = 60;
    feed.poll();
    EXPECT_EQ(feed.shown, (std::vector<QString>{u"r1"_s, u"r2"_s}));
    EXPECT_EQ(feed.store->shownCreatedAtWatermark(), epoch.addSecs(2));
}

// The settings file keeps no types: a new process reads a list of one id back
// as plain text. Run in a child process by the test below.
TEST(NotifyFeedRestart, DISABLED_Child) {
    Feed feed(qEnvironmentVariable("TESSEL_NOTIFY_ORIGIN").toStdString(),
              qEnvironmentVariable("TESSEL_NOTIFY_SETTINGS"));
    feed.seconds = 60;
    ASSERT_EQ(feed.settings.value(u"notifyShownIDs"_s).metaType(), QMetaType::fromType<QString>());
    feed.build();
    feed.poll();
    EXPECT_TRUE(feed.logged(u"poll: unread=1 rows=1 shown=1 watermark=2030-01-01T00:00:05.000Z"_s));
    EXPECT_TRUE(feed.shown.empty());
}

TEST(NotifyFeedRestart, ANewProcessDoesNotShowAShownRowAgain) {
    Feed feed;
    feed.build();
    feed.poll(); // seeds an empty feed
    feed.add({row("a", 5)});
    feed.seconds = 30;
    feed.poll();
    ASSERT_EQ(feed.shown, std::vector<QString>{u"a"_s});
    feed.model.reset();

    QProcess child;
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"TESSEL_NOTIFY_ORIGIN"_s, QString::fromStdString(feed.origin));
    environment.insert(u"TESSEL_NOTIFY_SETTINGS"_s, feed.settingsPath);
    child.setProcessEnvironment(environment);
    child.setProcessChannelMode(QProcess::MergedChannels);
    child.start(QCoreApplication::applicationFilePath(),
                {u"--gtest_filter=NotifyFeedRestart.DISABLED_Child"_s,
                 u"--gtest_also_run_disabled_tests"_s});
    ASSERT_TRUE(child.waitForFinished(60000));
    const QString output = QString::fromUtf8(child.readAll());
    EXPECT_EQ(child.exitCode(), 0) << output.toStdString();
    EXPECT_TRUE(output.contains(u"[  PASSED  ] 1 test"_s)) << output.toStdString();
}

TEST(NotifyAPI, AddressesTokensAndAnswers) {
    Feed feed;
    // The address: given, else the settings' text, else the service's.
    const QString local = QString::fromStdString(feed.origin) + u"/notify"_s;
    const std::vector<std::tuple<QVariant, QString, QString>> addresses = {
        {QVariant(), local, QString()},
        {u"http://127.0.0.1:9/n"_s, u"http://127.0.0.1:9/n"_s, QString()},
        {42, local, QString()}, // not text: absent
        {u"http://example.com/n"_s, QString(),
         u"The organisation address is invalid — enter the secure meet address for your "
         u"organisation."_s},
        {u""_s, QString(), u"The notification service address is invalid."_s},
    };
    for (const auto& [stored, base, error] : addresses) {
        feed.settings.setValue(u"notifyBaseURL"_s, stored);
        try {
            const NotifyAPI api(std::nullopt, {}, feed.http, feed.settings, local);
            EXPECT_EQ(api.baseURL().toString(), base);
        } catch (const TesselError& failure) {
            EXPECT_EQ(failure.message(), error);
        }
    }
    feed.settings.remove(u"notifyBaseURL"_s);

    // An empty token sends nothing; an empty mark-read asks for no token.
    int asked = 0;
    const NotifyAPI api(
        std::nullopt, [&] { return ++asked, std::optional(QString()); }, feed.http, feed.settings,
        local);
    const auto failure = failureOf(api.count());
    ASSERT_TRUE(failure);
    try {
        std::rethrow_exception(failure);
    } catch (const HTTPFailure& refused) {
        EXPECT_EQ(refused.status, 401);
        EXPECT_EQ(refused.detail, u"No current member session"_s);
    }
    EXPECT_EQ(wait(api.markRead({})), 0);
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(feed.ownServer->requests("notify_count"), 0);

    // Rows: a link may be absent or null; a row without "source" fails the answer.
    const auto rows = NotifyAPI::decodeFeed(
        R"({"count":2,"data":[{"id":"a","title":"t","body":"b","urgency_effective":"normal",
            "created_at":"soon","event_type":"e","source":"s"},
           {"id":"b","title":"t","body":"b","link":null,"urgency_effective":"normal",
            "created_at":"soon","event_type":"e","source":"s"}]})");
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_FALSE(rows[0].link || rows[1].link);
    EXPECT_THROW(NotifyAPI::decodeFeed(R"({"count":1,"data":[{"id":"a","title":"t","body":"b",
        "urgency_effective":"normal","created_at":"x","event_type":"e"}]})"),
                 DecodingError);
}
