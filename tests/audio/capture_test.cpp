// The real capture against a PulseAudio daemon of the test's own: speech played
// into the speakers must land on the remote track and only there, speech into
// the microphone on the local track, and a missing server or device must fail
// in words with nothing left running.
#include "AudioTestSupport.h"
#include "PrivatePulse.h"

#include "audio/AudioCapture.h"
#include "errors/Failures.h"
#include "support/Wait.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QRegularExpression>

#include <gtest/gtest.h>

using namespace tessel;
using namespace tessel::test;

namespace {

const QStringList callDevices{
    "module-null-sink sink_name=speakers rate=48000 channels=2",
    "module-null-sink sink_name=micsink channels=1",
    "module-remap-source source_name=mic master=micsink.monitor",
};

struct Span {
    double from;
    double to;
};

class Recording {
public:
    explicit Recording(AudioCapture& capture) : capture_(capture) { clock_.start(); }

    double now() const { return static_cast<double>(clock_.elapsed()) / 1000; }

    // Reads events until `done` holds; a failure of the test at the deadline.
    void readUntil(const std::function<bool()>& done, int milliseconds) {
        const QDeadlineTimer deadline(milliseconds);
        while (!done()) {
            if (deadline.hasExpired()) {
                ADD_FAILURE() << "nothing came within " << milliseconds << " ms";
                return;
            }
            auto event = wait(capture_.events().next());
            if (!event) {
                ADD_FAILURE() << "the stream ended early";
                return;
            }
            events.push_back(std::move(*event));
        }
    }

    // An idle null sink can take a while to deliver its first data.
    void waitForBothSources() {
        readUntil(
            [this] {
                const auto meters = metersOf(events);
                return !meters.empty() && meters.back().local && meters.back().remote;
            },
            10000);
    }

    Span play(PrivatePulse& pulse, const QString& sink, const QString& file) {
        const double from = now();
        QProcess& player = pulse.play(sink, file);
        readUntil([&player] { return player.state() == QProcess::NotRunning; }, 30000);
        EXPECT_EQ(player.exitCode(), 0) << player.readAllStandardError().toStdString();
        return {from, now()};
    }

    void stop() {
        capture_.stop();
        for (auto& event : drain(capture_.events())) {
            events.push_back(std::move(event));
        }
    }

    std::vector<CaptureEvent> events;

private:
    AudioCapture& capture_;
    QElapsedTimer clock_;
};

// When a channel's first buffer arrived, in seconds since `begin`: a track's
// first sample. An idle null sink may take two seconds to deliver anything.
double trackStart(const std::vector<CaptureEvent>& events, AudioChannel channel) {
    double before = 0;
    for (const auto& meter : metersOf(events)) {
        if (channel == AudioChannel::local ? meter.local : meter.remote) {
            return (before + meter.elapsed) / 2;
        }
        before = meter.elapsed;
    }
    return 0;
}

// RMS of a track within a span of the recording, leaving the edges aside: the
// player's start-up and the server's latency blur them.
double level(const std::vector<float>& track, double start, Span span) {
    const auto at = [start](double seconds) {
        return static_cast<std::size_t>(std::max(0.0, seconds - start) * 16000) + 1024;
    };
    return rms(track, at(span.from + 0.6), at(span.to - 0.4));
}

template <typename Failure> std::optional<Failure> failureOf(Task<void> task) {
    try {
        wait(std::move(task));
    } catch (const Failure& failure) {
        return failure;
    } catch (const std::exception& other) {
        ADD_FAILURE() << "another failure: " << other.what();
    }
    return std::nullopt;
}

std::optional<TesselError> prepareFailure(PrivatePulse& pulse) {
    AudioCapture capture(AudioCaptureOptions{pulse.address(), {}});
    auto failure = failureOf<TesselError>(capture.prepare());
    EXPECT_TRUE(drain(capture.events()).empty()) << "stopped, and the stream ended empty";
    capture.stop();
    return failure;
}

void expectPlayable(const std::vector<AudioSegment>& segments, const QString& directory) {
    ASSERT_FALSE(segments.empty());
    for (std::size_t index = 0; index < segments.size(); ++index) {
        EXPECT_EQ(segments[index].sequence, static_cast<qint64>(index));
        const auto probe = probeSegment(segments[index].bytes, directory);
        EXPECT_EQ(probe.streams, "codec_name=aac|profile=LC|sample_rate=16000|channels=1");
        EXPECT_EQ(probe.decodeErrors, "");
    }
}

} // namespace

TEST(AudioCaptureEndToEnd, EachSourceLandsOnItsOwnTrack) {
    PrivatePulse pulse(callDevices);
    ASSERT_TRUE(pulse.isRunning()) << pulse.log().toStdString();
    pulse.pactl({"set-default-sink", "speakers"});
    pulse.pactl({"set-default-source", "mic"});
    const QString far = pulse.speech("far", "The other side of the call is speaking now.");
    const QString near = pulse.speech("near", "And this is the person taking the notes.");

    AudioCapture capture(AudioCaptureOptions{pulse.address(), {}});
    wait(capture.prepare());
    capture.begin();
    Recording recording(capture);
    recording.waitForBothSources();
    const Span farSpan = recording.play(pulse, "speakers", far);
    const Span nearSpan = recording.play(pulse, "micsink", near);
    recording.stop();
    capture.stop();

    const auto& events = recording.events;
    EXPECT_TRUE(failuresOf(events).empty());
    const auto local = segmentsOf(events, AudioChannel::local);
    const auto remote = segmentsOf(events, AudioChannel::remote);
    expectPlayable(local, pulse.directory());
    expectPlayable(remote, pulse.directory());

    const auto localTrack = decodeADTS(joined(local));
    const auto remoteTrack = decodeADTS(joined(remote));
    const double localStart = trackStart(events, AudioChannel::local);
    const double remoteStart = trackStart(events, AudioChannel::remote);
    EXPECT_GT(level(remoteTrack, remoteStart, farSpan), 0.02) << "speakers on remote";
    EXPECT_LT(level(localTrack, localStart, farSpan), 0.002) << "and not on local";
    EXPECT_GT(level(localTrack, localStart, nearSpan), 0.02) << "microphone on local";
    EXPECT_LT(level(remoteTrack, remoteStart, nearSpan), 0.002) << "and not on remote";
    // Nothing lost at the end: both tracks run until the stop.
    EXPECT_GT(static_cast<double>(localTrack.size()) / 16000 + localStart, nearSpan.to - 0.3);
    EXPECT_GT(static_cast<double>(remoteTrack.size()) / 16000 + remoteStart, nearSpan.to - 0.3);
    EXPECT_FALSE(metersOf(events).back().silent);
}

TEST(AudioCaptureEndToEnd, SystemAudioFollowsANewDefaultOutput) {
    QStringList devices = callDevices;
    devices << "module-null-sink sink_name=headset rate=44100 channels=2";
    PrivatePulse pulse(devices);
    ASSERT_TRUE(pulse.isRunning()) << pulse.log().toStdString();
    pulse.pactl({"set-default-sink", "speakers"});
    pulse.pactl({"set-default-source", "mic"});
    const QString far = pulse.speech("far", "Now the call plays through the headset.");

    AudioCapture capture(AudioCaptureOptions{pulse.address(), {}});
    wait(capture.prepare());
    capture.begin();
    Recording recording(capture);
    recording.waitForBothSources();

    pulse.pactl({"set-default-sink", "headset"});
    const QRegularExpression monitorIndex(R"(^(\d+)\theadset\.monitor\t)",
                                          QRegularExpression::MultilineOption);
    const QString headsetMonitor =
        monitorIndex.match(pulse.pactl({"list", "short", "sources"})).captured(1);
    ASSERT_FALSE(headsetMonitor.isEmpty());
    recording.readUntil(
        [&] {
            // Columns: index, source, client. Our streams are the only recording
            // clients: one of them is on the monitor now.
            return pulse.pactl({"list", "short", "source-outputs"})
                .contains(QRegularExpression("^\\d+\\t" + headsetMonitor + "\\t\\d+\\t",
                                             QRegularExpression::MultilineOption));
        },
        10000);
    const Span span = recording.play(pulse, "headset", far);
    recording.stop();

    const auto remoteTrack = decodeADTS(joined(segmentsOf(recording.events, AudioChannel::remote)));
    EXPECT_GT(level(remoteTrack, trackStart(recording.events, AudioChannel::remote), span), 0.02);
}

TEST(AudioCaptureFailures, NoSoundServer) {
    QTemporaryDir nowhere;
    AudioCapture capture(AudioCaptureOptions{"unix:" + nowhere.filePath("native"), {}});
    const auto failure = failureOf<TesselError>(capture.prepare());
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->message(), "No sound server is running — start PulseAudio or PipeWire's "
                                  "pulse server, then retry.");
    capture.stop();
    capture.stop();
    EXPECT_TRUE(drain(capture.events()).empty());
}

TEST(AudioCaptureFailures, NoMicrophone) {
    PrivatePulse pulse({});
    ASSERT_TRUE(pulse.isRunning()) << pulse.log().toStdString();
    const auto failure = prepareFailure(pulse);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->message(), "No microphone input is available — select a microphone in "
                                  "System Settings → Sound → Input and retry.");
}

TEST(AudioCaptureFailures, NoOutputToRecord) {
    PrivatePulse pulse({"module-null-source source_name=mic"});
    ASSERT_TRUE(pulse.isRunning()) << pulse.log().toStdString();
    AudioCapture capture(AudioCaptureOptions{pulse.address(), {}});
    const auto failure = failureOf<AudioCaptureError>(capture.prepare());
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->kind(), AudioCaptureError::Kind::systemAudioStartFailed);
    EXPECT_EQ(failure->reason(), "There is no default output device to record from — choose an "
                                 "output device in the sound settings, then retry.");
    EXPECT_TRUE(drain(capture.events()).empty()) << "stopped, and the stream ended empty";
    capture.stop();
    EXPECT_TRUE(pulse.pactl({"list", "short", "source-outputs"}).trimmed().isEmpty())
        << "the microphone stream is gone too";
}
