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
    const bool canCheck = state.canCheckForUpdates;
    connect(name, &QLabel::customContextMenuRequested, this, [this, name, canCheck](QPoint at) {
        // Shown without waiting for it: the loop goes on.
        auto* menu = new QMenu(this);
        menu->setAttribute(Qt::WA_DeleteOnClose);
        menu->addAction(QStringLiteral("Check for updates…"), this,
                        [this] { actions_.checkForUpdates(); })
            ->setEnabled(canCheck);
        menu->popup(name->mapToGlobal(at));
    });
    row->addWidget(name);
    row->addStretch();
    row->addWidget(orgMenu(state));
    row->addWidget(iconButton(QStringLiteral("arrow.clockwise"),
                              QStringLiteral("Refresh everything"), QString(), this,
                              [this] { actions_.refresh(); }));
    row->addWidget(accountCommand(state));
    row->addWidget(iconButton(QStringLiteral("power"), QStringLiteral("Quit"), QString(), this,
                              [this] { actions_.quit(); }));
}

QWidget* Toolbar::orgMenu(const ToolbarState& state) {
    auto* button = new QToolButton(this);
    button->setObjectName(QStringLiteral("organisation"));
    button->setText(state.org.name);
    button->setIcon(symbolIcon(QStringLiteral("building.2"), palette()));
    button->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    button->setToolTip(state.org.host);
    button->setAccessibleName(QStringLiteral("Organisation ") + state.org.name);
    button->setAutoRaise(true);
    button->setPopupMode(QToolButton::InstantPopup);
    auto* menu = new QMenu(button);
    const QIcon check = symbolIcon(QStringLiteral("checkmark"), palette());
    for (const OrgMenuItem& item : state.rows) {
        if (std::holds_alternative<OrgMenuItem::Add>(item.action)) {
            menu->addSeparator();
        }
        QAction* row = menu->addAction(item.checked ? check : QIcon(), item.title);
        row->setObjectName(item.id);
        row->setEnabled(state.canChangeOrg);
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
    button->setMenu(menu);
    return button;
}

QWidget* Toolbar::accountCommand(const ToolbarState& state) {
    if (!state.signedIn) {
        return iconButton(QStringLiteral("person.crop.circle"), QStringLiteral("Sign in…"),
                          QString(), this,
                          [this] { actions_.openWorkspace(QStringLiteral("login")); });
    }
    auto* button = iconButton(QStringLiteral("person.crop.circle"),
                              state.email.value_or(QStringLiteral("Account")), QString(), this, {});
    button->setObjectName(QStringLiteral("account"));
    button->setAccessibleName(QStringLiteral("Account"));
    button->setPopupMode(QToolButton::InstantPopup);
    auto* menu = new QMenu(button);
    menu->addAction(state.email.value_or(QStringLiteral("member")))->setEnabled(false);
    menu->addAction(QStringLiteral("Sign in…"), this,
                    [this] { actions_.openWorkspace(QStringLiteral("login")); });
    menu->addAction(QStringLiteral("Organisation…"), this,
                    [this] { actions_.openWorkspace(QStringLiteral("login")); })
        ->setEnabled(!state.capture && !state.stoppingOpenCall && !state.signingIn);
    menu->addAction(QStringLiteral("Sign out"), this, [this] { actions_.signOut(); })
        ->setEnabled(!state.capture);
    menu->addSeparator();
    menu->addAction(QStringLiteral("Check for updates…"), this,
                    [this] { actions_.checkForUpdates(); })
        ->setEnabled(state.canCheckForUpdates);
    button->setMenu(menu);
    return button;
}

} // namespace tessel::app
