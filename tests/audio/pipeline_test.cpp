// The pipeline with time in the test's hand: buffers are stamped with a clock
// the test sets, ticks run when the test says, and holding the clock on the
// encoding thread stands in for an encoder that cannot keep up.
#include "AudioTestSupport.h"

#include "audio/AudioPipeline.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <thread>

using namespace tessel;
using namespace tessel::test;

namespace {

const PCMFormat deviceFormat{SampleType::s16, false, 48000, 2};
constexpr double base = 1000.0; // uptime at the test's zero; 0 would count as "just heard"

// Uptime set by the test and read on any thread. While held, reads on other
// threads (or on one chosen thread) wait, returning what the clock said when
// they began.
class TestUptime {
public:
    void set(double value) {
        std::lock_guard lock(mutex_);
        value_ = value;
    }
    NowFunction function() {
        return [this] { return read(); };
    }
    void hold(std::optional<std::thread::id> only = std::nullopt) {
        std::lock_guard lock(mutex_);
        held_ = true;
        only_ = only;
    }
    void release() {
        std::lock_guard lock(mutex_);
        held_ = false;
        changed_.notify_all();
    }
    void waitForHeldReader() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return waiting_ > 0; });
    }

private:
    double read() {
        std::unique_lock lock(mutex_);
        const double value = value_;
        const auto self = std::this_thread::get_id();
        if (held_ && self != owner_ && (!only_ || *only_ == self)) {
            ++waiting_;
            changed_.notify_all();
            changed_.wait(lock, [this] { return !held_; });
            --waiting_;
        }
        return value;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    double value_ = base;
    bool held_ = false;
    std::optional<std::thread::id> only_;
    int waiting_ = 0;
    const std::thread::id owner_ = std::this_thread::get_id();
};

class PipelineTest : public ::testing::Test {
protected:
    TestUptime clock;
    AudioPipeline pipeline{{clock.function(), false}};
    double elapsed = 0;

    void receive(AudioChannel channel, double amplitude = 0.3, std::int64_t frames = 480) {
        const auto buffer = tone(deviceFormat, frames, 440, amplitude);
        pipeline.receive(buffer.view(), channel);
    }

    // Moves time on in 10 ms steps up to `until` seconds after the start; each
    // channel gets a buffer of the level `level(channel, t)` says (below 0: no
    // buffer), and every 0.1 s the pipeline ticks.
    void play(double until, const std::function<double(AudioChannel, double)>& level) {
        while (elapsed < until - 1e-9) {
            elapsed = std::round((elapsed + 0.01) * 100) / 100;
            clock.set(base + elapsed);
            for (const AudioChannel channel : allChannels) {
                if (const double amplitude = level(channel, elapsed); amplitude >= 0) {
                    receive(channel, amplitude);
                }
            }
            if (std::lround(elapsed * 100) % 10 == 0) {
                pipeline.tick();
            }
        }
    }

    static double both(AudioChannel, double) { return 0.3; }
};

// Index of the first meter reading at or after `elapsed`, counting all events.
std::size_t meterAt(const std::vector<CaptureEvent>& events, double elapsed) {
    for (std::size_t index = 0; index < events.size(); ++index) {
        if (const auto* meter = std::get_if<MeterReading>(&events[index])) {
            if (meter->elapsed >= elapsed - 1e-6) {
                return index;
            }
        }
    }
    return events.size();
}

std::size_t indexOf(const std::vector<CaptureEvent>& events, AudioChannel channel,
                    qint64 sequence) {
    for (std::size_t index = 0; index < events.size(); ++index) {
        if (const auto* segment = std::get_if<AudioSegment>(&events[index])) {
            if (segment->channel == channel && segment->sequence == sequence) {
                return index;
            }
        }
    }
    return events.size();
}

} // namespace

TEST_F(PipelineTest, BuffersBeforeStartOnlyPassThroughTheCount) {
    for (int i = 0; i < 20; ++i) {
        receive(i % 2 ? AudioChannel::remote : AudioChannel::local);
    }
    pipeline.tick(); // behind every buffer handed over
    EXPECT_EQ(pipeline.backlog(), 0);

    pipeline.start();
    pipeline.finish();
    EXPECT_TRUE(drain(pipeline.events()).empty()) << "no encoder saw those buffers";
}

TEST_F(PipelineTest, FinishWithoutStartEndsTheStreamWithNothingInIt) {
    pipeline.finish();
    pipeline.finish();
    EXPECT_TRUE(drain(pipeline.events()).empty());
}

TEST_F(PipelineTest, ABufferStampedBeforeStartButProcessedAfterIsDropped) {
    clock.set(base - 1);
    std::thread source([this] { receive(AudioChannel::local); });
    clock.hold(source.get_id());
    clock.waitForHeldReader(); // copied, stamped base - 1, not yet handed over
    clock.set(base);
    pipeline.start();
    clock.release();
    source.join();

    clock.set(base + 0.1);
    pipeline.tick();
    pipeline.finish();
    const auto events = drain(pipeline.events());
    const auto meters = metersOf(events);
    ASSERT_EQ(meters.size(), 1u);
    EXPECT_FALSE(meters[0].local) << "the early buffer never counted as input";
    EXPECT_TRUE(segmentsOf(events, AudioChannel::local).empty());
}

TEST_F(PipelineTest, BothTracksAreCutOnTheSharedGridAndEachSegmentStandsAlone) {
    pipeline.start();
    play(25.0, both);
    pipeline.finish();
    const auto events = drain(pipeline.events());
    EXPECT_TRUE(failuresOf(events).empty());

    QTemporaryDir directory;
    for (const AudioChannel channel : allChannels) {
        SCOPED_TRACE(wireName(channel).toStdString());
        const auto segments = segmentsOf(events, channel);
        ASSERT_EQ(segments.size(), 3u);
        for (std::size_t index = 0; index < segments.size(); ++index) {
            EXPECT_EQ(segments[index].sequence, static_cast<qint64>(index));
            const auto probe = probeSegment(segments[index].bytes, directory.path());
            EXPECT_EQ(probe.streams, "codec_name=aac|profile=LC|sample_rate=16000|channels=1");
            EXPECT_EQ(probe.decodeErrors, "");
        }
        EXPECT_NE(segments[0].chunkUUID, segments[1].chunkUUID);
        // Cut by the frames' arrival: the first ten seconds, less the encoder's lag.
        const auto firstFrames = adtsFrameLengths(segments[0].bytes).size();
        EXPECT_GE(firstFrames, 150u);
        EXPECT_LE(firstFrames, 157u);
        // The cut at 10 s comes before the meter of 10.1 s.
        EXPECT_LT(indexOf(events, channel, 0), meterAt(events, 10.1));
        EXPECT_GT(indexOf(events, channel, 0), meterAt(events, 9.9));

        const auto track = decodeADTS(joined(segments));
        EXPECT_NEAR(static_cast<double>(track.size()), 25 * 16000 + 1024, 1024);
    }
    EXPECT_TRUE(std::holds_alternative<AudioSegment>(events.back()))
        << "the stream ends with the last segments";
}

TEST_F(PipelineTest, AChannelThatStopsGoesDeadAfterTwoSecondsAndIsStillCutOnTime) {
    pipeline.start();
    play(12.0, [](AudioChannel channel, double t) {
        return channel == AudioChannel::local && t > 5.0 + 1e-9 ? -1.0 : 0.3;
    });
    const auto meters = [&] {
        pipeline.finish();
        return drain(pipeline.events());
    }();
    const auto reading = [&](double at) {
        return std::get<MeterReading>(meters[meterAt(meters, at)]);
    };
    EXPECT_TRUE(reading(6.9).local);
    EXPECT_FALSE(reading(7.0).local);
    EXPECT_TRUE(reading(7.0).remote);

    // The quiet channel's open segment is closed by the tick at 10 s, not by finish.
    EXPECT_LT(indexOf(meters, AudioChannel::local, 0), meterAt(meters, 10.1));
    // What the encoder still held comes out at finish, into the current stretch.
    const auto local = segmentsOf(meters, AudioChannel::local);
    ASSERT_EQ(local.size(), 2u);
    EXPECT_LE(adtsFrameLengths(local[1].bytes).size(), 4u);
    EXPECT_EQ(segmentsOf(meters, AudioChannel::remote).size(), 2u);
}

TEST_F(PipelineTest, SilenceFromTheFarEndIsCalledAfterThirtySecondsUntilHeard) {
    pipeline.start();
    // The microphone talks all along: that says nothing about the far end.
    play(31.0,
         [](AudioChannel channel, double) { return channel == AudioChannel::local ? 0.3 : 0.0; });
    play(31.5, [](AudioChannel, double) { return 0.3; });
    play(33.0,
         [](AudioChannel channel, double) { return channel == AudioChannel::local ? 0.3 : 0.0; });
    pipeline.finish();
    const auto events = drain(pipeline.events());
    for (const auto& meter : metersOf(events)) {
        const bool expected = meter.elapsed >= 30.0 - 1e-6 && meter.elapsed < 31.05;
        EXPECT_EQ(meter.silent, expected) << "at " << meter.elapsed;
    }
}

TEST_F(PipelineTest, TheBacklogBoundDropsBuffersAndSaysSoOnce) {
    pipeline.start();
    clock.hold(); // the encoding thread's next clock read waits: the encoder stalls
    std::thread ticker([this] { pipeline.tick(); });
    clock.waitForHeldReader();

    for (int i = 0; i < 258; ++i) {
        receive(i % 2 ? AudioChannel::remote : AudioChannel::local);
    }
    EXPECT_EQ(pipeline.backlog(), AudioPipeline::backlogLimit);
    clock.release();
    ticker.join();
    pipeline.tick();
    EXPECT_EQ(pipeline.backlog(), 0);

    // Caught up: buffers go through again, and no second failure follows later.
    for (int i = 0; i < 300; ++i) {
        receive(i % 2 ? AudioChannel::remote : AudioChannel::local);
        if (i % 100 == 99) {
            pipeline.tick();
        }
    }
    pipeline.finish();
    const auto events = drain(pipeline.events());
    EXPECT_EQ(failuresOf(events), std::vector<QString>{AudioPipeline::overflowMessage});
    EXPECT_EQ(AudioPipeline::overflowMessage,
              "Audio encoding cannot keep up — stop and save this call, close busy "
              "applications, then start another call.");
    // 128 + 150 buffers of 10 ms per channel were kept: 2.78 s.
    for (const AudioChannel channel : allChannels) {
        const auto track = decodeADTS(joined(segmentsOf(events, channel)));
        EXPECT_NEAR(static_cast<double>(track.size()), 2.78 * 16000 + 1024, 1024);
    }
}

TEST_F(PipelineTest, AfterAResamplingFailureTicksStopAndFinishStillCutsBothTracks) {
    pipeline.start();
    play(3.0, both);
    PCMBuffer broken({SampleType::f32, false, 0, 2}, 480);
    pipeline.receive(broken.view(), AudioChannel::local);
    play(5.0, both); // dropped, and the ticks say nothing
    pipeline.finish();

    const auto events = drain(pipeline.events());
    EXPECT_EQ(failuresOf(events),
              std::vector<QString>{"The audio device format cannot be resampled — select a "
                                   "supported microphone/output device and restart the call."});
    const auto failedAt = std::find_if(events.begin(), events.end(), [](const auto& event) {
        return std::holds_alternative<CaptureFailure>(event);
    });
    EXPECT_TRUE(metersOf({failedAt, events.end()}).empty());
    for (const AudioChannel channel : allChannels) {
        const auto segments = segmentsOf(events, channel);
        ASSERT_EQ(segments.size(), 1u);
        const auto track = decodeADTS(segments[0].bytes);
        EXPECT_NEAR(static_cast<double>(track.size()), 3 * 16000 + 1024, 1024);
    }
}

TEST(AudioPipelineTimer, TicksEveryTenthOfASecondFromStart) {
    AudioPipeline pipeline;
    pipeline.start();
    std::this_thread::sleep_for(std::chrono::milliseconds(350));
    pipeline.finish();
    const auto meters = metersOf(drain(pipeline.events()));
    ASSERT_GE(meters.size(), 2u);
    EXPECT_NEAR(meters[0].elapsed, 0.1, 0.05);
    EXPECT_NEAR(meters[1].elapsed - meters[0].elapsed, 0.1, 0.05);
    EXPECT_FALSE(meters[0].local) << "no input yet";
}
