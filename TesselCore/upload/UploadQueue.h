// Holds every finished segment in memory and carries it to the server in strict
// order per channel, the two channels independent. A network failure waits on a
// doubling back-off; a lost sign-in pauses everything; nothing is ever dropped
// but by a confirmed upload or `cancel()`.
//
// All operations run on the main loop, one at a time between waits, so every
// field is read afresh after a wait.
#pragma once

#include "async/Async.h"
#include "net/HTTPFailure.h"
#include "upload/AudioSegment.h"

#include <deque>
#include <map>
#include <memory>
#include <optional>

namespace tessel {

class SegmentUploader;

struct UploadStatus {
    qint64 local = 0;   // segments of the local track confirmed
    qint64 remote = 0;  // segments of the remote track confirmed
    qint64 pending = 0; // segments held, both tracks
    std::optional<QString> error;
    bool operator==(const UploadStatus&) const = default;
};

class UploadQueue : public std::enable_shared_from_this<UploadQueue> {
public:
    using Upload = std::function<Task<void>(AudioSegment, CancellationToken)>;
    using AuthenticationFailed = std::function<Task<void>(HTTPFailure)>;

    static constexpr qint64 memoryLimit = 67108864;
    static constexpr double firstDelay = 2.0;
    static constexpr double maxDelay = 30.0;

    static std::shared_ptr<UploadQueue> create(Upload upload, SleepFunction sleep, NowFunction now,
                                               AuthenticationFailed onAuthenticationFailure);
    static Upload uploadWith(const SegmentUploader& uploader);

    // Never waits. Throws `Cancelled` after `cancel()`, and TesselError when the
    // memory limit is passed (the segment is kept all the same).
    void enqueue(AudioSegment segment);
    // The last full effort at stop: everything goes up, or it throws.
    Task<void> flush();
    void pauseForSignIn(const HTTPFailure& failure);
    // Waits for running drains to rest, then forgets the pause and the back-off.
    // Starts nothing: `retryPending()` does.
    Task<void> resumeAfterSignIn();
    void retryPending();
    void cancel();
    UploadStatus status() const;

private:
    UploadQueue(Upload upload, SleepFunction sleep, NowFunction now,
                AuthenticationFailed onAuthenticationFailure);

    void start(AudioChannel channel);
    Task<void> drain(AudioChannel channel, CancellationToken token);
    Task<void> rearm(AudioChannel channel, double delay, CancellationToken token);
    Task<void> waitForDrains();
    void cancelTimers();

    Upload upload_;
    SleepFunction sleep_;
    NowFunction now_;
    AuthenticationFailed onAuthenticationFailure_;

    std::map<AudioChannel, std::deque<AudioSegment>> pending_;
    std::map<AudioChannel, std::shared_ptr<BackgroundTask>> tasks_;
    std::map<AudioChannel, std::shared_ptr<BackgroundTask>> timers_;
    std::map<AudioChannel, QString> errors_;
    std::map<AudioChannel, double> retryDelays_;
    std::map<AudioChannel, double> resumeAt_;
    std::optional<double> resumedAt_;
    std::map<AudioChannel, qint64> counts_;
    qint64 bufferedBytes_ = 0;
    bool cancelled_ = false;
    std::optional<HTTPFailure> authenticationFailure_;
};

} // namespace tessel
