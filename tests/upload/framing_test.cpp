// ADTS headers, the ten-second grid and the silence meter: the wire format and
// the cutting rules that both tracks and the server depend on.
#include "errors/Failures.h"
#include "upload/ADTSWriter.h"
#include "upload/Segmenter.h"
#include "upload/SilenceMeter.h"

#include <gtest/gtest.h>

#include <vector>

using namespace tessel;

namespace {

QByteArray bytesOf(std::array<std::uint8_t, 7> header) {
    return QByteArray(reinterpret_cast<const char*>(header.data()), 7);
}

QByteArray frame(char fill) {
    return QByteArray(20, fill);
}

} // namespace

TEST(ADTSWriter, TheHeaderCarriesEveryAllowedLengthAndRefusesTheRest) {
    EXPECT_EQ(bytesOf(ADTSWriter::header(1)).toHex(' '), "ff f1 60 40 01 1f fc");
    EXPECT_EQ(bytesOf(ADTSWriter::header(100)).toHex(' '), "ff f1 60 40 0d 7f fc");
    EXPECT_EQ(bytesOf(ADTSWriter::header(1017)).toHex(' '), "ff f1 60 40 80 1f fc");
    EXPECT_EQ(bytesOf(ADTSWriter::header(8184)).toHex(' '), "ff f1 60 43 ff ff fc");
    EXPECT_THROW(ADTSWriter::header(0), TesselError);
    EXPECT_THROW(ADTSWriter::header(8185), TesselError);
    EXPECT_THROW(ADTSWriter::wrap(QByteArray()), TesselError);
    const QByteArray packet(100, 'x');
    EXPECT_EQ(ADTSWriter::wrap(packet), bytesOf(ADTSWriter::header(100)) + packet);
}

TEST(Segmenter, CutsOnTheGridAndSpendsNoSequenceOnEmptyStretches) {
    Segmenter segmenter(AudioChannel::remote, 10.0);
    EXPECT_TRUE(segmenter.append(frame('a'), 0.5).empty());
    EXPECT_TRUE(segmenter.append(frame('b'), 9.99).empty());
    // A frame at the boundary opens the next segment.
    const auto cut = segmenter.append(frame('c'), 10.0);
    ASSERT_EQ(cut.size(), 1u);
    EXPECT_EQ(cut[0].channel, AudioChannel::remote);
    EXPECT_EQ(cut[0].sequence, 0);
    EXPECT_EQ(cut[0].bytes, frame('a') + frame('b'));
    EXPECT_EQ(segmenter.boundary(), 20.0);

    // A long gap cuts once; a boundary passing with nothing held cuts nothing.
    const auto gap = segmenter.advance(35.2);
    ASSERT_EQ(gap.size(), 1u);
    EXPECT_EQ(gap[0].bytes, frame('c'));
    EXPECT_EQ(segmenter.boundary(), 40.0);
    EXPECT_TRUE(segmenter.advance(41.0).empty());
    EXPECT_EQ(segmenter.boundary(), 50.0);

    segmenter.append(frame('d'), 45.0);
    const auto last = segmenter.finish();
    ASSERT_TRUE(last);
    EXPECT_EQ(last->sequence, 2);
    EXPECT_EQ(last->bytes, frame('d'));
    EXPECT_NE(last->chunkUUID, gap[0].chunkUUID);
    EXPECT_FALSE(segmenter.finish()) << "a second finish has nothing left";
}

TEST(SilenceMeter, WarnsFromThirtySecondsUntilOneLoudBlock) {
    SilenceMeter meter(0.001f);
    meter.observe({});
    meter.observe(std::vector<float>(160, 0.0009f));
    EXPECT_FALSE(meter.heardSound());
    EXPECT_FALSE(meter.warning(29.9));
    EXPECT_TRUE(meter.warning(30.0));

    std::vector<float> click(1600, 0.0f);
    click[0] = 0.5f; // RMS 0.0125: one short click in a quiet block is sound
    meter.observe(click);
    meter.observe(std::vector<float>(16000, 0.0f));
    EXPECT_TRUE(meter.heardSound()) << "for good";
    EXPECT_FALSE(meter.warning(3600.0));
}
