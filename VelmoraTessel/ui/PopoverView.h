// The popover's content, top to bottom: the toolbar, the inbox, the call
// commands, the running capture or the idle block, the error, the local
// infrastructure and the footer. 340 wide. Rebuilt from the models when they
// change, and only while it is shown; refreshed when it appears and when a
// window of the program becomes active.
#pragma once

#include "PopoverController.h"
#include "app/AppModel.h"
#include "apps/AppsModel.h"
#include "infra/InfraModel.h"
#include "notify/NotifyFeedModel.h"
#include "subscriptions/SubscriptionsModel.h"
#include "tools/HelpersModel.h"
#include "ui/RebuildLater.h"

#include <QPointer>
#include <QWidget>

#include <functional>
#include <memory>

class QVBoxLayout;

namespace tessel::app {

class AppsView;
class InfraView;

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
    // Builds now what a change asked for (the tests look without a loop turn).
    void rebuild();

protected:
    void showEvent(QShowEvent* event) override;
    bool event(QEvent* event) override;
    bool focusNextPrevChild(bool next) override;

private:
    void scheduleRebuild();
    void fitHeight();
    void refreshEverything();
    void refreshSubscriptions(bool fresh);
    void updateApps();
    QWidget* toolbar();
    void addCommands(QVBoxLayout* rows);
    QWidget* footer();

    QPointer<AppModel> model_;
    PopoverController& controller_;
    Actions actions_;
    QPointer<InfraModel> infra_;
    QPointer<NotifyFeedModel> notifications_;
    QPointer<SubscriptionsModel> subscriptions_;
    std::function<AppsModel::Options()> appOptions_;
    std::unique_ptr<AppsModel> apps_;
    QString appsHost_;
    QWidget* head_ = nullptr;
    AppsView* appsView_ = nullptr;
    QWidget* top_ = nullptr;
    InfraView* infraView_ = nullptr;
    QWidget* footer_ = nullptr;
    QVBoxLayout* outer_ = nullptr;
    RebuildLater rebuildLater_{this, [this] { rebuild(); }};
    bool tabFromTop_ = false; // the next Tab starts at the top row
};

} // namespace tessel::app
