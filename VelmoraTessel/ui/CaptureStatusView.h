// What a capture shows, in the popover and in the "call" window alike: its
// state in words, the elapsed time, the two sources, the uploads, its error
// and its buttons. Built from a snapshot of the session, so that every state
// can be looked at without running one.
#pragma once

#include "app/AppModel.h"

#include <QWidget>

#include <functional>
#include <optional>

namespace tessel::app {

struct CaptureSnapshot {
    CaptureState state = CaptureState::idle;
    double elapsed = 0;
    bool micHealthy = false;
    bool systemHealthy = false;
    bool silent = false;
    UploadStatus uploads;
    std::optional<QString> error;
    std::optional<QString> errorDetails;
    std::optional<QString> meetingID;
    bool canStop = false;

    static CaptureSnapshot of(const CaptureSession& session);
};

struct CaptureActions {
    std::function<void()> dismiss; // the popover goes first, where there is one
    std::function<void(const QString& id)> openWindow;
    std::function<void(bool openBrowser)> stop;
    std::function<void()> clear; // the capture and the error become none
    std::function<void()> openNotes;

    // Stop, clear and the notes bound to `model`, held weakly.
    static CaptureActions of(AppModel& model, std::function<void()> dismiss,
                             std::function<void(const QString& id)> openWindow);
};

// "M:SS" of elapsed seconds; minutes are not capped and there is no hour.
QString elapsedText(double elapsed);

// Stop opens the browser afterwards only outside the popover.
QWidget* captureStatusView(const CaptureSnapshot& capture, bool inPopover,
                           const CaptureActions& actions, QWidget* parent);

// Keeps the headline of a view built by captureStatusView showing the
// session's elapsed time, in place, for as long as the view lives.
void followClock(QWidget* view, CaptureSession& session);

} // namespace tessel::app
