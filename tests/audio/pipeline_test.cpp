// The pipeline with time in the test's hand: buffers are stamped with a clock
// the test sets, ticks run when the test says, and holding the clock on the
// encoding thread stands in for an encoder that cannot keep up.
#include "AudioTestSupport.h"

#include "audio/AudioPipeline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>

using namespace tessel;
using namespace tessel::test;

namespace {

const PCMFormat deviceFormat{SampleType::s16, false, 48000, 2};
constexpr double base = 1000.0; // uptime at the test's zero; 0 would count as "just heard"

// Uptime set by the test and read on any thread. While held, reads off the
// test's thread wait for the release, returning what the clock said before.
class TestUptime {
public:
    std::atomic<double> value{base};

    NowFunction function() {
        return [this] { return read(); };
    }
    void hold() { gate_.lock(); }
    void release() { gate_.unlock(); }
    std::atomic<int> waiting{0}; // reads held up now

private:
    double read() {
        const double now = value;
        if (std::this_thread::get_id() != owner_) {
            ++waiting;
            const std::lock_guard lock(gate_);
            --waiting;
        }
        return now;
    }

    std::mutex gate_;
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
            clock.value = base + elapsed;
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
    static double microphoneOnly(AudioChannel channel, double) {
        return channel == AudioChannel::local ? 0.3 : 0.0;
    }

    // `count` buffers, the channels taking turns.
    void receiveBoth(int count) {
        for (int i = 0; i < count; ++i) {
            receive(i % 2 ? AudioChannel::remote : AudioChannel::local);
        }
    }

    std::vector<CaptureEvent> finish() {
        pipeline.finish();
        return drain(pipeline.events());
    }
};

// Index of the first event of type T that `match` holds for, counting all events.
template <typename T>
std::size_t indexOf(const std::vector<CaptureEvent>& events,
                    const std::function<bool(const T&)>& match) {
    for (std::size_t index = 0; index < events.size(); ++index) {
        if (const auto* event = std::get_if<T>(&events[index]); event && match(*event)) {
            return index;
        }
    }
    return events.size();
}

std::size_t meterAt(const std::vector<CaptureEvent>& events, double elapsed) {
    return indexOf<MeterReading>(events,
                                 [elapsed](const auto& m) { return m.elapsed >= elapsed - 1e-6; });
}

std::size_t firstSegment(const std::vector<CaptureEvent>& events, AudioChannel channel) {
    return indexOf<AudioSegment>(events, [channel](const auto& s) { return s.channel == channel; });
}

} // namespace

TEST_F(PipelineTest, BuffersBeforeTheStartAreNeverEncoded) {
    receiveBoth(20);
    pipeline.tick(); // behind every buffer handed over
    EXPECT_EQ(pipeline.backlog(), 0);
    pipeline.start();
    pipeline.finish();
    EXPECT_TRUE(finish().empty()) << "no encoder saw those buffers";

    AudioPipeline neverStarted{{clock.function(), false}};
    neverStarted.finish();
    EXPECT_TRUE(drain(neverStarted.events()).empty());
}

TEST_F(PipelineTest, BothTracksAreCutOnTheSharedGridAndEachSegmentStandsAlone) {
    pipeline.start();
    play(25.0, both);
    const auto events = finish();
    EXPECT_TRUE(eventsOf<CaptureFailure>(events).empty());

    for (const AudioChannel channel : allChannels) {
        SCOPED_TRACE(wireName(channel).toStdString());
        const auto segments = segmentsOf(events, channel);
        ASSERT_EQ(segments.size(), 3u);
        expectSegmentsStandAlone(segments);
        EXPECT_NE(segments[0].chunkUUID, segments[1].chunkUUID);
        // Cut by the frames' arrival: the first ten seconds, less the encoder's lag.
        const auto firstFrames = adtsFrameLengths(segments[0].bytes).size();
        EXPECT_GE(firstFrames, 150u);
        EXPECT_LE(firstFrames, 157u);
        // The cut at 10 s comes before the meter of 10.1 s.
        EXPECT_LT(firstSegment(events, channel), meterAt(events, 10.1));
        EXPECT_GT(firstSegment(events, channel), meterAt(events, 9.9));

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
    const auto meters = finish();
    const auto reading = [&](double at) {
        return std::get<MeterReading>(meters[meterAt(meters, at)]);
    };
    EXPECT_TRUE(reading(6.9).local);
    EXPECT_FALSE(reading(7.0).local);
    EXPECT_TRUE(reading(7.0).remote);

    // The quiet channel's open segment is closed by the tick at 10 s, not by finish.
    EXPECT_LT(firstSegment(meters, AudioChannel::local), meterAt(meters, 10.1));
    // What the encoder still held comes out at finish, into the current stretch.
    const auto local = segmentsOf(meters, AudioChannel::local);
    ASSERT_EQ(local.size(), 2u);
    EXPECT_LE(adtsFrameLengths(local[1].bytes).size(), 4u);
    EXPECT_EQ(segmentsOf(meters, AudioChannel::remote).size(), 2u);
}

TEST_F(PipelineTest, SilenceFromTheFarEndIsCalledAfterThirtySecondsUntilHeard) {
    pipeline.start();
    // The microphone talks all along: that says nothing about the far end.
    play(31.0, microphoneOnly);
    play(31.5, both);
    play(33.0, microphoneOnly);
    const auto events = finish();
    for (const auto& meter : eventsOf<MeterReading>(events)) {
        const bool expected = meter.elapsed >= 30.0 - 1e-6 && meter.elapsed < 31.05;
        EXPECT_EQ(meter.silent, expected) << "at " << meter.elapsed;
    }
}

TEST_F(PipelineTest, TheBacklogBoundDropsBuffersAndSaysSoOnce) {
    pipeline.start();
    clock.hold(); // the encoding thread's next clock read waits: the encoder stalls
    std::thread ticker([this] { pipeline.tick(); });
    while (clock.waiting == 0) {
        std::this_thread::yield();
    }

    receiveBoth(258);
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
    const auto events = finish();
    EXPECT_EQ(eventsOf<CaptureFailure>(events),
              std::vector<CaptureFailure>{{AudioPipeline::overflowMessage}});
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
    const auto events = finish();
    const auto failures = eventsOf<CaptureFailure>(events);
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_TRUE(failures[0].message.contains("cannot be resampled"))
        << failures[0].message.toStdString();
    const auto failedAt = std::find_if(events.begin(), events.end(), [](const auto& event) {
        return std::holds_alternative<CaptureFailure>(event);
    });
    EXPECT_TRUE(eventsOf<MeterReading>({failedAt, events.end()}).empty());
    for (const AudioChannel channel : allChannels) {
        const auto segments = segmentsOf(events, channel);
        ASSERT_EQ(segments.size(), 1u);
        const auto track = decodeADTS(segments[0].bytes);
        EXPECT_NEAR(static_cast<double>(track.size()), 3 * 16000 + 1024, 1024);
    }
}

namespace {

bool codecModuleMapped() {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.ends_with("/libtessel-codec.so")) {
            return true;
        }
    }
    return false;
}

} // namespace

// FFmpeg and its libraries are the program's largest resident part after Qt:
// an idle program must not keep them.
TEST(PipelineCodec, TheCodecIsLoadedWhenACallStartsAndLetGoWhenItEnds) {
    ASSERT_FALSE(codecModuleMapped());
    {
        TestUptime clock;
        AudioPipeline pipeline{{clock.function(), false}};
        EXPECT_FALSE(codecModuleMapped()) << "not before the start";
        pipeline.start();
        EXPECT_TRUE(codecModuleMapped());
        pipeline.finish();
    }
    EXPECT_FALSE(codecModuleMapped());
}
