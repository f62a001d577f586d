#include "capture/CaptureAudio.h"

#include <QCoreApplication>

namespace tessel {

struct CaptureEventStream::Shared {
    std::mutex mutex;
    std::deque<CaptureEvent> events;
    bool finished = false;
    std::coroutine_handle<> waiter;
    QPointer<QObject> loop; // where the reader waits; resumption is posted there
};

CaptureEventStream::CaptureEventStream() : shared_(std::make_shared<Shared>()) {}

// A reader still waiting hears the end rather than waiting for ever.
CaptureEventStream::~CaptureEventStream() {
    finish();
}

namespace {

void wake(const std::shared_ptr<CaptureEventStream::Shared>& shared,
          std::unique_lock<std::mutex>& lock);

} // namespace

void CaptureEventStream::push(CaptureEvent event) {
    std::unique_lock lock(shared_->mutex);
    if (shared_->finished) {
        return;
    }
    shared_->events.push_back(std::move(event));
    wake(shared_, lock);
}

void CaptureEventStream::finish() {
    std::unique_lock lock(shared_->mutex);
    if (shared_->finished) {
        return;
    }
    shared_->finished = true;
    wake(shared_, lock);
}

namespace {

void wake(const std::shared_ptr<CaptureEventStream::Shared>& shared,
          std::unique_lock<std::mutex>& lock) {
    const auto handle = std::exchange(shared->waiter, nullptr);
    const QPointer<QObject> loop = shared->loop;
    lock.unlock();
    if (handle && loop) {
        QMetaObject::invokeMethod(
            loop.data(), [handle] { handle.resume(); }, Qt::QueuedConnection);
    }
}

// Awaiters here have constructors on purpose: GCC 12 destroys a brace-initialised
// aggregate in a co_await operand twice.
struct NextAwaiter {
    explicit NextAwaiter(std::shared_ptr<CaptureEventStream::Shared> s) : shared(std::move(s)) {}
    std::shared_ptr<CaptureEventStream::Shared> shared;

    bool await_ready() {
        std::lock_guard lock(shared->mutex);
        return !shared->events.empty() || shared->finished;
    }
    bool await_suspend(std::coroutine_handle<> handle) {
        std::lock_guard lock(shared->mutex);
        if (!shared->events.empty() || shared->finished) {
            return false; // something arrived in between: go on at once
        }
        shared->waiter = handle;
        shared->loop = QCoreApplication::instance();
        return true;
    }
    std::optional<CaptureEvent> await_resume() {
        std::lock_guard lock(shared->mutex);
        if (shared->events.empty()) {
            return std::nullopt;
        }
        CaptureEvent event = std::move(shared->events.front());
        shared->events.pop_front();
        return event;
    }
};

} // namespace

Task<std::optional<CaptureEvent>> CaptureEventStream::next() {
    auto shared = shared_; // the stream may be destroyed while the reader waits
    co_return co_await NextAwaiter(std::move(shared));
}

} // namespace tessel
