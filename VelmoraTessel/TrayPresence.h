// The program's place on the desktop: a tray icon that shows and hides the
// popover beside it or, with no tray, the popover as an ordinary window. The
// tray can come and go with the desktop's StatusNotifierWatcher; the program
// never ends for want of one.
#pragma once

#include "PopoverController.h"

#include <QDBusConnection>
#include <QObject>
#include <QSystemTrayIcon>

#include <functional>
#include <memory>

class QDBusServiceWatcher;
class QWidget;

namespace tessel::app {

class TrayPresence : public QObject {
    Q_OBJECT

public:
    // `popover` and `controller` outlive this; `quit` is the tray menu's Quit.
    TrayPresence(QWidget& popover, PopoverController& controller, const QDBusConnection& bus,
                 std::function<void()> quit, QObject* parent = nullptr);

    // Watches for the tray and takes the form that fits what is there now.
    void start();
    // Whether the popover is at a tray icon now (rather than a window).
    bool inTray() const { return inTray_; }

    void showPopover();
    void togglePopover();

private:
    void useTray(bool available);
    void placePopover();

    QWidget& popover_;
    PopoverController& controller_;
    QDBusConnection bus_;
    std::function<void()> quit_;
    std::unique_ptr<QSystemTrayIcon> tray_;
    QDBusServiceWatcher* watcher_ = nullptr;
    bool inTray_ = false;
};

} // namespace tessel::app
