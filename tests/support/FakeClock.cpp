#include "support/FakeClock.h"

#include <QCoreApplication>
#include <QEventLoop>

#include <coroutine>

namespace tessel::test {

struct FakeClock::Waiter {
    double at = 0;
    bool fired = false;
    bool cancelled = false;
    std::coroutine_handle<> handle;

    void fire(bool byCancel) {
        if (fired) {
            return;
        }
        fired = true;
        cancelled = byCancel;
        if (handle) {
            auto h = handle;
            QMetaObject::invokeMethod(
                QCoreApplication::instance(), [h] { h.resume(); }, Qt::QueuedConnection);
        }
    }
};

namespace {
// Constructed, not brace-initialised: GCC 12 destroys an aggregate temporary in
// a co_await operand twice.
struct WaiterAwaiter {
    WaiterAwaiter(std::shared_ptr<void> k, bool* f, std::coroutine_handle<>* s)
        : keep(std::move(k)), fired(f), slot(s) {}
    std::shared_ptr<void> keep;
    bool* fired;
    std::coroutine_handle<>* slot;
    bool await_ready() const { return *fired; }
    void await_suspend(std::coroutine_handle<> h) { *slot = h; }
    void await_resume() const {}
};
} // namespace

Task<void> FakeClock::sleep(double seconds, CancellationToken token) {
    token.check();
    sleeps.push_back(seconds);
    auto waiter = std::make_shared<Waiter>();
    waiter->at = now + seconds;
    waiters_.push_back(waiter);
    auto registration = token.onCancel(&context_, [waiter] { waiter->fire(true); });
    co_await WaiterAwaiter(waiter, &waiter->fired, &waiter->handle);
    if (waiter->cancelled) {
        throw Cancelled();
    }
}

void FakeClock::wakeDue() {
    for (auto& waiter : waiters_) {
        if (!waiter->fired && waiter->at <= now + 1e-9) {
            waiter->fire(false);
        }
    }
    std::erase_if(waiters_, [](const auto& w) { return w->fired; });
}

void FakeClock::settle() {
    for (int i = 0; i < 50; ++i) {
        QCoreApplication::processEvents(QEventLoop::AllEvents);
        QCoreApplication::sendPostedEvents();
    }
}

void FakeClock::advance(double seconds, double step) {
    const double end = now + seconds;
    settle();
    while (now < end - 1e-12) {
        now = std::min(end, now + step);
        wakeDue();
        settle();
    }
}

} // namespace tessel::test
