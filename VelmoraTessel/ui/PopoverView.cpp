#include "ui/PopoverView.h"

#include "app/AppVersion.h"
#include "ui/AppsView.h"
#include "ui/CaptureStatusView.h"
#include "ui/ErrorNotice.h"
#include "ui/HelpersStateStrip.h"
#include "ui/IdleBlock.h"
#include "ui/InboxBlock.h"
#include "ui/InfraView.h"
#include "ui/SubscriptionsSummaryRow.h"
#include "ui/Symbols.h"
#include "ui/Toolbar.h"
#include "ui/Widgets.h"

#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QWindow>

#include <utility>

namespace tessel::app {

PopoverView::PopoverView(AppModel& model, PopoverController& controller, Actions actions,
                         Sources sources, QWidget* parent)
    : QWidget(parent), model_(&model), controller_(controller), actions_(std::move(actions)),
      infra_(sources.infra), notifications_(sources.notifications),
      appOptions_(std::move(sources.appOptions)) {
    setWindowTitle(QStringLiteral("Velmora"));
    setAccessibleName(QStringLiteral("Velmora"));
    setFixedWidth(340);
    outer_ = new QVBoxLayout(this);
    outer_->setContentsMargins(14, 14, 14, 14);
    outer_->setSpacing(12);

    // The apps and the infrastructure keep themselves up to date; they are
    // built once, between the rows rebuilt from the application model.
    appsView_ = new AppsView(this);
    outer_->addWidget(appsView_);
    outer_->addWidget(divider(this));
    infraView_ =
        new InfraView(sources.infra,
                      InfraView::Actions{
                          .openSetup = [this] { openWorkspace(QStringLiteral("conductor-setup")); },
                          .openURL = actions_.openURL,
                          .closePopover = [this] { controller_.dismiss(); },
                      },
                      this);
    outer_->addWidget(infraView_);
    outer_->addWidget(new HelpersStateStrip(sources.helpers, this));
    outer_->addWidget(divider(this));

    connect(&model, &AppModel::changed, this, &PopoverView::scheduleRebuild);
    connect(&model.updates(), &UpdateController::changed, this, &PopoverView::scheduleRebuild);
    if (notifications_) {
        connect(notifications_, &NotifyFeedModel::changed, this, &PopoverView::scheduleRebuild);
    }
    // A window of the program coming forward looks again for open calls and
    // the infrastructure.
    connect(qApp, &QGuiApplication::focusWindowChanged, this, [this](QWindow* window) {
        if (!window || !model_) {
            return;
        }
        QPointer<AppModel> owner = model_;
        spawn([owner]() -> Task<void> {
            if (owner) {
                co_await owner->refreshOpenCalls();
            }
        });
        spawn([owner]() -> Task<void> {
            if (owner) {
                co_await owner->infra().refresh(false);
            }
        });
        if (apps_) {
            apps_->refreshStates();
        }
        refreshSubscriptions(false);
    });
    rebuild();
}

void PopoverView::setSubscriptions(SubscriptionsModel* subscriptions) {
    if (subscriptions_ || !subscriptions) {
        return;
    }
    subscriptions_ = subscriptions;
    // Below the infrastructure, with a divider of its own.
    const int at = outer_->indexOf(infraView_) + 3;
    outer_->insertWidget(
        at, new SubscriptionsSummaryRow(
                *subscriptions, [this] { openWorkspace(QStringLiteral("subscriptions")); }, this));
    outer_->insertWidget(at + 1, divider(this));
    connect(subscriptions, &SubscriptionsModel::changed, this, &PopoverView::scheduleRebuild);
    scheduleRebuild();
}

void PopoverView::perform(PopoverAction kind, const std::function<void()>& action) {
    if (PopoverPolicy::shouldDismiss(kind)) {
        controller_.dismiss();
    }
    action();
}

void PopoverView::openWorkspace(const QString& id) {
    perform(PopoverAction::opensWindow, [this, id] {
        if (!model_) {
            return;
        }
        if (id == QStringLiteral("add-organisation")) {
            model_->setLoginURL(QString());
            actions_.openWindow(QStringLiteral("login"));
        } else if (id == QStringLiteral("login")) {
            model_->setLoginURL(model_->baseURL());
            actions_.openWindow(id);
        } else {
            actions_.openWindow(id);
        }
    });
}

void PopoverView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    rebuild();
    if (!model_) {
        return;
    }
    model_->refreshOrgs();
    if (apps_) {
        apps_->refreshStates();
    }
    refreshSubscriptions(false);
    QPointer<AppModel> model = model_;
    spawn([model]() -> Task<void> {
        if (model) {
            co_await model->refreshOpenCalls();
        }
    });
    spawn([model]() -> Task<void> {
        if (model) {
            co_await model->infra().refresh(false);
        }
    });
}

void PopoverView::scheduleRebuild() {
    // A hidden popover builds nothing until it is shown.
    if (isVisible()) {
        rebuildLater_.request();
    }
}

void PopoverView::refreshEverything() {
    QPointer<AppModel> owner = model_;
    spawn([owner]() -> Task<void> {
        if (owner) {
            co_await owner->refreshOpenCalls();
        }
    });
    refreshSubscriptions(true);
    spawn([owner]() -> Task<void> {
        if (owner) {
            co_await owner->infra().refresh(true);
        }
    });
    if (owner) {
        owner->refreshOrgs();
    }
}

void PopoverView::refreshSubscriptions(bool fresh) {
    QPointer<SubscriptionsModel> subscriptions = subscriptions_;
    spawn([subscriptions, fresh]() -> Task<void> {
        if (subscriptions) {
            co_await subscriptions->refresh(fresh);
        }
    });
}

void PopoverView::rebuild() {
    if (!model_) {
        return;
    }
    AppModel& model = *model_;
    delete head_;
    head_ = toolbar();
    outer_->insertWidget(0, head_);
    updateApps();
    delete top_;
    top_ = new QWidget(this);
    auto* rows = new QVBoxLayout(top_);
    rows->setContentsMargins(0, 0, 0, 0);
    rows->setSpacing(12);
    outer_->insertWidget(outer_->indexOf(appsView_) + 1, top_);

    if (notifications_) {
        QPointer<AppModel> owner = model_;
        rows->addWidget(inboxBlock(
            *model_, *notifications_,
            [this, owner] {
                perform(PopoverAction::opensWindow, [this, owner] {
                    if (owner) {
                        actions_.openURL(QUrl(owner->inboxURL()));
                    }
                });
            },
            top_));
    }
    addCommands(rows);
    const auto dismiss = [this] { controller_.dismiss(); };
    if (CaptureSession* capture = model.capture()) {
        QWidget* status = captureStatusView(
            CaptureSnapshot::of(*capture), true,
            CaptureActions::of(model, dismiss, [this](const QString& id) { openWorkspace(id); }),
            top_);
        followClock(status, *capture);
        rows->addWidget(status);
    } else {
        rows->addWidget(new IdleBlock(model, dismiss, top_));
    }
    if (QWidget* error = modelErrorView(model, dismiss, top_)) {
        rows->addWidget(error);
    }
    if (model.member() && model.sessionNotKept()) {
        rows->addWidget(textLine(AppModel::sessionNotKeptMessage, top_, true));
    }

    infraView_->setOrg(model.orgStore().current().host, model.orgStore().current().name);
    delete footer_;
    footer_ = footer();
    outer_->addWidget(footer_);
    fitHeight();
}

// 340 wide, as tall as the rows need.
void PopoverView::fitHeight() {
    outer_->activate();
    resize(width(), outer_->hasHeightForWidth() ? outer_->totalHeightForWidth(width())
                                                : outer_->totalSizeHint().height());
}

// Tab follows the rows as they stand, whichever part was rebuilt last.
bool PopoverView::focusNextPrevChild(bool next) {
    if (std::exchange(tabFromTop_, false) && next) {
        if (QWidget* focused = focusWidget()) {
            focused->clearFocus();
        }
    }
    return focusAlongRows(this, next);
}

// The apps, the infrastructure and the helpers' strip change on their own
// time; the popover grows or shrinks with them instead of squeezing its rows.
bool PopoverView::event(QEvent* event) {
    const bool handled = QWidget::event(event);
    if (event->type() == QEvent::LayoutRequest && outer_) {
        fitHeight();
    }
    // Each time it comes forward, as a menu does, the first Tab reaches the
    // top row: the widget that had the focus may be long rebuilt.
    if (event->type() == QEvent::WindowActivate) {
        tabFromTop_ = true;
    }
    return handled;
}

// The apps of the organisation shown: made again when it changes.
void PopoverView::updateApps() {
    if (!appOptions_) {
        return;
    }
    Org org;
    try {
        org = Org::fromHost(model_->org());
    } catch (const std::exception&) {
        org = model_->orgStore().current();
    }
    if (apps_ && org.host == appsHost_) {
        return;
    }
    AppsModel::Options options = appOptions_();
    options.org = LaunchOrg{org.host, org.url};
    QPointer<AppModel> owner = model_;
    options.override = [owner](const VelmoraApp& app) {
        if (app.id == QStringLiteral("meet") && owner && owner->member()) {
            owner->openLobby();
            return true;
        }
        return false;
    };
    options.dismiss = [this] { controller_.dismiss(); };
    appsView_->setModel(nullptr);
    apps_ = std::make_unique<AppsModel>(std::move(options));
    appsHost_ = org.host;
    apps_->refreshStates();
    appsView_->setModel(apps_.get());
}

QWidget* PopoverView::toolbar() {
    QPointer<AppModel> owner = model_;
    ToolbarActions actions{
        .openWorkspace = [this](const QString& id) { openWorkspace(id); },
        .selectOrg =
            [owner](const QString& host) {
                if (owner) {
                    owner->selectOrg(host);
                }
            },
        .signOut =
            [owner] {
                if (owner) {
                    owner->signOut();
                }
            },
        .signOutOfOrg =
            [owner] {
                if (owner) {
                    owner->signOut();
                    owner->refreshOrgs();
                }
            },
        .refresh = [this] { refreshEverything(); },
        .quit = [this] { perform(PopoverAction::quits, actions_.quit); },
        .checkForUpdates =
            [this, owner] {
                perform(PopoverAction::opensWindow, [owner] {
                    if (owner && owner->updates().canCheckForUpdates()) {
                        owner->updates().checkForUpdates();
                    }
                });
            },
    };
    return new Toolbar(ToolbarState::of(*model_), std::move(actions), this);
}

void PopoverView::addCommands(QVBoxLayout* rows) {
    AppModel& model = *model_;
    QPointer<AppModel> owner = model_;
    auto* heading = new QHBoxLayout;
    heading->addWidget(textLine(QStringLiteral("Tessel"), top_, true));
    heading->addStretch();
    auto* mark = new QLabel(top_);
    mark->setPixmap(symbolIcon(QStringLiteral("waveform.and.mic"), palette()).pixmap(16, 16));
    heading->addWidget(mark);
    rows->addLayout(heading);

    auto* commands = new QHBoxLayout;
    commands->setSpacing(12);
    auto* take = iconButton(
        QStringLiteral("record.circle"), QStringLiteral("Take notes on this call…"),
        QStringLiteral("Take notes"), top_, [this, owner] {
            if (owner) {
                openWorkspace(owner->member() ? QStringLiteral("call") : QStringLiteral("login"));
            }
        });
    take->setEnabled(model.canStartCapture());
    commands->addWidget(take);
    if (const auto saved = model.savedCallID()) {
        commands->addWidget(iconButton(QStringLiteral("note.text"),
                                       QStringLiteral("Open notes in browser"),
                                       QStringLiteral("Notes"), top_, [this, owner, id = *saved] {
                                           perform(PopoverAction::opensWindow, [owner, id] {
                                               if (owner) {
                                                   owner->openCall(id);
                                               }
                                           });
                                       }));
    }
    commands->addStretch();
    rows->addLayout(commands);
}

QWidget* PopoverView::footer() {
    AppModel& model = *model_;
    QPointer<AppModel> owner = model_;
    auto* box = new QWidget(this);
    auto* row = new QHBoxLayout(box);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(10);
    row->addWidget(textLine(AppVersion::label(), box, true));
    auto* check = button(QStringLiteral("Check for updates…"), box, [this, owner] {
        perform(PopoverAction::opensWindow, [owner] {
            if (owner && owner->updates().canCheckForUpdates()) {
                owner->updates().checkForUpdates();
            }
        });
    });
    check->setFlat(true);
    check->setEnabled(model.updates().canCheckForUpdates());
    row->addWidget(check);
    row->addStretch();
    if (subscriptions_) {
        if (const auto fetched = subscriptions_->lastFetch()) {
            auto* time = textLine(
                QLocale().toString(fetched->toLocalTime().time(), QLocale::ShortFormat), box, true);
            time->setToolTip(QStringLiteral("Last subscription fetch"));
            row->addWidget(time);
        }
    }
    return box;
}

} // namespace tessel::app
