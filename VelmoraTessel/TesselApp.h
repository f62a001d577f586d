// The application object of the tray form: it builds the models once, the
// tray presence, the popover and the windows by id, and keeps them for the
// process's life.
//
// Where later models plug in: a window factory by id (addWindow, as in
// addWindows()), a job that starts once launching ends (delegate().launchJobs),
// and the model's functions a feed or a dashboard needs
// (model().tokenProvider(), org(), member(), http()). The notification feed is
// wired that way in AppNotifications, the subscription watch in
// subscriptions().
#pragma once

#include "AppNotifications.h"
#include "ApplicationDelegate.h"
#include "PopoverController.h"
#include "SingleInstance.h"
#include "TrayPresence.h"
#include "app/AppModel.h"
#include "identity/Endpoints.h"
#include "identity/UserDefaults.h"
#include "infra/InfraModel.h"
#include "subscriptions/AccountsModel.h"
#include "subscriptions/SubscriptionsModel.h"
#include "tools/HelperInstaller.h"
#include "tools/HelpersModel.h"

#include <QHash>
#include <QObject>
#include <QPointer>

#include <functional>
#include <memory>
#include <optional>

namespace tessel::app {

class PopoverView;

class TesselApp : public QObject {
    Q_OBJECT

public:
    using WindowFactory = std::function<QWidget*()>;

    // `instance` holds the bus name already; a second launch's request to
    // show the popover arrives through it.
    TesselApp(Endpoints endpoints, SingleInstance& instance, QObject* parent = nullptr);
    ~TesselApp() override;
    // The tray icon (or the popover as a window without a tray), the launch
    // jobs and the signal watch.
    void start();

    AppModel& model() { return *model_; }
    InfraModel& infra() { return *infra_; }
    NotifyFeedModel& notifications() { return notifications_->feed(); }
    // The subscription watch, built at its first use; launching ends with one.
    SubscriptionsModel& subscriptions();
    TesselApplicationDelegate& delegate() { return delegate_; }
    PopoverController& popoverController() { return controller_; }

    void showPopover();
    void togglePopover();
    // Builds the window of `id` once, then shows and raises it.
    void openWindow(const QString& id);
    void addWindow(const QString& id, WindowFactory factory);

private:
    void addWindows();

    Endpoints endpoints_;
    SingleInstance& instance_;
    TesselApplicationDelegate delegate_;
    std::shared_ptr<InfraModel> infra_;
    std::unique_ptr<AppModel> model_;
    std::shared_ptr<SettingsDefaults> defaults_;
    std::unique_ptr<AppNotifications> notifications_;
    std::unique_ptr<AccountsModel> accounts_;
    std::unique_ptr<SubscriptionsModel> subscriptions_;
    std::unique_ptr<HelperInstaller> helperInstaller_;
    // Where the carried helpers are installed; none when the program carries none.
    std::optional<QString> helperTarget_;
    std::unique_ptr<HelpersModel> helpers_;
    PopoverController controller_;
    QHash<QString, WindowFactory> factories_;
    QHash<QString, QPointer<QWidget>> windows_;
    std::unique_ptr<PopoverView> popover_;
    std::unique_ptr<TrayPresence> tray_;
};

// The tray form's entry: returns the process's exit status.
int runTrayApp(int argc, char** argv);

} // namespace tessel::app
