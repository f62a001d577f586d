#include "TesselApp.h"

#include "SiblingApps.h"

#include "app/AppVersion.h"
#include "app/FeedUpdateEngine.h"
#include "audio/AudioCapture.h"
#include "errors/ErrorLog.h"
#include "identity/SecretServiceStore.h"
#include "identity/UserDefaults.h"
#include "infra/InfraStatus.h"
#include "notify/NotifyAPI.h"
#include "notify/NotifyFeedStore.h"
#include "ui/CallWindow.h"
#include "ui/ConductorSetupWindow.h"
#include "ui/DesktopSettings.h"
#include "ui/LoginWindow.h"
#include "ui/PopoverView.h"
#include "ui/SubscriptionsWindow.h"

#include <QApplication>
#include <QCursor>
#include <QDBusServiceWatcher>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QMenu>
#include <QMessageBox>
#include <QPainter>
#include <QProcess>
#include <QScreen>
#include <QSessionManager>
#include <QSettings>

namespace tessel::app {

namespace {

// Drawn rather than shipped, so the executable needs no resource files.
QIcon trayIcon() {
    QPixmap pixmap(64, 64);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(QColor(0x2f, 0x6f, 0xeb));
    painter.setPen(Qt::NoPen);
    painter.drawEllipse(4, 4, 56, 56);
    painter.setBrush(Qt::white);
    painter.drawRoundedRect(26, 14, 12, 26, 6, 6);
    painter.drawRect(30, 42, 4, 8);
    return QIcon(pixmap);
}

void openInDesktop(const QUrl& url) {
    if (!QDesktopServices::openUrl(url)) {
        log::write(log::Level::warning, "app",
                   QStringLiteral("No application opened ") + url.toString());
    }
}

// Words for the person that need no answer, without holding up the loop.
void tell(const QString& text) {
    auto* box = new QMessageBox(QMessageBox::Information, QStringLiteral("Velmora"), text);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

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

// One banner, delivered only while the member is still the one whose token
// fetched the row.
Task<void> postNotification(QPointer<AppModel> model, QPointer<DesktopNotifications> desktop,
                            NotifyDesktopNotification notification) {
    if (!model || !model->member() || !desktop) {
        throw Cancelled();
    }
    const QString token = model->member()->token;
    co_await desktop->post(std::move(notification), [model, token] {
        return model && model->member() && model->member()->token == token;
    });
}

} // namespace

TesselApp::TesselApp(Endpoints endpoints, SingleInstance& instance, QObject* parent)
    : QObject(parent), endpoints_(std::move(endpoints)), instance_(instance) {
    auto session = std::make_shared<HTTPSession>(endpoints_.httpOptions());
    std::optional<QString> appImage;
    if (qEnvironmentVariableIsSet("APPIMAGE")) {
        appImage = qEnvironmentVariable("APPIMAGE");
    }
    std::optional<QUrl> feed;
    if (endpoints_.updateFeedURL.isValid() && !endpoints_.updateFeedURL.isEmpty()) {
        feed = endpoints_.updateFeedURL;
    }
    auto engine = std::make_unique<FeedUpdateEngine>(FeedUpdateEngine::Dependencies{
        .feedURL = feed,
        .currentVersion = AppVersion::shortVersion(),
        .http = HTTPClient(session),
        .appImage = appImage,
        .openURL = openInDesktop,
        .tell = tell,
        .relaunch = [this](const QString& image) { relaunch(image); },
    });

    infra_ = std::make_shared<InfraModel>(InfraCLI::tool(), monotonicNow, sleepFor);
    const auto secrets = std::make_shared<SecretServiceStore>();
    // The one place that starts services.
    model_ = std::make_unique<AppModel>(
        AppModel::Services{
            .endpoints = endpoints_,
            .defaults = std::make_shared<SettingsDefaults>(),
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
    const auto environment = QProcessEnvironment::systemEnvironment();
    helperInstaller_ = std::make_unique<HelperInstaller>(
        HelperInstaller::bundledDirectory(QCoreApplication::applicationDirPath()),
        HelperInstaller::dataDirectory(environment, QDir::homePath()));
    helpers_ = std::make_unique<HelpersModel>(HelpersModel::Dependencies{
        .install = [installer = helperInstaller_.get()] { return installer->installIfNeeded(); },
        .python = HelperPython::pythonRunner(),
        .packageTool = HelperPython::packageToolRunner(),
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
            popover_->setSubscriptions(&subscriptions());
            if (helpers_->ready()) {
                const std::shared_ptr<InfraModel> infra = infra_;
                infra->rebindHelpers();
                co_await infra->refresh(false);
            }
        });
    });

    buildNotifications(session);

    // Later models: subscriptions and the conductor set-up come in as
    // addWindow("subscriptions", ...) and addWindow("conductor-setup", ...)
    // with their windows.

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
            .notifications = notifications_.get(),
            .appOptions = [host = endpoints_.defaultOrgHost, secrets,
                           http = HTTPClient(session)] { return appOptions(host, secrets, http); },
        });
    controller_.statusItemToggle = [this] {
        if (!trayMode_) {
            return false;
        }
        togglePopover();
        return true;
    };
    connect(&instance_, &SingleInstance::activateRequested, this, &TesselApp::showPopover);

    addWindow(QStringLiteral("call"), [this] {
        return new CallWindow(*model_, [this](const QString& id) { openWindow(id); });
    });
    addWindow(QStringLiteral("login"), [this] { return new LoginWindow(*model_, openInDesktop); });
    addWindow(ConductorSetupWindow::id, [this] {
        using Organisation = ConductorSetupWindow::Organisation;
        const auto environment = QProcessEnvironment::systemEnvironment();
        auto setup = std::make_unique<ConductorSetupModel>(
            InfraCLI::tool(),
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
            subscriptions(), *settings_,
            {openInDesktop, settings,
             VantorAccountsCLI::notInstalled(environment, QDir::homePath())});
    });
}

// The notification feed: its API maker, session and notifier read the
// application model at each call and hold it weakly; the poll loop starts
// once launching ends.
void TesselApp::buildNotifications(const std::shared_ptr<HTTPSession>& session) {
    settings_ =
        std::make_unique<QSettings>(QStringLiteral("Velmora"), QStringLiteral("VelmoraTessel"));
    notifyStore_ = std::make_shared<NotifyDefaultsStore>(*settings_);
    desktopNotifications_ =
        std::make_unique<DesktopNotifications>(instance_.bus(), [settings = settings_.get()] {
            return NotifyDefaultsStore::desktopNotifications(*settings);
        });
    QPointer<AppModel> model = model_.get();
    QPointer<DesktopNotifications> desktop = desktopNotifications_.get();
    const HTTPClient http(session);
    const QString serviceURL = endpoints_.notifyServiceURL.toString();
    QSettings* settings = settings_.get();
    notifications_ = std::make_unique<NotifyFeedModel>(
        [model, http, settings, serviceURL]() -> std::shared_ptr<const NotifyFeedAPI> {
            if (!model) {
                throw Cancelled();
            }
            return std::make_shared<NotifyAPI>(std::nullopt, model->tokenProvider(), http,
                                               *settings, serviceURL);
        },
        [model]() -> std::optional<QString> {
            if (!model || !model->member()) {
                return std::nullopt;
            }
            return model->org() + QStringLiteral(":") + model->member()->token;
        },
        [model, desktop](NotifyDesktopNotification notification) {
            return postNotification(model, desktop, std::move(notification));
        },
        notifyStore_);

    QPointer<NotifyFeedModel> feed = notifications_.get();
    connect(desktopNotifications_.get(), &DesktopNotifications::activated, this,
            [model, feed](const QVariantMap& userInfo) {
                spawn([model, feed, userInfo]() -> Task<void> {
                    co_await DesktopNotifications::handleNotificationClick(
                        userInfo,
                        [model]() -> std::optional<QUrl> {
                            return model ? std::optional(QUrl(model->inboxURL())) : std::nullopt;
                        },
                        openInDesktop,
                        [feed](std::vector<QString> ids) -> Task<void> {
                            if (feed) {
                                co_await feed->markRead(std::move(ids));
                            }
                        });
                });
            });
    delegate_.launchJobs.push_back([this, feed] {
        notificationTask_ = BackgroundTask::start([feed](CancellationToken token) {
            return NotifyFeedModel::runPollLoop(feed, sleepFor, std::move(token));
        });
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
        .notInstalled = VantorAccountsCLI::notInstalled(environment, home),
        .startingServices = true,
        .desktop = desktopNotifications_.get(),
        .notifier = std::nullopt,
        .now = [] { return QDateTime::currentDateTimeUtc(); },
        .sleep = sleepFor,
    });
    return *subscriptions_;
}

TesselApp::~TesselApp() {
    if (notificationTask_) {
        notificationTask_->cancel();
    }
    controller_.registerWindow(nullptr);
    for (const auto& window : std::as_const(windows_)) {
        delete window.data();
    }
}

void TesselApp::start() {
    connect(qApp, &QGuiApplication::commitDataRequest, this,
            [this](QSessionManager& manager) { delegate_.commitData(manager); });
    delegate_.watchTerminationSignals();

    // The tray can come and go with the desktop's StatusNotifierWatcher; the
    // program never ends for want of one.
    trayWatcher_ =
        new QDBusServiceWatcher(QStringLiteral("org.kde.StatusNotifierWatcher"), instance_.bus(),
                                QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(trayWatcher_, &QDBusServiceWatcher::serviceOwnerChanged, this,
            [this](const QString&, const QString&, const QString& owner) {
                useTray(!owner.isEmpty() && QSystemTrayIcon::isSystemTrayAvailable());
            });
    useTray(QSystemTrayIcon::isSystemTrayAvailable());
    delegate_.applicationDidFinishLaunching();
}

void TesselApp::useTray(bool available) {
    trayMode_ = available;
    const bool wasVisible = popover_->isVisible();
    if (available) {
        if (!tray_) {
            tray_ = std::make_unique<QSystemTrayIcon>(trayIcon());
            tray_->setToolTip(QStringLiteral("Velmora"));
            connect(tray_.get(), &QSystemTrayIcon::activated, this,
                    [this](QSystemTrayIcon::ActivationReason reason) {
                        if (reason == QSystemTrayIcon::Trigger ||
                            reason == QSystemTrayIcon::DoubleClick) {
                            togglePopover();
                        }
                    });
            auto* menu = new QMenu;
            menu->addAction(QStringLiteral("Open Velmora"), this, &TesselApp::showPopover);
            menu->addAction(QStringLiteral("Quit"), this, [this] { delegate_.requestQuit(); });
            tray_->setContextMenu(menu);
        }
        tray_->show();
        popover_->setWindowFlags(Qt::Tool | Qt::FramelessWindowHint);
        controller_.registerWindow(popover_.get());
        log::write(log::Level::info, "app", QStringLiteral("tessel tray: status item shown"));
    } else {
        if (tray_) {
            tray_->hide();
        }
        // Without a tray the popover is an ordinary small window, and stays
        // until it is closed: there is no icon to bring it back.
        controller_.registerWindow(nullptr);
        popover_->setWindowFlags(Qt::Window);
        log::write(log::Level::info, "app",
                   QStringLiteral("tessel tray: no system tray — the popover is a window"));
        showPopover();
        return;
    }
    if (wasVisible) {
        showPopover();
    }
}

void TesselApp::placePopover() {
    popover_->adjustSize();
    const QRect icon = tray_ ? tray_->geometry() : QRect();
    const QPoint anchor = icon.isValid() ? icon.bottomLeft() : QCursor::pos();
    QScreen* screen = QGuiApplication::screenAt(anchor);
    if (!screen) {
        screen = QGuiApplication::primaryScreen();
    }
    QRect frame(anchor, popover_->size());
    if (screen) {
        const QRect area = screen->availableGeometry();
        // Above the icon when the panel is at the bottom; always on screen.
        if (frame.bottom() > area.bottom()) {
            frame.moveBottom((icon.isValid() ? icon.top() : anchor.y()) - 1);
        }
        frame.moveLeft(std::clamp(frame.left(), area.left(),
                                  std::max(area.left(), area.right() - frame.width())));
        frame.moveTop(std::clamp(frame.top(), area.top(),
                                 std::max(area.top(), area.bottom() - frame.height())));
    }
    popover_->move(frame.topLeft());
}

void TesselApp::showPopover() {
    if (trayMode_) {
        placePopover();
    }
    popover_->show();
    popover_->raise();
    popover_->activateWindow();
}

void TesselApp::togglePopover() {
    if (popover_->isVisible()) {
        popover_->hide();
        return;
    }
    showPopover();
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

void TesselApp::relaunch(const QString& image) {
    // The new version takes the bus name; this one ends.
    instance_.release();
    if (!QProcess::startDetached(image, {})) {
        log::error(QStringLiteral("The new version at %1 could not be started.").arg(image));
    }
    delegate_.terminate();
}

int runTrayApp(int argc, char** argv) {
    QApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("VelmoraTessel"));
    app.setDesktopFileName(QStringLiteral("ai.velmora.tessel"));
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
