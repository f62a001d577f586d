#include "TrayPresence.h"

#include "errors/ErrorLog.h"

#include <QCursor>
#include <QDBusServiceWatcher>
#include <QGuiApplication>
#include <QMenu>
#include <QPainter>
#include <QScreen>
#include <QWidget>

#include <algorithm>

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

} // namespace

TrayPresence::TrayPresence(QWidget& popover, PopoverController& controller,
                           const QDBusConnection& bus, std::function<void()> quit, QObject* parent)
    : QObject(parent), popover_(popover), controller_(controller), bus_(bus),
      quit_(std::move(quit)) {}

void TrayPresence::start() {
    watcher_ = new QDBusServiceWatcher(QStringLiteral("org.kde.StatusNotifierWatcher"), bus_,
                                       QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(watcher_, &QDBusServiceWatcher::serviceOwnerChanged, this,
            [this](const QString&, const QString&, const QString& owner) {
                useTray(!owner.isEmpty() && QSystemTrayIcon::isSystemTrayAvailable());
            });
    useTray(QSystemTrayIcon::isSystemTrayAvailable());
}

void TrayPresence::useTray(bool available) {
    inTray_ = available;
    const bool wasVisible = popover_.isVisible();
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
            menu->addAction(QStringLiteral("Open Velmora"), this, &TrayPresence::showPopover);
            menu->addAction(QStringLiteral("Quit"), this, [this] { quit_(); });
            tray_->setContextMenu(menu);
        }
        tray_->show();
        popover_.setWindowFlags(Qt::Tool | Qt::FramelessWindowHint);
        controller_.registerWindow(&popover_);
        log::write(log::Level::info, "app", QStringLiteral("tessel tray: status item shown"));
    } else {
        if (tray_) {
            tray_->hide();
        }
        // Without a tray the popover is an ordinary small window, and stays
        // until it is closed: there is no icon to bring it back.
        controller_.registerWindow(nullptr);
        popover_.setWindowFlags(Qt::Window);
        log::write(log::Level::info, "app",
                   QStringLiteral("tessel tray: no system tray — the popover is a window"));
        showPopover();
        return;
    }
    if (wasVisible) {
        showPopover();
    }
}

void TrayPresence::placePopover() {
    popover_.adjustSize();
    const QRect icon = tray_ ? tray_->geometry() : QRect();
    const QPoint anchor = icon.isValid() ? icon.bottomLeft() : QCursor::pos();
    QScreen* screen = QGuiApplication::screenAt(anchor);
    if (!screen) {
        screen = QGuiApplication::primaryScreen();
    }
    QRect frame(anchor, popover_.size());
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
    popover_.move(frame.topLeft());
}

void TrayPresence::showPopover() {
    if (inTray_) {
        placePopover();
    }
    popover_.show();
    popover_.raise();
    popover_.activateWindow();
}

void TrayPresence::togglePopover() {
    if (popover_.isVisible()) {
        popover_.hide();
        return;
    }
    showPopover();
}

} // namespace tessel::app
