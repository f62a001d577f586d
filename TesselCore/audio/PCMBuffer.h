// PCM audio as devices deliver it, in any of the common sample layouts: a
// format, a view of memory owned elsewhere, and a buffer that owns its samples.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace tessel {

enum class SampleType { u8, s16, s32, f32, f64 }; // native byte order

struct PCMFormat {
    static constexpr int maxChannels = 32;

    SampleType sample = SampleType::f32;
    bool planar = false; // one plane per channel, else one interleaved plane
    int rate = 0;        // frames per second
    int channels = 0;

    int bytesPerSample() const;
    int planes() const { return planar ? channels : 1; }
    // Bytes of one frame within one plane.
    int planeFrameBytes() const { return bytesPerSample() * (planar ? 1 : channels); }
    bool isValid() const { return rate > 0 && channels > 0 && channels <= maxChannels; }

    bool operator==(const PCMFormat&) const = default;
};

// Samples owned by someone else, valid only as long as the owner says; a sound
// server's fragment, say. A null plane stands for silence.
struct PCMView {
    PCMFormat format;
    std::int64_t frames = 0;
    std::array<const std::byte*, PCMFormat::maxChannels> planes{};

    std::size_t planeBytes() const {
        return static_cast<std::size_t>(frames) *
               static_cast<std::size_t>(format.planeFrameBytes());
    }

    static PCMView interleaved(const PCMFormat& format, const void* data, std::int64_t frames) {
        PCMView view{format, frames, {}};
        view.planes[0] = static_cast<const std::byte*>(data);
        return view;
    }
};

// Samples of its own: one zeroed block, planes one after the other.
class PCMBuffer {
public:
    PCMBuffer(const PCMFormat& format, std::int64_t frames);

    const PCMFormat& format() const { return format_; }
    std::int64_t frames() const { return frames_; }
    std::size_t planeBytes() const { return view().planeBytes(); }

    std::byte* plane(int index) {
        return bytes_.get() + static_cast<std::size_t>(index) * planeBytes();
    }
    template <typename T> T* samples(int planeIndex = 0) {
        return reinterpret_cast<T*>(plane(planeIndex));
    }

    PCMView view() const;

private:
    PCMFormat format_;
    std::int64_t frames_;
    std::unique_ptr<std::byte[]> bytes_;
};

} // namespace tessel
