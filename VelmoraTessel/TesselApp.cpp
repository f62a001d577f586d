#include "TesselApp.h"

#include "AppUpdates.h"
#include "DesktopActions.h"
#include "SiblingApps.h"

#include "audio/AudioCapture.h"
#include "errors/ErrorLog.h"
#include "identity/SecretServiceStore.h"
#include "identity/UserDefaults.h"
#include "infra/InfraStatus.h"
#include "ui/CallWindow.h"
#include "ui/ConductorSetupWindow.h"
#include "ui/DesktopSettings.h"
#include "ui/LoginWindow.h"
#include "ui/PopoverView.h"
#include "ui/SubscriptionsWindow.h"

#include <QApplication>
#include <QDir>
#include <QIcon>
#include <QSessionManager>

namespace tessel::app {

namespace {

// The infrastructure model as the application model drives it.
class InfraModelRefresher : public InfraRefresher {
public:
    explicit InfraModelRefresher(std::shared_ptr<InfraModel> model) : model_(std::move(model)) {}
    Task<void> refresh(bool force) override {
        const auto model = model_;
        co_await model->refresh(force);
    }

private:
    std::shared_ptr<InfraModel> model_;
};

} // namespace

TesselApp::TesselApp(Endpoints endpoints, SingleInstance& instance, QObject* parent)
    : QObject(parent), endpoints_(std::move(endpoints)), instance_(instance) {
    auto session = std::make_shared<HTTPSession>(endpoints_.httpOptions());
    auto engine = makeUpdateEngine(endpoints_, HTTPClient(session), [this](const QString& image) {
        relaunchInto(image, instance_, delegate_.terminate);
    });

    // The helper tools a tryout build carries go to the user's private bin
    // directory; a packaged program carries none, and its sections say that a
    // tool is not installed rather than that installing it failed.
    const auto environment = QProcessEnvironment::systemEnvironment();
    helperInstaller_ = std::make_unique<HelperInstaller>(
        HelperInstaller::bundledDirectory(QCoreApplication::applicationDirPath()),
        HelperInstaller::dataDirectory(environment, QDir::homePath()));
    if (helperInstaller_->bundleDirectory()) {
        helperTarget_ = helperInstaller_->directory();
    }

    infra_ = std::make_shared<InfraModel>(InfraCLI::tool(helperTarget_), monotonicNow, sleepFor);
    const auto secrets = std::make_shared<SecretServiceStore>();
    // One settings file, held by one object: the organisation selection, the
    // feed's state and the window frames all go through it.
    defaults_ = std::make_shared<SettingsDefaults>();
    // The one place that starts services.
    model_ = std::make_unique<AppModel>(
        AppModel::Services{
            .endpoints = endpoints_,
            .defaults = defaults_,
            .secureStore = secrets,
            .httpSession = session,
            .makeAudio = defaultAudioMaker(),
            .captureClock = {},
            .clock = {},
            .openURL = openInDesktop,
            .updateEngine = std::move(engine),
            .infra = std::make_shared<InfraModelRefresher>(infra_),
        },
        true);

    delegate_.model = model_.get();
    delegate_.terminate = [] { QCoreApplication::quit(); };

    // The helper tools are kept installed from the first turn of the loop on.
    helpers_ = std::make_unique<HelpersModel>(HelpersModel::Dependencies{
        .install = [installer = helperInstaller_.get()] { return installer->installIfNeeded(); },
        .python = HelperPython::pythonRunner(),
        .packageTool = HelperPython::packageToolRunner(),
        .carried = helperTarget_.has_value(),
    });
    // The tools are looked up once installed: on a first start the infrastructure
    // and the subscription watch found none and said "not installed" for good.
    // The subscription watch reads at once and on its timer from then on,
    // whether or not its window is ever opened.
    delegate_.launchJobs.push_back([this, self = QPointer<TesselApp>(this)] {
        spawn([this, self]() -> Task<void> {
            co_await helpers_->installIfNeeded();
            if (!self) {
                co_return;
            }
            SubscriptionsModel& watch = subscriptions();
            popover_->setSubscriptions(&watch);
            // The status item carries the watch's mark: attention when a seat needs it.
            const auto mark = [this, watched = &watch] {
                tray_->setAttention(watched->menuSymbol() == QStringLiteral("v.circle.fill"));
            };
            connect(&watch, &SubscriptionsModel::changed, this, mark);
            mark();
            if (helpers_->ready()) {
                const std::shared_ptr<InfraModel> infra = infra_;
                infra->rebindHelpers();
                co_await infra->refresh(false);
            }
        });
    });

    // The notification feed polls from the end of launching on.
    notifications_ = std::make_unique<AppNotifications>(defaults_->settings(), instance_.bus(),
                                                        *model_, HTTPClient(session),
                                                        endpoints_.notifyServiceURL.toString());
    delegate_.launchJobs.push_back([this] { notifications_->startPolling(); });

    popover_ = std::make_unique<PopoverView>(
        *model_, controller_,
        PopoverView::Actions{
            .openWindow = [this](const QString& id) { openWindow(id); },
            .quit = [this] { delegate_.requestQuit(); },
            .openURL = openInDesktop,
        },
        PopoverView::Sources{
            .infra = infra_.get(),
            .helpers = helpers_.get(),
            .notifications = &notifications_->feed(),
            .appOptions = [host = endpoints_.defaultOrgHost, keychain = model_->keychain(),
                           http = HTTPClient(session)] { return appOptions(host, keychain, http); },
        });
    tray_ = std::make_unique<TrayPresence>(*popover_, controller_, instance_.bus(),
                                           [this] { delegate_.requestQuit(); });
    controller_.statusItemToggle = [this] {
        if (!tray_->inTray()) {
            return false;
        }
        tray_->togglePopover();
        return true;
    };
    connect(&instance_, &SingleInstance::activateRequested, this, &TesselApp::showPopover);
    addWindows();
}

// The windows by id, each built at its first opening.
void TesselApp::addWindows() {
    addWindow(QStringLiteral("call"), [this] {
        return new CallWindow(*model_, [this](const QString& id) { openWindow(id); });
    });
    addWindow(QStringLiteral("login"), [this] { return new LoginWindow(*model_, openInDesktop); });
    addWindow(ConductorSetupWindow::id, [this] {
        using Organisation = ConductorSetupWindow::Organisation;
        const auto environment = QProcessEnvironment::systemEnvironment();
        auto setup = std::make_unique<ConductorSetupModel>(
            InfraCLI::tool(helperTarget_),
            ConductorSetupModel::defaultTempRoot(
                environment, HelperInstaller::dataDirectory(environment, QDir::homePath())));
        QPointer<AppModel> model = model_.get();
        return new ConductorSetupWindow(
            infra_.get(), std::move(setup),
            {
                .orgs =
                    [model] {
                        QList<Organisation> orgs;
                        if (model) {
                            for (const Org& org : model->knownOrgs()) {
                                orgs.push_back({org.host, org.name, org.url});
                            }
                        }
                        return orgs;
                    },
                .selected = [model]() -> std::optional<Organisation> {
                    if (!model) {
                        return std::nullopt;
                    }
                    Org chosen = model->orgStore().current();
                    try {
                        chosen = Org::fromHost(model->org());
                    } catch (const std::exception&) {
                        // No organisation of its own: the store's current one.
                    }
                    return Organisation{chosen.host, chosen.name, chosen.url};
                },
                .refreshOrgs =
                    [model] {
                        if (model) {
                            model->refreshOrgs();
                        }
                    },
                .openURL = openInDesktop,
                .runbookURL = endpoints_.conductorRunbookURL,
            });
    });
    addWindow(SubscriptionsWindow::id, [this] {
        const auto environment = QProcessEnvironment::systemEnvironment();
        std::function<void()> settings;
        if (const auto command = notificationSettings(environment, findOnPath)) {
            settings = [command = *command] { launch(command); };
        }
        return new SubscriptionsWindow(
            subscriptions(), defaults_->settings(),
            {openInDesktop, settings, MeterlyCLI::notInstalled(helperTarget_)});
    });
}

// The tools are looked for once: `meterly` for readings and alerts, the
// accounts tool for switches and as the reading when `meterly` is missing.
SubscriptionsModel& TesselApp::subscriptions() {
    if (subscriptions_) {
        return *subscriptions_;
    }
    const auto environment = QProcessEnvironment::systemEnvironment();
    const QString home = QDir::homePath();
    std::shared_ptr<MeterlyClient> client;
    if (const auto binary = MeterlyCLI::resolveBinary(environment, home)) {
        client = MeterlyClient::create(MeterlyCLI::runner(*binary), 60);
    }
    std::shared_ptr<VantorAccountsClient> accountsClient;
    if (const auto binary = VantorAccountsCLI::resolveBinary(environment, home)) {
        accountsClient = VantorAccountsClient::create(VantorAccountsCLI::runner(*binary), 60);
    }
    accounts_ = std::make_unique<AccountsModel>(accountsClient);
    subscriptions_ = std::make_unique<SubscriptionsModel>(SubscriptionsModel::Parts{
        .client = client,
        .accounts = accounts_.get(),
        .alertsStore = MeterlyAlertsStore::create(MeterlyAlertsStore::defaultPath(home)),
        .snapshotStore = MeterlySnapshotStore(HelperInstaller::dataDirectory(environment, home)),
        .notInstalled = VantorAccountsCLI::notInstalled(helperTarget_),
        .startingServices = true,
        .desktop = &notifications_->desktop(),
        .notifier = std::nullopt,
        .now = [] { return QDateTime::currentDateTimeUtc(); },
        .sleep = sleepFor,
    });
    return *subscriptions_;
}

TesselApp::~TesselApp() {
    controller_.registerWindow(nullptr);
    for (const auto& window : std::as_const(windows_)) {
        delete window.data();
    }
}

void TesselApp::start() {
    connect(qApp, &QGuiApplication::commitDataRequest, this,
            [this](QSessionManager& manager) { delegate_.commitData(manager); });
    delegate_.watchTerminationSignals();

    tray_->start();
    delegate_.applicationDidFinishLaunching();
}

void TesselApp::showPopover() {
    tray_->showPopover();
}

void TesselApp::togglePopover() {
    tray_->togglePopover();
}

void TesselApp::addWindow(const QString& id, WindowFactory factory) {
    factories_.insert(id, std::move(factory));
}

void TesselApp::openWindow(const QString& id) {
    QPointer<QWidget> window = windows_.value(id);
    if (!window) {
        const auto factory = factories_.value(id);
        if (!factory) {
            log::write(log::Level::warning, "app", QStringLiteral("No window \"%1\"").arg(id));
            return;
        }
        window = factory();
        windows_.insert(id, window);
    }
    window->show();
    window->raise();
    window->activateWindow();
}

int runTrayApp(int argc, char** argv) {
    QApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("VelmoraTessel"));
    app.setDesktopFileName(QStringLiteral("ai.velmora.tessel"));
    // The program's icons stand beside it (bin/../share/icons), installed or not.
    QIcon::setThemeSearchPaths(QIcon::themeSearchPaths() << QCoreApplication::applicationDirPath() +
                                                                QStringLiteral("/../share/icons"));
    app.setWindowIcon(QIcon::fromTheme(QStringLiteral("ai.velmora.tessel")));
    app.setQuitOnLastWindowClosed(false);

    SingleInstance instance(QDBusConnection::sessionBus());
    if (instance.claim() == SingleInstance::Claim::anotherRuns) {
        return 0;
    }
    TesselApp shell(Endpoints::fromEnvironment(), instance);
    shell.start();
    return app.exec();
}

} // namespace tessel::app
