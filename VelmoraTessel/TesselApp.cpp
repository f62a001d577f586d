#include "TesselApp.h"

#include "app/AppVersion.h"
#include "app/FeedUpdateEngine.h"
#include "audio/AudioCapture.h"
#include "errors/ErrorLog.h"
#include "identity/SecretServiceStore.h"
#include "identity/UserDefaults.h"
#include "ui/CallWindow.h"
#include "ui/LoginWindow.h"
#include "ui/PopoverView.h"

#include <QApplication>
#include <QCursor>
#include <QDBusServiceWatcher>
#include <QDesktopServices>
#include <QDir>
#include <QMenu>
#include <QMessageBox>
#include <QPainter>
#include <QProcess>
#include <QScreen>
#include <QSessionManager>

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

    // The one place that starts services.
    model_ = std::make_unique<AppModel>(
        AppModel::Services{
            .endpoints = endpoints_,
            .defaults = std::make_shared<SettingsDefaults>(),
            .secureStore = std::make_shared<SecretServiceStore>(),
            .httpSession = session,
            .makeAudio = defaultAudioMaker(),
            .captureClock = {},
            .clock = {},
            .openURL = openInDesktop,
            .updateEngine = std::move(engine),
            // Later models: the infrastructure model goes here (InfraRefresher).
            .infra = nullptr,
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
    delegate_.launchJobs.push_back([helpers = QPointer<HelpersModel>(helpers_.get())] {
        spawn([helpers]() -> Task<void> {
            if (helpers) {
                co_await helpers->installIfNeeded();
            }
        });
    });

    // Later models:
    // - The notification feed: build NotifyFeedModel here with an API maker
    //   (NotifyAPI over HTTPClient(model().http().session()) and
    //   model().tokenProvider()), a session function (model().org() + ":" +
    //   the member's token, none without a member) and a notifier that checks
    //   the member's token is still the one the row was fetched under; every
    //   function holds the model weakly (QPointer<AppModel>). Its poll loop is
    //   a launch job: delegate_.launchJobs.push_back(...) with
    //   NotifyFeedModel::runPollLoop.
    // - Subscriptions and conductor set-up: addWindow("subscriptions", ...)
    //   and addWindow("conductor-setup", ...) with their windows.

    popover_ = std::make_unique<PopoverView>(
        *model_, controller_,
        PopoverView::Actions{
            .openWindow = [this](const QString& id) { openWindow(id); },
            .quit = [this] { delegate_.requestQuit(); },
            .openURL = openInDesktop,
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
