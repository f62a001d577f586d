// Any PCM a device delivers, to 16 kHz mono 32-bit float. The filter state is
// kept across buffers, so a stream cut into buffers of any size comes out as if
// it were converted whole. Encoding thread only.
#pragma once

#include "audio/Codec.h"
#include "audio/PCMBuffer.h"
#include "codec/FFmpeg.h"

#include <optional>
#include <vector>

namespace tessel {

class PCMResampler final : public AudioConverter {
public:
    static constexpr int outputRate = 16000;

    PCMResampler();

    // A buffer in a format other than the last one's (a device changed in the
    // middle of a call) first drains what the old conversion held, then goes on
    // with a new one: no restart, no failure, no samples lost.
    std::vector<float> convert(const PCMView& buffer) override;
    // The last samples held in the filter. Again, or before any buffer: none.
    std::vector<float> finish() override;

private:
    void open(const PCMFormat& device);
    // Appends what the conversion still holds; false when the library failed.
    bool drain(std::vector<float>& out);

    ffmpeg::Resampler context_;
    std::optional<PCMFormat> inputFormat_; // the device's format, before folding
    std::vector<float> folded_;            // a mono or stereo buffer as float mono
};

} // namespace tessel
