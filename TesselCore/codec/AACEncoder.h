// 16 kHz mono float samples in, finished ADTS frames of AAC-LC at 32 kbit/s out.
// Fed by pushes of any size; it encodes every whole 1024-sample frame it has and
// never waits for samples that are not there. Encoding thread only.
#pragma once

#include "audio/Codec.h"
#include "codec/FFmpeg.h"

#include <QByteArray>

#include <span>
#include <vector>

namespace tessel {

class AACEncoder final : public AudioEncoder {
public:
    static constexpr int sampleRate = 16000;
    static constexpr int frameSamples = 1024; // 64 ms
    static constexpr int bitRate = 32000;

    // Throws when the library has no AAC encoder or it cannot be opened.
    AACEncoder();

    // The frames that became ready, perhaps none. Fewer than a frame's worth of
    // samples wait here for the next push or for `finish`.
    std::vector<QByteArray> append(std::span<const float> samples) override;
    // Encodes what waits as a last, shorter frame and flushes the encoder. A
    // second call returns nothing.
    std::vector<QByteArray> finish() override;

private:
    void send(const float* samples, int count, std::vector<QByteArray>& out);
    void receive(std::vector<QByteArray>& out);

    ffmpeg::CodecContext context_;
    ffmpeg::Frame frame_;
    ffmpeg::Packet packet_;
    std::vector<float> pcm_; // fewer than frameSamples between calls
    std::int64_t nextPts_ = 0;
    bool ending_ = false;
};

} // namespace tessel
