// The real audio source: the microphone (the sound server's default source) as
// the local track, and everything the machine plays (the monitor of the default
// sink) as the remote track, through one AudioPipeline.
#pragma once

#include "capture/CaptureAudio.h"
#include "capture/CaptureSession.h"

namespace tessel {

// What a capture uses unless told otherwise: a new AudioCapture with a new
// pipeline on the sound server of this session.
CaptureSession::MakeAudio defaultAudioMaker();

} // namespace tessel
