// What one hour of a call costs the audio pipeline, next to ffmpeg doing the
// same conversion:
//  1. two channels of 48 kHz stereo PCM (one hour each) pushed through
//     `receive` in 10 ms buffers as fast as the pipeline takes them, the
//     producer pacing itself on the backlog so that nothing is dropped: CPU
//     seconds of the whole process, the cost of one `receive` (median and p99)
//     and the peak resident memory; then the same audio through resampler,
//     encoder and segmenter on one thread, each timed alone, for the share of
//     each stage; what they leave of the pipeline's CPU is the hand-off between
//     threads and everything around the stages;
//  2. ffmpeg converting the same audio of both channels to ADTS AAC-LC 16 kHz
//     mono 32 kbit/s the same way (soxr, the same downmix, the same coder): CPU
//     seconds of its processes; and, for reference, with its own defaults.
// Run on demand: build/bin/bench_pipeline [minutes]
#include "audio/AudioPipeline.h"
#include "codec/AACEncoder.h"
#include "codec/PCMResampler.h"
#include "upload/Segmenter.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <random>
#include <spawn.h>
#include <thread>
#include <vector>

extern char** environ;

using namespace tessel;

namespace {

constexpr int rate = 48000;
constexpr int framesPerBuffer = 480; // 10 ms
constexpr int loopSeconds = 10;
constexpr int buffersPerLoop = loopSeconds * 100;

// Ten seconds of something like a voice: a wandering fundamental with a few
// harmonics, syllables at about four a second, and a little noise, on two
// slightly different stereo channels. Looped to any length.
std::vector<std::int16_t> voiceLoop(double pitch, unsigned seed) {
    std::mt19937 random(seed);
    std::normal_distribution<double> noise(0.0, 0.01);
    std::vector<std::int16_t> samples(static_cast<std::size_t>(rate) * loopSeconds * 2);
    double phase = 0;
    for (std::size_t frame = 0; frame < samples.size() / 2; ++frame) {
        const double t = static_cast<double>(frame) / rate;
        const double f0 = pitch * (1 + 0.15 * std::sin(2 * std::numbers::pi * 0.3 * t));
        phase += 2 * std::numbers::pi * f0 / rate;
        const double syllable = std::max(0.0, std::sin(2 * std::numbers::pi * 2.1 * t));
        double value = 0;
        for (int harmonic = 1; harmonic <= 6; ++harmonic) {
            value += std::sin(harmonic * phase) / harmonic;
        }
        value = 0.25 * syllable * value + noise(random);
        samples[2 * frame] = static_cast<std::int16_t>(std::clamp(value, -1.0, 1.0) * 32767);
        samples[2 * frame + 1] =
            static_cast<std::int16_t>(std::clamp(0.9 * value, -1.0, 1.0) * 32767);
    }
    return samples;
}

void writeWav(const QString& path, const std::vector<std::int16_t>& samples) {
    const auto dataBytes = static_cast<std::uint32_t>(samples.size() * 2);
    auto le32 = [](std::uint32_t v) { return QByteArray(reinterpret_cast<const char*>(&v), 4); };
    auto le16 = [](std::uint16_t v) { return QByteArray(reinterpret_cast<const char*>(&v), 2); };
    QByteArray header = "RIFF" + le32(36 + dataBytes) + "WAVEfmt " + le32(16) + le16(1) + le16(2) +
                        le32(rate) + le32(rate * 4) + le16(4) + le16(16) + "data" + le32(dataBytes);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
        std::exit(1);
    }
    file.write(header);
    file.write(reinterpret_cast<const char*>(samples.data()), dataBytes);
}

double cpuSeconds(const rusage& usage) {
    auto seconds = [](const timeval& tv) {
        return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double selfCPU() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return cpuSeconds(usage);
}

// The conversion the pipeline makes: soxr, and a downmix that keeps the level.
// ffmpeg's default is its own resampler and a downmix 3 dB louder.
const char* const sameConversion = "aresample=osr=16000:ochl=mono:resampler=soxr:rematrix_maxval=1";

// Runs ffmpeg and returns its CPU seconds, from its own rusage.
double ffmpegCPU(const QString& wav, int loops, const QString& output, const char* filter) {
    const QByteArray loopText = QByteArray::number(loops - 1);
    const QByteArray in = wav.toLocal8Bit();
    const QByteArray out = output.toLocal8Bit();
    std::vector<const char*> arguments{"ffmpeg",
                                       "-nostdin",
                                       "-v",
                                       "error",
                                       "-y",
                                       "-stream_loop",
                                       loopText.constData(),
                                       "-i",
                                       in.constData(),
                                       "-af",
                                       filter,
                                       "-c:a",
                                       "aac",
                                       "-aac_coder",
                                       "fast",
                                       "-b:a",
                                       "32k",
                                       "-ar",
                                       "16000",
                                       "-ac",
                                       "1",
                                       "-f",
                                       "adts",
                                       out.constData(),
                                       nullptr};
    pid_t pid = 0;
    if (posix_spawnp(&pid, "ffmpeg", nullptr, nullptr, const_cast<char* const*>(arguments.data()),
                     environ) != 0) {
        std::fprintf(stderr, "cannot start ffmpeg\n");
        std::exit(1);
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "ffmpeg failed\n");
        std::exit(1);
    }
    return cpuSeconds(usage);
}

double threadCPU() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// CPU seconds of each stage of the encoding thread's work, each stage run on
// its own on this thread over the same audio, a second at a time.
struct Stages {
    double resampling = 0;
    double encoding = 0; // the AAC encoder and the ADTS header on each packet
    double framing = 0;  // cutting the frames into ten-second segments
};

Stages stagesAlone(const std::vector<std::int16_t>& loop, AudioChannel channel, long buffers) {
    const PCMFormat format{SampleType::s16, false, rate, 2};
    PCMResampler resampler;
    AACEncoder encoder;
    Segmenter segmenter(channel, AudioPipeline::segmentDuration);
    Stages stages;
    std::vector<float> samples;
    for (long second = 0; second * 100 < buffers; ++second) {
        double mark = threadCPU();
        const auto lap = [&mark](double& stage) {
            const double now = threadCPU();
            stage += now - mark;
            mark = now;
        };
        samples.clear();
        for (long index = second * 100; index < std::min(buffers, (second + 1) * 100); ++index) {
            const auto offset =
                static_cast<std::size_t>(index % buffersPerLoop) * framesPerBuffer * 2;
            const auto part = resampler.convert(
                PCMView::interleaved(format, loop.data() + offset, framesPerBuffer));
            samples.insert(samples.end(), part.begin(), part.end());
        }
        lap(stages.resampling);
        const std::vector<QByteArray> frames = encoder.append(samples);
        lap(stages.encoding);
        for (const QByteArray& frame : frames) {
            segmenter.append(frame, static_cast<double>(second));
        }
        lap(stages.framing);
    }
    return stages;
}

std::uint64_t percentile(std::vector<std::uint32_t>& values, double fraction) {
    const auto at = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(at),
                     values.end());
    return values[at];
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int minutes = argc > 1 ? std::max(1, std::atoi(argv[1])) : 60;
    const int loops = minutes * 60 / loopSeconds;
    const long buffers = static_cast<long>(loops) * buffersPerLoop;

    const std::vector<std::int16_t> local = voiceLoop(120, 1);
    const std::vector<std::int16_t> remote = voiceLoop(190, 2);
    QTemporaryDir directory(QDir::tempPath() + "/tessel-bench-XXXXXX");
    const QString localWav = directory.filePath("local.wav");
    const QString remoteWav = directory.filePath("remote.wav");
    writeWav(localWav, local);
    writeWav(remoteWav, remote);

    // Time is the audio's own: 10 ms per buffer, so segments are cut as in a call.
    std::atomic<double> audioTime{0};
    AudioPipeline pipeline(
        {[&audioTime] { return audioTime.load(std::memory_order_relaxed); }, true});

    std::vector<std::uint32_t> receiveNanos;
    receiveNanos.reserve(static_cast<std::size_t>(buffers) * 2);
    qint64 segmentBytes = 0;
    int segments = 0;
    int failures = 0;

    const double cpuBefore = selfCPU();
    const auto wallBefore = std::chrono::steady_clock::now();
    pipeline.start();

    double producerCPU = 0;
    std::thread producer([&] {
        const double producerStart = threadCPU();
        const PCMFormat format{SampleType::s16, false, rate, 2};
        for (long index = 0; index < buffers; ++index) {
            audioTime.store(static_cast<double>(index) / 100, std::memory_order_relaxed);
            const auto offset =
                static_cast<std::size_t>(index % buffersPerLoop) * framesPerBuffer * 2;
            for (const auto* source : {&local, &remote}) {
                const PCMView view =
                    PCMView::interleaved(format, source->data() + offset, framesPerBuffer);
                const auto from = std::chrono::steady_clock::now();
                pipeline.receive(view,
                                 source == &local ? AudioChannel::local : AudioChannel::remote);
                const auto took = std::chrono::steady_clock::now() - from;
                receiveNanos.push_back(static_cast<std::uint32_t>(
                    std::chrono::duration_cast<std::chrono::nanoseconds>(took).count()));
            }
            // Stay inside the bound: a dropped buffer would flatter the figures.
            // Each nap is a wake-up that costs CPU, so the backlog fills nearly
            // to the bound and the nap lasts about as long as the encoding thread
            // takes to work most of it off, never so long that it runs dry.
            if (pipeline.backlog() >= AudioPipeline::backlogLimit - 16) {
                for (qint64 left; (left = pipeline.backlog()) > AudioPipeline::backlogLimit / 8;) {
                    std::this_thread::sleep_for(std::chrono::microseconds(15 * left));
                }
            }
        }
        producerCPU = threadCPU() - producerStart;
        pipeline.finish();
    });

    auto consume = [&]() -> Task<void> {
        while (auto event = co_await pipeline.events().next()) {
            if (const auto* segment = std::get_if<AudioSegment>(&*event)) {
                segmentBytes += segment->bytes.size();
                ++segments;
            } else if (std::holds_alternative<CaptureFailure>(*event)) {
                ++failures;
            }
        }
        QCoreApplication::quit();
    };
    auto consumer = consume();
    app.exec();
    producer.join();

    const double pipelineCPU = selfCPU() - cpuBefore;
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wallBefore).count();
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const long peakKB = usage.ru_maxrss;
    const auto median = percentile(receiveNanos, 0.5);
    const auto p99 = percentile(receiveNanos, 0.99);

    Stages stages;
    for (const auto& [loop, channel] :
         {std::pair{&local, AudioChannel::local}, std::pair{&remote, AudioChannel::remote}}) {
        const Stages alone = stagesAlone(*loop, channel, buffers);
        stages.resampling += alone.resampling;
        stages.encoding += alone.encoding;
        stages.framing += alone.framing;
    }
    const double handOff = pipelineCPU - stages.resampling - stages.encoding - stages.framing;

    const auto ffmpegBoth = [&](const char* filter) {
        return ffmpegCPU(localWav, loops, directory.filePath("local.aac"), filter) +
               ffmpegCPU(remoteWav, loops, directory.filePath("remote.aac"), filter);
    };
    const double ffmpegDefault = ffmpegBoth("anull");
    const double ffmpegSeconds = ffmpegBoth(sameConversion);
    const qint64 ffmpegBytes = QFile(directory.filePath("local.aac")).size() +
                               QFile(directory.filePath("remote.aac")).size();

    const double audioSeconds = static_cast<double>(buffers) / 100;
    std::printf("audio: %d min per channel, 2 channels of 48 kHz stereo int16, 10 ms buffers\n",
                minutes);
    std::printf("pipeline: %.2f CPU s (%.0fx real time per channel pair), %.2f s wall\n",
                pipelineCPU, audioSeconds / pipelineCPU, wall);
    const auto share = [pipelineCPU](double seconds) { return 100 * seconds / pipelineCPU; };
    std::printf("  shares, each stage timed alone: resampling %.1f%%, encoding %.1f%%, framing "
                "%.1f%%, hand-off and the rest %.1f%%\n",
                share(stages.resampling), share(stages.encoding), share(stages.framing),
                share(handOff));
    std::printf(
        "  of which the producer thread (its calls to receive and its pacing): %.2f CPU s\n",
        producerCPU);
    std::printf("  receive: median %llu ns, p99 %llu ns (%zu calls)\n",
                static_cast<unsigned long long>(median), static_cast<unsigned long long>(p99),
                receiveNanos.size());
    std::printf("  peak RSS: %.1f MB\n", static_cast<double>(peakKB) / 1024);
    std::printf("  output: %d segments, %.1f MB, %.1f kbit/s per channel, %d failures\n", segments,
                static_cast<double>(segmentBytes) / 1e6,
                static_cast<double>(segmentBytes) * 8 / audioSeconds / 2 / 1000, failures);
    std::printf("ffmpeg, the same conversion (soxr, level-keeping downmix, aac fast coder, 32k, "
                "16 kHz mono, adts): %.2f CPU s, %.1f kbit/s per channel\n",
                ffmpegSeconds, static_cast<double>(ffmpegBytes) * 8 / audioSeconds / 2 / 1000);
    std::printf("ratio pipeline / ffmpeg CPU: %.2f\n", pipelineCPU / ffmpegSeconds);
    std::printf("  against ffmpeg's own resampler and downmix (%.2f CPU s): %.2f\n", ffmpegDefault,
                pipelineCPU / ffmpegDefault);
    return failures == 0 ? 0 : 1;
}
