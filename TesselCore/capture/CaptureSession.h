// One call, from the request for notes to the closed call on the server.
//
// The session turns a start into an ordered conversation with the meet server,
// runs the audio source, feeds the upload queue, watches ownership, and is the
// one place where audio, upload and server failures become what a person sees.
// Server facts only go from unknown to known, so every road can run again and
// does only what is missing. Main-thread object; its background tasks hold it
// weakly.
#pragma once

#include "capture/CaptureAudio.h"
#include "errors/ErrorPresentation.h"
#include "meet/MeetAPI.h"
#include "upload/UploadQueue.h"

#include <QObject>
#include <QPointer>

#include <memory>
#include <optional>

namespace tessel {

enum class CaptureState {
    idle,
    preparing,
    listening,
    uploading,
    needsSignIn,
    failed,
    finished,
    superseded
};

QString stateText(CaptureState state);

// Time as a capture sees it; tests pass a fast clock.
struct CaptureClock {
    NowFunction now = monotonicNow;
    SleepFunction sleep = sleepFor;
};

class CaptureSession : public QObject {
    Q_OBJECT

public:
    using MakeAudio = std::function<std::unique_ptr<CaptureAudio>()>;

    using Clock = CaptureClock;

    static const QString signInMessage;

    CaptureSession(MeetAPI api, MakeAudio makeAudio, Clock clock = {}, QObject* parent = nullptr);
    ~CaptureSession() override;

    Task<void> start(QString title, QString counterpart, QString project, bool disclosureAcked);
    Task<void> stop();
    Task<void> resumeAfterSignIn();
    Task<void> needsSignIn(HTTPFailure failure);
    Task<void> cleanupIncompleteStart(QString meeting);

    // The monitor's two jobs.
    void refreshUploadStatus();
    Task<void> pollOwnership(CancellationToken token = {});
    // False when this app no longer owns a running recording.
    Task<bool> checkOwnership(CancellationToken token = {});

    CaptureState state() const { return state_; }
    double elapsed() const { return elapsed_; }
    bool micHealthy() const { return micHealthy_; }
    bool systemHealthy() const { return systemHealthy_; }
    bool silent() const { return silent_; }
    const UploadStatus& uploads() const { return uploads_; }
    const std::optional<QString>& error() const { return error_; }
    const std::optional<QString>& errorDetails() const { return errorDetails_; }
    const std::optional<QString>& meetingID() const { return meetingID_; }
    const std::optional<QString>& hostSessionID() const { return hostSessionID_; }
    const std::optional<QString>& recordingID() const { return recordingID_; }
    bool recordingStopped() const { return recordingStopped_; }
    bool stopPending() const { return stopPending_; }
    bool hasStartPending() const { return startPending_.has_value(); }
    bool serverStarted() const { return serverStarted_; }
    bool consentAcknowledged() const { return consentAcknowledged_; }
    CaptureState stateBeforeSignIn() const { return stateBeforeSignIn_; }
    bool canStop() const;
    const MeetAPI& api() const { return api_; }

signals:
    // Any observable property changed, except a clock that only moved.
    void changed();
    // Only elapsed() reached a new whole second: a view moves its clock in
    // place rather than build itself again.
    void clockMoved();

private:
    struct StartRequest {
        QString title;
        QString counterpart;
        QString project;
    };

    Task<void> completeStart();
    static Task<void> consume(QPointer<CaptureSession> session, std::shared_ptr<UploadQueue> queue,
                              CaptureAudio* audio);
    static Task<void> monitorLoop(QPointer<CaptureSession> session, SleepFunction sleep,
                                  CancellationToken token);
    void handle(const CaptureEvent& event, UploadQueue& queue);
    void halt(const ErrorPresentation& presentation);
    void startMonitor();
    void cancelMonitor();
    void present(const std::exception_ptr& error);
    void show(const ErrorPresentation& presentation);
    void setState(CaptureState state);
    Task<void> stopRecordingReconciled(const QString& recording);
    Task<void> endCallReconciled();
    void superseded(const QString& words);
    void stopHardware();

    // First, so that it ends last: gives back what the call's threads freed.
    struct ReturnFreedMemory {
        ReturnFreedMemory() = default;
        ReturnFreedMemory(const ReturnFreedMemory&) = delete;
        ReturnFreedMemory& operator=(const ReturnFreedMemory&) = delete;
        ~ReturnFreedMemory();
    } returnFreedMemory_;
    MeetAPI api_;
    MakeAudio makeAudio_;
    Clock clock_;

    CaptureState state_ = CaptureState::idle;
    double elapsed_ = 0;
    bool micHealthy_ = false;
    bool systemHealthy_ = false;
    bool silent_ = false;
    UploadStatus uploads_;
    std::optional<QString> error_;
    std::optional<QString> errorDetails_;
    std::optional<QString> meetingID_;

    std::optional<QString> hostSessionID_;
    std::optional<QString> recordingID_;
    std::unique_ptr<CaptureAudio> hardware_;
    std::shared_ptr<UploadQueue> queue_;
    std::optional<HTTPClient> uploadHTTP_;
    std::shared_ptr<BackgroundTask> consumer_;
    std::shared_ptr<BackgroundTask> monitor_;
    bool stopping_ = false;
    bool recordingStopped_ = false;
    std::optional<ErrorPresentation> captureFailure_;
    std::optional<QString> uploadMessage_;
    bool stopPending_ = false;
    bool resuming_ = false;
    std::optional<StartRequest> startPending_;
    bool serverStarted_ = false;
    bool consentAcknowledged_ = false;
    CaptureState stateBeforeSignIn_ = CaptureState::listening;
};

} // namespace tessel
