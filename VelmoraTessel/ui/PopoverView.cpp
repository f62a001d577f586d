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

#include <QCoreApplication>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QScreen>
#include <QScrollArea>
#include <QScrollBar>
#include <QWindow>

#include <algorithm>
#include <utility>

namespace tessel::app {

namespace {

constexpr int popoverWidth = 340;
constexpr int margin = 14;

} // namespace

PopoverView::PopoverView(AppModel& model, PopoverController& controller, Actions actions,
                         Sources sources, QWidget* parent)
    : QWidget(parent), model_(&model), controller_(controller), actions_(std::move(actions)),
      infra_(sources.infra), notifications_(sources.notifications),
      appOptions_(std::move(sources.appOptions)) {
    setWindowTitle(QStringLiteral("Velmora"));
    setAccessibleName(QStringLiteral("Velmora"));
    setFixedWidth(popoverWidth);
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);

    // Taller than the screen, the rows scroll instead of running off it.
    scroll_ = new QScrollArea(this);
    scroll_->setFrameShape(QFrame::NoFrame);
    scroll_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroll_->setWidgetResizable(true);
    scroll_->setFocusPolicy(Qt::NoFocus);
    content_ = new QWidget(scroll_);
    content_->installEventFilter(this);
    rows_ = new QVBoxLayout(content_);
    rows_->setContentsMargins(margin, margin, margin, margin);
    rows_->setSpacing(12);
    scroll_->setWidget(content_);
    outer->addWidget(scroll_);

    const auto dismiss = [this] { controller_.dismiss(); };
    toolbar_ = makeToolbar();
    rows_->addWidget(toolbar_);
    appsView_ = new AppsView(content_);
    rows_->addWidget(appsView_);
    if (notifications_) {
        QPointer<AppModel> owner = model_;
        rows_->addWidget(new InboxBlock(
            model, *notifications_,
            [this, owner] {
                perform(PopoverAction::opensWindow, [this, owner] {
                    if (owner) {
                        actions_.openURL(QUrl(owner->inboxURL()));
                    }
                });
            },
            content_));
    }
    addCommands(rows_);
    capture_ = new CaptureStatusView(
        true, CaptureActions::of(model, dismiss, [this](const QString& id) { openWorkspace(id); }),
        content_);
    rows_->addWidget(capture_);
    rows_->addWidget(new IdleBlock(model, dismiss, content_));
    rows_->addWidget(new ModelErrorView(model, dismiss, content_));
    notKept_ = textLine(AppModel::sessionNotKeptMessage, content_, true);
    rows_->addWidget(notKept_);

    rows_->addWidget(divider(content_));
    infraView_ =
        new InfraView(sources.infra,
                      InfraView::Actions{
                          .openSetup = [this] { openWorkspace(QStringLiteral("conductor-setup")); },
                          .openURL = actions_.openURL,
                          .closePopover = dismiss,
                      },
                      content_);
    rows_->addWidget(infraView_);
    rows_->addWidget(new HelpersStateStrip(sources.helpers, content_));
    rows_->addWidget(divider(content_));
    // The subscriptions row comes in here once the watch is built.
    subscriptionsSlot_ = new QWidget(content_);
    auto* slot = new QVBoxLayout(subscriptionsSlot_);
    slot->setContentsMargins(0, 0, 0, 0);
    slot->setSpacing(12);
    subscriptionsSlot_->hide();
    rows_->addWidget(subscriptionsSlot_);
    rows_->addWidget(makeFooter());

    const auto organisation = [this] {
        updateToolbar();
        updateApps();
        const Org current = model_->orgStore().current();
        infraView_->setOrg(current.host, current.name);
    };
    connect(&model, &AppModel::organisationChanged, this, organisation);
    connect(&model, &AppModel::memberChanged, this, [this] {
        updateToolbar();
        updateCommands();
        notKept_->setVisible(model_->member() && model_->sessionNotKept());
    });
    connect(&model, &AppModel::signInChanged, this, &PopoverView::updateToolbar);
    connect(&model, &AppModel::captureChanged, this, [this] {
        updateToolbar();
        updateCommands();
        capture_->setSession(model_->capture());
    });
    connect(&model, &AppModel::openCallsChanged, this, [this] {
        updateToolbar();
        updateCommands();
    });
    connect(&model.updates(), &UpdateController::changed, this, [this] {
        updateToolbar();
        updateFooter();
    });
    organisation();
    updateCommands();
    capture_->setSession(model.capture());
    notKept_->setVisible(model.member() && model.sessionNotKept());
    updateFooter();

    // A window of the program coming forward looks again for open calls and
    // the infrastructure; a menu of the popover opening is none of that.
    connect(qApp, &QGuiApplication::focusWindowChanged, this, [this](QWindow* window) {
        if (!window || !model_ || window->type() == Qt::Popup) {
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
    fitHeight();
}

void PopoverView::setSubscriptions(SubscriptionsModel* subscriptions) {
    if (subscriptions_ || !subscriptions) {
        return;
    }
    subscriptions_ = subscriptions;
    subscriptionsSlot_->layout()->addWidget(new SubscriptionsSummaryRow(
        *subscriptions, [this] { openWorkspace(QStringLiteral("subscriptions")); },
        subscriptionsSlot_));
    subscriptionsSlot_->layout()->addWidget(divider(subscriptionsSlot_));
    subscriptionsSlot_->show();
    connect(subscriptions, &SubscriptionsModel::changed, this, &PopoverView::updateFooter);
    updateFooter();
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
    fitHeight();
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

int PopoverView::contentHeight() const {
    const int width = popoverWidth;
    return rows_->hasHeightForWidth() ? rows_->totalHeightForWidth(width)
                                      : rows_->totalSizeHint().height();
}

// 340 wide and as tall as the rows need, never beyond the screen's free
// height: a window manager that sizes the window by its minimum then keeps
// every row whole, and what does not fit scrolls.
void PopoverView::fitHeight() {
    rows_->activate();
    const QScreen* where = screen() ? screen() : QGuiApplication::primaryScreen();
    const int room = where ? where->availableGeometry().height() : contentHeight();
    const int wanted = contentHeight();
    // A scroll bar only when the rows cannot fit: one shown while they would
    // narrows them, their lines wrap again, and it would stay for nothing.
    scroll_->setVerticalScrollBarPolicy(wanted <= room ? Qt::ScrollBarAlwaysOff
                                                       : Qt::ScrollBarAsNeeded);
    const int height = std::min(wanted, room);
    if (height != this->height() || minimumHeight() != height) {
        setFixedHeight(height);
    }
}

// Tab follows the rows as they stand.
bool PopoverView::focusNextPrevChild(bool next) {
    if (std::exchange(tabFromTop_, false) && next) {
        if (QWidget* focused = focusWidget()) {
            focused->clearFocus();
        }
    }
    const bool moved = focusAlongRows(content_, next);
    if (moved && focusWidget()) {
        scroll_->ensureWidgetVisible(focusWidget());
    }
    return moved;
}

// The rows growing or shrinking (apps, infrastructure, a capture) resize the
// popover instead of squeezing them.
bool PopoverView::eventFilter(QObject* watched, QEvent* event) {
    if (watched == content_ && event->type() == QEvent::LayoutRequest) {
        QMetaObject::invokeMethod(this, &PopoverView::fitHeight, Qt::QueuedConnection);
    }
    return QWidget::eventFilter(watched, event);
}

bool PopoverView::event(QEvent* event) {
    const bool handled = QWidget::event(event);
    // Each time it comes forward, as a menu does, the first Tab reaches the top row.
    if (event->type() == QEvent::WindowActivate) {
        tabFromTop_ = true;
    }
    if (event->type() == QEvent::ScreenChangeInternal) {
        fitHeight();
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

Toolbar* PopoverView::makeToolbar() {
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
    return new Toolbar(ToolbarState::of(*model_), std::move(actions), content_);
}

void PopoverView::updateToolbar() {
    if (model_) {
        toolbar_->update(ToolbarState::of(*model_));
    }
}

void PopoverView::addCommands(QVBoxLayout* rows) {
    QPointer<AppModel> owner = model_;
    auto* heading = new QHBoxLayout;
    heading->addWidget(textLine(QStringLiteral("Tessel"), content_, true));
    heading->addStretch();
    auto* mark = new QLabel(content_);
    mark->setPixmap(symbolIcon(QStringLiteral("waveform.and.mic"), palette()).pixmap(16, 16));
    heading->addWidget(mark);
    rows->addLayout(heading);

    auto* commands = new QHBoxLayout;
    commands->setSpacing(12);
    take_ = iconButton(QStringLiteral("record.circle"), QStringLiteral("Take notes on this call…"),
                       QStringLiteral("Take notes"), content_, [this, owner] {
                           if (owner) {
                               openWorkspace(owner->member() ? QStringLiteral("call")
                                                             : QStringLiteral("login"));
                           }
                       });
    commands->addWidget(take_);
    notes_ = iconButton(QStringLiteral("note.text"), QStringLiteral("Open notes in browser"),
                        QStringLiteral("Notes"), content_, [this, owner] {
                            perform(PopoverAction::opensWindow, [owner] {
                                if (owner && owner->savedCallID()) {
                                    owner->openCall(*owner->savedCallID());
                                }
                            });
                        });
    commands->addWidget(notes_);
    commands->addStretch();
    rows->addLayout(commands);
}

void PopoverView::updateCommands() {
    if (!model_) {
        return;
    }
    take_->setEnabled(model_->canStartCapture());
    notes_->setVisible(model_->savedCallID().has_value());
}

QWidget* PopoverView::makeFooter() {
    QPointer<AppModel> owner = model_;
    auto* box = new QWidget(content_);
    auto* row = new QHBoxLayout(box);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(10);
    row->addWidget(textLine(AppVersion::label(), box, true));
    check_ = button(QStringLiteral("Check for updates…"), box, [this, owner] {
        perform(PopoverAction::opensWindow, [owner] {
            if (owner && owner->updates().canCheckForUpdates()) {
                owner->updates().checkForUpdates();
            }
        });
    });
    check_->setFlat(true);
    row->addWidget(check_);
    row->addStretch();
    fetched_ = textLine(QString(), box, true);
    fetched_->setToolTip(QStringLiteral("Last subscription fetch"));
    fetched_->setWordWrap(false);
    row->addWidget(fetched_);
    return box;
}

void PopoverView::updateFooter() {
    if (!model_) {
        return;
    }
    check_->setEnabled(model_->updates().canCheckForUpdates());
    std::optional<QDateTime> fetched;
    if (subscriptions_) {
        fetched = subscriptions_->lastFetch();
    }
    fetched_->setVisible(fetched.has_value());
    if (fetched) {
        fetched_->setText(QLocale().toString(fetched->toLocalTime().time(), QLocale::ShortFormat));
    }
}

} // namespace tessel::app
