// The resampler and the encoder, as the program loads them, against FFmpeg's own decoder: no sample
// lost at any seam (buffer edges, a format change, the end) and levels kept.
#include "AudioTestSupport.h"

#include "audio/Codec.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace tessel;
using namespace tessel::test;

namespace {

const PCMFormat stereo48k{SampleType::s16, false, 48000, 2};
const PCMFormat planar44k{SampleType::f32, true, 44100, 2};
const double toneLevel = 0.5 / std::sqrt(2.0); // RMS of the test tone at amplitude 0.5

// Feeds `total` frames of a tone in buffers of `chunk`, then finishes.
std::vector<float> resampleTone(AudioConverter& resampler, const PCMFormat& format,
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

// Encodes in pieces of `chunk` samples and finishes; the frames as one stream.
QByteArray encode(AudioEncoder& encoder, const std::vector<float>& samples, std::size_t chunk) {
    QByteArray stream;
    for (std::size_t at = 0; at < samples.size(); at += chunk) {
        for (const auto& frame :
             encoder.append(std::span(samples).subspan(at, std::min(chunk, samples.size() - at)))) {
            EXPECT_EQ(adtsFrameLengths(frame).size(), 1u) << "one whole ADTS frame per packet";
            stream.append(frame);
        }
    }
    for (const auto& frame : encoder.finish()) {
        stream.append(frame);
    }
    return stream;
}

} // namespace

TEST(PCMResampler, AnyInputBecomesSixteenKilohertzMonoWithNothingLost) {
    const auto codec = CodecModule::acquire();
    // Each sample type, planar and interleaved, rates up and down, odd buffer sizes.
    const std::pair<PCMFormat, std::int64_t> cases[] = {
        {stereo48k, 480},
        {planar44k, 441},
        {{SampleType::s32, false, 8000, 1}, 37},
        {{SampleType::f64, false, 96000, 6}, 1024},
        {{SampleType::u8, false, 22050, 1}, 333},
    };
    for (const auto& [format, chunk] : cases) {
        SCOPED_TRACE(testing::Message()
                     << "type " << static_cast<int>(format.sample) << ", " << format.rate << " Hz, "
                     << format.channels << " channels");
        const auto resampler = codec->converter();
        const auto out = resampleTone(*resampler, format, format.rate * 3 / 2, chunk);
        EXPECT_NEAR(static_cast<double>(out.size()), 24000.0, 2.0); // 1.5 s
        // Identical channels fold into one at the same level: no +3 dB, no loss.
        EXPECT_NEAR(rms(out, 2000, 22000), toneLevel, 0.01);
        EXPECT_GT(toneShare({out.begin() + 2000, out.begin() + 22000}, 440, 16000), 0.99);
    }
}

TEST(PCMResampler, AFormatChangeDrainsTheOldConversionAndTheEndComesOnce) {
    const auto codec = CodecModule::acquire();
    const auto resampler = codec->converter();
    EXPECT_TRUE(resampler->finish().empty()) << "nothing before any buffer";
    auto out = resampleTone(*resampler, stereo48k, 48000, 480, false);
    const auto after = resampleTone(*resampler, planar44k, 44100, 441, true);
    out.insert(out.end(), after.begin(), after.end());
    // One second of each: what the first conversion held arrives with the second.
    EXPECT_NEAR(static_cast<double>(out.size()), 32000.0, 3.0);
    EXPECT_NEAR(rms(out, 20000, 30000), toneLevel, 0.01);
    EXPECT_TRUE(resampler->finish().empty()) << "a second finish has nothing left";
}

TEST(AACEncoder, EverySampleComesOutBehindThePrimingWhateverThePieces) {
    const auto codec = CodecModule::acquire();
    const auto pcm = resampleTone(*codec->converter(), stereo48k, 48000 * 2, 480); // 2 s
    for (const std::size_t chunk : {std::size_t{1}, std::size_t{160}, std::size_t{5000}}) {
        SCOPED_TRACE(chunk);
        const QByteArray stream = encode(*codec->encoder(), pcm, chunk);
        // 1024 of priming ahead, the last frame rounded up.
        const auto decoded = decodeADTS(stream);
        const double expected = static_cast<double>(pcm.size()) + 1024;
        EXPECT_GE(static_cast<double>(decoded.size()), expected);
        EXPECT_LT(static_cast<double>(decoded.size()), expected + 1024);
        EXPECT_NEAR(rms(decoded, 4000, 30000), toneLevel, 0.05);
        EXPECT_GT(toneShare({decoded.begin() + 4000, decoded.begin() + 30000}, 440, 16000), 0.95);
        const double kbps = static_cast<double>(stream.size()) * 8 / 2.0 / 1000;
        EXPECT_GT(kbps, 16);
        EXPECT_LT(kbps, 48);
    }

    // Less than a frame waits for more, and comes out at the end, once.
    const auto encoder = codec->encoder();
    const std::vector<float> little(1000, 0.25f);
    EXPECT_GE(decodeADTS(encode(*encoder, little, 1000)).size(), 1000u + 1024u);
    EXPECT_TRUE(encoder->finish().empty());
    EXPECT_TRUE(encoder->append(little).empty()) << "nothing is taken after the end";
    EXPECT_NO_THROW(codec->encoder()->finish());
}
