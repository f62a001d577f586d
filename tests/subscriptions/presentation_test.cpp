#include "subscriptions/MeterlyPresentation.h"
#include "subscriptions/SubscriptionsTestSupport.h"

#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::test;
using namespace Qt::Literals::StringLiterals;

namespace {

class MeterlyPresentationTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { pinLocaleAndZone(); }

    static MeterlyPresentation present(const MeterlySnapshot& snapshot,
                                       const char* now = "2024-05-06T10:30:00Z") {
        return MeterlyPresentation(snapshot, at(now), testLocale(), testZone());
    }
};

} // namespace

TEST_F(MeterlyPresentationTest, TheCleanerCutsCommandsNamesSeatsAndWordsTimes) {
    const auto seats = reading({seatJSON(u"claude:work"_s, u"claude"_s, u"work"_s)}).seats;
    const QList<std::pair<QString, QString>> cases = {
        {u"Capped until 2024-05-06T14:30:00Z. Run: meterly use claude:work"_s,
         u"Capped until 4:30 PM."_s},
        {u"Quota will run out by Friday"_s, u"Quota will"_s},
        {u"Switch with vantor-accounts use side now"_s, u"Switch with"_s},
        {u"— codex:team → claude:work · "_s, u"team to work"_s},
        {u"  a — b\n"_s, u"a — b"_s},
        {u"bad 2024-13-40T99:00:00Z stays"_s, u"bad 2024-13-40T99:00:00Z stays"_s},
    };
    for (const auto& [raw, clean] : cases) {
        EXPECT_EQ(MeterlyPresentation::human(raw, seats), clean) << raw.toStdString();
    }
}

TEST_F(MeterlyPresentationTest, ResetRenewalAndMoneyTexts) {
    const QDateTime now = at("2024-05-06T10:00:00Z");
    const auto reset = [&](std::optional<double> seconds, std::optional<QString> at = {}) {
        return MeterlyPresentation::resetText(at, seconds, now, testLocale(), testZone());
    };
    EXPECT_EQ(reset(59), u"resets in 1m"_s);
    EXPECT_EQ(reset(3600), u"resets in 1h"_s);
    EXPECT_EQ(reset(3601), u"resets in 2h"_s);
    EXPECT_EQ(reset(86400), u"resets Tue 12:00"_s);
    EXPECT_EQ(reset(0), u"resets now"_s);
    EXPECT_EQ(reset(std::nullopt, u"2024-05-06T09:00:00Z"_s), u"resets now"_s);
    EXPECT_EQ(reset(std::nullopt, u"soon"_s), QString());

    const auto renewal = [&](std::optional<QString> source) {
        return MeterlyPresentation::renewalText(u"2024-05-07T10:00:00Z"_s, source, u"Codex"_s,
                                                testLocale(), testZone());
    };
    EXPECT_EQ(renewal(u"reported"_s), u"Renews 7 May (reported)"_s);
    EXPECT_EQ(renewal(u"inferred"_s),
              u"Renews Tue 7 May, 12:00 (inferred from subscription start)"_s);
    EXPECT_EQ(MeterlyPresentation::renewalText({}, {}, u"Codex"_s, testLocale(), testZone()),
              u"Renewal date not exposed by Codex"_s);

    EXPECT_EQ(MeterlyPresentation::money(7, u"USD"_s), u"$7.00"_s);
    EXPECT_EQ(MeterlyPresentation::money(7, std::nullopt), u"$7.00"_s);
    EXPECT_EQ(MeterlyPresentation::money(7, u"EUR"_s), u"7.00 EUR"_s);
    // As printf rounds: an exact half goes to the even digit, 2.675 lies below its half.
    EXPECT_EQ(MeterlyPresentation::money(0.625, std::nullopt), u"$0.62"_s);
    EXPECT_EQ(MeterlyPresentation::money(0.375, std::nullopt), u"$0.38"_s);
    EXPECT_EQ(MeterlyPresentation::money(2.675, std::nullopt), u"$2.67"_s);
}

TEST_F(MeterlyPresentationTest, SeatsInDisplayOrderWithTheirWords) {
    const auto live = uR"(,"live":true)"_s;
    const auto snapshot = reading(
        {seatJSON(u"k"_s, u"kimi"_s, u"k"_s, {},
                  uR"({"kind":"session","label":"5h","remaining_pct":0.1,"resets_in_s":3700})"_s),
         seatJSON(u"z"_s, u"zai"_s, u"z"_s, {},
                  uR"({"kind":"session","label":"5h","used_pct":250},)"
                  uR"({"kind":"credits","label":"$","remaining":3.5})"_s),
         seatJSON(u"c1"_s, u"claude"_s, u"one"_s),
         seatJSON(
             u"c2"_s, u"claude"_s, u"two"_s,
             live +
                 uR"(,"stale":true,"note":"old",)"
                 uR"("error":{"code":"e","message":"broken"},"links":{"usage":"file:///x","billing":"https://b.io/x"})"_s),
         seatJSON(u"c3"_s, u"claude"_s, u"three"_s, live)});
    const auto p = present(snapshot);
    QStringList order;
    for (const auto& seat : p.seats) {
        order.append(seat.id);
    }
    EXPECT_EQ(order, (QStringList{u"c2"_s, u"c3"_s, u"c1"_s, u"z"_s, u"k"_s}));

    // 0.1 remaining is 99.9 used: truncated, never rounded up to full. The saved
    // 3700 s count down from the reading's time, 30 minutes ago.
    EXPECT_EQ(p.seats[4].windows[0].value, u"99%"_s);
    EXPECT_EQ(p.seats[4].windows[0].reset, u"resets in 32m"_s);
    EXPECT_EQ(p.seats[3].windows[0].value, u"100%"_s);
    EXPECT_EQ(p.seats[3].windows[1].value, u"$3.50 left"_s);
    EXPECT_EQ(p.seats[3].creditValue, u"$3.50"_s);
    EXPECT_EQ(p.seats[3].percent, 100);

    const auto& stale = p.seats[0];
    EXPECT_EQ(stale.note, u"old"_s);
    EXPECT_EQ(stale.lastRead, u"Last read 12:00 PM"_s);
    EXPECT_FALSE(stale.usageURL);
    EXPECT_EQ(stale.billingURL, QUrl(u"https://b.io/x"_s));
    EXPECT_TRUE(stale.live);
}

TEST_F(MeterlyPresentationTest, SummaryTintAndNotifications) {
    const auto spend = uR"(,"advice":{"verb":"spend","reason":"go"})"_s;
    const auto seats =
        QStringList{seatJSON(u"claude:work"_s, u"claude"_s, u"work"_s, spend),
                    seatJSON(u"codex"_s, u"codex"_s, u"team"_s, uR"(,"stale":true)"_s)};
    const auto alerts =
        uR"(,"alerts":["work: 5h capped — run x","work: 7d at 90%","codex: hold","x: rate-limit hit"])"_s;

    const auto plain = present(reading(seats, alerts));
    EXPECT_EQ(plain.seats[0].status, MeterlyStatus::spend);
    EXPECT_EQ(plain.summaryTint, MeterlyTint::orange);
    ASSERT_EQ(plain.notifications.size(), 2);
    EXPECT_EQ(plain.notifications[0],
              (MeterlyPresentation::Notification{u"work: 5h capped — run x"_s, u"Claude · work"_s,
                                                 u"work: 5h capped"_s}));

    // Details claim lines one by one; an unclaimed detail makes its own key, a
    // stale seat's detail says nothing, and an empty list silences the lines.
    const auto details = alerts +
                         uR"(,"alerts_detail":[)"
                         uR"({"seat":"claude:work","human":"5h capped","status":"capped"},)"
                         uR"({"seat":"claude:work","human":"7d high"},)"
                         uR"({"seat":"claude:work","human":"third"},)"
                         uR"({"seat":"codex","human":"held"}])"_s;
    const auto detailed = present(reading(seats, details));
    EXPECT_EQ(detailed.summaryTint, MeterlyTint::red);
    ASSERT_EQ(detailed.notifications.size(), 3);
    EXPECT_EQ(detailed.notifications[0].key, u"work: 5h capped — run x"_s);
    EXPECT_EQ(detailed.notifications[1].key, u"work: 7d at 90%"_s);
    EXPECT_EQ(detailed.notifications[2].key, u"claude:work: third"_s);
    EXPECT_TRUE(
        present(reading(seats, alerts + uR"(,"alerts_detail":[])"_s)).notifications.isEmpty());

    const auto empty = present(MeterlySnapshot::emptyDashboard());
    EXPECT_TRUE(empty.seats.isEmpty());
    EXPECT_EQ(empty.summaryTint, MeterlyTint::secondary);
}
