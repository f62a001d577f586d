#include "subscriptions/SubscriptionsTestSupport.h"

#include "net/InternetDate.h"

#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::test;
using namespace Qt::Literals::StringLiterals;

namespace {

const QString window42 = uR"({"kind":"session","label":"5h","used_pct":42})"_s;

MeterlySnapshot::Seat oneSeat(const QString& extra, const QString& windows = window42,
                              const QString& provider = u"codex"_s) {
    return reading({seatJSON(u"s"_s, provider, u"work"_s, extra, windows)}).seats.at(0);
}

} // namespace

TEST(MeterlySnapshot, WrongJSONTypesFailTheWholeReading) {
    const QString good = seatJSON(u"a"_s, u"claude"_s, u"a"_s, {}, window42);
    const QList<QString> bad = {
        seatJSON(u"b"_s, u"3"_s, u"b"_s).replace(uR"("provider":"3")"_s, uR"("provider":3)"_s),
        seatJSON(u"b"_s, u"codex"_s, u"b"_s, {},
                 uR"({"kind":"session","label":"x","used_pct":42.5})"_s),
        seatJSON(u"b"_s, u"codex"_s, u"b"_s).replace(uR"("note":"")"_s, uR"("note":null)"_s),
        seatJSON(u"b"_s, u"codex"_s, u"b"_s).replace(uR"("live":false)"_s, uR"("live":"false")"_s),
        seatJSON(u"b"_s, u"codex"_s, u"b"_s, uR"(,"status":7)"_s),
        seatJSON(u"b"_s, u"codex"_s, u"b"_s).replace(uR"("account":"b",)"_s, QString()),
    };
    for (const auto& seat : bad) {
        EXPECT_THROW(reading({good, seat}), DecodingError) << seat.toStdString();
    }
    EXPECT_THROW(MeterlySnapshot::parse(u"{\"seats\":[]"_s), DecodingError);
    EXPECT_THROW(MeterlySnapshot::parse(u"{\"fetched_at\":\"x\",\"seats\":[]}"_s), DecodingError);
    // A whole number written with a point is still whole; optional null is absent.
    const auto seat =
        oneSeat(uR"(,"email":null)"_s, uR"({"kind":"session","label":"x","used_pct":42.0})"_s);
    EXPECT_EQ(seat.windows.at(0).usedPct, 42);
    EXPECT_FALSE(seat.email);
}

TEST(MeterlySnapshot, UnknownWordsReadAsUnknownAndComeBackSo) {
    const auto snapshot =
        reading({seatJSON(u"f"_s, u"foo"_s, u"f"_s, uR"(,"status":"ok ","extra":1)"_s,
                          uR"({"kind":"hourly","label":"x"})"_s)
                     .replace(uR"("verb":"ok")"_s, uR"("verb":"hold")"_s)});
    const auto& seat = snapshot.seats.at(0);
    EXPECT_EQ(seat.provider, MeterlyProvider::unknown);
    EXPECT_EQ(seat.windows.at(0).kind, MeterlyWindowKind::unknown);
    EXPECT_EQ(seat.status, MeterlyStatus::unknown);
    EXPECT_EQ(seat.displayStatus(), MeterlyStatus::hold);

    const QByteArray saved = snapshot.toJSON();
    EXPECT_TRUE(saved.contains(R"("provider":"unknown")"));
    EXPECT_FALSE(saved.contains("email"));
    EXPECT_FALSE(saved.contains("summary"));
    EXPECT_EQ(MeterlySnapshot::parse(QByteArrayView(saved)), snapshot);
}

TEST(MeterlySnapshot, DerivedPercentages) {
    struct Case {
        QString windows;
        QString extra;
        std::optional<double> firstUsed;
        std::optional<double> binding;
    };
    const QList<Case> cases = {
        {uR"({"kind":"session","label":"5h","used_pct":120})"_s, {}, 120, 100},
        {uR"({"kind":"session","label":"5h","remaining_pct":130})"_s, {}, -30, 0},
        {uR"({"kind":"session","label":"5h","used_pct":10},{"kind":"weekly","label":"7d","used_pct":60})"_s,
         {},
         10,
         60},
        {window42, uR"(,"binding":"weekly")"_s, 42, std::nullopt},
        {window42, uR"(,"binding":"5h","binding_pct":77.5)"_s, 42, 77.5},
        {uR"({"kind":"credits","label":"$","remaining":5})"_s, {}, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        const auto seat = oneSeat(c.extra, c.windows);
        EXPECT_EQ(seat.windows.at(0).displayUsedPct(), c.firstUsed) << c.windows.toStdString();
        EXPECT_EQ(seat.displayBindingPct(), c.binding) << c.windows.toStdString();
    }
}

TEST(MeterlySnapshot, DisplayStatusLabelAndUsability) {
    EXPECT_EQ(oneSeat(uR"(,"note":"no figures")"_s, {}).displayStatus(), MeterlyStatus::unreadable);
    EXPECT_EQ(oneSeat({}, {}).displayStatus(), MeterlyStatus::ok);
    EXPECT_EQ(oneSeat(uR"(,"error":{"code":"x","message":"m"})"_s).displayStatus(),
              MeterlyStatus::unreadable);
    EXPECT_TRUE(oneSeat(uR"(,"status":"stale")"_s).isStale());

    EXPECT_EQ(oneSeat(uR"(,"plan":"N/A")"_s).displayLabel(), u"Codex"_s);
    EXPECT_EQ(oneSeat(uR"(,"plan":"Pro","short":"cx")"_s).displayLabel(), u"cx · Pro"_s);
    EXPECT_EQ(oneSeat(uR"(,"email":"w@x.io")"_s, window42, u"claude"_s).displayLabel(),
              u"work · w@x.io"_s);

    const QString error = uR"(,"error":{"code":"x","message":"m"})"_s;
    const auto failed = [&](const QString& w) {
        return seatJSON(u"e"_s, u"kimi"_s, u"e"_s, error, w);
    };
    EXPECT_FALSE(reading({failed(window42), failed(window42)}).hasUsableReading());
    EXPECT_FALSE(reading({seatJSON(u"n"_s, u"kimi"_s, u"n"_s)}).hasUsableReading());
    EXPECT_TRUE(
        reading({failed(window42), seatJSON(u"n"_s, u"kimi"_s, u"n"_s)}).hasUsableReading());
}

TEST(MeterlySnapshot, FallbackFromTheAccountsTool) {
    const QDateTime fetched = at("2024-05-06T10:00:00Z");
    VantorAccount a;
    a.live = true;
    a.name = u"main"_s;
    a.fiveHourPercent = 30;
    a.fiveHourReset = fetched.addSecs(604800); // the end of the week counts
    a.sevenDayReset = fetched;                 // the start does not
    VantorAccount b;
    b.name = u"side"_s;
    b.fiveHourReset = fetched.addSecs(3600);
    b.sevenDayReset = fetched.addSecs(604801);

    const auto snapshot = MeterlySnapshot::fallback({a, b}, fetched);
    EXPECT_EQ(snapshot.fetchedAt, u"2024-05-06T10:00:00Z"_s);
    ASSERT_EQ(snapshot.seats.size(), 2);
    EXPECT_EQ(snapshot.seats[0].id, u"claude:main"_s);
    EXPECT_EQ(snapshot.seats[0].windows.size(), 3);
    EXPECT_EQ(snapshot.seats[0].windows[0].usedPct, 30);
    EXPECT_EQ(snapshot.seats[0].windows[2].label, u"Fable"_s);
    ASSERT_EQ(snapshot.timeline.size(), 2);
    EXPECT_EQ(snapshot.timeline[0].seat, u"claude:side"_s);
    EXPECT_EQ(snapshot.timeline[1].resetsAt, u"2024-05-13T10:00:00Z"_s);
}

TEST(InternetDate, OnlyTheInternetForm) {
    EXPECT_EQ(parseInternetDate(u"2024-05-06T12:00:00.250+02:00"), at("2024-05-06T10:00:00.250Z"));
    for (const auto* text : {"2024-05-06T12:00:00", "2024-05-06 12:00:00Z", "2024-05-06T12:00Z",
                             "2024-05-06T12:00:00+0200", "2024-02-30T12:00:00Z"}) {
        EXPECT_FALSE(parseInternetDate(QString::fromLatin1(text))) << text;
    }
}
