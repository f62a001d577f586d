#include "subscriptions/Meterly.h"
#include "subscriptions/SubscriptionsTestSupport.h"

#include "support/FakeClock.h"
#include "support/Files.h"
#include "support/Wait.h"

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::test;
using namespace Qt::Literals::StringLiterals;

namespace {

const QString goodReading =
    uR"({"fetched_at":"2024-05-06T10:00:00Z","alerts":[],"next":{},"timeline":[],"seats":[)"
    uR"({"id":"codex","provider":"codex","provider_label":"Codex","account":"t","live":false,)"
    uR"("windows":[{"kind":"session","label":"5h","used_pct":4}],)"
    uR"("advice":{"verb":"ok","reason":""},"note":""}]})"_s;

struct MeterlyTest : ::testing::Test {
    FakeClock clock;
    int runs = 0;
    ToolOutput answer{goodReading, {}, 0};
    std::shared_ptr<MeterlyClient> client = MeterlyClient::create(
        [this](QStringList arguments, CancellationToken token) {
            return run(this, std::move(arguments), std::move(token));
        },
        60, clock.nowFunction());

    static Task<ToolOutput> run(MeterlyTest* test, QStringList arguments, CancellationToken token) {
        EXPECT_EQ(arguments, (QStringList{u"status"_s, u"--json"_s}));
        ++test->runs;
        co_await test->clock.sleep(5, token);
        co_return ToolOutput(test->answer); // co_return of an lvalue would move it
    }
};

QString mode(const QString& path) {
    return QString::number(QFileInfo(path).permissions() & 0x0FFF, 16);
}

QByteArray contents(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

} // namespace

TEST_F(MeterlyTest, CallersJoinTheRunAndItsOutcomeStandsForAMinute) {
    auto a = client->status();
    auto b = client->status();
    clock.advance(5);
    const auto first = wait(std::move(a));
    EXPECT_EQ(first.seats.size(), 1);
    EXPECT_EQ(wait(std::move(b)), first);
    EXPECT_EQ(runs, 1);

    clock.now = 65;
    answer = {u"out"_s, u"\nmeterly: not signed in\n"_s, 2};
    auto failing = client->status();
    clock.advance(5);
    EXPECT_THROW(wait(std::move(failing)), VantorAccountsError);
    EXPECT_EQ(runs, 2);

    clock.now += 10; // the same failure, from the cache
    try {
        wait(client->status());
        ADD_FAILURE();
    } catch (const VantorAccountsError& error) {
        EXPECT_EQ(error.sentence(), u"meterly: not signed in"_s);
        EXPECT_EQ(error.exitCode(), 2);
    }
    EXPECT_EQ(runs, 2);

    clock.now += 50;
    answer = {u"{\"seats\":"_s, {}, 0};
    auto junk = client->status();
    clock.advance(5);
    EXPECT_THROW(wait(std::move(junk)), DecodingError);
    EXPECT_EQ(runs, 3);
}

TEST(MeterlySnapshotStore, KeepsOnlyUsableReadingsPrivately) {
    QTemporaryDir home;
    const MeterlySnapshotStore store(home.path() + u"/share"_s);
    EXPECT_FALSE(store.load());

    const auto good = MeterlySnapshot::parse(goodReading);
    store.save(good);
    EXPECT_EQ(store.load(), good);
    EXPECT_EQ(mode(store.path), u"600"_s);
    EXPECT_EQ(mode(home.path() + u"/share/Velmora"_s), u"700"_s);

    auto failed = good;
    failed.seats[0].error = MeterlySnapshot::SeatError{u"x"_s, u"y"_s};
    store.save(failed);
    EXPECT_EQ(store.load(), good);

    test::writeFile(store.path, failed.toJSON());
    EXPECT_FALSE(store.load());
}

TEST(MeterlyAlertsStore, DeliversNewKeysOnceAndForgetsGoneOnes) {
    QTemporaryDir home;
    const auto store = MeterlyAlertsStore::create(MeterlyAlertsStore::defaultPath(home.path()));
    QStringList delivered;
    const auto deliver = [&delivered](QString key) -> Task<void> {
        delivered.append(key);
        co_await sleepFor(0.001);
        if (key.startsWith(u'B')) {
            throw TesselError(u"refused "_s + key);
        }
    };

    try {
        wait(store->notifyNew({u"A"_s, u"B1"_s, u""_s, u"A"_s, u"B2"_s}, deliver));
        ADD_FAILURE();
    } catch (const TesselError& error) {
        EXPECT_EQ(error.message(), u"refused B2"_s); // the last failure
    }
    EXPECT_EQ(contents(store->path()), "A\n");
    EXPECT_EQ(mode(store->path()), u"600"_s);

    // Two calls at once run one after the other; A stands, only the new C goes out.
    delivered.clear();
    auto first = store->notifyNew({u"A"_s, u"C"_s}, deliver);
    auto second = store->notifyNew({u"C"_s, u"D"_s}, deliver);
    wait(std::move(first));
    wait(std::move(second));
    EXPECT_EQ(delivered, (QStringList{u"C"_s, u"D"_s}));
    EXPECT_EQ(contents(store->path()), "C\nD\n");

    wait(store->notifyNew({}, deliver));
    EXPECT_EQ(contents(store->path()), "");
}
