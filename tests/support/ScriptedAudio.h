// An audio source for tests: it emits what the test tells it to, from any
// thread, and records how the capture drove it.
#pragma once

#include "capture/CaptureAudio.h"

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
    std::exception_ptr prepareFailure; // thrown by prepare()
    std::exception_ptr beginFailure;   // thrown by begin()
    std::atomic<int> prepared{0};
    std::atomic<int> begun{0};
    std::atomic<int> stopped{0};
    CaptureEventStream* stream = nullptr; // valid while the source lives
    std::atomic<bool> alive{false};
    std::array<qint64, 2> nextSequence{0, 0};

    // Emits one segment of the channel with the next sequence number.
    void emitSegment(AudioChannel channel, int frames = 4);
    void emitMeter(double elapsed, bool local = true, bool remote = true, bool silent = false);
    void emitFailure(const QString& message);
};

class ScriptedAudio : public CaptureAudio {
public:
    explicit ScriptedAudio(std::shared_ptr<ScriptedAudioControl> control);
    ~ScriptedAudio() override;

    CaptureEventStream& events() override { return stream_; }
    Task<void> prepare() override;
    void begin() override;
    void stop() override;

    // A maker for CaptureSession that hands out sources sharing one control.
    static std::function<std::unique_ptr<CaptureAudio>()>
    maker(std::shared_ptr<ScriptedAudioControl> control);

private:
    std::shared_ptr<ScriptedAudioControl> control_;
    CaptureEventStream stream_;
};

} // namespace tessel::test
