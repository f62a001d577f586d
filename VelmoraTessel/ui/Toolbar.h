// The popover's top row: the program's name (the update command on its
// context menu), the organisation menu, and refresh, account and quit. Built
// from a plain state so that its enable rules can be looked at on their own.
#pragma once

#include "app/AppModel.h"
#include "app/OrgMenuItem.h"

#include <QWidget>

#include <functional>
#include <optional>

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

private:
    QWidget* orgMenu(const ToolbarState& state);
    QWidget* accountCommand(const ToolbarState& state);

    ToolbarActions actions_;
};

} // namespace tessel::app
