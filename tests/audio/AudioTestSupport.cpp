#include "AudioTestSupport.h"

#include "support/Wait.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QUuid>

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <cmath>
#include <cstring>
#include <numbers>

namespace tessel::test {

namespace {

template <typename T> T sampleOf(double value) {
    if constexpr (std::is_same_v<T, std::uint8_t>) {
        return static_cast<T>(std::lround(128.0 + value * 127.0));
    } else if constexpr (std::is_same_v<T, std::int16_t>) {
        return static_cast<T>(std::lround(value * 32767.0));
    } else if constexpr (std::is_same_v<T, std::int32_t>) {
        return static_cast<T>(std::llround(value * 2147483647.0));
    } else {
        return static_cast<T>(value);
    }
}

template <typename T>
void fill(PCMBuffer& buffer, double hertz, double amplitude, std::int64_t offset) {
    const PCMFormat& format = buffer.format();
    for (std::int64_t frame = 0; frame < buffer.frames(); ++frame) {
        const double value =
            amplitude * std::sin(2 * std::numbers::pi * hertz *
                                 static_cast<double>(offset + frame) / format.rate);
        for (int channel = 0; channel < format.channels; ++channel) {
            if (format.planar) {
                buffer.samples<T>(channel)[frame] = sampleOf<T>(value);
            } else {
                buffer.samples<T>()[frame * format.channels + channel] = sampleOf<T>(value);
            }
        }
    }
}

} // namespace

PCMBuffer tone(const PCMFormat& format, std::int64_t frames, double hertz, double amplitude,
               std::int64_t offset) {
    PCMBuffer buffer(format, frames);
    switch (format.sample) {
    case SampleType::u8:
        fill<std::uint8_t>(buffer, hertz, amplitude, offset);
        break;
    case SampleType::s16:
        fill<std::int16_t>(buffer, hertz, amplitude, offset);
        break;
    case SampleType::s32:
        fill<std::int32_t>(buffer, hertz, amplitude, offset);
        break;
    case SampleType::f32:
        fill<float>(buffer, hertz, amplitude, offset);
        break;
    case SampleType::f64:
        fill<double>(buffer, hertz, amplitude, offset);
        break;
    }
    return buffer;
}

std::vector<int> adtsFrameLengths(const QByteArray& bytes) {
    std::vector<int> lengths;
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.constData());
    qsizetype at = 0;
    while (at < bytes.size()) {
        if (bytes.size() - at < 7 || data[at] != 0xFF || data[at + 1] != 0xF1 ||
            data[at + 2] != 0x60 || (data[at + 3] & 0xFC) != 0x40) {
            ADD_FAILURE() << "no AAC-LC 16 kHz mono ADTS header at byte " << at;
            return lengths;
        }
        const int length = ((data[at + 3] & 3) << 11) | (data[at + 4] << 3) | (data[at + 5] >> 5);
        if (length <= 7 || at + length > bytes.size()) {
            ADD_FAILURE() << "frame at byte " << at << " has length " << length;
            return lengths;
        }
        lengths.push_back(length);
        at += length;
    }
    return lengths;
}

std::vector<float> decodeADTS(const QByteArray& bytes) {
    std::vector<float> out;
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_AAC);
    AVCodecContext* context = avcodec_alloc_context3(codec);
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    EXPECT_EQ(avcodec_open2(context, codec, nullptr), 0);
    auto collect = [&] {
        while (avcodec_receive_frame(context, frame) == 0) {
            EXPECT_EQ(frame->ch_layout.nb_channels, 1);
            EXPECT_EQ(frame->sample_rate, 16000);
            EXPECT_EQ(frame->format, AV_SAMPLE_FMT_FLTP);
            const auto* samples = reinterpret_cast<const float*>(frame->data[0]);
            out.insert(out.end(), samples, samples + frame->nb_samples);
        }
    };
    qsizetype at = 0;
    for (const int length : adtsFrameLengths(bytes)) {
        av_new_packet(packet, length);
        std::memcpy(packet->data, bytes.constData() + at, static_cast<std::size_t>(length));
        EXPECT_EQ(avcodec_send_packet(context, packet), 0) << "frame at byte " << at;
        av_packet_unref(packet);
        collect();
        at += length;
    }
    avcodec_send_packet(context, nullptr);
    collect();
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&context);
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

ProbeResult probeSegment(const QByteArray& bytes, const QString& directory) {
    const QString path =
        QDir(directory).filePath(QUuid::createUuid().toString(QUuid::WithoutBraces) + ".aac");
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
    file.close();

    ProbeResult result;
    QProcess probe;
    probe.start("ffprobe",
                {"-v", "error", "-show_entries", "stream=codec_name,profile,sample_rate,channels",
                 "-of", "compact=p=0", path});
    EXPECT_TRUE(probe.waitForFinished(30000));
    result.streams = QString::fromUtf8(probe.readAllStandardOutput()).trimmed();

    QProcess decode;
    decode.start("ffmpeg", {"-nostdin", "-v", "error", "-xerror", "-i", path, "-f", "null", "-"});
    EXPECT_TRUE(decode.waitForFinished(30000));
    EXPECT_EQ(decode.exitCode(), 0);
    result.decodeErrors = QString::fromUtf8(decode.readAllStandardError()).trimmed();
    QFile::remove(path);
    return result;
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
    std::vector<AudioSegment> segments;
    for (const auto& event : events) {
        if (const auto* segment = std::get_if<AudioSegment>(&event)) {
            if (segment->channel == channel) {
                segments.push_back(*segment);
            }
        }
    }
    return segments;
}

std::vector<MeterReading> metersOf(const std::vector<CaptureEvent>& events) {
    std::vector<MeterReading> meters;
    for (const auto& event : events) {
        if (const auto* meter = std::get_if<MeterReading>(&event)) {
            meters.push_back(*meter);
        }
    }
    return meters;
}

std::vector<QString> failuresOf(const std::vector<CaptureEvent>& events) {
    std::vector<QString> failures;
    for (const auto& event : events) {
        if (const auto* failure = std::get_if<CaptureFailure>(&event)) {
            failures.push_back(failure->message);
        }
    }
    return failures;
}

QByteArray joined(const std::vector<AudioSegment>& segments) {
    QByteArray bytes;
    for (const auto& segment : segments) {
        bytes.append(segment.bytes);
    }
    return bytes;
}

} // namespace tessel::test
