// The seam between the capture and an audio source, and the one ordered stream
// of events by which audio reaches the capture.
#pragma once

#include "async/Async.h"
#include "upload/AudioSegment.h"

#include <QObject>
#include <QPointer>

#include <coroutine>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <variant>

namespace tessel {

struct MeterReading {
    double elapsed = 0; // seconds since the recording's zero
    bool local = false; // the microphone track has signal
    bool remote = false;
    bool silent = false; // nothing heard from the far end for too long
    bool operator==(const MeterReading&) const = default;
};

struct CaptureFailure {
    QString message; // words for the user
    bool operator==(const CaptureFailure&) const = default;
};

using CaptureEvent = std::variant<AudioSegment, MeterReading, CaptureFailure>;

// Unbounded, ordered, many writers on any thread, one reader on the main loop.
// Writers never wait; the reader's `next()` resumes on the loop it awaited from.
class CaptureEventStream {
public:
    CaptureEventStream();
    ~CaptureEventStream();
    CaptureEventStream(const CaptureEventStream&) = delete;
    CaptureEventStream& operator=(const CaptureEventStream&) = delete;

    // Any thread. After `finish()` further events are dropped.
    void push(CaptureEvent event);
    void finish();

    // Main loop, one reader. The next event, or none once finished and drained.
    Task<std::optional<CaptureEvent>> next();

    struct Shared; // the state a waiting reader keeps alive

private:
    std::shared_ptr<Shared> shared_;
};

// An audio source as the capture uses it; the hardware or a scripted stand-in.
class CaptureAudio {
public:
    virtual ~CaptureAudio() = default;

    virtual CaptureEventStream& events() = 0;
    // Permissions, microphone and system audio come up; audio flows but goes
    // nowhere yet.
    virtual Task<void> prepare() = 0;
    // From now on audio goes into the recording; this is its zero.
    virtual void begin() = 0;
    // Stops everything and ends the stream; safe to call again.
    virtual void stop() = 0;
};

} // namespace tessel
