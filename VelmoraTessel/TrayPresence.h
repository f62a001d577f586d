// The program's place on the desktop: a tray icon that shows and hides the
// popover beside it or, with no tray, the popover as an ordinary window. The
// tray can come and go with the desktop's StatusNotifierWatcher; the program
// never ends for want of one.
//
// The item exports no menu: hosts such as GNOME's AppIndicator extension open
// an exported menu on a left click and never send Activate. A left click opens
// the popover everywhere; a right click (ContextMenu) opens the program's own
// small menu at the pointer.
#pragma once

#include "PopoverController.h"

#include <QDBusConnection>
#include <QObject>
#include <QSystemTrayIcon>

#include <functional>
#include <memory>

class QDBusServiceWatcher;
class QMenu;
class QWidget;

namespace tessel::app {

class TrayPresence : public QObject {
    Q_OBJECT

public:
    // `popover` and `controller` outlive this; `quit` is the tray menu's Quit.
    TrayPresence(QWidget& popover, PopoverController& controller, const QDBusConnection& bus,
                 std::function<void()> quit, QObject* parent = nullptr);
    ~TrayPresence() override;

    // Watches for the tray and takes the form that fits what is there now.
    void start();
    // Whether the popover is at a tray icon now (rather than a window).
    bool inTray() const { return inTray_; }

    void showPopover();
    void togglePopover();
    // The icon with the attention mark, while a seat needs attention.
    void setAttention(bool attention);

private:
    void useTray(bool available);
    void placePopover();

    QWidget& popover_;
    PopoverController& controller_;
    QDBusConnection bus_;
    std::function<void()> quit_;
    std::unique_ptr<QSystemTrayIcon> tray_;
    std::unique_ptr<QMenu> menu_;
    bool attention_ = false;
    QDBusServiceWatcher* watcher_ = nullptr;
    bool inTray_ = false;
};

} // namespace tessel::app
