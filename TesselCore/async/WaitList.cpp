#include "async/WaitList.h"

#include <QCoreApplication>

#include <coroutine>

namespace tessel {

struct WaitList::Entry {
    std::coroutine_handle<> handle;
    CancellationToken::Registration registration;
    bool done = false;
    bool cancelled = false;

    void finish(bool byCancel) {
        if (done) {
            return;
        }
        done = true;
        cancelled = byCancel;
        registration.reset();
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
struct EntryAwaiter {
    explicit EntryAwaiter(std::shared_ptr<WaitList::Entry> e) : entry(std::move(e)) {}
    std::shared_ptr<WaitList::Entry> entry;
    bool await_ready() const { return entry->done; }
    void await_suspend(std::coroutine_handle<> h) { entry->handle = h; }
    void await_resume() const {}
};
} // namespace

Task<void> WaitList::wait(CancellationToken token) {
    token.check();
    auto entry = std::make_shared<Entry>();
    entries_.push_back(entry);
    std::weak_ptr<Entry> weak = entry;
    entry->registration = token.onCancel(&context_, [weak] {
        if (auto e = weak.lock()) {
            e->finish(true);
        }
    });
    co_await EntryAwaiter(entry);
    if (entry->cancelled) {
        std::erase(entries_, entry);
        throw Cancelled();
    }
}

void WaitList::wakeAll() {
    for (auto& entry : std::exchange(entries_, {})) {
        entry->finish(false);
    }
}

} // namespace tessel
