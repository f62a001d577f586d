// The popover's and the windows' rules that can break, on real widgets
// offscreen: the words per capture state, the enable rules of the toolbar and
// of Start, and the login window's close ending the polling of the local server.
#include "app/OrgMenuItem.h"
#include "identity/SessionKeychain.h"
#include "identity/UserDefaults.h"
#include "ui/CallWindow.h"
#include "ui/CaptureStatusView.h"
#include "ui/HelpersStateStrip.h"
#include "ui/LoginWindow.h"
#include "ui/PopoverView.h"
#include "ui/SubscriptionCard.h"
#include "ui/SubscriptionsSummaryRow.h"
#include "ui/Toolbar.h"
#include "ui/Widgets.h"

#include "support/AppModelRig.h"
#include "support/HelpersRig.h"
#include "support/Wait.h"

#include <QAccessible>
#include <QApplication>
#include <QCheckBox>
#include <QFile>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QPointer>
#include <QToolButton>
#include <QVBoxLayout>

#include <gtest/gtest.h>

#include <map>

using namespace tessel;
using namespace tessel::app;
using namespace tessel::test;

namespace {

// What the status block shows, top to bottom: label texts and the help of its
// buttons ("[help]", "[help:off]" when disabled).
QStringList lines(QWidget* box) {
    QStringList out;
    for (QWidget* widget : box->findChildren<QWidget*>()) {
        if (!widget->isVisibleTo(box)) {
            continue;
        }
        if (auto* label = qobject_cast<QLabel*>(widget)) {
            out << label->text();
        } else if (auto* button = qobject_cast<QToolButton*>(widget);
                   button && !button->toolTip().isEmpty()) {
            out << QStringLiteral("[%1%2]").arg(button->toolTip(),
                                                button->isEnabled() ? "" : ":off");
        }
    }
    return out;
}

QToolButton* buttonWithHelp(QWidget* parent, const QString& help) {
    for (auto* button : parent->findChildren<QToolButton*>()) {
        if (button->toolTip() == help) {
            return button;
        }
    }
    return nullptr;
}

TEST(ViewsTest, EachCaptureStateShowsItsWordsAndButtons) {
    using S = CaptureState;
    const UploadStatus none, uploads{3, 2, 0, std::nullopt};
    const std::nullopt_t no = std::nullopt;
    struct Case {
        CaptureSnapshot capture;
        QStringList expected;
    };
    const std::vector<Case> cases{
        // The sign-in notice and button first, the error once.
        {{S::needsSignIn, 5, true, false, false, uploads, "Session expired.", no, no, true},
         {"Session expired.", "[Sign in…]", "Uploads paused · 0:05", "mic ✓ · system audio —",
          "3 mic · 2 system segments uploaded", "[Stop & write notes]"}},
        {{S::needsSignIn, 0, true, true, false, none, no, no, no, false},
         {CaptureSession::signInMessage, "[Sign in…]", "Uploads paused · 0:00",
          "mic ✓ · system audio ✓", "0 mic · 0 system segments uploaded"}},
        {{S::uploading, 3725, true, true, false, uploads, no, no, "m1", true},
         {"Capture stopped · 62:05", "mic ✓ · system audio ✓", "3 mic · 2 system segments uploaded",
          "[Uploading…:off]", "[Open notes in browser]"}},
        {{S::superseded, 61, false, false, false, none, "Another device took over.", no, "m1",
          false},
         {"Capture stopped · 1:01", "mic — · system audio —", "0 mic · 0 system segments uploaded",
          "Another device took over.", "[Back]", "[Open notes in browser]"}},
        // Not rounded up to the next second; 62:05 above: the minutes are not capped.
        {{S::failed, 59.99, false, false, false, none, "Broke.", no, no, false},
         {"Capture stopped · 0:59", "mic — · system audio —", "0 mic · 0 system segments uploaded",
          "Broke.", "[Back]"}},
        {{S::finished, 9, true, true, false, none, no, no, "m1", false},
         {"Call saved. Writing notes…", "[Take notes on another call…]",
          "[Open notes in browser]"}},
    };
    // One view through every state, as a session moves: nothing of an earlier
    // state stays behind.
    CaptureStatusView view(true, {});
    for (const Case& c : cases) {
        view.showSnapshot(c.capture);
        EXPECT_EQ(lines(&view), c.expected) << lines(&view).join(" | ").toStdString();
    }
}

TEST(ViewsTest, OnlyAStopOutsideThePopoverOpensTheBrowser) {
    for (const bool inPopover : {true, false}) {
        std::vector<bool> stops;
        CaptureActions actions;
        actions.stop = [&](bool openBrowser) { stops.push_back(openBrowser); };
        CaptureSnapshot listening;
        listening.state = CaptureState::listening;
        listening.canStop = true;
        CaptureStatusView view(inPopover, actions);
        view.showSnapshot(listening);
        buttonWithHelp(&view, "Stop & write notes")->click();
        EXPECT_EQ(stops, std::vector<bool>{!inPopover});
    }
}

TEST(ViewsTest, OrgMenuRowsEndWithAddAndSignOut) {
    const Org current{"alpha.example", QUrl("https://alpha.example"), "alpha"};
    const auto empty = OrgMenuItem::items({}, current);
    ASSERT_EQ(empty.size(), 2u);
    EXPECT_EQ(empty[0].title, "Add organisation…");
    EXPECT_EQ(empty[1].title, "Sign out of alpha");
    // The same host under another name is not the current one.
    const auto rows =
        OrgMenuItem::items({{current.host, current.url, "Alpha Inc"}, current}, current);
    EXPECT_FALSE(rows[0].checked);
    EXPECT_TRUE(rows[1].checked);
    EXPECT_EQ(rows[1].action, OrgMenuItem::Action(OrgMenuItem::Select{"alpha.example"}));
}

TEST(ViewsTest, DuringACallOnlySignInStaysOpenInTheMenus) {
    const Org current{"alpha.example", QUrl("https://alpha.example"), "alpha"};
    for (const bool capture : {true, false}) {
        ToolbarState state;
        state.org = current;
        state.rows = OrgMenuItem::items({current}, current);
        state.canChangeOrg = !capture;
        state.capture = capture;
        state.signedIn = true;
        Toolbar toolbar(state, {});
        // The rows are made as a menu opens.
        emit toolbar.orgMenu()->aboutToShow();
        emit toolbar.accountMenu()->aboutToShow();
        const auto* orgs = toolbar.findChild<QToolButton*>("organisation");
        for (QAction* row : orgs->menu()->actions()) {
            if (!row->isSeparator()) {
                EXPECT_EQ(row->isEnabled(), !capture) << row->text().toStdString();
            }
        }
        const auto* account = toolbar.findChild<QToolButton*>("account");
        EXPECT_EQ(account->toolTip(), "Account"); // a member without an email
        std::map<QString, bool> enabled;
        for (QAction* row : account->menu()->actions()) {
            enabled[row->text()] = row->isEnabled();
        }
        EXPECT_TRUE(enabled.contains("member"));
        EXPECT_TRUE(enabled["Sign in…"]);
        EXPECT_EQ(enabled["Organisation…"], !capture);
        EXPECT_EQ(enabled["Sign out"], !capture);
    }
}

class WindowsTest : public ::testing::Test, protected AppModelRig {
protected:
    std::unique_ptr<AppModel> model = makeModel(false);
};

TEST_F(WindowsTest, StartWantsATitleBeyondBlanks) {
    CallWindow window(*model, [](const QString&) {});
    window.show();
    QPushButton* start = nullptr;
    for (auto* button : window.findChildren<QPushButton*>()) {
        if (button->text() == "Start") {
            start = button;
        }
    }
    const auto fields = window.findChildren<QLineEdit*>();
    ASSERT_EQ(fields.size(), 3);
    fields[1]->setText("Initech");
    window.findChild<QCheckBox*>()->setChecked(true);
    for (const QString title : {"", "   ", " \t\n "}) {
        fields[0]->setText(title);
        EXPECT_FALSE(start->isEnabled()) << title.toStdString();
    }
    fields[0]->setText(" Kickoff ");
    EXPECT_TRUE(start->isEnabled());
    // Closing forgets the fields and the acknowledgement.
    window.close();
    EXPECT_TRUE(fields[0]->text().isEmpty());
    EXPECT_FALSE(window.findChild<QCheckBox*>()->isChecked());
    EXPECT_FALSE(start->isEnabled());
}

// A screen reader hears what the button shows, after a change as before it,
// and an ampersand as itself.
TEST_F(WindowsTest, ButtonNamesFollowTheirText) {
    CallWindow window(*model, [](const QString&) {});
    window.show();
    const auto name = [](QWidget* widget) {
        return QAccessible::queryAccessibleInterface(widget)->text(QAccessible::Name);
    };
    QPushButton* copy = nullptr;
    for (auto* button : window.findChildren<QPushButton*>()) {
        copy = button->text() == "Copy" ? button : copy;
    }
    ASSERT_TRUE(copy);
    copy->click();
    EXPECT_EQ(copy->text(), "Copied");
    EXPECT_EQ(name(copy), "Copied");
    window.close();
    EXPECT_EQ(name(copy), "Copy");
    EXPECT_EQ(name(button("Sales & ops", &window, [] {})), "Sales & ops");
}

TEST_F(WindowsTest, ClosingLoginEndsThePolling) {
    LoginWindow window(*model, [](const QUrl&) {});
    model->setLoginURL(model->baseURL());
    window.show();
    model->signInFromWindow();
    ASSERT_TRUE(
        eventually([&] { return model->grant() && server.requests("device_token") >= 2; }, 30));
    bool shown = false;
    for (auto* label : window.findChildren<QLabel*>()) {
        shown |=
            label->text().startsWith("Enter this code at ") && label->text().endsWith("/device:");
    }
    EXPECT_TRUE(shown);
    window.close();
    EXPECT_FALSE(model->grant());
    const long polls = server.requests("device_token");
    // Several polling intervals of the sped-up clock go by without a request.
    wait(sleepFor(0.5));
    EXPECT_EQ(server.requests("device_token"), polls);
    EXPECT_FALSE(model->signingIn());
}

// Text that assistive technology sets counts as much as typed text, and the
// model's own writes to the field do not echo back to it.
TEST_F(WindowsTest, LoginFollowsEveryTextChange) {
    LoginWindow window(*model, [](const QUrl&) {});
    window.show();
    auto* field = window.findChild<QLineEdit*>();
    QAccessibleInterface* access = QAccessible::queryAccessibleInterface(field);
    ASSERT_TRUE(access);
    access->setText(QAccessible::Value, "https://beta.velmora.test/meet");
    EXPECT_EQ(model->loginURL(), "https://beta.velmora.test/meet");

    int changes = 0;
    QObject::connect(model.get(), &AppModel::organisationChanged, [&] { ++changes; });
    model->setLoginURL("https://alpha.velmora.test/meet");
    wait(sleepFor(0.2));
    EXPECT_EQ(field->text(), "https://alpha.velmora.test/meet");
    EXPECT_EQ(changes, 1);
}

// During a call nothing of the popover is built again: the clock, a source
// that turns healthy and an upload change words in place, so the popover keeps
// its size and the focus on Stop stays where the person left it.
TEST_F(WindowsTest, PopoverChangesInPlaceAndKeepsTheFocusOnStop) {
    SessionKeychain(store, [this] {
        return wall;
    }).save({"vses_member", std::nullopt, wall.addSecs(3600)}, "alpha.velmora.test");
    model->changeOrganisation();
    ASSERT_TRUE(wait(model->start("Weekly sync", "Acme", "", true)));
    PopoverController controller;
    PopoverView view(*model, controller, {[](const QString&) {}, [] {}, [](const QUrl&) {}});
    view.show();
    view.activateWindow();
    wait(sleepFor(0.5)); // the lists that showing asks for come back
    QPointer<QLabel> headline = view.findChild<QLabel*>("headline");
    QPointer<QToolButton> stop = buttonWithHelp(&view, "Stop & write notes");
    ASSERT_TRUE(headline && stop);
    stop->setFocus();
    const QSize size = view.size();

    audio->stream->push(MeterReading{61.4, false, false, false});
    ASSERT_TRUE(eventually([&] { return headline && headline->text() == "Listening · 1:01"; }));
    EXPECT_EQ(view.size(), size);
    audio->stream->push(MeterReading{61.6, true, false, false});
    ASSERT_TRUE(eventually([&] { return lines(&view).contains("mic ✓ · system audio —"); }));
    model->refreshOrgs();
    EXPECT_TRUE(headline && stop);
    EXPECT_EQ(view.focusWidget(), stop.data());
    EXPECT_EQ(view.size(), size);
}

// The strip says what the helper tools need, in the order failure, missing
// Python, installing; its buttons run the model again.
TEST(ViewsTest, HelpersStripFollowsTheModel) {
    HelpersRig rig;
    rig.installFailure = QStringLiteral("Helper tools could not be installed.");
    HelpersStateStrip strip(&rig.model);
    EXPECT_TRUE(strip.isHidden());

    wait(rig.model.installIfNeeded());
    EXPECT_EQ(lines(&strip), QStringList{*rig.installFailure});
    rig.installFailure.reset();
    rig.python = {QString(), QStringLiteral("not found"), 127};
    auto* retry = strip.findChild<QPushButton*>(QString(), Qt::FindDirectChildrenOnly);
    ASSERT_TRUE(retry && retry->text() == QStringLiteral("Retry"));
    retry->click();
    EXPECT_EQ(lines(&strip), QStringList{QStringLiteral("Installing helpers…")});
    ASSERT_TRUE(eventually([&] { return !rig.model.busy(); }, 5));
    EXPECT_EQ(lines(&strip), QStringList{HelpersModel::pythonMissingLine});
    bool offered = false;
    for (auto* button : strip.findChildren<QPushButton*>()) {
        offered |= !button->isHidden() && button->text() == QStringLiteral("Install…");
    }
    EXPECT_TRUE(offered);
}

} // namespace

// Tab goes by where the widgets stand, not by when they were made: a part
// rebuilt later must not jump to the end. Hidden and disabled ones are skipped.
TEST(ViewsTest, TabFollowsTheRows) {
    QWidget root;
    auto* below = new QPushButton(QStringLiteral("below"), &root);
    auto* right = new QPushButton(QStringLiteral("right"), &root);
    auto* off = new QPushButton(QStringLiteral("off"), &root);
    auto* left = new QPushButton(QStringLiteral("left"), &root);
    auto* hidden = new QPushButton(QStringLiteral("hidden"), &root);
    auto* rows = new QVBoxLayout(&root);
    auto* top = new QHBoxLayout;
    top->addWidget(left);
    top->addWidget(right);
    top->addWidget(off);
    rows->addLayout(top);
    rows->addWidget(hidden);
    rows->addWidget(below);
    off->setEnabled(false);
    hidden->hide();
    root.resize(300, 200);
    rows->activate();
    EXPECT_EQ(rowOrder(&root), (QList<QWidget*>{left, right, below}));
}

// A dark palette's highlight as text on its window is too faint to read; a
// colour that already reads stays as it is.
TEST(ViewsTest, FaintInkIsMadeReadable) {
    const QColor highlight(0x15, 0x53, 0x9e);
    const QColor lifted = readableOn(highlight, QColor(0x35, 0x35, 0x35));
    EXPECT_NE(lifted, highlight);
    EXPECT_GT(lifted.lightness(), highlight.lightness());
    EXPECT_EQ(readableOn(highlight, Qt::white), highlight);
    EXPECT_LT(readableOn(QColor(0xf0, 0xf0, 0xf0), Qt::white).lightness(), 0xf0);
}
