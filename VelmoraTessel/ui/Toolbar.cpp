#include "ui/Toolbar.h"

#include "ui/Symbols.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QToolButton>

namespace tessel::app {

ToolbarState ToolbarState::of(AppModel& model) {
    ToolbarState state;
    try {
        state.org = Org::fromHost(model.org());
    } catch (const std::exception&) {
        state.org = model.orgStore().current();
    }
    state.rows = OrgMenuItem::items(model.knownOrgs(), state.org);
    state.canChangeOrg = model.canChangeOrg();
    state.signedIn = model.member().has_value();
    if (model.member()) {
        state.email = model.member()->email;
    }
    state.capture = model.capture() != nullptr;
    state.stoppingOpenCall = model.stoppingOpenCall().has_value();
    state.signingIn = model.signingIn();
    state.canCheckForUpdates = model.updates().canCheckForUpdates();
    return state;
}

Toolbar::Toolbar(const ToolbarState& state, ToolbarActions actions, QWidget* parent)
    : QWidget(parent), actions_(std::move(actions)) {
    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(3);

    auto* name = new QLabel(QStringLiteral("Velmora"), this);
    QFont headline = name->font();
    headline.setBold(true);
    name->setFont(headline);
    name->setToolTip(QStringLiteral("Velmora — secondary-click for update controls"));
    name->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(name, &QLabel::customContextMenuRequested, this, [this, name](QPoint at) {
        // Shown without waiting for it: the loop goes on.
        auto* menu = new QMenu(this);
        menu->setAttribute(Qt::WA_DeleteOnClose);
        menu->addAction(QStringLiteral("Check for updates…"), this,
                        [this] { actions_.checkForUpdates(); })
            ->setEnabled(state_.canCheckForUpdates);
        menu->popup(name->mapToGlobal(at));
    });
    row->addWidget(name);
    row->addStretch();

    org_ = new QToolButton(this);
    org_->setObjectName(QStringLiteral("organisation"));
    org_->setIcon(symbolIcon(QStringLiteral("building.2"), palette()));
    org_->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    org_->setAutoRaise(true);
    org_->setFocusPolicy(Qt::StrongFocus);
    org_->setPopupMode(QToolButton::InstantPopup);
    orgMenu_ = new QMenu(org_);
    connect(orgMenu_, &QMenu::aboutToShow, this, &Toolbar::fillOrgMenu);
    org_->setMenu(orgMenu_);
    row->addWidget(org_);

    row->addWidget(iconButton(QStringLiteral("arrow.clockwise"),
                              QStringLiteral("Refresh everything"), QString(), this,
                              [this] { actions_.refresh(); }));

    // Signed out a plain button to the sign-in window, signed in the account
    // menu: one button that changes its part, so its place in the Tab walk stays.
    account_ = iconButton(QStringLiteral("person.crop.circle"), QString(), QString(), this, {});
    account_->setObjectName(QStringLiteral("account"));
    account_->setFixedSize(30, 30);
    accountMenu_ = new QMenu(account_);
    connect(accountMenu_, &QMenu::aboutToShow, this, &Toolbar::fillAccountMenu);
    connect(account_, &QToolButton::clicked, this, [this] {
        if (!state_.signedIn) {
            actions_.openWorkspace(QStringLiteral("login"));
        }
    });
    row->addWidget(account_);

    row->addWidget(iconButton(QStringLiteral("power"), QStringLiteral("Quit"), QString(), this,
                              [this] { actions_.quit(); }));
    update(state);
}

void Toolbar::update(const ToolbarState& state) {
    state_ = state;
    if (org_->text() != state.org.name) {
        org_->setText(state.org.name);
    }
    org_->setToolTip(state.org.host);
    org_->setAccessibleName(QStringLiteral("Organisation ") + state.org.name);

    if (state.signedIn) {
        const QString help = state.email.value_or(QStringLiteral("Account"));
        account_->setToolTip(help);
        account_->setAccessibleName(QStringLiteral("Account"));
        if (account_->menu() != accountMenu_) {
            account_->setMenu(accountMenu_);
            account_->setPopupMode(QToolButton::InstantPopup);
        }
    } else {
        if (account_->menu()) {
            account_->setMenu(nullptr);
        }
        account_->setToolTip(QStringLiteral("Sign in…"));
        account_->setAccessibleName(QStringLiteral("Sign in…"));
    }
    // A menu that stands open shows what was true when it opened; its rows
    // act on the state of the moment when chosen.
}

void Toolbar::fillOrgMenu() {
    orgMenu_->clear();
    const QIcon check = symbolIcon(QStringLiteral("checkmark"), palette());
    for (const OrgMenuItem& item : state_.rows) {
        if (std::holds_alternative<OrgMenuItem::Add>(item.action)) {
            orgMenu_->addSeparator();
        }
        QAction* row = orgMenu_->addAction(item.checked ? check : QIcon(), item.title);
        row->setObjectName(item.id);
        row->setEnabled(state_.canChangeOrg);
        connect(row, &QAction::triggered, this, [this, action = item.action] {
            if (const auto* select = std::get_if<OrgMenuItem::Select>(&action)) {
                actions_.selectOrg(select->host);
            } else if (std::holds_alternative<OrgMenuItem::Add>(action)) {
                actions_.openWorkspace(QStringLiteral("add-organisation"));
            } else {
                actions_.signOutOfOrg();
            }
        });
    }
}

void Toolbar::fillAccountMenu() {
    accountMenu_->clear();
    accountMenu_->addAction(state_.email.value_or(QStringLiteral("member")))->setEnabled(false);
    accountMenu_->addAction(QStringLiteral("Sign in…"), this,
                            [this] { actions_.openWorkspace(QStringLiteral("login")); });
    accountMenu_
        ->addAction(QStringLiteral("Organisation…"), this,
                    [this] { actions_.openWorkspace(QStringLiteral("login")); })
        ->setEnabled(!state_.capture && !state_.stoppingOpenCall && !state_.signingIn);
    accountMenu_->addAction(QStringLiteral("Sign out"), this, [this] { actions_.signOut(); })
        ->setEnabled(!state_.capture);
    accountMenu_->addSeparator();
    accountMenu_
        ->addAction(QStringLiteral("Check for updates…"), this,
                    [this] { actions_.checkForUpdates(); })
        ->setEnabled(state_.canCheckForUpdates);
}

} // namespace tessel::app
