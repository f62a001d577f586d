// Takes the popover down by the rules of PopoverPolicy: Escape, a click on an
// ordinary window of the program, and the program losing activation (X11 and
// Wayland give no global click monitor; losing activation covers a click in
// another program). While the popover is visible the controller filters the
// application's events; a hidden popover costs no event handling.
#pragma once

#include "app/PopoverPolicy.h"

#include <QObject>
#include <QPointer>
#include <QWidget>

#include <functional>

namespace tessel::app {

class PopoverController : public QObject {
    Q_OBJECT

public:
    static constexpr const char* logCategory = "popover";

    explicit PopoverController(QObject* parent = nullptr);
    ~PopoverController() override;

    // The status item's own toggle, when there is one: the first tier of
    // dismissal. Returns whether it did something.
    std::function<bool()> statusItemToggle;

    // The popover's window; none detaches. The same window again is cheap.
    void registerWindow(QWidget* window);
    void synchronizeVisibility();
    void stopMonitoring();
    // The caller has already decided by the policy that the popover ends.
    void dismiss();

    QWidget* window() const { return window_; }
    bool isMonitoring() const { return monitoring_; }
    int lastDismissTier() const { return lastDismissTier_; }

protected:
    // The application-wide filter: the "local monitor".
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    class WindowObserver;
    void detach();
    bool visible() const;
    void applicationStateChanged(Qt::ApplicationState state);

    QPointer<QWidget> window_;
    WindowObserver* observer_ = nullptr;
    QMetaObject::Connection stateConnection_;
    bool monitoring_ = false;
    bool grabbing_ = false; // the pointer, while the popover shows on X11
    int lastDismissTier_ = 0;
};

} // namespace tessel::app
