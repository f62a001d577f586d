// Upload figures on loopback against velmora-devserver (run with --no-fsync, so
// the disk is not what is measured):
//  1. latency from a segment handed to the queue until the server confirmed it
//     (median and p99 over sequential segments of ten seconds of audio);
//  2. how fast a backlog of 1,000 segments drains once an outage ends;
//  3. the client's CPU time (user + system, all its threads) per uploaded segment.
// Each figure is printed beside its target. Run on demand:
// build/bin/bench_upload [segments-for-latency]
#include "meet/MeetAPI.h"
#include "upload/SegmentUploader.h"
#include "upload/UploadQueue.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>

using namespace tessel;

namespace {

// Ten seconds at 32 kbit/s: about 40 KB of ADTS frames.
QByteArray tenSecondsOfFrames() {
    QByteArray out;
    const int payload = 150, length = payload + 7;
    for (int i = 0; i < 157; ++i) {
        const char header[7] = {char(0xFF),
                                char(0xF1),
                                char(0x60),
                                char(0x40 | (length >> 11)),
                                char((length >> 3) & 0xFF),
                                char(((length & 7) << 5) | 0x1F),
                                char(0xFC)};
        out.append(header, 7).append(QByteArray(payload, char(i)));
    }
    return out;
}

template <typename T> T run(Task<T> task) {
    QEventLoop loop;
    std::optional<T> result;
    auto runner = [](Task<T> t, std::optional<T>& r, QEventLoop& l) -> Task<void> {
        r.emplace(co_await std::move(t));
        l.quit();
    };
    runner(std::move(task), result, loop);
    if (!result) {
        loop.exec();
    }
    return *result;
}

// Sleeps in the loop until `done` holds. (processEvents with a time limit never
// waits for events, so it would spin and measure the spinning.)
void waitUntil(const std::function<bool()>& done) {
    while (!done()) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
}

// CPU seconds used so far by this process (user and system), or by `pid`.
double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}
double cpuSeconds(qint64 pid) {
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly)) {
        return 0;
    }
    // Fields 14 and 15, counted after the command name in parentheses.
    const QList<QByteArray> fields = stat.readAll().split(')').last().trimmed().split(' ');
    return (fields.value(11).toDouble() + fields.value(12).toDouble()) /
           static_cast<double>(sysconf(_SC_CLK_TCK));
}

const char* verdict(bool met) {
    return met ? "met" : "MISSED";
}

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, static_cast<size_t>(p * values.size()))];
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int samples = argc > 1 ? std::atoi(argv[1]) : 200;

    QTemporaryDir data;
    QProcess server;
    server.start(QStringLiteral(TESSEL_DEVSERVER_PATH),
                 {QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--data-dir"),
                  data.path(), QStringLiteral("--no-fsync")});
    server.waitForReadyRead(10000);
    const QString ready = QString::fromUtf8(server.readLine()).trimmed();
    const QString origin = ready.section(QLatin1Char(' '), 2, 2);
    if (!origin.startsWith(QLatin1String("http"))) {
        std::fprintf(stderr, "velmora-devserver did not start: %s\n", qPrintable(ready));
        return 1;
    }

    HTTPClient http;
    MeetAPI api(
        QUrl(origin + QStringLiteral("/meet")),
        [] { return std::optional<QString>(QStringLiteral("vses_bench")); }, http);
    const QString meeting = run(api.create(QStringLiteral("Bench"), QStringLiteral("Loop"), {}));
    auto progress = [](BeginProgress) -> Task<void> { co_return; };
    const QString recording =
        run(api.begin(meeting, false, false, std::nullopt, std::nullopt, progress)).second;
    const SegmentUploader uploader(api, meeting, recording, sleepFor);

    // Completion time of each chunk, as the uploader returns from the server's yes.
    std::map<QUuid, double> confirmed;
    auto upload = [&](AudioSegment segment, CancellationToken token) -> Task<void> {
        const QUuid id = segment.chunkUUID;
        co_await uploader.upload(std::move(segment), token);
        confirmed[id] = monotonicNow();
    };
    auto queue = UploadQueue::create(upload, sleepFor, monotonicNow,
                                     [](HTTPFailure) -> Task<void> { co_return; });

    const QByteArray frames = tenSecondsOfFrames();
    std::vector<double> latencies;
    qint64 sequence = 0;
    double cpuBefore = cpuSeconds();
    double serverBefore = cpuSeconds(server.processId());
    for (int i = 0; i < samples; ++i) {
        AudioSegment segment{AudioChannel::local, sequence++, QUuid::createUuid(), frames};
        const QUuid id = segment.chunkUUID;
        const double handed = monotonicNow();
        queue->enqueue(std::move(segment));
        waitUntil([&] { return confirmed.contains(id); });
        latencies.push_back((confirmed[id] - handed) * 1000);
    }
    const double sequentialCPU = (cpuSeconds() - cpuBefore) * 1000 / samples;
    const double sequentialServerCPU =
        (cpuSeconds(server.processId()) - serverBefore) * 1000 / samples;
    std::printf("segment of %lld bytes, handed to the queue until confirmed, %d samples:\n",
                static_cast<long long>(frames.size()), samples);
    const double median = percentile(latencies, 0.5), p99 = percentile(latencies, 0.99);
    std::printf("  median %.2f ms (target < 3 ms: %s), p99 %.2f ms (target < 20 ms: %s)\n", median,
                verdict(median < 3), p99, verdict(p99 < 20));
    std::printf("  client CPU %.3f ms per segment (target < 1 ms: %s); local server %.3f ms\n",
                sequentialCPU, verdict(sequentialCPU < 1), sequentialServerCPU);

    // An outage: everything waits, then the sign-in comes back.
    queue->pauseForSignIn(HTTPFailure(401, QString(), QStringLiteral("/presign")));
    const int backlog = 1000;
    std::array<qint64, 2> next{sequence, 0};
    for (int i = 0; i < backlog; ++i) {
        const AudioChannel channel = i % 2 ? AudioChannel::remote : AudioChannel::local;
        queue->enqueue(AudioSegment{channel, next[i % 2]++, QUuid::createUuid(), frames});
    }
    const qint64 before = queue->status().local + queue->status().remote;
    const double started = monotonicNow();
    cpuBefore = cpuSeconds();
    serverBefore = cpuSeconds(server.processId());
    run([&]() -> Task<bool> {
        co_await queue->resumeAfterSignIn();
        co_return true;
    }());
    queue->retryPending();
    waitUntil([&] { return queue->status().pending == 0; });
    const double seconds = monotonicNow() - started;
    const qint64 drained = queue->status().local + queue->status().remote - before;
    const double drainCPU = (cpuSeconds() - cpuBefore) * 1000 / static_cast<double>(drained);
    const double serverCPU =
        (cpuSeconds(server.processId()) - serverBefore) * 1000 / static_cast<double>(drained);
    const double rate = static_cast<double>(drained) / seconds;
    std::printf("backlog of %lld segments (%.1f MB) drained in %.2f s: %.0f segments/s "
                "(target >= 200: %s)\n",
                static_cast<long long>(drained), drained * frames.size() / 1e6, seconds, rate,
                verdict(rate >= 200));
    std::printf("  client CPU %.3f ms per segment (target < 1 ms: %s); local server %.3f ms\n",
                drainCPU, verdict(drainCPU < 1), serverCPU);

    server.terminate();
    server.waitForFinished(5000);
    return 0;
}
