// Keeps an update from interrupting a call. A check may find and fetch a new
// version at any time; while a capture is held no check starts and the
// relaunch waits, and it runs by itself once the call is cleared, unless a
// new call has started by then. Main thread.
#pragma once

#include "app/UpdateEngine.h"

#include <QObject>

#include <functional>
#include <memory>

namespace tessel {

class UpdateController : public QObject, public UpdateGate {
    Q_OBJECT

public:
    static const QString finishCallMessage;

    // The engine starts only with `startingUpdater`; the gate is set first.
    UpdateController(std::unique_ptr<UpdateEngine> engine, bool startingUpdater,
                     QObject* parent = nullptr);

    // Observable through `changed`.
    bool canCheckForUpdates() const { return canCheckForUpdates_; }

    bool captureIsHeld() const { return captureIsHeld_; }
    // Set by the application model whenever its capture comes or goes.
    void setCaptureIsHeld(bool held);

    // "Check for updates…": only when a check may start.
    void checkForUpdates();

    bool hasPostponedInstall() const { return static_cast<bool>(postponedInstall_); }
    UpdateEngine& engine() const { return *engine_; }

    void mayPerformUpdateCheck() override;
    void shouldProceedWithUpdate() override;
    bool shouldPostponeRelaunch(std::function<void()> relaunch) override;

signals:
    void changed();

private:
    void recompute();

    std::unique_ptr<UpdateEngine> engine_;
    bool canCheckForUpdates_ = false;
    bool captureIsHeld_ = false;
    std::function<void()> postponedInstall_;
};

} // namespace tessel
