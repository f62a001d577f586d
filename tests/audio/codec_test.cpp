// The resampler and the encoder against FFmpeg's own decoder: no sample lost at
// any seam (buffer edges, a format change, the end), levels kept, and frames the
// timing of which holds.
#include "AudioTestSupport.h"

#include "audio/AACEncoder.h"
#include "audio/CheckAudio.h"
#include "audio/PCMResampler.h"
#include "errors/Failures.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace tessel;
using namespace tessel::test;

namespace {

const PCMFormat stereo48k{SampleType::s16, false, 48000, 2};
const PCMFormat planar44k{SampleType::f32, true, 44100, 2};

// Feeds `total` frames of a tone in buffers of `chunk`, then finishes.
std::vector<float> resampleTone(PCMResampler& resampler, const PCMFormat& format,
                                std::int64_t total, std::int64_t chunk, bool finish = true) {
    std::vector<float> out;
    for (std::int64_t at = 0; at < total; at += chunk) {
        const auto buffer = tone(format, std::min(chunk, total - at), 440, 0.5, at);
        const auto part = resampler.convert(buffer.view());
        out.insert(out.end(), part.begin(), part.end());
    }
    if (finish) {
        const auto tail = resampler.finish();
        out.insert(out.end(), tail.begin(), tail.end());
    }
    return out;
}

std::vector<QByteArray> encodeAll(AACEncoder& encoder, const std::vector<float>& samples,
                                  std::size_t chunk) {
    std::vector<QByteArray> frames;
    for (std::size_t at = 0; at < samples.size(); at += chunk) {
        const auto part = std::span(samples).subspan(at, std::min(chunk, samples.size() - at));
        for (auto& frame : encoder.append(part)) {
            frames.push_back(std::move(frame));
        }
    }
    for (auto& frame : encoder.finish()) {
        frames.push_back(std::move(frame));
    }
    return frames;
}

QString failureText(const std::function<void()>& action) {
    try {
        action();
    } catch (const TesselError& error) {
        return error.message();
    }
    return {};
}

} // namespace

TEST(PCMResampler, AnyInputBecomesSixteenKilohertzMonoWithNothingLost) {
    struct Case {
        const char* name;
        PCMFormat format;
        std::int64_t chunk;
    };
    const std::vector<Case> cases{
        {"int16 interleaved stereo 48k", stereo48k, 480},
        {"float planar stereo 44.1k", planar44k, 441},
        {"int32 mono 8k", {SampleType::s32, false, 8000, 1}, 80},
        {"double interleaved 6 channels 96k", {SampleType::f64, false, 96000, 6}, 1024},
        {"uint8 mono 22.05k", {SampleType::u8, false, 22050, 1}, 333},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        PCMResampler resampler;
        const std::int64_t total = c.format.rate * 3 / 2; // 1.5 s
        const auto out = resampleTone(resampler, c.format, total, c.chunk);
        EXPECT_NEAR(static_cast<double>(out.size()), 24000.0, 2.0);
        // Identical channels fold into one at the same level: no +3 dB, no loss.
        EXPECT_NEAR(rms(out, 2000, 22000), 0.5 / std::sqrt(2.0), 0.01);
        EXPECT_GT(toneShare({out.begin() + 2000, out.begin() + 22000}, 440, 16000), 0.99);
    }
}

TEST(PCMResampler, BufferSizesDoNotChangeTheOutput) {
    PCMResampler whole;
    PCMResampler pieces;
    const auto once = resampleTone(whole, stereo48k, 48000, 48000);
    const auto chunked = resampleTone(pieces, stereo48k, 48000, 37);
    ASSERT_EQ(once.size(), chunked.size());
    for (std::size_t index = 0; index < once.size(); ++index) {
        ASSERT_NEAR(once[index], chunked[index], 1e-5) << "sample " << index;
    }
}

TEST(PCMResampler, AFormatChangeMidStreamDrainsTheOldConversion) {
    PCMResampler resampler;
    auto out = resampleTone(resampler, stereo48k, 48000, 480, false);
    const auto after = resampleTone(resampler, planar44k, 44100, 441, true);
    out.insert(out.end(), after.begin(), after.end());
    // One second of each: what the first conversion held arrives with the second.
    EXPECT_NEAR(static_cast<double>(out.size()), 32000.0, 3.0);
    EXPECT_NEAR(rms(out, 20000, 30000), 0.5 / std::sqrt(2.0), 0.01);

    EXPECT_TRUE(resampler.finish().empty()) << "a second finish has nothing left";
}

TEST(PCMResampler, FinishBeforeAnyBufferAndUnusableFormats) {
    PCMResampler resampler;
    EXPECT_TRUE(resampler.finish().empty());

    const QString cannot = "The audio device format cannot be resampled — select a supported "
                           "microphone/output device and restart the call.";
    PCMBuffer zeroRate({SampleType::f32, false, 0, 1}, 10);
    EXPECT_EQ(failureText([&] { resampler.convert(zeroRate.view()); }), cannot);
    PCMBuffer noChannels({SampleType::f32, false, 48000, 0}, 10);
    EXPECT_EQ(failureText([&] { resampler.convert(noChannels.view()); }), cannot);

    // A usable buffer after the refusals still converts.
    EXPECT_FALSE(resampleTone(resampler, stereo48k, 4800, 480).empty());
}

TEST(AACEncoder, FramesAreWholeAndDecodeToTheInputPlusPriming) {
    PCMResampler resampler;
    const auto pcm = resampleTone(resampler, stereo48k, 48000 * 2, 480); // 2 s
    for (const std::size_t chunk : {std::size_t{1}, std::size_t{160}, std::size_t{5000}}) {
        SCOPED_TRACE(chunk);
        AACEncoder encoder;
        const auto frames = encodeAll(encoder, pcm, chunk);
        QByteArray stream;
        for (const auto& frame : frames) {
            EXPECT_EQ(adtsFrameLengths(frame).size(), 1u) << "one ADTS frame per packet";
            stream.append(frame);
        }
        // Every input sample comes out, behind 1024 of priming, rounded up to a frame.
        const auto decoded = decodeADTS(stream);
        const double expected = static_cast<double>(pcm.size()) + 1024;
        EXPECT_GE(static_cast<double>(decoded.size()), expected);
        EXPECT_LT(static_cast<double>(decoded.size()), expected + 1024);
        EXPECT_NEAR(rms(decoded, 4000, 30000), 0.5 / std::sqrt(2.0), 0.05);
        EXPECT_GT(toneShare({decoded.begin() + 4000, decoded.begin() + 30000}, 440, 16000), 0.95);
    }
}

TEST(AACEncoder, ShortInputWaitsAndTheEndFlushesOnce) {
    AACEncoder encoder;
    const std::vector<float> little(1000, 0.25f);
    EXPECT_TRUE(encoder.append(little).empty());
    const auto frames = encoder.finish();
    EXPECT_FALSE(frames.empty()) << "samples shorter than a frame come out at the end";
    QByteArray stream;
    for (const auto& frame : frames) {
        stream.append(frame);
    }
    EXPECT_GE(decodeADTS(stream).size(), 1000u + 1024u);

    EXPECT_TRUE(encoder.finish().empty());
    EXPECT_TRUE(encoder.append(little).empty()) << "nothing is taken after the end";

    AACEncoder unused;
    EXPECT_NO_THROW(unused.finish());
}

TEST(AACEncoder, StaysNearItsBitRate) {
    PCMResampler resampler;
    const auto pcm = resampleTone(resampler, stereo48k, 48000 * 10, 480);
    AACEncoder encoder;
    qsizetype bytes = 0;
    for (const auto& frame : encodeAll(encoder, pcm, 320)) {
        bytes += frame.size();
    }
    const double kbps = static_cast<double>(bytes) * 8 / 10.0 / 1000;
    EXPECT_GT(kbps, 16);
    EXPECT_LT(kbps, 48);
}

TEST(CheckAudio, ZeroPassesAnyOtherStatusIsWorded) {
    EXPECT_NO_THROW(checkAudio(0, "Encoding call audio"));
    EXPECT_EQ(failureText([] { checkAudio(-50, "Encoding call audio"); }),
              "Encoding call audio failed (Core Audio -50) — check the selected audio device and "
              "permissions, then start a new call.");
}
