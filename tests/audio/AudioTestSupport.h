// Shared by the audio tests: synthetic PCM, an independent look at ADTS streams
// (FFmpeg's own decoder, and ffprobe/ffmpeg as separate programs), and reading a
// finished capture stream.
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

// Frame lengths of a run of whole ADTS frames; fails the test on anything else.
std::vector<int> adtsFrameLengths(const QByteArray& bytes);

// Decodes ADTS AAC with FFmpeg's decoder; mono samples, priming included.
std::vector<float> decodeADTS(const QByteArray& bytes);

double rms(const std::vector<float>& samples, std::size_t from = 0,
           std::size_t to = static_cast<std::size_t>(-1));

// The strength of one frequency in a block, relative to the block's RMS
// (Goertzel); near 1 for a pure tone of that frequency, near 0 for others.
double toneShare(const std::vector<float>& samples, double hertz, int rate);

// What ffprobe says about the stream and what ffmpeg's strict decode of the
// whole file prints; both empty-handed for a good segment.
struct ProbeResult {
    QString streams; // "codec_name=aac|profile=LC|sample_rate=16000|channels=1"
    QString decodeErrors;
};
ProbeResult probeSegment(const QByteArray& bytes, const QString& directory);

// Every event until the stream ends; the stream must be ending.
std::vector<CaptureEvent> drain(CaptureEventStream& stream);

std::vector<AudioSegment> segmentsOf(const std::vector<CaptureEvent>& events, AudioChannel channel);
std::vector<MeterReading> metersOf(const std::vector<CaptureEvent>& events);
std::vector<QString> failuresOf(const std::vector<CaptureEvent>& events);

QByteArray joined(const std::vector<AudioSegment>& segments);

} // namespace tessel::test
