#include "codec/PCMResampler.h"

#include "errors/Failures.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <array>
#include <limits>
#include <new>
#include <type_traits>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

AVSampleFormat sampleFormat(const PCMFormat& format) {
    const bool planar = format.planar && format.channels > 1;
    switch (format.sample) {
    case SampleType::u8:
        return planar ? AV_SAMPLE_FMT_U8P : AV_SAMPLE_FMT_U8;
    case SampleType::s16:
        return planar ? AV_SAMPLE_FMT_S16P : AV_SAMPLE_FMT_S16;
    case SampleType::s32:
        return planar ? AV_SAMPLE_FMT_S32P : AV_SAMPLE_FMT_S32;
    case SampleType::f32:
        return planar ? AV_SAMPLE_FMT_FLTP : AV_SAMPLE_FMT_FLT;
    case SampleType::f64:
        return planar ? AV_SAMPLE_FMT_DBLP : AV_SAMPLE_FMT_DBL;
    }
    return AV_SAMPLE_FMT_NONE;
}

[[noreturn]] void cannotResample() {
    throw TesselError(u"The audio device format cannot be resampled — select a supported "
                      u"microphone/output device and restart the call."_s);
}

[[noreturn]] void resamplingFailed() {
    throw TesselError(u"Resampling failed — reconnect your audio device and restart the call."_s);
}

// Room for `extra` more samples at the end of `out`; the old ones stay.
float* grow(std::vector<float>& out, std::size_t extra, const QString& whenOutOfMemory) {
    try {
        const std::size_t used = out.size();
        out.resize(used + extra);
        return out.data() + used;
    } catch (const std::bad_alloc&) {
        throw TesselError(whenOutOfMemory);
    }
}

const QString allocationFailed =
    u"Could not allocate an audio buffer — stop this call and free memory before restarting."_s;

// Mono and stereo, nearly every device, are folded to float mono here in one
// pass, so the library only resamples: its own conversion and downmix passes
// cost about as much again as the resampling. Stereo folds as the library's
// downmix does with a unit maximum: half of each side.
bool foldsHere(const PCMFormat& format) {
    return format.channels <= 2;
}

template <typename T> float unit(T sample) {
    if constexpr (std::is_same_v<T, std::uint8_t>) {
        return (static_cast<float>(sample) - 128.0f) * (1.0f / 128.0f);
    } else if constexpr (std::is_same_v<T, std::int16_t>) {
        return static_cast<float>(sample) * (1.0f / 32768.0f);
    } else if constexpr (std::is_same_v<T, std::int32_t>) {
        return static_cast<float>(sample) * (1.0f / 2147483648.0f);
    } else {
        return static_cast<float>(sample);
    }
}

template <typename T> void foldInto(const PCMView& buffer, float* out) {
    const auto frames = static_cast<std::size_t>(buffer.frames);
    const auto* first = reinterpret_cast<const T*>(buffer.planes[0]);
    if (buffer.format.channels == 1) {
        for (std::size_t i = 0; i < frames; ++i) {
            out[i] = unit(first[i]);
        }
    } else if (buffer.format.planar) {
        const auto* second = reinterpret_cast<const T*>(buffer.planes[1]);
        for (std::size_t i = 0; i < frames; ++i) {
            out[i] = 0.5f * (unit(first[i]) + unit(second[i]));
        }
    } else {
        for (std::size_t i = 0; i < frames; ++i) {
            out[i] = 0.5f * (unit(first[2 * i]) + unit(first[2 * i + 1]));
        }
    }
}

void fold(const PCMView& buffer, float* out) {
    switch (buffer.format.sample) {
    case SampleType::u8:
        return foldInto<std::uint8_t>(buffer, out);
    case SampleType::s16:
        return foldInto<std::int16_t>(buffer, out);
    case SampleType::s32:
        return foldInto<std::int32_t>(buffer, out);
    case SampleType::f32:
        return foldInto<float>(buffer, out);
    case SampleType::f64:
        return foldInto<double>(buffer, out);
    }
}

} // namespace

PCMResampler::PCMResampler() {
    ffmpeg::quietLogs();
}

void PCMResampler::open(const PCMFormat& device) {
    if (!device.isValid() || sampleFormat(device) == AV_SAMPLE_FMT_NONE) {
        cannotResample();
    }
    const PCMFormat format =
        foldsHere(device) ? PCMFormat{SampleType::f32, false, device.rate, 1} : device;
    const AVSampleFormat input = sampleFormat(format);
    // The library takes the layouts by non-const pointer: pass copies.
    AVChannelLayout inLayout{};
    AVChannelLayout outLayout{};
    av_channel_layout_default(&inLayout, format.channels);
    av_channel_layout_default(&outLayout, 1);
    SwrContext* raw = nullptr;
    const int made = swr_alloc_set_opts2(&raw, &outLayout, AV_SAMPLE_FMT_FLT, outputRate, &inLayout,
                                         input, format.rate, 0, nullptr);
    av_channel_layout_uninit(&inLayout);
    av_channel_layout_uninit(&outLayout);
    ffmpeg::Resampler context(raw);
    if (made < 0 || !context) {
        cannotResample();
    }
    // The default downmix adds 3 dB and clips loud stereo; scale it back to unity.
    av_opt_set_double(context.get(), "rematrix_maxval", 1.0, 0);
    // soxr rejects aliasing far better at the same cost; fall back where it is
    // missing from the library's build.
    const bool soxr = av_opt_set(context.get(), "resampler", "soxr", 0) >= 0;
    if (swr_init(context.get()) < 0) {
        if (!soxr || av_opt_set(context.get(), "resampler", "swr", 0) < 0 ||
            swr_init(context.get()) < 0) {
            cannotResample();
        }
    }
    context_ = std::move(context);
    inputFormat_ = device;
}

bool PCMResampler::drain(std::vector<float>& out) {
    constexpr int chunk = 4096;
    for (;;) {
        auto* target = reinterpret_cast<std::uint8_t*>(grow(
            out, chunk,
            u"Could not allocate the final resampling buffer — free memory before another call."_s));
        const int produced = swr_convert(context_.get(), &target, chunk, nullptr, 0);
        out.resize(out.size() - chunk + static_cast<std::size_t>(std::max(produced, 0)));
        if (produced < 0) {
            return false;
        }
        if (produced == 0) {
            return true;
        }
    }
}

std::vector<float> PCMResampler::convert(const PCMView& buffer) {
    std::vector<float> out;
    if (inputFormat_ != buffer.format) {
        if (context_) {
            const bool drained = drain(out);
            context_.reset();
            inputFormat_.reset();
            if (!drained) {
                resamplingFailed();
            }
        }
        open(buffer.format);
    }
    if (buffer.frames <= 0) {
        return out;
    }
    if (buffer.frames > std::numeric_limits<int>::max()) {
        resamplingFailed();
    }
    const int frames = static_cast<int>(buffer.frames);
    const int capacity = swr_get_out_samples(context_.get(), frames);
    if (capacity < 0) {
        resamplingFailed();
    }
    auto* target = reinterpret_cast<std::uint8_t*>(
        grow(out, static_cast<std::size_t>(capacity), allocationFailed));
    std::array<const std::uint8_t*, PCMFormat::maxChannels> planes{};
    for (std::size_t index = 0; index < planes.size(); ++index) {
        planes[index] = reinterpret_cast<const std::uint8_t*>(buffer.planes[index]);
        if (!planes[index] && index < static_cast<std::size_t>(buffer.format.planes())) {
            resamplingFailed();
        }
    }
    if (foldsHere(buffer.format)) {
        try {
            folded_.resize(static_cast<std::size_t>(frames));
        } catch (const std::bad_alloc&) {
            throw TesselError(allocationFailed);
        }
        fold(buffer, folded_.data());
        planes = {reinterpret_cast<const std::uint8_t*>(folded_.data())};
    }
    const int produced = swr_convert(context_.get(), &target, capacity, planes.data(), frames);
    if (produced < 0) {
        resamplingFailed();
    }
    out.resize(out.size() - static_cast<std::size_t>(capacity) +
               static_cast<std::size_t>(produced));
    return out;
}

std::vector<float> PCMResampler::finish() {
    std::vector<float> out;
    if (!context_) {
        return out;
    }
    const bool drained = drain(out);
    context_.reset();
    inputFormat_.reset();
    if (!drained) {
        throw TesselError(u"The final audio samples could not be resampled — review the saved "
                          u"call for a truncated ending."_s);
    }
    return out;
}

} // namespace tessel
