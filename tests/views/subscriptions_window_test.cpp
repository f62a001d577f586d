// The subscriptions window on real widgets offscreen, fed by a scripted
// `meterly`: a new reading changes the widgets in place, every Tab stop has a
// name, the title row wraps, the advice has its tinted dot, and the window
// cannot be made smaller than its header.
#include "subscriptions/SubscriptionsModel.h"
#include "ui/SubscriptionCard.h"
#include "ui/SubscriptionsSummaryRow.h"
#include "ui/SubscriptionsWindow.h"
#include "ui/Widgets.h"

#include "support/Wait.h"

#include <QAbstractButton>
#include <QAbstractScrollArea>
#include <QAccessible>
#include <QApplication>
#include <QKeyEvent>
#include <QLabel>
#include <QLayout>
#include <QPointer>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimeZone>
#include <QToolButton>

#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::app;
using namespace tessel::test;
using namespace Qt::Literals::StringLiterals;

namespace {

QString seat(const QString& id, const QString& provider, const QString& account, int used,
             const QString& extra = {}) {
    return uR"({"id":"%1","provider":"%2","provider_label":"%2","account":"%3","live":false,)"
           uR"("windows":[{"kind":"session","label":"5h","used_pct":%4}],)"
           uR"("advice":{"verb":"ok","reason":""},"note":""%5})"_s.arg(id, provider, account)
               .arg(used)
               .arg(extra);
}

QString readingOf(const QStringList& seats) {
    return uR"({"fetched_at":"2024-05-06T10:00:00Z","seats":[%1],"alerts":[],"next":{},)"
           uR"("timeline":[]})"_s.arg(seats.join(u','));
}

const QString links = uR"(,"links":{"usage":"https://claude.example/usage"})"_s;

struct SubscriptionsWindowTest : ::testing::Test {
    QTemporaryDir dir;
    QSettings settings{dir.filePath(u"settings.conf"_s), QSettings::IniFormat};
    QString answer;
    QDateTime wall = QDateTime::currentDateTimeUtc();
    AccountsModel accounts{nullptr};
    std::unique_ptr<SubscriptionsModel> model;

    double slowness = 0;

    static Task<ToolOutput> print(QString text, double seconds) {
        co_await sleepFor(seconds);
        co_return ToolOutput{text, {}, 0};
    }

    SubscriptionsModel& build(bool meterly, const QString& notInstalled = {}) {
        std::shared_ptr<MeterlyClient> client;
        if (meterly) {
            client = MeterlyClient::create(
                [this](QStringList, CancellationToken) { return print(answer, slowness); }, 0);
        }
        model = std::make_unique<SubscriptionsModel>(SubscriptionsModel::Parts{
            .client = client,
            .accounts = &accounts,
            .alertsStore = MeterlyAlertsStore::create(dir.filePath(u"alerts"_s)),
            .snapshotStore = MeterlySnapshotStore(dir.path()),
            .notInstalled = notInstalled,
            .startingServices = false,
            .desktop = {},
            .notifier = [](QString) -> Task<void> { co_return; },
            .now = [this] { return wall; },
            .sleep = sleepFor,
        });
        return *model;
    }

    // A refresh past the minute's guard that reads `reading`.
    void read(const QString& reading) {
        answer = reading;
        wall = wall.addSecs(61);
        wait(model->refresh(false));
        QApplication::processEvents();
    }
};

QLabel* labelWithText(QWidget* root, const QString& text) {
    for (auto* label : root->findChildren<QLabel*>()) {
        if (label->isVisibleTo(root) && label->text() == text) {
            return label;
        }
    }
    return nullptr;
}

QString spokenName(QWidget* widget) {
    QAccessibleInterface* access = QAccessible::queryAccessibleInterface(widget);
    return access ? access->text(QAccessible::Name) : QString();
}

} // namespace

// The focused button of a card survives a new reading, which changes the
// card's words around it; a new seat gets a card, a gone one loses its own.
TEST_F(SubscriptionsWindowTest, ANewReadingChangesTheCardsInPlace) {
    build(true);
    read(readingOf({seat(u"claude:work"_s, u"claude"_s, u"work"_s, 41, links),
                    seat(u"codex:team"_s, u"codex"_s, u"team"_s, 12)}));
    SubscriptionsWindow window(*model, settings, {[](const QUrl&) {}, {}, {}});
    window.show();
    window.activateWindow();
    ASSERT_TRUE(eventually([&] { return window.isActiveWindow(); }));
    QPointer<QAbstractButton> usage;
    for (auto* button : window.findChildren<QAbstractButton*>()) {
        if (button->text() == u"Usage"_s && button->isVisibleTo(&window)) {
            usage = button;
        }
    }
    ASSERT_TRUE(usage);
    usage->setFocus(Qt::TabFocusReason);
    ASSERT_TRUE(usage->hasFocus());

    read(readingOf({seat(u"claude:work"_s, u"claude"_s, u"work"_s, 57, links),
                    seat(u"kimi:main"_s, u"kimi"_s, u"main"_s, 93)}));
    EXPECT_TRUE(eventually([&] { return labelWithText(&window, u"main"_s) != nullptr; }, 2));
    ASSERT_TRUE(usage);
    EXPECT_TRUE(usage->hasFocus());
    EXPECT_TRUE(labelWithText(&window, u"57%"_s));
    EXPECT_FALSE(labelWithText(&window, u"41%"_s));
    EXPECT_FALSE(labelWithText(&window, u"team"_s));
}

// Refresh is disabled while it runs, which takes its focus away; the focus
// comes back with the reading.
TEST_F(SubscriptionsWindowTest, RefreshGetsItsFocusBack) {
    build(true);
    read(readingOf({seat(u"claude:work"_s, u"claude"_s, u"work"_s, 41, links)}));
    SubscriptionsWindow window(*model, settings, {[](const QUrl&) {}, {}, {}});
    window.show();
    window.activateWindow();
    ASSERT_TRUE(eventually([&] { return window.isActiveWindow(); }));
    auto* refresh = window.findChild<QToolButton*>();
    refresh->setFocus(Qt::TabFocusReason);
    slowness = 0.3;
    wall = wall.addSecs(61);
    refresh->click();
    ASSERT_TRUE(eventually([&] { return !refresh->isEnabled(); }, 2));
    EXPECT_EQ(spokenName(refresh), u"Refreshing…"_s);
    EXPECT_FALSE(refresh->hasFocus());
    ASSERT_TRUE(eventually([&] { return refresh->isEnabled(); }, 5));
    EXPECT_TRUE(eventually([&] { return refresh->hasFocus(); }, 1));
    EXPECT_EQ(spokenName(refresh), u"Refresh"_s);
}

// Tab goes as a person reads: header, cards, sidebar, whatever came first.
// (Names and badges as a screen reader gets them: tests/desktop.)
TEST_F(SubscriptionsWindowTest, TabGoesAsAPersonReads) {
    build(true);
    read(readingOf({seat(u"mystery:x"_s, u"mystery"_s, u"x"_s, 5)}));
    SubscriptionsWindow window(*model, settings, {[](const QUrl&) {}, {}, {}});
    window.show();
    window.activateWindow();
    ASSERT_TRUE(eventually([&] { return window.isActiveWindow(); }));
    read(readingOf({seat(u"claude:work"_s, u"claude"_s, u"work"_s, 41, links),
                    seat(u"mystery:x"_s, u"mystery"_s, u"x"_s, 5)})
             .replace(u"\"next\":{}"_s, u"\"next\":{\"operator\":\"claude:work\"}"_s));
    ASSERT_TRUE(eventually([&] { return labelWithText(&window, u"work"_s) != nullptr; }, 2));
    window.findChild<QToolButton*>()->setFocus(Qt::TabFocusReason);
    QStringList walk;
    for (int i = 0; i < 8; ++i) {
        walk << spokenName(QApplication::focusWidget()).section(u" · "_s, 0, 0);
        QKeyEvent tab(QEvent::KeyPress, Qt::Key_Tab, Qt::NoModifier);
        QApplication::sendEvent(QApplication::focusWidget(), &tab);
    }
    EXPECT_EQ(walk, QStringList({u"Refresh"_s, u"Operator"_s, u"Seat cards"_s, u"Switch here"_s,
                                 u"Usage"_s, u"Attention, coming up and spend order"_s,
                                 u"Edit roles…"_s, u"Refresh"_s}));
}

// A narrow card stacks its pills under the name instead of squeezing them; the
// advice stands behind a 6 by 6 dot in the card's tint.
TEST_F(SubscriptionsWindowTest, TheTitleRowWrapsAndTheAdviceHasItsDot) {
    const QString extra = uR"(,"live":true,"role":"operator","plan":"Max","status":"capped",)"
                          uR"("advice":{"verb":"hold","reason":"weekly window at 96%"})"_s;
    const MeterlySnapshot snapshot = MeterlySnapshot::parse(
        readingOf({seat(u"claude:w"_s, u"claude"_s, u"a-rather-long-account-name"_s, 96, extra)}));
    const SubscriptionsDashboardContent content(snapshot, QDateTime::currentDateTimeUtc(),
                                                QLocale(), QTimeZone::systemTimeZone());
    ASSERT_EQ(content.cards.size(), 1);
    SubscriptionCard card(
        content.cards[0], {}, [] {}, [](const QUrl&) {});
    card.setFixedWidth(220);
    card.show();
    card.layout()->activate();
    QApplication::processEvents();
    QLabel* name = labelWithText(&card, u"a-rather-long-account-name"_s);
    QLabel* role = labelWithText(&card, u"operator"_s);
    ASSERT_TRUE(name && role);
    const QRect roleBox(role->mapTo(&card, QPoint(0, 0)), role->size());
    EXPECT_GT(roleBox.top(), name->mapTo(&card, QPoint(0, 0)).y());
    EXPECT_LE(roleBox.right(), card.width() - 12);
    EXPECT_GE(role->width(), role->sizeHint().width());

    EXPECT_TRUE(labelWithText(&card, u"weekly window at 96%"_s));
    QWidget* dot = card.findChild<QWidget*>(u"adviceDot"_s);
    ASSERT_TRUE(dot);
    EXPECT_EQ(dot->size(), QSize(6, 6));
    const QColor centre = dot->grab().toImage().pixelColor(3, 3);
    EXPECT_EQ(centre.name(), tintColor(content.cards[0].content.tint, card.palette()).name());
}

// However a window manager shrinks the window, the header's wrapped lines keep
// the height they need at that width.
TEST_F(SubscriptionsWindowTest, TheWindowCannotSquashItsHeader) {
    QString missing = u"Neither tool is there."_s;
    for (int i = 0; i < 5; ++i) {
        missing += u" Install meterly or the accounts tool, or name them in the environment."_s;
    }
    build(false, missing.repeated(12));
    SubscriptionsWindow window(*model, settings, {[](const QUrl&) {}, {}, missing});
    read(QString());
    window.show();
    window.resize(window.minimumSize());
    for (int round = 0; round < 3; ++round) {
        QApplication::processEvents();
    }
    int wrapped = 0;
    for (auto* label : window.findChildren<QLabel*>()) {
        bool scrolled = false;
        for (QWidget* up = label; up != &window; up = up->parentWidget()) {
            scrolled |= qobject_cast<QAbstractScrollArea*>(up) != nullptr;
        }
        if (!label->isVisible() || label->text().isEmpty() || scrolled) {
            continue;
        }
        wrapped += label->wordWrap();
        const QRect box(label->mapTo(&window, QPoint(0, 0)), label->size());
        EXPECT_TRUE(window.rect().contains(box)) << label->text().left(40).toStdString();
        EXPECT_GE(label->height(), label->heightForWidth(label->width()));
    }
    EXPECT_GE(wrapped, 3);
}
