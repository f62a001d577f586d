// ADTS headers, the ten-second grid and the silence meter: the wire format and
// the cutting rules that both tracks and the server depend on.
#include "errors/Failures.h"
#include "upload/ADTSWriter.h"
#include "upload/Segmenter.h"
#include "upload/SilenceMeter.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

using namespace tessel;

namespace {

QByteArray bytesOf(std::array<std::uint8_t, 7> header) {
    return QByteArray(reinterpret_cast<const char*>(header.data()), 7);
}

QString failureOf(qsizetype size) {
    try {
        ADTSWriter::header(size);
    } catch (const TesselError& error) {
        return error.message();
    }
    return {};
}

QByteArray frame(char fill) {
    return QByteArray(20, fill);
}

} // namespace

TEST(ADTSWriter, HeaderBytesOfKnownSizes) {
    EXPECT_EQ(bytesOf(ADTSWriter::header(100)).toHex(' '), "ff f1 60 40 0d 7f fc");
    EXPECT_EQ(bytesOf(ADTSWriter::header(8184)).toHex(' '), "ff f1 60 43 ff ff fc");
    EXPECT_EQ(bytesOf(ADTSWriter::header(1)).toHex(' '), "ff f1 60 40 01 1f fc");
}

TEST(ADTSWriter, EveryAllowedSizeReadsBackAsItsFrameLength) {
    for (qsizetype size = 1; size <= ADTSWriter::maxPayloadSize; ++size) {
        const auto h = ADTSWriter::header(size);
        const int length = ((h[3] & 3) << 11) | (h[4] << 3) | (h[5] >> 5);
        ASSERT_EQ(length, size + 7) << "payload " << size;
        // Everything but the length is fixed to the one stream this system writes.
        ASSERT_EQ(h[3] & 0xFC, 0x40);
        ASSERT_EQ(h[5] & 0x1F, 0x1F);
    }
}

TEST(ADTSWriter, SizesOutsideTheFieldFailWithTheirLength) {
    EXPECT_EQ(failureOf(0), "AAC packet length 0 cannot fit ADTS — restart the encoder with "
                            "AAC-LC packets below 8185 bytes.");
    EXPECT_EQ(failureOf(8185), "AAC packet length 8185 cannot fit ADTS — restart the encoder "
                               "with AAC-LC packets below 8185 bytes.");
    EXPECT_THROW(ADTSWriter::wrap(QByteArray()), TesselError);
}

TEST(ADTSWriter, WrapPutsTheHeaderBeforeThePacket) {
    const QByteArray packet(100, 'x');
    const QByteArray wrapped = ADTSWriter::wrap(packet);
    EXPECT_EQ(wrapped.left(7), bytesOf(ADTSWriter::header(100)));
    EXPECT_EQ(wrapped.mid(7), packet);
}

TEST(Segmenter, AFrameAtTheBoundaryOpensTheNextSegment) {
    Segmenter segmenter(AudioChannel::remote, 10.0);
    EXPECT_TRUE(segmenter.append(frame('a'), 0.5).empty());
    EXPECT_TRUE(segmenter.append(frame('b'), 9.99).empty());

    const auto cut = segmenter.append(frame('c'), 10.0);
    ASSERT_EQ(cut.size(), 1u);
    EXPECT_EQ(cut[0].channel, AudioChannel::remote);
    EXPECT_EQ(cut[0].sequence, 0);
    EXPECT_EQ(cut[0].bytes, frame('a') + frame('b'));
    EXPECT_EQ(segmenter.boundary(), 20.0);

    const auto last = segmenter.finish();
    ASSERT_TRUE(last);
    EXPECT_EQ(last->sequence, 1);
    EXPECT_EQ(last->bytes, frame('c'));
    EXPECT_FALSE(segmenter.finish()) << "a second finish has nothing left";
}

TEST(Segmenter, ALongGapCutsOnceAndSpendsNoSequenceOnEmptyStretches) {
    Segmenter segmenter(AudioChannel::local, 10.0);
    segmenter.append(frame('a'), 1.0);
    const auto cut = segmenter.advance(35.2);
    ASSERT_EQ(cut.size(), 1u);
    EXPECT_EQ(cut[0].sequence, 0);
    EXPECT_EQ(segmenter.boundary(), 40.0);
    EXPECT_TRUE(segmenter.advance(39.9).empty());

    // The boundary passes with nothing held: it moves on, nothing is cut.
    EXPECT_TRUE(segmenter.advance(41.0).empty());
    EXPECT_EQ(segmenter.boundary(), 50.0);
    segmenter.append(frame('b'), 45.0);
    const auto next = segmenter.advance(50.0);
    ASSERT_EQ(next.size(), 1u);
    EXPECT_EQ(next[0].sequence, 1);
}

TEST(Segmenter, EverySegmentHasItsOwnChunkIdentity) {
    Segmenter segmenter(AudioChannel::local, 1.0);
    std::set<QUuid> seen;
    for (int second = 0; second < 50; ++second) {
        for (const auto& segment : segmenter.append(frame('a'), second + 0.5)) {
            EXPECT_FALSE(segment.chunkUUID.isNull());
            seen.insert(segment.chunkUUID);
        }
    }
    EXPECT_EQ(seen.size(), 49u);
}

TEST(SilenceMeter, OneLoudBlockCountsForGood) {
    SilenceMeter meter(0.001f);
    meter.observe({});
    EXPECT_FALSE(meter.heardSound()) << "an empty block is ignored";
    const std::vector<float> quiet(160, 0.0009f);
    meter.observe(quiet);
    EXPECT_FALSE(meter.heardSound());
    EXPECT_TRUE(meter.warning(30.0));

    std::vector<float> click(1600, 0.0f);
    click[0] = 0.5f; // RMS 0.0125: one short click in a quiet block is sound
    meter.observe(click);
    EXPECT_TRUE(meter.heardSound());
    meter.observe(std::vector<float>(16000, 0.0f));
    EXPECT_TRUE(meter.heardSound());
    EXPECT_FALSE(meter.warning(3600.0));
}

TEST(SilenceMeter, WarnsOnlyFromThirtySeconds) {
    const SilenceMeter meter(0.001f);
    EXPECT_FALSE(meter.warning(29.9));
    EXPECT_TRUE(meter.warning(30.0));
    EXPECT_EQ(SilenceMeter::warningMessage,
              "Not hearing the call — is the call's audio playing on this Mac?");
}
