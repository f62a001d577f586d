// An audio source for tests: it emits what the test tells it to, from any
// thread, and records how the capture drove it.
#pragma once

#include "capture/CaptureSession.h"

#include <QByteArray>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>

namespace tessel::test {

// Whole ADTS frames (AAC-LC, 16 kHz, mono) around filler payload, as a real
// encoder would frame them; enough for the server's framing check.
QByteArray adtsFrames(int frames, int payloadSize = 90, char fill = 0x11);

struct ScriptedAudioControl {
    std::exception_ptr prepareFailure;                  // thrown by prepare()
    std::function<void(ScriptedAudioControl&)> onBegin; // what the source does at begin()
    std::atomic<int> prepared{0};
    std::atomic<int> begun{0};
    std::atomic<int> stopped{0};
    CaptureEventStream* stream = nullptr; // valid while the source lives
    std::array<qint64, 2> nextSequence{0, 0};

    // Emits one segment of the channel with the next sequence number.
    void emitSegment(AudioChannel channel, int frames = 4);
    void emitFailure(const QString& message) { stream->push(CaptureFailure{message}); }
};

// A capture's time running `speed` times faster than the real clock.
inline CaptureClock fastClock(double speed = 100) {
    return CaptureClock{[speed] { return monotonicNow() * speed; },
                        [speed](double seconds, CancellationToken token) {
                            return sleepFor(seconds / speed, std::move(token));
                        }};
}

class ScriptedAudio : public CaptureAudio {
public:
    explicit ScriptedAudio(std::shared_ptr<ScriptedAudioControl> control) : control_(control) {
        control_->stream = &stream_;
    }
    ~ScriptedAudio() override { control_->stream = nullptr; }

    CaptureEventStream& events() override { return stream_; }
    Task<void> prepare() override;
    void begin() override {
        ++control_->begun;
        if (control_->onBegin) {
            control_->onBegin(*control_);
        }
    }
    void stop() override {
        ++control_->stopped;
        stream_.finish();
    }

    // A maker for CaptureSession that hands out sources sharing one control.
    static auto maker(std::shared_ptr<ScriptedAudioControl> control) {
        return [control]() -> std::unique_ptr<CaptureAudio> {
            return std::make_unique<ScriptedAudio>(control);
        };
    }

private:
    std::shared_ptr<ScriptedAudioControl> control_;
    CaptureEventStream stream_;
};

} // namespace tessel::test
