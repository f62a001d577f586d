// The real capture against a PulseAudio daemon of the test's own: speech played
// into the speakers must land on the remote track and only there, speech into
// the microphone on the local track, the far end must follow a new default
// output, and a missing server or device must fail in words with nothing left
// running.
#include "AudioTestSupport.h"
#include "support/PrivatePulse.h"

#include "audio/AudioCapture.h"
#include "errors/ErrorPresentation.h"
#include "support/Wait.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>
#include <map>
#include <memory>
#include <optional>

using namespace tessel;
using namespace tessel::test;

namespace {

// Speakers and a microphone, the defaults, and a headset to switch to.
const QStringList callDevices{
    "module-null-sink sink_name=speakers rate=48000 channels=2",
    "module-null-sink sink_name=headset rate=44100 channels=2",
    "module-null-sink sink_name=micsink channels=1",
    "module-remap-source source_name=mic master=micsink.monitor",
};

struct Span {
    double from, to; // seconds since `begin`
};

// A capture begun with the speakers and the microphone as the defaults, read
// as it goes.
class Recording {
public:
    explicit Recording(PrivatePulse& pulse)
        : pulse_(pulse), capture_(AudioCaptureOptions{pulse.address(), {}}) {
        pulse.pactl({"set-default-sink", "speakers"});
        pulse.pactl({"set-default-source", "mic"});
        wait(capture_.prepare());
        capture_.begin();
        clock_.start();
        // An idle null sink can take a while to deliver its first data.
        readUntil(
            [this] {
                const auto meters = eventsOf<MeterReading>(events);
                return !meters.empty() && meters.back().local && meters.back().remote;
            },
            10000);
    }

    // Reads events until `done` holds; a failure of the test at the deadline.
    void readUntil(const std::function<bool()>& done, int milliseconds) {
        const QDeadlineTimer deadline(milliseconds);
        while (!done()) {
            auto event = deadline.hasExpired() ? std::nullopt : wait(capture_.events().next());
            if (!event) {
                ADD_FAILURE() << "nothing more within " << milliseconds << " ms";
                return;
            }
            events.push_back(std::move(*event));
        }
    }

    Span play(const QString& sink, const QString& file) {
        const double from = clock_.elapsed() / 1000.0;
        Child& player = pulse_.play(sink, file);
        readUntil([&player] { return !player.running(); }, 30000);
        EXPECT_EQ(player.waitFor(0), 0) << "paplay";
        return {from, clock_.elapsed() / 1000.0};
    }

    // Stops and decodes both tracks; each segment must decode on its own.
    void stop() {
        capture_.stop();
        for (auto& event : drain(capture_.events())) {
            events.push_back(std::move(event));
        }
        EXPECT_TRUE(eventsOf<CaptureFailure>(events).empty());
        for (const AudioChannel channel : allChannels) {
            expectSegmentsStandAlone(segmentsOf(events, channel));
            tracks_[channel] = decodeADTS(joined(segmentsOf(events, channel)));
        }
    }

    // RMS of a track within a span of the recording, leaving the edges aside: the
    // player's start-up and the server's latency blur them.
    double level(AudioChannel channel, Span span) const {
        const auto at = [start = start(channel)](double seconds) {
            return static_cast<std::size_t>(std::max(0.0, seconds - start) * 16000) + 1024;
        };
        return rms(tracks_.at(channel), at(span.from + 0.6), at(span.to - 0.4));
    }
    // Where a track ends, in seconds since `begin`.
    double end(AudioChannel channel) const {
        return static_cast<double>(tracks_.at(channel).size()) / 16000 + start(channel);
    }

    std::vector<CaptureEvent> events;

private:
    // When a channel's first buffer arrived, in seconds since `begin`: its
    // track's first sample. An idle null sink may take two seconds to deliver.
    double start(AudioChannel channel) const {
        double before = 0;
        for (const auto& meter : eventsOf<MeterReading>(events)) {
            if (channel == AudioChannel::local ? meter.local : meter.remote) {
                return (before + meter.elapsed) / 2;
            }
            before = meter.elapsed;
        }
        return 0;
    }

    PrivatePulse& pulse_;
    AudioCapture capture_;
    QElapsedTimer clock_;
    std::map<AudioChannel, std::vector<float>> tracks_;
};

// Prepares a capture that must fail; the failure's words, with no stream of
// the capture left on the sound server and nothing in the event stream.
QString prepareFailure(const QString& address, PrivatePulse* pulse = nullptr) {
    AudioCapture capture(AudioCaptureOptions{address, {}});
    const auto failure = failureOf(capture.prepare());
    if (pulse) {
        EXPECT_EQ(pulse->pactl({"list", "short", "source-outputs"}).trimmed(), "");
    }
    capture.stop();
    capture.stop();
    EXPECT_TRUE(drain(capture.events()).empty());
    return ErrorPresentation::from(failure).detailLine; // a plain failure's own words
}

} // namespace

TEST(AudioCaptureEndToEnd, EachSourceLandsOnItsOwnTrackUntilTheStop) {
    PrivatePulse pulse(callDevices);
    ASSERT_FALSE(HasFailure());
    const QString farSpeech = pulse.speech("far", "The other side of the call is speaking now.");
    const QString nearSpeech = pulse.speech("near", "And this is the person taking the notes.");

    Recording recording(pulse);
    const Span far = recording.play("speakers", farSpeech);
    const Span near = recording.play("micsink", nearSpeech);
    recording.stop();
    EXPECT_GT(recording.level(AudioChannel::remote, far), 0.02) << "speakers on remote";
    EXPECT_LT(recording.level(AudioChannel::local, far), 0.002) << "and not on local";
    EXPECT_GT(recording.level(AudioChannel::local, near), 0.02) << "microphone on local";
    EXPECT_LT(recording.level(AudioChannel::remote, near), 0.002) << "and not on remote";
    // Nothing lost at the end: both tracks run until the stop.
    EXPECT_GT(recording.end(AudioChannel::local), near.to - 0.3);
    EXPECT_GT(recording.end(AudioChannel::remote), near.to - 0.3);
    EXPECT_FALSE(eventsOf<MeterReading>(recording.events).back().silent);
}

TEST(AudioCaptureEndToEnd, TheFarEndFollowsANewDefaultOutput) {
    PrivatePulse pulse(callDevices);
    ASSERT_FALSE(HasFailure());
    const QString far = pulse.speech("far", "Now the call plays through the headset.");
    Recording recording(pulse);

    pulse.pactl({"set-default-sink", "headset"});
    const QString headsetMonitor =
        QRegularExpression(R"(^(\d+)\theadset\.monitor\t)", QRegularExpression::MultilineOption)
            .match(pulse.pactl({"list", "short", "sources"}))
            .captured(1);
    ASSERT_FALSE(headsetMonitor.isEmpty());
    // Columns: index, source, client; ours are the only recording streams.
    const QRegularExpression onMonitor("^\\d+\\t" + headsetMonitor + "\\t\\d+\\t",
                                       QRegularExpression::MultilineOption);
    recording.readUntil(
        [&] {
            return pulse.pactl({"list", "short", "source-outputs"}).contains(onMonitor);
        },
        10000);
    const Span span = recording.play("headset", far);
    recording.stop();
    EXPECT_GT(recording.level(AudioChannel::remote, span), 0.02);
}

TEST(AudioCaptureFailures, AMissingServerOrDeviceFailsInWordsAndLeavesNothingRunning) {
    QTemporaryDir nowhere;
    EXPECT_EQ(prepareFailure("unix:" + nowhere.filePath("native")),
              "No sound server is running — start PulseAudio or PipeWire's pulse server, then "
              "retry.");

    PrivatePulse bare({});
    EXPECT_EQ(prepareFailure(bare.address(), &bare),
              "No microphone input is available — select a microphone as the input device in the "
              "desktop's sound settings, then retry.");

    // The microphone comes up first; its stream must go with the failure.
    PrivatePulse microphoneOnly({"module-null-source source_name=mic"});
    EXPECT_TRUE(prepareFailure(microphoneOnly.address(), &microphoneOnly)
                    .contains("There is no default output device to record from"));
}
