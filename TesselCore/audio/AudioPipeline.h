// The seam between the real-time audio threads and everything else. Sources
// hand PCM buffers of any format to `receive`; one encoding thread resamples
// them to 16 kHz mono, encodes AAC-LC, frames ADTS and cuts ten-second segments,
// one track per channel. Out comes one ordered stream of capture events:
// segments, a meter ten times a second, failures in words.
#pragma once

#include "async/Async.h"
#include "audio/BlockRecycler.h"
#include "audio/PCMBuffer.h"
#include "audio/SerialQueue.h"
#include "capture/CaptureAudio.h"
#include "upload/SilenceMeter.h"

#include <array>
#include <memory>
#include <mutex>
#include <optional>

namespace tessel {

class CodecModule;

struct AudioPipelineOptions {
    // System uptime in seconds; read on the audio threads and the encoding thread.
    NowFunction now = monotonicNow;
    // Tick by the pipeline's own timer, every 0.1 s from `start`. Without it,
    // whoever drives time calls `tick()`.
    bool timer = true;
};

class AudioPipeline {
public:
    static constexpr double segmentDuration = 10.0;
    static constexpr double tickPeriod = 0.1;
    static constexpr double aliveSpan = 2.0; // a channel is alive below this since its last buffer
    static constexpr float silenceFloor = 0.001f;
    static constexpr qint64 backlogLimit = 256; // buffers in flight, both channels together

    static const QString overflowMessage;
    static const QString copyFailedMessage;

    using Options = AudioPipelineOptions;

    // Makes the encoding thread and the stream; no encoder exists yet.
    explicit AudioPipeline(Options options = {});
    // Runs what was handed over, then ends the encoding thread. No source may
    // call `receive` any more.
    ~AudioPipeline();
    AudioPipeline(const AudioPipeline&) = delete;
    AudioPipeline& operator=(const AudioPipeline&) = delete;

    // What the consumer reads; ends after `finish`.
    CaptureEventStream& events() { return events_; }

    // Makes both channels' encoders and sets the zero of `elapsed`; from now on
    // buffers are kept. Throws when an encoder cannot be made, and then nothing
    // runs. Synchronous on the encoding thread; a pipeline starts once.
    void start();

    // Real-time threads. Copies the buffer and hands it to the encoding thread:
    // one short lock for the backlog count, one allocation (in a steady stream a
    // block given back by the encoding thread), one bounded copy, one clock read,
    // one wait-free hand-off. Never fails, never waits for encoding.
    void receive(const PCMView& buffer, AudioChannel channel) noexcept;

    // Flushes resamplers and encoders, cuts the last segments (local, then
    // remote) and ends the stream. Runs behind every buffer already handed over,
    // so stop the sources first and nothing they sent is lost. Synchronous on the
    // encoding thread; safe again.
    void finish();

    // One tick now, synchronously on the encoding thread, behind every buffer
    // already handed over: grid cuts of idle channels and a meter reading.
    void tick();

    // Buffers copied and not yet processed.
    qint64 backlog() const;

private:
    class BufferJob;
    struct Channel;

    void process(const BufferJob& job) noexcept;
    void tickOnQueue();
    void finishOnQueue();
    void fail(const std::exception_ptr& failure);
    void report(const QString& message) noexcept;
    double lastInput(AudioChannel channel) const;

    const Options options_;
    CaptureEventStream events_;

    // Encoding thread only. The module outlives the channels' encoders.
    std::shared_ptr<CodecModule> codec_;
    std::array<std::unique_ptr<Channel>, 2> channels_;
    SilenceMeter meter_{silenceFloor};
    std::optional<double> epoch_;
    bool active_ = false;
    bool finished_ = false;

    mutable std::mutex backlogMutex_;
    qint64 backlog_ = 0;            // under backlogMutex_
    bool overflowReported_ = false; // under backlogMutex_; never cleared

    // The copies' memory, per channel, back from the encoding thread.
    std::array<BlockRecycler, 2> recyclers_;

    // Last: it goes first, running the jobs that still use the members above.
    SerialQueue queue_{"tessel.encoding"};
};

} // namespace tessel
