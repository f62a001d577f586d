// The real audio source: the microphone (the sound server's default source) as
// the local track, and everything the machine plays (the monitor of the default
// sink) as the remote track, through one AudioPipeline.
#pragma once

#include "audio/AudioPipeline.h"
#include "capture/CaptureAudio.h"
#include "capture/CaptureSession.h"

#include <memory>
#include <thread>

namespace tessel {

struct AudioCaptureOptions {
    // A sound server address ("unix:/path/native"); empty: this session's own,
    // as PULSE_SERVER or the default socket says.
    QString server;
    AudioPipelineOptions pipeline;
};

// Works on PulseAudio and on PipeWire's pulse server. One threaded main loop and
// one connection carry both record streams; all stream creation and teardown
// happens under that loop's lock. Main-thread object.
class AudioCapture : public CaptureAudio {
public:
    using Options = AudioCaptureOptions;

    explicit AudioCapture(Options options = {});
    // Stops first: no callback may run into a freed pipeline.
    ~AudioCapture() override;

    CaptureEventStream& events() override { return pipeline_->events(); }

    // Connects, then starts the microphone, then system audio; their audio flows
    // but the pipeline drops it until `begin`. The server's refusal throws
    // AudioCaptureError::microphonePermissionDenied; a missing server, source,
    // output or monitor throws in words. After a failure nothing runs.
    Task<void> prepare() override;
    // From now on audio counts; this is the recording's zero.
    void begin() override;
    // Stops both sources, then flushes the pipeline, which ends the stream.
    // Blocks until the encoders have flushed; safe to call again.
    void stop() override;

private:
    struct Pulse;

    Options options_;
    std::unique_ptr<AudioPipeline> pipeline_; // outlives the streams that feed it
    std::unique_ptr<Pulse> pulse_;
    std::thread bringUp_; // waits for the server during `prepare`
    std::shared_ptr<int> lifetime_ = std::make_shared<int>(0);
    bool prepared_ = false;
    bool finished_ = false;
};

// What a capture uses unless told otherwise: a new AudioCapture with a new
// pipeline on the sound server of this session.
CaptureSession::MakeAudio defaultAudioMaker();

} // namespace tessel
