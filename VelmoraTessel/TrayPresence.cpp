#include "TrayPresence.h"

#include "errors/ErrorLog.h"

#include <QCursor>
#include <QDBusServiceWatcher>
#include <QGuiApplication>
#include <QIconEngine>
#include <QMenu>
#include <QPainter>
#include <QScreen>
#include <QWidget>

#include <algorithm>

namespace tessel::app {

namespace {

// The panel asks the icon theme for the name (a symbolic icon it recolours to
// its own foreground, legible on light and dark panels alike); a panel that
// cannot find it, as before the program is installed, shows the picture sent
// beside the name: the application's own icon, which reads on any panel.
class TrayIconEngine : public QIconEngine {
public:
    TrayIconEngine(QString name, QIcon picture, bool attention)
        : name_(std::move(name)), picture_(std::move(picture)), attention_(attention) {}

    QString iconName() override { return name_; }
    QIconEngine* clone() const override { return new TrayIconEngine(name_, picture_, attention_); }
    QList<QSize> availableSizes(QIcon::Mode, QIcon::State) override {
        return {{16, 16}, {22, 22}, {24, 24}, {32, 32}, {48, 48}, {64, 64}};
    }
    QPixmap pixmap(const QSize& size, QIcon::Mode mode, QIcon::State state) override {
        QPixmap out(size);
        out.fill(Qt::transparent);
        QPainter painter(&out);
        paint(&painter, QRect(QPoint(0, 0), size), mode, state);
        return out;
    }
    void paint(QPainter* painter, const QRect& rect, QIcon::Mode mode,
               QIcon::State state) override {
        picture_.paint(painter, rect, Qt::AlignCenter, mode, state);
        if (attention_) {
            const int dot = std::max(4, rect.width() * 3 / 8);
            painter->setRenderHint(QPainter::Antialiasing);
            painter->setPen(QPen(Qt::white, std::max(1, dot / 6)));
            painter->setBrush(QColor(0xf5, 0x79, 0x00));
            painter->drawEllipse(QRect(rect.right() - dot + 1, rect.top(), dot, dot));
        }
    }

private:
    QString name_;
    QIcon picture_;
    bool attention_;
};

// A compositor places every window itself on Wayland: there the popover is an
// honest small window, with its title, where the compositor puts it.
bool placesWindows() {
    return !QGuiApplication::platformName().startsWith(QLatin1String("wayland"));
}

QIcon trayIcon(bool attention) {
    QIcon picture = QIcon::fromTheme(QStringLiteral("ai.velmora.tessel"));
    if (picture.isNull()) {
        picture = QIcon::fromTheme(QStringLiteral("audio-input-microphone"));
    }
    return QIcon(new TrayIconEngine(attention
                                        ? QStringLiteral("ai.velmora.tessel-attention-symbolic")
                                        : QStringLiteral("ai.velmora.tessel-symbolic"),
                                    picture, attention));
}

} // namespace

TrayPresence::TrayPresence(QWidget& popover, PopoverController& controller,
                           const QDBusConnection& bus, std::function<void()> quit, QObject* parent)
    : QObject(parent), popover_(popover), controller_(controller), bus_(bus),
      quit_(std::move(quit)) {}

TrayPresence::~TrayPresence() = default;

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
            tray_ = std::make_unique<QSystemTrayIcon>(trayIcon(attention_));
            tray_->setToolTip(QStringLiteral("Velmora"));
            menu_ = std::make_unique<QMenu>();
            menu_->addAction(QStringLiteral("Open Velmora"), this, &TrayPresence::showPopover);
            menu_->addAction(QStringLiteral("Quit"), this, [this] { quit_(); });
            connect(tray_.get(), &QSystemTrayIcon::activated, this,
                    [this](QSystemTrayIcon::ActivationReason reason) {
                        if (reason == QSystemTrayIcon::Trigger ||
                            reason == QSystemTrayIcon::DoubleClick) {
                            togglePopover();
                        } else if (reason == QSystemTrayIcon::Context) {
                            menu_->popup(QCursor::pos());
                        }
                    });
        }
        tray_->show();
        popover_.setWindowFlags(placesWindows() ? Qt::Tool | Qt::FramelessWindowHint : Qt::Window);
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
    if (inTray_ && placesWindows()) {
        placePopover();
    }
    popover_.show();
    popover_.raise();
    popover_.activateWindow();
}

void TrayPresence::setAttention(bool attention) {
    if (attention == attention_) {
        return;
    }
    attention_ = attention;
    if (tray_) {
        tray_->setIcon(trayIcon(attention));
    }
}

void TrayPresence::togglePopover() {
    if (popover_.isVisible()) {
        popover_.hide();
        return;
    }
    showPopover();
}

} // namespace tessel::app
