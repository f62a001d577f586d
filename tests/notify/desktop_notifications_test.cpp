// Desktop notifications against our stand-in server on a private bus: what
// goes out in Notify, what a click brings back, and each way the desktop can
// say no.
#include "notify/DesktopNotifications.h"

#include "NotificationBus.h"
#include "support/FakeClock.h"
#include "support/Wait.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QJsonArray>

#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::test;
using namespace Qt::Literals::StringLiterals;

namespace {

const NotifyDesktopNotification sample{u"n1"_s, u"Review"_s, u"<b>ready</b> & waiting"_s,
                                       u"/meet/calls/7"_s, false};

struct Desktop {
    NotificationBus bus;
    bool enabled = true;
    DesktopNotifications notifications{bus.connection(), [this] { return enabled; }};

    std::exception_ptr post(
        NotifyDesktopNotification n, std::function<bool()> canDeliver = [] { return true; }) {
        return failureOf(notifications.post(std::move(n), std::move(canDeliver)));
    }
};

} // namespace

TEST(DesktopNotifications, NotifyCarriesTheRowAndReplacesItsOwnBanner) {
    Desktop desktop;
    ASSERT_FALSE(desktop.post(sample));
    ASSERT_FALSE(desktop.post(sample)); // the same id again
    NotifyDesktopNotification urgent = sample;
    urgent.id = u"n2"_s;
    urgent.sound = true;
    urgent.link.reset();
    desktop.bus.control(u"SetCapabilities"_s, {QStringList{u"actions"_s, u"body"_s}});
    ASSERT_FALSE(desktop.post(urgent));
    ASSERT_FALSE(failureOf(desktop.notifications.postAlert(u"Seat"_s, u"<low>"_s)));

    const auto calls = desktop.bus.calls(u"Notify"_s);
    ASSERT_EQ(calls.size(), 4u);
    const QJsonObject& first = calls[0];
    EXPECT_EQ(first[u"summary"_s].toString(), u"Review"_s);
    EXPECT_EQ(first[u"body"_s].toString(), u"&lt;b&gt;ready&lt;/b&gt; &amp; waiting"_s);
    EXPECT_EQ(first[u"actions"_s].toArray(), (QJsonArray{u"default"_s, u"Open"_s}));
    EXPECT_EQ(first[u"hints"_s][u"urgency"_s].toInt(), 1);
    EXPECT_EQ(first[u"hint_types"_s][u"urgency"_s].toString(), u"uchar"_s);
    EXPECT_TRUE(first[u"hints"_s][u"suppress-sound"_s].toBool());
    EXPECT_EQ(first[u"replaces_id"_s].toInt(), 0);
    EXPECT_EQ(calls[1][u"replaces_id"_s].toInt(), first[u"id"_s].toInt());
    EXPECT_EQ(calls[1][u"id"_s].toInt(), first[u"id"_s].toInt());
    // Without markup the server shows the text as it is.
    EXPECT_EQ(calls[2][u"body"_s].toString(), sample.body);
    EXPECT_EQ(calls[2][u"hints"_s][u"sound-name"_s].toString(), u"message-new-instant"_s);
    EXPECT_EQ(calls[2][u"replaces_id"_s].toInt(), 0);
    // An alert has a sound and nothing to click.
    EXPECT_EQ(calls[3][u"body"_s].toString(), u"<low>"_s);
    EXPECT_TRUE(calls[3][u"actions"_s].toArray().isEmpty());
    EXPECT_EQ(calls[3][u"hints"_s][u"sound-name"_s].toString(), u"message-new-instant"_s);
}

TEST(DesktopNotifications, OnlyTheDefaultActionOnOurBannerIsAClick) {
    Desktop desktop;
    std::vector<QVariantMap> clicks;
    QObject::connect(&desktop.notifications, &DesktopNotifications::activated,
                     [&](const QVariantMap& info) { clicks.push_back(info); });
    // Signals come in the order the server sent them: once the click on `id`
    // is here, everything sent before it has been seen too.
    const auto clickOn = [&](uint id, const QString& row) {
        desktop.bus.control(u"InvokeAction"_s, {id, u"default"_s});
        const QDeadlineTimer deadline(10000);
        while (!deadline.hasExpired() && (clicks.empty() || clicks.back()[u"id"_s] != row)) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
        }
    };
    const auto lastId = [&] {
        return uint(desktop.bus.calls(u"Notify"_s).back()[u"id"_s].toInt());
    };
    ASSERT_FALSE(desktop.post(sample));
    const uint id = lastId();

    desktop.bus.control(u"InvokeAction"_s, {id, u"other"_s});
    desktop.bus.control(u"InvokeAction"_s, {id + 100, u"default"_s});
    clickOn(id, u"n1"_s);
    ASSERT_EQ(clicks.size(), 1u);
    EXPECT_EQ(clicks[0], (QVariantMap{{u"id"_s, u"n1"_s}, {u"link"_s, *sample.link}}));

    // A closed banner is forgotten: a late click on it does nothing, and the
    // row's next banner is a new one.
    desktop.bus.control(u"Close"_s, {id, 2u});
    desktop.bus.control(u"InvokeAction"_s, {id, u"default"_s});
    ASSERT_FALSE(desktop.post(sample));
    EXPECT_EQ(desktop.bus.calls(u"Notify"_s).back()[u"replaces_id"_s].toInt(), 0);
    NotifyDesktopNotification other = sample;
    other.id = u"n9"_s;
    ASSERT_FALSE(desktop.post(other));
    clickOn(lastId(), u"n9"_s);
    ASSERT_EQ(clicks.size(), 2u);
}

TEST(DesktopNotifications, RefusalsAndCancellations) {
    Desktop desktop;
    // The server says no in its own words.
    desktop.bus.control(u"Refuse"_s, {u"Notify"_s, u"org.freedesktop.DBus.Error.AccessDenied"_s,
                                      u"Notifications are not allowed for this sender"_s});
    EXPECT_EQ(wordsOf(desktop.post(sample)), u"Notifications are not allowed for this sender"_s);
    desktop.bus.control(u"Refuse"_s, {u"Notify"_s, QString(), QString()});

    // The sign-in or the switch changes while the bus answers.
    int asked = 0;
    EXPECT_EQ(wordsOf(desktop.post(sample, [&] { return ++asked == 1; })), u"cancelled"_s);
    desktop.enabled = false;
    EXPECT_EQ(wordsOf(desktop.post(sample)), u"cancelled"_s);
    EXPECT_TRUE(desktop.bus.calls(u"Notify"_s).size() == 1u); // only the refused one

    // No server on the bus: off.
    desktop.enabled = true;
    desktop.bus.stopServer();
    EXPECT_EQ(wordsOf(desktop.post(sample)), u"Desktop notifications are off."_s);
}

TEST(DesktopNotifications, PostsAtTheSameMomentShareOneQuestion) {
    Desktop desktop;
    desktop.bus.control(u"Delay"_s, {u"GetServerInformation"_s, 300});
    auto first = desktop.notifications.post(sample, [] { return true; });
    NotifyDesktopNotification other = sample;
    other.id = u"n2"_s;
    auto second = desktop.notifications.post(other, [] { return true; });
    EXPECT_FALSE(failureOf(std::move(first)));
    EXPECT_FALSE(failureOf(std::move(second)));
    EXPECT_EQ(desktop.bus.calls(u"GetServerInformation"_s).size(), 1u);
    EXPECT_EQ(desktop.bus.calls(u"Notify"_s).size(), 2u);
}

TEST(DesktopNotifications, ClickDestinations) {
    const QUrl inbox(u"https://acme.velmora.ai/inbox"_s);
    const std::vector<std::pair<std::optional<QString>, QString>> cases = {
        {std::nullopt, u"https://acme.velmora.ai/inbox"_s},
        {u"/meet/calls/7"_s, u"https://acme.velmora.ai/meet/calls/7"_s},
        {u"HTTPS://other.example/x"_s, u"https://other.example/x"_s},
        {u"mailto:a@b.c"_s, u"https://acme.velmora.ai/inbox"_s},
        {u"file:///etc/passwd"_s, u"https://acme.velmora.ai/inbox"_s},
        {u"velmora://open"_s, u"https://acme.velmora.ai/inbox"_s},
        {u"http://"_s, u"https://acme.velmora.ai/inbox"_s},
    };
    for (const auto& [link, expected] : cases) {
        EXPECT_EQ(DesktopNotifications::destination(link, inbox).toString(), expected)
            << link.value_or(u"(none)"_s).toStdString();
    }

    // Opening comes first; a click without an id does nothing, link or not.
    std::vector<QString> steps;
    const auto click = [&](QVariantMap info) {
        wait(DesktopNotifications::handleNotificationClick(
            std::move(info), [&] { return std::optional(inbox); },
            [&](const QUrl& url) { steps.push_back(u"open "_s + url.toString()); },
            [&](std::vector<QString> ids) -> Task<void> {
                steps.push_back(u"read "_s + ids.at(0));
                co_return;
            }));
    };
    click({{u"link"_s, u"/x"_s}});
    click({{u"id"_s, u"n1"_s}, {u"link"_s, u"/x"_s}});
    EXPECT_EQ(steps, (std::vector<QString>{u"open https://acme.velmora.ai/x"_s, u"read n1"_s}));
}
