#include "capture/CaptureSession.h"

#include "errors/ErrorLog.h"
#include "errors/Failures.h"
#include "net/HTTPFailure.h"
#include "upload/SegmentUploader.h"

#include <malloc.h>

namespace tessel {

using namespace Qt::Literals::StringLiterals;

namespace {

const QByteArray methodGET = QByteArrayLiteral("GET");
const QByteArray methodPOST = QByteArrayLiteral("POST");

const QString stoppedByServer = u"The server stopped this recording — open the browser to review "
                                u"the audio already saved."_s;
const QString openedElsewhere = u"This call was opened elsewhere — finish it in that session, or "
                                u"return to the browser lobby."_s;
const QString incompleteAudio = u"Your saved audio was uploaded, but recording was incomplete — "
                                u"open the call in your browser to review it."_s;

std::optional<HTTPFailure> signInRefusal(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const HTTPFailure& failure) {
        if (failure.needsSignIn()) {
            return failure;
        }
    } catch (...) {
    }
    return std::nullopt;
}

bool presenceHolds(const JSON& snapshot, const std::optional<QString>& hostSession) {
    for (const JSON& element : snapshot[u"presence"_s].array()) {
        if (element[u"id"_s].string() == hostSession) {
            return true;
        }
    }
    return false;
}

// Ends the call at `base`; when the answer is lost, the call's own status
// tells whether the server ended it anyway.
Task<void> endReconciled(MeetAPI api, QString base) {
    std::exception_ptr refused;
    try {
        co_await api.call(base + u"/end"_s, methodPOST);
    } catch (...) {
        refused = std::current_exception();
    }
    if (!refused) {
        co_return;
    }
    if (signInRefusal(refused) || isCancellation(refused)) {
        std::rethrow_exception(refused);
    }
    const JSON call = co_await api.call(base, methodGET);
    if (!MeetAPI::isClosedStatus(call[u"status"_s])) {
        std::rethrow_exception(refused);
    }
}

} // namespace

const QString CaptureSession::signInMessage = u"Your sign-in timed out after an hour of "
                                              u"inactivity. Sign in again — your audio is safe."_s;

QString stateText(CaptureState state) {
    switch (state) {
    case CaptureState::idle:
        return u"idle"_s;
    case CaptureState::preparing:
        return u"preparing"_s;
    case CaptureState::listening:
        return u"listening"_s;
    case CaptureState::uploading:
        return u"uploading"_s;
    case CaptureState::needsSignIn:
        return u"needsSignIn"_s;
    case CaptureState::failed:
        return u"failed"_s;
    case CaptureState::finished:
        return u"finished"_s;
    case CaptureState::superseded:
        return u"superseded"_s;
    }
    return {};
}

CaptureSession::CaptureSession(MeetAPI api, MakeAudio makeAudio, Clock clock, QObject* parent)
    : QObject(parent), api_(std::move(api)), makeAudio_(std::move(makeAudio)),
      clock_(std::move(clock)) {}

CaptureSession::~CaptureSession() {
    cancelMonitor();
    // Nobody is left to stop the call: its queued audio is given up, not retried
    // in the background forever.
    if (queue_) {
        queue_->cancel();
    }
    if (hardware_) {
        hardware_->stop();
    }
}

// The call's threads (sound server, encoder, uploads) each left a malloc
// arena behind, and glibc keeps their freed pages resident for the life of
// the process, a tray program that idles for hours. This runs
// after every other member, the sound and the uploads, is gone.
CaptureSession::ReturnFreedMemory::~ReturnFreedMemory() {
    malloc_trim(0);
}

bool CaptureSession::canStop() const {
    return meetingID_ && state_ != CaptureState::finished && state_ != CaptureState::superseded;
}

void CaptureSession::setState(CaptureState state) {
    state_ = state;
    emit changed();
}

void CaptureSession::show(const ErrorPresentation& presentation) {
    error_ = presentation.humanLine;
    errorDetails_ = presentation.detailLine;
    presentation.log();
    emit changed();
}

void CaptureSession::present(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const URLError&) {
        if (auto latest = api_.http().latestFailure()) {
            show(*latest);
            return;
        }
    } catch (const Failure& failure) {
        if (failure.description().startsWith(u"Some audio has not uploaded"_s) && uploadHTTP_) {
            if (auto latest = uploadHTTP_->latestFailure()) {
                show(*latest);
                return;
            }
        }
    } catch (...) {
    }
    show(ErrorPresentation::from(error));
}

void CaptureSession::stopHardware() {
    if (hardware_) {
        hardware_->stop();
    }
}

void CaptureSession::cancelMonitor() {
    if (monitor_) {
        monitor_->cancel();
        monitor_.reset();
    }
}

// ---- the way in ----

Task<void> CaptureSession::start(QString title, QString counterpart, QString project,
                                 bool disclosureAcked) {
    if (state_ != CaptureState::idle) {
        throw TesselError(u"A call is already open — finish it before starting another call."_s);
    }
    if (!disclosureAcked) {
        throw TesselError(u"The disclosure has not been acknowledged — say the disclosure to the "
                          u"other participants and tick the checkbox before starting."_s);
    }
    QPointer<CaptureSession> self(this);
    error_.reset();
    errorDetails_.reset();
    setState(CaptureState::preparing);
    hardware_ = makeAudio_();

    std::exception_ptr failure;
    try {
        co_await hardware_->prepare();
        if (!self) {
            throw Cancelled();
        }
        startPending_ = StartRequest{title, counterpart, project};
        co_await completeStart();
    } catch (...) {
        failure = std::current_exception();
    }
    if (!failure || !self) {
        if (failure) {
            std::rethrow_exception(failure);
        }
        co_return;
    }
    if (auto refusal = signInRefusal(failure)) {
        // Audio runs on and the start stays pending for after the sign-in.
        co_await needsSignIn(*refusal);
        std::rethrow_exception(failure);
    }
    stopHardware();
    setState(CaptureState::failed);
    present(failure);
    std::rethrow_exception(failure);
}

Task<void> CaptureSession::completeStart() {
    if (!startPending_ || !hardware_) {
        co_return;
    }
    QPointer<CaptureSession> self(this);
    setState(CaptureState::preparing);

    if (!meetingID_) {
        const StartRequest request = *startPending_;
        const QString id =
            co_await api_.create(request.title, request.counterpart, request.project);
        if (!self) {
            throw Cancelled();
        }
        meetingID_ = id;
        emit changed();
    }

    // Each confirmed step is written at once, before the next request leaves.
    MeetAPI::Progress progress = [self](BeginProgress step) -> Task<void> {
        if (self) {
            switch (step.kind) {
            case BeginProgress::Kind::started:
                self->serverStarted_ = true;
                break;
            case BeginProgress::Kind::acknowledged:
                self->consentAcknowledged_ = true;
                break;
            case BeginProgress::Kind::joined:
                self->hostSessionID_ = step.id;
                break;
            case BeginProgress::Kind::requested:
                self->recordingID_ = step.id;
                break;
            }
        }
        co_return;
    };
    const auto [session, recording] =
        co_await api_.begin(*meetingID_, serverStarted_, consentAcknowledged_, hostSessionID_,
                            recordingID_, std::move(progress));
    if (!self) {
        throw Cancelled();
    }
    hostSessionID_ = session;
    recordingID_ = recording;

    if (!queue_) {
        uploadHTTP_ = api_.http().withRetainedFailures();
        const MeetAPI uploadAPI(api_.baseURL(), api_.tokenProvider(), *uploadHTTP_);
        const SegmentUploader uploader(uploadAPI, *meetingID_, *recordingID_, clock_.sleep);
        queue_ = UploadQueue::create(UploadQueue::uploadWith(uploader), clock_.sleep, clock_.now,
                                     [self](HTTPFailure failure) -> Task<void> {
                                         if (self) {
                                             co_await self->needsSignIn(std::move(failure));
                                         }
                                     });
        // The consumer starts before begin(), so no event is missed.
        auto queue = queue_;
        auto* audio = hardware_.get();
        consumer_ = BackgroundTask::start(
            [self, queue, audio](CancellationToken) { return consume(self, queue, audio); });
    }
    hardware_->begin();
    startPending_.reset();
    setState(CaptureState::listening);
    startMonitor();
}

// ---- running ----

Task<void> CaptureSession::consume(QPointer<CaptureSession> session,
                                   std::shared_ptr<UploadQueue> queue, CaptureAudio* audio) {
    for (;;) {
        // The stream lives in the session's audio source: look before each read.
        if (!session) {
            co_return;
        }
        std::optional<CaptureEvent> event = co_await audio->events().next();
        if (!event) {
            co_return;
        }
        if (session && session->state_ != CaptureState::superseded) {
            session->handle(*event, *queue);
        }
    }
}

void CaptureSession::handle(const CaptureEvent& event, UploadQueue& queue) {
    if (const auto* segment = std::get_if<AudioSegment>(&event)) {
        try {
            queue.enqueue(*segment);
        } catch (...) {
            halt(ErrorPresentation::from(std::current_exception()));
        }
    } else if (const auto* meter = std::get_if<MeterReading>(&event)) {
        // Ten readings a second, and every `changed` rebuilds the popover:
        // only a flag that turned is news for the rows. A new whole second
        // moves the clock alone; a rebuild each second resized the popover
        // under the pointer and could swallow a click on Stop.
        const bool turned = meter->local != micHealthy_ || meter->remote != systemHealthy_ ||
                            meter->silent != silent_;
        const bool ticked = qint64(meter->elapsed) != qint64(elapsed_);
        elapsed_ = meter->elapsed;
        micHealthy_ = meter->local;
        systemHealthy_ = meter->remote;
        silent_ = meter->silent;
        if (turned) {
            emit changed();
        } else if (ticked) {
            emit clockMoved();
        }
    } else if (const auto* failure = std::get_if<CaptureFailure>(&event)) {
        halt(ErrorPresentation::from(TesselError(failure->message)));
    }
}

void CaptureSession::halt(const ErrorPresentation& presentation) {
    captureFailure_ = presentation;
    if (state_ == CaptureState::needsSignIn) {
        // The sign-in prompt stays; the failure comes back after the sign-in.
        stateBeforeSignIn_ = CaptureState::failed;
    } else {
        show(presentation);
        setState(CaptureState::failed);
    }
    stopHardware();
    cancelMonitor();
}

void CaptureSession::startMonitor() {
    cancelMonitor();
    QPointer<CaptureSession> self(this);
    SleepFunction sleep = clock_.sleep;
    monitor_ = BackgroundTask::start([self, sleep](CancellationToken token) {
        return monitorLoop(self, sleep, std::move(token));
    });
}

Task<void> CaptureSession::monitorLoop(QPointer<CaptureSession> session, SleepFunction sleep,
                                       CancellationToken token) {
    for (int wakes = 1; !token.isCancelled(); ++wakes) {
        co_await sleep(1.0, token);
        if (!session || session->stopping_ || session->state_ != CaptureState::listening) {
            co_return;
        }
        session->refreshUploadStatus();
        if (wakes % 5 == 0) {
            co_await session->pollOwnership(token);
        }
    }
}

void CaptureSession::refreshUploadStatus() {
    if (!queue_) {
        return;
    }
    // Called every second during a call: only a difference is news.
    const UploadStatus uploadsBefore = uploads_;
    const std::optional<QString> errorBefore = error_;
    const std::optional<QString> detailsBefore = errorDetails_;
    uploads_ = queue_->status();
    if (uploads_.pending == 0 && uploadHTTP_) {
        uploadHTTP_->clearFailures(); // the problem is over
    }
    std::optional<ErrorPresentation> line;
    if (uploads_.pending >= 1 && uploadHTTP_) {
        line = uploadHTTP_->latestFailure();
    }
    if (!line && uploads_.error) {
        line = ErrorPresentation::from(TesselError(*uploads_.error));
    }
    // `error` is the upload status's own only while it still shows its line.
    if (error_ == uploadMessage_) {
        if (line && line->detailLine != errorDetails_) {
            log::error(line->detailLine);
        }
        error_ = line ? std::optional(line->humanLine) : std::nullopt;
        errorDetails_ = line ? std::optional(line->detailLine) : std::nullopt;
    }
    uploadMessage_ = line ? std::optional(line->humanLine) : std::nullopt;
    if (uploads_ != uploadsBefore || error_ != errorBefore || errorDetails_ != detailsBefore) {
        emit changed();
    }
}

Task<void> CaptureSession::pollOwnership(CancellationToken token) {
    QPointer<CaptureSession> self(this);
    std::exception_ptr failure;
    try {
        co_await checkOwnership(token);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!failure || !self || stopping_ || state_ == CaptureState::needsSignIn ||
        token.isCancelled() || isCancellation(failure)) {
        co_return;
    }
    // A failed poll never stops the capture.
    if (auto refusal = signInRefusal(failure)) {
        co_await needsSignIn(*refusal);
    } else {
        present(failure);
    }
}

void CaptureSession::superseded(const QString& words) {
    setState(CaptureState::superseded);
    present(std::make_exception_ptr(TesselError(words)));
    stopHardware();
    cancelMonitor();
    if (queue_) {
        queue_->cancel();
    }
}

Task<bool> CaptureSession::checkOwnership(CancellationToken token) {
    if (!meetingID_ || !recordingID_ || !hostSessionID_) {
        co_return false;
    }
    QPointer<CaptureSession> self(this);
    const MeetAPI api = api_;
    const QString base = u"/"_s + *meetingID_;
    const JSON snapshot =
        co_await api.call(base + u"/sessions/snapshot"_s, methodGET, std::nullopt, token);
    const JSON manifest =
        co_await api.call(base + u"/recording/manifest"_s, methodGET, std::nullopt, token);
    if (!self) {
        throw Cancelled();
    }
    const auto& parts = manifest[u"parts"_s].array();
    if (!presenceHolds(snapshot, hostSessionID_) || parts.empty() ||
        parts.back()[u"id"_s].string() != recordingID_) {
        superseded(openedElsewhere);
        co_return false;
    }
    if (parts.back()[u"state"_s].string() == u"stopped"_s) {
        recordingStopped_ = true;
        if (stopping_) {
            co_return true;
        }
        superseded(stoppedByServer);
        co_return false;
    }
    co_return true;
}

// ---- the way out ----

Task<void> CaptureSession::stop() {
    if (stopping_) {
        co_return;
    }
    if (!canStop() || !meetingID_) {
        throw TesselError(u"There is no active recording owned by this app — open the call in "
                          u"your browser to review its status."_s);
    }
    QPointer<CaptureSession> self(this);
    const QString meeting = *meetingID_;
    stopPending_ = true;
    stopping_ = true;
    cancelMonitor();
    stopHardware();
    if (consumer_) {
        // Every segment the pipeline still made is queued before anything else.
        auto consumer = consumer_;
        co_await consumer->finished();
        if (!self) {
            throw Cancelled();
        }
    }
    setState(CaptureState::uploading);

    std::exception_ptr failure;
    bool warned = false;
    try {
        if (!recordingID_ || !queue_) {
            co_await cleanupIncompleteStart(meeting);
            if (!self) {
                throw Cancelled();
            }
            stopPending_ = false;
            startPending_.reset();
            error_.reset();
            errorDetails_.reset();
            stopping_ = false;
            setState(CaptureState::finished);
            co_return;
        }
        const bool owned = co_await checkOwnership();
        if (!self) {
            throw Cancelled();
        }
        if (!owned) {
            throw TesselError(
                error_.value_or(u"The recording changed — review it in the browser."_s));
        }
        auto queue = queue_;
        co_await queue->flush();
        if (!self) {
            throw Cancelled();
        }
        uploads_ = queue_->status();
        if (!recordingStopped_) {
            co_await stopRecordingReconciled(*recordingID_);
            if (!self) {
                throw Cancelled();
            }
        }
        co_await endCallReconciled();
        if (!self) {
            throw Cancelled();
        }

        // Closing.
        stopPending_ = false;
        error_ = captureFailure_ ? std::optional(captureFailure_->humanLine) : std::nullopt;
        errorDetails_ = captureFailure_ ? std::optional(captureFailure_->detailLine) : std::nullopt;
        micHealthy_ = false;
        systemHealthy_ = false;
        setState(CaptureState::finished);
        if (!captureFailure_) {
            stopping_ = false;
            co_return;
        }
        // The call is on the server, but the audio ended early.
        show(ErrorPresentation(incompleteAudio, captureFailure_->detailLine));
        warned = true;
        throw TesselError(incompleteAudio);
    } catch (...) {
        failure = std::current_exception();
    }

    if (!self) {
        std::rethrow_exception(failure);
    }
    if (auto refusal = signInRefusal(failure)) {
        co_await needsSignIn(*refusal);
    } else if (!isCancellation(failure)) {
        if (state_ != CaptureState::superseded && state_ != CaptureState::finished) {
            setState(CaptureState::failed);
        }
        if (!(warned || (state_ == CaptureState::finished && captureFailure_))) {
            present(failure);
        }
    }
    if (self) {
        stopping_ = false;
    }
    std::rethrow_exception(failure);
}

Task<void> CaptureSession::stopRecordingReconciled(const QString& recording) {
    QPointer<CaptureSession> self(this);
    const MeetAPI api = api_;
    const QString base = u"/"_s + *meetingID_;
    JSON::Object body{{u"action"_s, u"stop"_s}, {u"recording_id"_s, recording}};
    std::exception_ptr refused;
    try {
        co_await api.call(base + u"/recording"_s, methodPOST, std::move(body));
    } catch (...) {
        refused = std::current_exception();
    }
    if (!self) {
        throw Cancelled();
    }
    if (!refused) {
        recordingStopped_ = true;
        co_return;
    }
    if (signInRefusal(refused) || isCancellation(refused)) {
        std::rethrow_exception(refused);
    }
    // The server may have done it before the answer was lost: ask.
    const JSON snapshot = co_await api.call(base + u"/sessions/snapshot"_s, methodGET);
    if (!self) {
        throw Cancelled();
    }
    if (snapshot[u"recording_state"_s].string() != u"stopped"_s) {
        std::rethrow_exception(refused);
    }
    recordingStopped_ = true;
}

Task<void> CaptureSession::endCallReconciled() {
    co_await endReconciled(api_, u"/"_s + *meetingID_);
}

Task<void> CaptureSession::needsSignIn(HTTPFailure failure) {
    if (state_ == CaptureState::finished || state_ == CaptureState::superseded) {
        co_return;
    }
    if (state_ != CaptureState::needsSignIn) {
        stateBeforeSignIn_ = state_;
    }
    setState(CaptureState::needsSignIn);
    present(std::make_exception_ptr(failure));
    cancelMonitor();
    // Only the server traffic pauses: the audio and the consumer run on.
    if (queue_) {
        queue_->pauseForSignIn(failure);
        uploads_ = queue_->status();
        emit changed();
    }
}

Task<void> CaptureSession::resumeAfterSignIn() {
    if (state_ != CaptureState::needsSignIn || resuming_) {
        co_return;
    }
    QPointer<CaptureSession> self(this);
    resuming_ = true;
    if (queue_) {
        auto queue = queue_;
        co_await queue->resumeAfterSignIn();
        if (!self) {
            throw Cancelled();
        }
    }
    if (state_ == CaptureState::finished || state_ == CaptureState::superseded) {
        resuming_ = false;
        co_return;
    }
    error_ = captureFailure_ ? std::optional(captureFailure_->humanLine) : std::nullopt;
    errorDetails_ = captureFailure_ ? std::optional(captureFailure_->detailLine) : std::nullopt;
    uploadMessage_.reset();
    if (uploadHTTP_) {
        uploadHTTP_->clearFailures();
    }
    setState(captureFailure_ ? CaptureState::failed : stateBeforeSignIn_);

    std::exception_ptr failure;
    try {
        if (stopPending_) {
            co_await stop();
        } else if (startPending_) {
            co_await completeStart();
        } else {
            if (queue_) {
                queue_->retryPending();
            }
            if (state_ == CaptureState::listening) {
                startMonitor();
            }
        }
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self) {
        if (failure) {
            std::rethrow_exception(failure);
        }
        co_return;
    }
    resuming_ = false;
    if (!failure) {
        co_return;
    }
    if (auto refusal = signInRefusal(failure)) {
        co_await needsSignIn(*refusal);
    } else if (!isCancellation(failure)) {
        if (state_ != CaptureState::finished && state_ != CaptureState::superseded) {
            setState(CaptureState::failed);
        }
        stopHardware();
        cancelMonitor();
        present(failure);
    }
    std::rethrow_exception(failure);
}

Task<void> CaptureSession::cleanupIncompleteStart(QString meeting) {
    QPointer<CaptureSession> self(this);
    const MeetAPI api = api_;
    const QString base = u"/"_s + meeting;
    const JSON snapshot = co_await api.call(base + u"/sessions/snapshot"_s, methodGET);
    const JSON manifest = co_await api.call(base + u"/recording/manifest"_s, methodGET);
    if (!self) {
        throw Cancelled();
    }
    const auto& presence = snapshot[u"presence"_s].array();
    const auto& parts = manifest[u"parts"_s].array();
    // The server's record decides: an answer may have been lost on the way.
    if (!presence.empty() && !presenceHolds(snapshot, hostSessionID_)) {
        setState(CaptureState::superseded);
        throw TesselError(u"The start response was interrupted and another host session is "
                          u"present — open this call in the browser to finish it safely."_s);
    }
    if (!parts.empty() && parts.back()[u"state"_s].string() != u"stopped"_s) {
        if (!hostSessionID_ || !presenceHolds(snapshot, hostSessionID_)) {
            throw TesselError(u"The recording start could not be reconciled — open this call in "
                              u"the browser and stop the active recording."_s);
        }
        const QString recording = parts.back().requiredString(u"id"_s);
        JSON::Object body{{u"action"_s, u"stop"_s}, {u"recording_id"_s, recording}};
        co_await api.call(base + u"/recording"_s, methodPOST, std::move(body));
        if (!self) {
            throw Cancelled();
        }
    }
    co_await endReconciled(api, base);
}

} // namespace tessel
