// Virtual time for tests: `sleep` waits until `advance` moves the clock past its
// deadline (or its token is cancelled), so back-off and polling run in
// microseconds and a test can look at the state between any two instants.
#pragma once

#include "async/Async.h"

#include <QObject>

#include <memory>
#include <vector>

namespace tessel::test {

class FakeClock {
public:
    double now = 0;
    std::vector<double> sleeps; // every requested wait, in order

    NowFunction nowFunction() {
        return [this] { return now; };
    }
    SleepFunction sleepFunction() {
        return [this](double seconds, CancellationToken token) { return sleep(seconds, token); };
    }

    Task<void> sleep(double seconds, CancellationToken token);

    // Moves time forward in small steps, waking what falls due and letting the
    // loop settle after each step.
    void advance(double seconds, double step = 0.05);

    // Runs posted work until nothing more happens.
    static void settle();

private:
    struct Waiter;
    QObject context_;
    std::vector<std::shared_ptr<Waiter>> waiters_;
    void wakeDue();
};

} // namespace tessel::test
