// The popover's content, top to bottom: the toolbar, the inbox, the call
// commands, the running capture or the idle block, the error, the local
// infrastructure and the footer. 340 wide, as tall as its rows up to the
// screen's height, beyond which they scroll. Built once: each part follows the
// group of a model it shows and changes its widgets in place, so focus, a
// pressed button and an open menu survive every change. Refreshed when it
// appears and when a window of the program becomes active.
#pragma once

#include "PopoverController.h"
#include "app/AppModel.h"
#include "apps/AppsModel.h"
#include "infra/InfraModel.h"
#include "notify/NotifyFeedModel.h"
#include "subscriptions/SubscriptionsModel.h"
#include "tools/HelpersModel.h"

#include <QPointer>
#include <QWidget>

#include <functional>
#include <memory>

class QLabel;
class QPushButton;
class QScrollArea;
class QToolButton;
class QVBoxLayout;

namespace tessel::app {

class AppsView;
class CaptureStatusView;
class InfraView;
class Toolbar;

// The models shown beside the application model; either may be absent.
struct PopoverSources {
    InfraModel* infra = nullptr;
    HelpersModel* helpers = nullptr;
    NotifyFeedModel* notifications = nullptr;
    // The sibling applications and their launcher; the popover adds the
    // organisation, the Meet row's lobby and its own dismissal.
    std::function<AppsModel::Options()> appOptions;
};

class PopoverView : public QWidget {
    Q_OBJECT

public:
    struct Actions {
        std::function<void(const QString& id)> openWindow; // also brings the program forward
        std::function<void()> quit;                        // the one road out
        OpenURL openURL;
    };
    using Sources = PopoverSources;

    PopoverView(AppModel& model, PopoverController& controller, Actions actions,
                Sources sources = {}, QWidget* parent = nullptr);

    // Runs `action` after taking the popover down when the policy says so.
    void perform(PopoverAction kind, const std::function<void()>& action);
    // Opens a window by id; "add-organisation" and "login" set the address first.
    void openWorkspace(const QString& id);
    // The subscription watch, once it is built: adds its row.
    void setSubscriptions(SubscriptionsModel* subscriptions);
    // The height the rows want at the popover's width, before the screen limits it.
    int contentHeight() const;

protected:
    void showEvent(QShowEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;
    bool event(QEvent* event) override;
    bool focusNextPrevChild(bool next) override;

private:
    void fitHeight();
    void refreshEverything();
    void refreshSubscriptions(bool fresh);
    void updateApps();
    void updateToolbar();
    void updateCommands();
    void updateFooter();
    Toolbar* makeToolbar();
    void addCommands(QVBoxLayout* rows);
    QWidget* makeFooter();

    QPointer<AppModel> model_;
    PopoverController& controller_;
    Actions actions_;
    QPointer<InfraModel> infra_;
    QPointer<NotifyFeedModel> notifications_;
    QPointer<SubscriptionsModel> subscriptions_;
    std::function<AppsModel::Options()> appOptions_;
    std::unique_ptr<AppsModel> apps_;
    QString appsHost_;
    QScrollArea* scroll_ = nullptr;
    QWidget* content_ = nullptr;
    QVBoxLayout* rows_ = nullptr;
    Toolbar* toolbar_ = nullptr;
    AppsView* appsView_ = nullptr;
    QToolButton* take_ = nullptr;
    QToolButton* notes_ = nullptr;
    CaptureStatusView* capture_ = nullptr;
    QLabel* notKept_ = nullptr;
    InfraView* infraView_ = nullptr;
    QWidget* subscriptionsSlot_ = nullptr;
    QPushButton* check_ = nullptr;
    QLabel* fetched_ = nullptr;
    bool tabFromTop_ = false; // the next Tab starts at the top row
};

} // namespace tessel::app
