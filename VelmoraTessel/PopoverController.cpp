#include "PopoverController.h"

#include "errors/ErrorLog.h"

#include <QApplication>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QWindow>

namespace tessel::app {

// Watches the popover's own window: shown, activated, hidden or closed.
class PopoverController::WindowObserver : public QObject {
public:
    explicit WindowObserver(PopoverController* controller)
        : QObject(controller), controller_(controller) {}

protected:
    bool eventFilter(QObject*, QEvent* event) override {
        switch (event->type()) {
        case QEvent::Show:
        case QEvent::Hide:
        case QEvent::WindowActivate:
            controller_->synchronizeVisibility();
            break;
        case QEvent::Close:
            controller_->stopMonitoring();
            break;
        default:
            break;
        }
        return false;
    }

private:
    PopoverController* controller_;
};

namespace {

// A window at the normal level: not a tool window, menu, tool tip or one kept
// above the others.
bool isNormalLevel(const QWidget* window) {
    const Qt::WindowType type = window->windowType();
    return (type == Qt::Window || type == Qt::Dialog) &&
           !window->windowFlags().testFlag(Qt::WindowStaysOnTopHint);
}

// X11 reports no click in another program or on the bare desktop, and a click
// there need not move the focus. A pointer grab while the popover shows is the
// nearest honest equivalent of a global click monitor: such a click comes to
// the popover, outside its frame, as a menu's does. Wayland offers nothing of
// the kind to a toplevel; there the compositor's focus change ends it.
bool grabsPointer(const QWidget* window) {
    return QGuiApplication::platformName() == QLatin1String("xcb") &&
           window->windowType() == Qt::Tool;
}

} // namespace

PopoverController::PopoverController(QObject* parent) : QObject(parent) {}

PopoverController::~PopoverController() {
    detach();
}

bool PopoverController::visible() const {
    return window_ && window_->isVisible();
}

void PopoverController::registerWindow(QWidget* window) {
    if (window == window_) {
        synchronizeVisibility();
        return;
    }
    detach();
    if (!window) {
        return;
    }
    window_ = window;
    observer_ = new WindowObserver(this);
    window->installEventFilter(observer_);
    stateConnection_ = connect(qApp, &QGuiApplication::applicationStateChanged, this,
                               &PopoverController::applicationStateChanged);
    synchronizeVisibility();
}

void PopoverController::detach() {
    stopMonitoring();
    disconnect(stateConnection_);
    if (window_ && observer_) {
        window_->removeEventFilter(observer_);
    }
    delete observer_;
    observer_ = nullptr;
    window_ = nullptr;
}

void PopoverController::synchronizeVisibility() {
    if (!visible()) {
        stopMonitoring();
        return;
    }
    if (!monitoring_) {
        qApp->installEventFilter(this);
        monitoring_ = true;
    }
    // Again after each activation: a menu of the popover takes the grab for
    // itself while it stands open.
    // The platform window's grab, not QWidget::grabMouse: that one would take
    // every click from the popover's own buttons.
    if (grabsPointer(window_) && window_->isActiveWindow() && window_->windowHandle()) {
        grabbing_ = window_->windowHandle()->setMouseGrabEnabled(true);
    }
}

void PopoverController::stopMonitoring() {
    if (monitoring_) {
        qApp->removeEventFilter(this);
        monitoring_ = false;
    }
    if (grabbing_ && window_ && window_->windowHandle()) {
        window_->windowHandle()->setMouseGrabEnabled(false);
    }
    grabbing_ = false;
}

void PopoverController::applicationStateChanged(Qt::ApplicationState state) {
    if (state == Qt::ApplicationActive) {
        synchronizeVisibility();
    } else {
        dismiss();
    }
}

void PopoverController::dismiss() {
    if (!visible()) {
        stopMonitoring();
        return;
    }
    stopMonitoring();
    lastDismissTier_ = 0;
    if (statusItemToggle && statusItemToggle()) {
        lastDismissTier_ = 1;
    }
    if (visible()) {
        lastDismissTier_ = 2;
        window_->close();
    }
    if (visible()) {
        lastDismissTier_ = 3;
        window_->hide();
    }
    log::write(log::Level::info, logCategory,
               QStringLiteral("tessel popover: dismissed via tier %1").arg(lastDismissTier_));
}

bool PopoverController::eventFilter(QObject* watched, QEvent* event) {
    const QEvent::Type type = event->type();
    const bool key = type == QEvent::KeyPress;
    const bool press = type == QEvent::MouseButtonPress || type == QEvent::MouseButtonDblClick;
    if (!key && !press) {
        return false; // scrolling and everything else passes on
    }
    if (!visible()) {
        stopMonitoring();
        return false;
    }
    // Widgets only: the same input also passes the platform window that holds them.
    auto* widget = qobject_cast<QWidget*>(watched);
    if (!widget) {
        return false;
    }
    QWidget* target = widget->window();
    if (key) {
        // A menu of the popover that stands open takes its own Escape.
        if (static_cast<QKeyEvent*>(event)->key() != Qt::Key_Escape ||
            QApplication::activePopupWidget()) {
            return false;
        }
        if (target == window_ || window_->isActiveWindow()) {
            dismiss();
            return true;
        }
        return false;
    }
    // Under the grab a click elsewhere on the screen reaches the popover too.
    const QPoint at = static_cast<QMouseEvent*>(event)->globalPosition().toPoint();
    const bool outside = target == window_ && !window_->rect().contains(window_->mapFromGlobal(at));
    if (outside) {
        dismiss();
        return true; // nothing of ours was clicked
    }
    const auto action =
        PopoverPolicy::classifyLocalMouseDown(target == window_, isNormalLevel(target));
    if (action && PopoverPolicy::shouldDismiss(*action)) {
        dismiss();
    }
    // The click still reaches what was clicked.
    return false;
}

} // namespace tessel::app
