#include "app/UpdateController.h"

#include "errors/Failures.h"

#include <QMetaObject>
#include <QPointer>

namespace tessel {

const QString UpdateController::finishCallMessage =
    QStringLiteral("Finish your call before checking for updates.");

UpdateController::UpdateController(std::unique_ptr<UpdateEngine> engine, bool startingUpdater,
                                   QObject* parent)
    : QObject(parent), engine_(engine ? std::move(engine) : std::make_unique<NoUpdateEngine>()) {
    // The gate has to be in place before the engine runs.
    engine_->setGate(this);
    connect(engine_.get(), &UpdateEngine::canCheckChanged, this, &UpdateController::recompute);
    recompute();
    if (startingUpdater) {
        QMetaObject::invokeMethod(
            this, [this] { engine_->start(); }, Qt::QueuedConnection);
    }
}

void UpdateController::recompute() {
    const bool value = !captureIsHeld_ && engine_->canCheck();
    if (value != canCheckForUpdates_) {
        canCheckForUpdates_ = value;
        emit changed();
    }
}

void UpdateController::setCaptureIsHeld(bool held) {
    captureIsHeld_ = held;
    recompute();
    if (held || !postponedInstall_) {
        return;
    }
    // Taken out now and run on a later turn of the loop: a call that starts in
    // between puts it back and holds the install off again.
    auto install = std::exchange(postponedInstall_, nullptr);
    QMetaObject::invokeMethod(
        this,
        [this, install = std::move(install)]() mutable {
            if (captureIsHeld_) {
                postponedInstall_ = std::move(install);
                return;
            }
            install();
        },
        Qt::QueuedConnection);
}

void UpdateController::checkForUpdates() {
    if (canCheckForUpdates_) {
        engine_->checkForUpdates();
    }
}

void UpdateController::mayPerformUpdateCheck() {
    if (captureIsHeld_) {
        throw TesselError(finishCallMessage);
    }
}

void UpdateController::shouldProceedWithUpdate() {
    if (captureIsHeld_) {
        throw TesselError(finishCallMessage);
    }
}

bool UpdateController::shouldPostponeRelaunch(std::function<void()> relaunch) {
    if (!captureIsHeld_) {
        return false;
    }
    // Only the latest relaunch is kept.
    postponedInstall_ = std::move(relaunch);
    return true;
}

} // namespace tessel
