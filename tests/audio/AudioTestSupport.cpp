#include "AudioTestSupport.h"

#include "codec/FFmpeg.h"
#include "support/Wait.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <numbers>
#include <numeric>

namespace tessel::test {

namespace {

template <typename T>
void fill(PCMBuffer& buffer, double hertz, double amplitude, std::int64_t offset) {
    const PCMFormat& format = buffer.format();
    for (std::int64_t frame = 0; frame < buffer.frames(); ++frame) {
        const double value =
            amplitude * std::sin(2 * std::numbers::pi * hertz *
                                 static_cast<double>(offset + frame) / format.rate);
        T sample = static_cast<T>(value);
        if constexpr (std::is_same_v<T, std::uint8_t>) {
            sample = static_cast<T>(std::lround(128.0 + value * 127.0));
        } else if constexpr (std::is_integral_v<T>) {
            sample = static_cast<T>(std::llround(value * std::numeric_limits<T>::max()));
        }
        for (int channel = 0; channel < format.channels; ++channel) {
            (format.planar ? buffer.samples<T>(channel)[frame]
                           : buffer.samples<T>()[frame * format.channels + channel]) = sample;
        }
    }
}

} // namespace

PCMBuffer tone(const PCMFormat& format, std::int64_t frames, double hertz, double amplitude,
               std::int64_t offset) {
    PCMBuffer buffer(format, frames);
    // In SampleType's order.
    constexpr std::array fillers{fill<std::uint8_t>, fill<std::int16_t>, fill<std::int32_t>,
                                 fill<float>, fill<double>};
    fillers.at(static_cast<std::size_t>(format.sample))(buffer, hertz, amplitude, offset);
    return buffer;
}

std::vector<int> adtsFrameLengths(const QByteArray& bytes) {
    std::vector<int> lengths;
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.constData());
    for (qsizetype at = 0; at < bytes.size(); at += lengths.back()) {
        const bool header = bytes.size() - at >= 7 && data[at] == 0xFF && data[at + 1] == 0xF1 &&
                            data[at + 2] == 0x60 && (data[at + 3] & 0xFC) == 0x40;
        const int length =
            header ? ((data[at + 3] & 3) << 11) | (data[at + 4] << 3) | (data[at + 5] >> 5) : 0;
        if (length <= 7 || at + length > bytes.size()) {
            ADD_FAILURE() << "no whole AAC-LC 16 kHz mono ADTS frame at byte " << at;
            return lengths;
        }
        lengths.push_back(length);
    }
    return lengths;
}

std::vector<float> decodeADTS(const QByteArray& bytes) {
    std::vector<float> out;
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_AAC);
    const ffmpeg::CodecContext context(avcodec_alloc_context3(codec));
    const ffmpeg::Packet packet(av_packet_alloc());
    const ffmpeg::Frame frame(av_frame_alloc());
    EXPECT_EQ(avcodec_open2(context.get(), codec, nullptr), 0);
    const auto collect = [&] {
        while (avcodec_receive_frame(context.get(), frame.get()) == 0) {
            EXPECT_EQ(frame->ch_layout.nb_channels, 1);
            EXPECT_EQ(frame->sample_rate, 16000);
            EXPECT_EQ(frame->format, AV_SAMPLE_FMT_FLTP);
            const auto* samples = reinterpret_cast<const float*>(frame->data[0]);
            out.insert(out.end(), samples, samples + frame->nb_samples);
        }
    };
    qsizetype at = 0;
    for (const int length : adtsFrameLengths(bytes)) {
        av_new_packet(packet.get(), length);
        std::memcpy(packet->data, bytes.constData() + at, static_cast<std::size_t>(length));
        EXPECT_EQ(avcodec_send_packet(context.get(), packet.get()), 0) << "frame at byte " << at;
        av_packet_unref(packet.get());
        collect();
        at += length;
    }
    avcodec_send_packet(context.get(), nullptr);
    collect();
    return out;
}

double rms(const std::vector<float>& samples, std::size_t from, std::size_t to) {
    to = std::min(to, samples.size());
    if (from >= to) {
        return 0;
    }
    double sum = 0;
    for (std::size_t index = from; index < to; ++index) {
        sum += static_cast<double>(samples[index]) * samples[index];
    }
    return std::sqrt(sum / static_cast<double>(to - from));
}

double toneShare(const std::vector<float>& samples, double hertz, int rate) {
    const double step = 2 * std::numbers::pi * hertz / rate;
    double re = 0;
    double im = 0;
    for (std::size_t index = 0; index < samples.size(); ++index) {
        re += samples[index] * std::cos(step * static_cast<double>(index));
        im += samples[index] * std::sin(step * static_cast<double>(index));
    }
    const double amplitude = 2 * std::hypot(re, im) / static_cast<double>(samples.size());
    const double level = rms(samples);
    return level > 0 ? amplitude / std::numbers::sqrt2 / level : 0;
}

std::vector<CaptureEvent> drain(CaptureEventStream& stream) {
    std::vector<CaptureEvent> events;
    while (auto event = wait(stream.next())) {
        events.push_back(std::move(*event));
    }
    return events;
}

std::vector<AudioSegment> segmentsOf(const std::vector<CaptureEvent>& events,
                                     AudioChannel channel) {
    auto segments = eventsOf<AudioSegment>(events);
    std::erase_if(segments, [channel](const auto& segment) { return segment.channel != channel; });
    return segments;
}

void expectSegmentsStandAlone(const std::vector<AudioSegment>& segments) {
    ASSERT_FALSE(segments.empty());
    for (std::size_t index = 0; index < segments.size(); ++index) {
        EXPECT_EQ(segments[index].sequence, static_cast<qint64>(index));
        EXPECT_FALSE(decodeADTS(segments[index].bytes).empty()) << "segment " << index;
    }
}

QByteArray joined(const std::vector<AudioSegment>& segments) {
    return std::accumulate(
        segments.begin(), segments.end(), QByteArray(),
        [](QByteArray bytes, const auto& segment) { return bytes + segment.bytes; });
}

} // namespace tessel::test
