// The chaos test's capture (5xx answers, answers lost after the server acted,
// stalls past the client's limit, a revoked token) over as many seeds as it
// takes to inject the given number of faults, against the local server.
// Run on demand: build/bin/bench_chaos_soak [faults]
#include "support/ChaosScenario.h"

#include <QCoreApplication>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

using namespace tessel::test;

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int target = argc > 1 ? std::max(1, std::atoi(argv[1])) : 1000;
    const auto began = std::chrono::steady_clock::now();

    ChaosOutcome total;
    int seeds = 0;
    int unfinished = 0;
    for (unsigned seed = 1; total.faults < target; ++seed, ++seeds) {
        const ChaosOutcome run = runChaos(seed);
        total.faults += run.faults;
        total.signIns += run.signIns;
        total.emitted += run.emitted;
        total.stored += run.stored;
        total.lost += run.lost;
        total.duplicated += run.duplicated;
        total.misplaced += run.misplaced;
        total.calls += run.calls;
        total.callsClosed += run.callsClosed;
        if (!run.finished) {
            ++unfinished;
            std::printf("seed %u did not finish: %s\n", seed, qPrintable(run.error));
        }
        if (run.lost || run.duplicated || run.misplaced) {
            std::printf("seed %u: %d lost, %d duplicated, %d out of place\n", seed, run.lost,
                        run.duplicated, run.misplaced);
        }
        std::fflush(stdout);
    }

    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    std::printf("seeds: %d, faults injected: %d, sign-ins lost and regained: %d\n", seeds,
                total.faults, total.signIns);
    std::printf("segments: %d emitted, %d stored, %d lost, %d duplicated, %d out of place\n",
                total.emitted, total.stored, total.lost, total.duplicated, total.misplaced);
    std::printf("calls closed: %d of %d (%d captures did not finish)\n", total.callsClosed,
                total.calls, unfinished);
    std::printf("wall time: %.1f s\n", wall);
    return total.lost || total.duplicated || total.misplaced || unfinished ||
                   total.callsClosed != total.calls
               ? 1
               : 0;
}
