#include "subscriptions/SubscriptionsDashboardContent.h"
#include "subscriptions/SubscriptionsTestSupport.h"

#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::test;
using namespace Qt::Literals::StringLiterals;

namespace {

class DashboardTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { pinLocaleAndZone(); }

    static SubscriptionsDashboardContent build(const MeterlySnapshot& snapshot,
                                               const QDateTime& now) {
        return SubscriptionsDashboardContent(snapshot, now, testLocale(), testZone());
    }
};

} // namespace

TEST_F(DashboardTest, HowOldTheReadingIs) {
    const QDateTime fetched = at("2024-05-06T10:00:00Z");
    const QList<std::pair<int, QString>> ages = {
        {-10, u"Updated just now"_s},    {59, u"Updated just now"_s}, {60, u"Updated 1 min ago"_s},
        {3599, u"Updated 59 min ago"_s}, {3600, u"Updated 1h ago"_s}, {86399, u"Updated 23h ago"_s},
        {86400, u"Updated 1d ago"_s}};
    for (const auto& [seconds, text] : ages) {
        const auto content = build(reading({}), fetched.addSecs(seconds));
        EXPECT_EQ(content.updated, text) << seconds;
        EXPECT_EQ(content.fetched, u"Fetched 6 May, 12:00"_s);
    }
    const auto empty = build(MeterlySnapshot::emptyDashboard(), fetched);
    EXPECT_EQ(empty.updated, u"Waiting for a reading"_s);
    EXPECT_EQ(empty.fetched, u"No reading yet"_s);
    EXPECT_TRUE(empty.cards.isEmpty() && empty.days.isEmpty() && empty.spendOrder.isEmpty());
}

TEST_F(DashboardTest, TheWeekAheadCountsCalendarDays) {
    // Summer time starts in Berlin on 31 March: the week from 28 March, 13:00
    // local, ends 167 hours later at 4 April, 13:00 local.
    const QDateTime now = at("2024-03-28T12:00:00Z");
    const auto seats =
        QStringList{seatJSON(u"claude:a"_s, u"claude"_s, u"a"_s),
                    seatJSON(u"claude:b"_s, u"claude"_s, u"b"_s, uR"(,"live":true)"_s)};
    const auto timeline =
        uR"(,"timeline":[)"
        uR"({"seat":"claude","label":"Renewal","resets_at":"2024-04-04T11:00:00Z"},)"
        uR"({"seat":"claude:a","label":"5h","resets_at":"2024-03-28T12:00:00Z"},)"
        uR"({"seat":"x:y","label":"7d reset","resets_at":"2024-03-29T08:00:00Z"},)"
        uR"({"seat":"claude:a","label":"late","resets_at":"2024-04-04T11:00:01Z"},)"
        uR"({"seat":"claude:a","label":"past","resets_at":"2024-03-28T11:59:59Z"},)"
        uR"({"seat":"claude:a","label":"bad","resets_at":"soon"},)"
        uR"({"seat":"claude:a","label":"twin","resets_at":"2024-03-28T12:00:00Z"}])"_s;
    const auto content = build(reading(seats, timeline), now);

    ASSERT_EQ(content.days.size(), 3);
    EXPECT_EQ(content.days[0].title, u"Today"_s);
    EXPECT_EQ(content.days[0].id, QDateTime(QDate(2024, 3, 28), QTime(0, 0), testZone()));
    EXPECT_EQ(content.days[1].title, u"Tomorrow"_s);
    EXPECT_EQ(content.days[2].title, u"Thu 4 Apr"_s);
    ASSERT_EQ(content.days[0].events.size(), 2);
    EXPECT_EQ(content.days[0].events[0].line, u"13:00 · a · 5h resets"_s);
    EXPECT_EQ(content.days[0].events[1].id, 6);
    EXPECT_EQ(content.days[1].events[0].line, u"09:00 · y · 7d reset"_s);
    const auto& renewal = content.days[2].events.at(0);
    EXPECT_EQ(renewal.line, u"13:00 · b · renews"_s);
    EXPECT_TRUE(renewal.isRenewal);
}

TEST_F(DashboardTest, SpendOrderAttentionAndCards) {
    const auto error = uR"(,"error":{"code":"x","message":"token expired"},"status":"capped")"_s;
    const auto seats =
        QStringList{seatJSON(u"claude:a"_s, u"claude"_s, u"a"_s, uR"(,"email":"a@x.io")"_s,
                             uR"({"kind":"session","label":"5h","used_pct":5})"_s),
                    seatJSON(u"claude:b"_s, u"claude"_s, u"b"_s,
                             uR"(,"live":true,"stale":true,"status":"hold")"_s),
                    seatJSON(u"codex"_s, u"codex"_s, u"team"_s, error,
                             uR"({"kind":"session","label":"5h","used_pct":5})"_s)};
    const auto extra =
        uR"(,"next":{"zeta":"nobody","probes":"claude","build":"codex","alpha":"a"},)"
        uR"("alerts_detail":[{"seat":"codex","human":"codex:team is capped"},)"
        uR"({"seat":"ghost","short":"gh","human":"gone","status":"spend"}])"_s;
    const auto content = build(reading(seats, extra), at("2024-05-06T10:00:00Z"));

    QStringList order;
    for (const auto& pair : content.spendOrder) {
        order.append(pair.role + u'=' + pair.seat);
    }
    EXPECT_EQ(order,
              (QStringList{u"Build=Codex"_s, u"Probes=b"_s, u"Alpha=a"_s, u"Zeta=nobody"_s}));
    EXPECT_EQ(content.useNow().size(), 3);

    ASSERT_EQ(content.attention.size(), 2);
    EXPECT_EQ(content.attention[0].title, u"Codex"_s);
    EXPECT_EQ(content.attention[0].human, u"team is capped"_s);
    EXPECT_EQ(content.attention[0].tint, MeterlyTint::red);
    EXPECT_EQ(content.attention[1].title, u"gh"_s);
    EXPECT_EQ(content.attention[1].tint, MeterlyTint::green);

    ASSERT_EQ(content.cards.size(), 3);
    const auto& live = content.cards[0].content;
    EXPECT_EQ(live.tint, MeterlyTint::grey);
    EXPECT_TRUE(live.buttons().isEmpty());
    const auto& other = content.cards[1].content;
    EXPECT_EQ(other.header, u"a · Claude"_s);
    EXPECT_EQ(other.identity, u"a@x.io"_s);
    EXPECT_EQ(other.buttons(), QStringList{u"Switch here"_s});
    const auto& failed = content.cards[2].content;
    EXPECT_TRUE(failed.windows.isEmpty());
    EXPECT_EQ(failed.error, u"token expired"_s);
    EXPECT_EQ(failed.renewal, u"Renewal date unavailable"_s);
    EXPECT_EQ(failed.renewalSource, u"not exposed by Codex"_s);

    // A seat the reading does not hold still gets a card from its presentation.
    MeterlyPresentation::Seat orphan;
    orphan.provider = MeterlyProvider::openrouter;
    orphan.shortName = u"or"_s;
    const SubscriptionSeatCardContent card(orphan, nullptr, QList<MeterlySnapshot::Seat>(),
                                           testLocale(), testZone());
    EXPECT_EQ(card.name, u"or"_s);
    EXPECT_EQ(card.renewalSource, u"not exposed by Openrouter"_s);
}

TEST_F(DashboardTest, TheHandWrittenClockWritesWhatQtWrites) {
    // Around the start of summer time, inside the span the clock knows and far
    // outside it, in locales with and without ASCII digits.
    const QDateTime now = at("2024-03-30T20:00:00Z");
    for (const auto& name : {"en_US", "de_DE", "fr_FR", "ar_EG"}) {
        const QLocale locale(QString::fromLatin1(name));
        const LocalClock clock(locale, testZone(), now);
        for (const qint64 hours : {-30, 0, 5, 6, 7, 30, 200, 2000}) {
            const QDateTime instant = now.addSecs(hours * 3600);
            const QDateTime there = instant.toTimeZone(testZone());
            for (const auto* pattern : {"ddd HH:mm", "d MMM", "ddd d MMM, HH:mm"}) {
                EXPECT_EQ(clock.format(instant, QString::fromLatin1(pattern)),
                          locale.toString(there, QString::fromLatin1(pattern)))
                    << name << " " << hours << " " << pattern;
            }
            EXPECT_EQ(clock.date(instant), there.date());
        }
    }
}
