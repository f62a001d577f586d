// What one hour of a call costs the audio pipeline, next to ffmpeg doing the
// same conversion:
//  1. two channels of 48 kHz stereo PCM (one hour each) pushed through
//     `receive` in 10 ms buffers as fast as the pipeline takes them, the
//     producer pacing itself on the backlog so that nothing is dropped: CPU
//     seconds of the whole process, the cost of one `receive` (median and p99)
//     and the peak resident memory;
//  2. ffmpeg converting the same audio of both channels to ADTS AAC-LC 16 kHz
//     mono 32 kbit/s: CPU seconds of its processes.
// Run on demand: build/bin/bench_pipeline [minutes]
#include "audio/AudioPipeline.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <sys/resource.h>
#include <sys/wait.h>
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

// Runs ffmpeg and returns its CPU seconds, from its own rusage.
double ffmpegCPU(const QString& wav, int loops, const QString& output) {
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

    std::thread producer([&] {
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
            // Stay well inside the bound: a dropped buffer would flatter the figures.
            if (pipeline.backlog() >= AudioPipeline::backlogLimit / 2) {
                while (pipeline.backlog() > AudioPipeline::backlogLimit / 4) {
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                }
            }
        }
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

    const double ffmpegSeconds = ffmpegCPU(localWav, loops, directory.filePath("local.aac")) +
                                 ffmpegCPU(remoteWav, loops, directory.filePath("remote.aac"));
    const qint64 ffmpegBytes = QFile(directory.filePath("local.aac")).size() +
                               QFile(directory.filePath("remote.aac")).size();

    const double audioSeconds = static_cast<double>(buffers) / 100;
    std::printf("audio: %d min per channel, 2 channels of 48 kHz stereo int16, 10 ms buffers\n",
                minutes);
    std::printf("pipeline: %.2f CPU s (%.0fx real time per channel pair), %.2f s wall\n",
                pipelineCPU, audioSeconds / pipelineCPU, wall);
    std::printf("  receive: median %llu ns, p99 %llu ns (%zu calls)\n",
                static_cast<unsigned long long>(median), static_cast<unsigned long long>(p99),
                receiveNanos.size());
    std::printf("  peak RSS: %.1f MB\n", static_cast<double>(peakKB) / 1024);
    std::printf("  output: %d segments, %.1f MB, %.1f kbit/s per channel, %d failures\n", segments,
                static_cast<double>(segmentBytes) / 1e6,
                static_cast<double>(segmentBytes) * 8 / audioSeconds / 2 / 1000, failures);
    std::printf(
        "ffmpeg (aac fast coder, 32k, 16 kHz mono, adts): %.2f CPU s, %.1f kbit/s per channel\n",
        ffmpegSeconds, static_cast<double>(ffmpegBytes) * 8 / audioSeconds / 2 / 1000);
    std::printf("ratio pipeline / ffmpeg CPU: %.2f\n", pipelineCPU / ffmpegSeconds);
    return failures == 0 ? 0 : 1;
}
