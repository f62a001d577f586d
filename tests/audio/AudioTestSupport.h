// Shared by the audio tests: synthetic PCM, an independent look at ADTS streams
// through FFmpeg's own decoder, and reading a finished capture stream.
#pragma once

#include "audio/PCMBuffer.h"
#include "capture/CaptureAudio.h"

#include <QByteArray>
#include <QString>

#include <vector>

namespace tessel::test {

// A sine of `hertz` at `amplitude` (full scale 1.0) on every channel, starting at
// frame `offset` of an endless tone, so consecutive buffers join without a step.
PCMBuffer tone(const PCMFormat& format, std::int64_t frames, double hertz, double amplitude,
               std::int64_t offset = 0);

// Frame lengths of a run of whole AAC-LC 16 kHz mono ADTS frames; fails the
// test on anything else.
std::vector<int> adtsFrameLengths(const QByteArray& bytes);

// Decodes ADTS AAC with a fresh FFmpeg decoder, failing the test on any decode
// error or a stream that isn't 16 kHz mono; samples with the priming included.
std::vector<float> decodeADTS(const QByteArray& bytes);

double rms(const std::vector<float>& samples, std::size_t from = 0,
           std::size_t to = static_cast<std::size_t>(-1));

// The strength of one frequency in a block, relative to the block's RMS
// (Goertzel); near 1 for a pure tone of that frequency, near 0 for others.
double toneShare(const std::vector<float>& samples, double hertz, int rate);

// Every event until the stream ends; the stream must be ending.
std::vector<CaptureEvent> drain(CaptureEventStream& stream);

template <typename T> std::vector<T> eventsOf(const std::vector<CaptureEvent>& events) {
    std::vector<T> out;
    for (const auto& event : events) {
        if (const auto* wanted = std::get_if<T>(&event)) {
            out.push_back(*wanted);
        }
    }
    return out;
}
std::vector<AudioSegment> segmentsOf(const std::vector<CaptureEvent>& events, AudioChannel channel);

// Numbered from zero, each segment decodes on its own: what storage receives.
void expectSegmentsStandAlone(const std::vector<AudioSegment>& segments);
QByteArray joined(const std::vector<AudioSegment>& segments);

} // namespace tessel::test
