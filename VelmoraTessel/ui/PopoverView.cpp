#include "ui/PopoverView.h"

#include "app/AppVersion.h"
#include "ui/Widgets.h"

#include <QHBoxLayout>
#include <QLocale>
#include <QMenu>
#include <QTimer>
#include <QToolButton>

namespace tessel::app {

PopoverView::PopoverView(AppModel& model, PopoverController& controller, Actions actions,
                         QWidget* parent)
    : QWidget(parent), model_(&model), controller_(controller), actions_(std::move(actions)) {
    setWindowTitle(QStringLiteral("Velmora"));
    setFixedWidth(340);
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(14, 14, 14, 14);
    outer->setSizeConstraint(QLayout::SetFixedSize);
    connect(&model, &AppModel::changed, this, &PopoverView::scheduleRebuild);
    connect(&model.updates(), &UpdateController::changed, this, &PopoverView::scheduleRebuild);
    rebuild();
}

void PopoverView::perform(PopoverAction kind, const std::function<void()>& action) {
    if (PopoverPolicy::shouldDismiss(kind)) {
        controller_.dismiss();
    }
    action();
}

void PopoverView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    rebuild();
    // Opening the popover looks for open calls and the infrastructure again.
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
    // Many changes in one turn of the loop make one rebuild; a hidden popover
    // builds nothing until it is shown.
    if (rebuildPending_ || !isVisible()) {
        return;
    }
    rebuildPending_ = true;
    QTimer::singleShot(0, this, [this] {
        rebuildPending_ = false;
        rebuild();
    });
}

void PopoverView::rebuild() {
    if (!model_) {
        return;
    }
    delete content_;
    content_ = new QWidget(this);
    rows_ = new QVBoxLayout(content_);
    rows_->setContentsMargins(0, 0, 0, 0);
    rows_->setSpacing(12);
    layout()->addWidget(content_);

    addHeader();
    AppModel& model = *model_;
    QPointer<AppModel> owner = model_;
    const auto dismiss = [this] { controller_.dismiss(); };

    // The call commands.
    auto* commands = new QHBoxLayout;
    auto* take = button(QStringLiteral("Take notes"), content_, [this, owner] {
        perform(PopoverAction::opensWindow, [this, owner] {
            if (owner) {
                actions_.openWindow(owner->member() ? QStringLiteral("call")
                                                    : QStringLiteral("login"));
            }
        });
    });
    take->setToolTip(QStringLiteral("Take notes on this call…"));
    take->setEnabled(model.canStartCapture());
    commands->addWidget(take);
    if (const auto saved = model.savedCallID()) {
        commands->addWidget(button(QStringLiteral("Notes"), content_, [this, owner, id = *saved] {
            perform(PopoverAction::opensWindow, [owner, id] {
                if (owner) {
                    owner->openCall(id);
                }
            });
        }));
    }
    commands->addStretch();
    rows_->addLayout(commands);

    if (CaptureSession* capture = model.capture()) {
        rows_->addWidget(
            captureStatus(model, *capture, true, {dismiss, actions_.openWindow}, content_));
    } else {
        addIdleBlock();
    }
    if (QWidget* error = modelError(model, dismiss, content_)) {
        rows_->addWidget(error);
    }
    addFooter();
}

void PopoverView::addHeader() {
    AppModel& model = *model_;
    QPointer<AppModel> owner = model_;
    auto* header = new QHBoxLayout;
    auto* name = textLine(QStringLiteral("Velmora"), content_);
    name->setStyleSheet(QStringLiteral("font-weight: bold;"));
    header->addWidget(name);
    header->addStretch();

    // The organisation menu: the known ones, add, sign out.
    auto* orgs = new QToolButton(content_);
    orgs->setText(model.org());
    orgs->setToolTip(model.org());
    orgs->setPopupMode(QToolButton::InstantPopup);
    auto* menu = new QMenu(orgs);
    for (const Org& org : model.knownOrgs()) {
        QAction* row = menu->addAction(org.name, this, [owner, host = org.host] {
            if (owner) {
                owner->selectOrg(host);
            }
        });
        row->setCheckable(true);
        row->setChecked(org.host == model.org());
        row->setEnabled(model.canChangeOrg());
    }
    menu->addSeparator();
    menu->addAction(QStringLiteral("Add organisation…"), this,
                    [this, owner] {
                        perform(PopoverAction::opensWindow, [this, owner] {
                            if (owner) {
                                owner->setLoginURL(QString());
                                actions_.openWindow(QStringLiteral("login"));
                            }
                        });
                    })
        ->setEnabled(model.canChangeOrg());
    menu->addAction(QStringLiteral("Sign out of ") + model.orgStore().current().name, this,
                    [owner] {
                        if (owner) {
                            owner->signOut();
                            owner->refreshOrgs();
                        }
                    })
        ->setEnabled(!model.capture());
    orgs->setMenu(menu);
    header->addWidget(orgs);
    rows_->addLayout(header);

    // Who is signed in, or the way to sign in.
    if (const auto& member = model.member()) {
        rows_->addWidget(textLine(QStringLiteral("Signed in as ") +
                                      member->email.value_or(QStringLiteral("member")),
                                  content_, true));
    } else if (const auto& grant = model.grant()) {
        rows_->addWidget(textLine(QStringLiteral("Enter this code at ") +
                                      model.endpoints().authServiceURL.host() +
                                      QStringLiteral("/device: ") + grant->userCode,
                                  content_));
        rows_->addWidget(button(
            QStringLiteral("Open sign-in page"), content_, [this, url = grant->verificationURL] {
                perform(PopoverAction::opensWindow, [this, url] { actions_.openURL(url); });
            }));
    } else {
        rows_->addWidget(button(QStringLiteral("Sign in…"), content_, [this, owner] {
            perform(PopoverAction::opensWindow, [this, owner] {
                if (owner) {
                    owner->setLoginURL(owner->baseURL());
                    actions_.openWindow(QStringLiteral("login"));
                }
            });
        }));
    }
}

void PopoverView::addIdleBlock() {
    AppModel& model = *model_;
    QPointer<AppModel> owner = model_;
    if (model.savedCallID()) {
        rows_->addWidget(textLine(QStringLiteral("Call saved. Writing notes…"), content_));
    }
    if (model.loadingOpenCalls()) {
        rows_->addWidget(textLine(QStringLiteral("Looking for open calls…"), content_, true));
    }
    for (const OpenCall& call : model.openCalls()) {
        const QString started =
            call.startedAt ? QLocale().toString(call.startedAt->toLocalTime(), QLocale::ShortFormat)
                           : QStringLiteral("unknown time");
        rows_->addWidget(textLine(QStringLiteral("Call still open: ") + call.title +
                                      QStringLiteral(" with ") + call.counterpart +
                                      QStringLiteral(" · started ") + started,
                                  content_));
        auto* row = new QHBoxLayout;
        const bool stopping = model.stoppingOpenCall() == call.id;
        auto* stop =
            button(stopping ? QStringLiteral("Stopping…") : QStringLiteral("Stop & write notes"),
                   content_, [owner, id = call.id] {
                       spawn([owner, id]() -> Task<void> {
                           if (owner) {
                               co_await owner->stopOpenCall(id, false);
                           }
                       });
                   });
        stop->setEnabled(!model.stoppingOpenCall());
        row->addWidget(stop);
        row->addWidget(
            button(QStringLiteral("Open in browser"), content_, [this, owner, id = call.id] {
                perform(PopoverAction::opensWindow, [owner, id] {
                    if (owner) {
                        owner->openCall(id);
                    }
                });
            }));
        row->addStretch();
        rows_->addLayout(row);
    }
}

void PopoverView::addFooter() {
    AppModel& model = *model_;
    QPointer<AppModel> owner = model_;
    auto* footer = new QHBoxLayout;
    footer->addWidget(textLine(AppVersion::label(), content_, true));
    auto* check = button(QStringLiteral("Check for updates…"), content_, [this, owner] {
        perform(PopoverAction::opensWindow, [owner] {
            if (owner) {
                owner->updates().checkForUpdates();
            }
        });
    });
    check->setEnabled(model.updates().canCheckForUpdates());
    footer->addWidget(check);
    footer->addStretch();
    footer->addWidget(button(QStringLiteral("Quit"), content_,
                             [this] { perform(PopoverAction::quits, actions_.quit); }));
    rows_->addLayout(footer);
}

} // namespace tessel::app
