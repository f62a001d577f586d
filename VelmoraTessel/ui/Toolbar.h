// The popover's top row: the program's name (the update command on its
// context menu), the organisation menu, and refresh, account and quit. Built
// once; `update` changes its words and switches in place, and a menu takes its
// rows from the state as it opens, so no change of a model ever closes a menu
// that stands open or takes the focus from a button.
#pragma once

#include "app/AppModel.h"
#include "app/OrgMenuItem.h"

#include <QWidget>

#include <functional>
#include <optional>

class QMenu;
class QToolButton;

namespace tessel::app {

struct ToolbarState {
    Org org; // the organisation shown on the menu
    std::vector<OrgMenuItem> rows;
    bool canChangeOrg = true;
    bool signedIn = false;
    std::optional<QString> email;
    bool capture = false;
    bool stoppingOpenCall = false;
    bool signingIn = false;
    bool canCheckForUpdates = false;

    static ToolbarState of(AppModel& model);
};

struct ToolbarActions {
    std::function<void(const QString& id)> openWorkspace;
    std::function<void(const QString& host)> selectOrg;
    std::function<void()> signOut;      // the account menu's
    std::function<void()> signOutOfOrg; // the organisation menu's: then the list again
    std::function<void()> refresh;
    std::function<void()> quit;
    std::function<void()> checkForUpdates;
};

class Toolbar : public QWidget {
    Q_OBJECT

public:
    Toolbar(const ToolbarState& state, ToolbarActions actions, QWidget* parent = nullptr);

    void update(const ToolbarState& state);
    // The menus as they would open now, for a look without opening them.
    QMenu* orgMenu() const { return orgMenu_; }
    QMenu* accountMenu() const { return accountMenu_; }

private:
    void fillOrgMenu();
    void fillAccountMenu();

    ToolbarActions actions_;
    ToolbarState state_;
    QToolButton* org_ = nullptr;
    QMenu* orgMenu_ = nullptr;
    QToolButton* account_ = nullptr;
    QMenu* accountMenu_ = nullptr;
};

} // namespace tessel::app
