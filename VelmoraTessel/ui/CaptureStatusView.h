// What a capture shows, in the popover and in the "call" window alike: its
// state in words, the elapsed time, the two sources, the uploads, its error
// and its buttons. Shown from a snapshot of the session, so that every state
// can be looked at without running one.
#pragma once

#include "app/AppModel.h"

#include <QPointer>
#include <QWidget>

#include <functional>
#include <optional>

class QLabel;
class QToolButton;

namespace tessel::app {

class ErrorNotice;

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

// Built once; it follows the session it is given, changing its words and
// buttons in place, so the focus on Stop stays through every upload. Stop
// opens the browser afterwards only outside the popover.
class CaptureStatusView : public QWidget {
    Q_OBJECT

public:
    CaptureStatusView(bool inPopover, CaptureActions actions, QWidget* parent = nullptr);

    // The session shown, followed until another is given; none hides the view.
    void setSession(CaptureSession* session);
    // What a snapshot of a session shows.
    void showSnapshot(const CaptureSnapshot& capture);

private:
    void followSession();

    bool inPopover_;
    CaptureActions actions_;
    QPointer<CaptureSession> session_;
    QLabel* preparing_ = nullptr;
    QLabel* finished_ = nullptr;
    QToolButton* another_ = nullptr;
    ErrorNotice* signInNotice_ = nullptr;
    QToolButton* signIn_ = nullptr;
    QLabel* headline_ = nullptr;
    QLabel* health_ = nullptr;
    QLabel* uploads_ = nullptr;
    QLabel* silent_ = nullptr;
    ErrorNotice* error_ = nullptr;
    QToolButton* stop_ = nullptr;
    QToolButton* back_ = nullptr;
    QToolButton* notes_ = nullptr;
};

} // namespace tessel::app
