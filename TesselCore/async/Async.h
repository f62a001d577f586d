// The async ground rules, in code.
//
// 1. Work runs as coroutine tasks (`Task<T>`, QCoro's eager task) on the Qt main
//    loop. Only the main loop touches models; audio threads hand buffers to the
//    pipeline and nothing else.
// 2. Cancellation is explicit. A `CancellationToken` is passed down to every wait
//    that should end with it; `sleepFor` and `HTTPClient::send` both watch it. A
//    cancelled wait ends at once by throwing `Cancelled`, which callers pass on
//    and never show or log.
// 3. A task that may outlive its model holds it weakly: take `QPointer self(this)`
//    (or a `std::weak_ptr`) before the first `co_await`, and after every
//    `co_await` return when it is gone. `spawn` runs such a task detached.
// 4. Time comes in from outside: a model takes `NowFunction` and `SleepFunction`
//    at construction, so tests run back-off and polling in milliseconds.
#pragma once

#include "errors/Failures.h"

#include <QCoroTask>
#include <QObject>
#include <QPointer>

#include <functional>
#include <memory>

namespace tessel {

template <typename T = void> using Task = QCoro::Task<T>;

// Shared cancellation state; copies of a token see the same state. `cancel()` may
// be called from any thread. Callbacks registered with `onCancel` are posted to
// their context object's thread, never run inside `cancel()`, so cancelling is
// not re-entrant.
class CancellationToken {
public:
    CancellationToken();

    void cancel() const;
    bool isCancelled() const;
    // Throws `Cancelled` when the token is cancelled.
    void check() const;

    // Removes its callback when destroyed. Movable, not copyable.
    class Registration {
    public:
        Registration() = default;
        Registration(Registration&&) noexcept;
        Registration& operator=(Registration&&) noexcept;
        ~Registration();
        void reset();

    private:
        friend class CancellationToken;
        struct State;
        std::shared_ptr<State> state_;
        quint64 id_ = 0;
    };

    // `callback` runs once on `context`'s thread after `cancel()`, unless the
    // registration or the context is gone by then. On a token that is already
    // cancelled the callback is posted at once.
    [[nodiscard]] Registration onCancel(QObject* context, std::function<void()> callback) const;

private:
    std::shared_ptr<Registration::State> state_;
};

// Seconds on the monotonic clock.
using NowFunction = std::function<double()>;
double monotonicNow();

// A timed wait that honours a token.
using SleepFunction = std::function<Task<void>(double seconds, CancellationToken token)>;

// The real timed wait: a precise timer on the current thread's loop. Throws
// `Cancelled` at once when the token is cancelled before or during the wait.
Task<void> sleepFor(double seconds, CancellationToken token = {});

// A detached task that can be cancelled and awaited: a channel's drain, the
// capture's monitor. The work gets the task's own token.
class BackgroundTask : public std::enable_shared_from_this<BackgroundTask> {
public:
    using Work = std::function<Task<void>(CancellationToken)>;

    // Starts at once; runs until its first wait before returning.
    static std::shared_ptr<BackgroundTask> start(Work work);

    void cancel() const { token_.cancel(); }
    bool isCancelled() const { return token_.isCancelled(); }
    bool isFinished() const { return finished_; }
    // Ends when the work has ended, however it ended. Never throws.
    Task<void> finished();

    struct Waiters;

private:
    BackgroundTask() = default;
    CancellationToken token_;
    bool finished_ = false;
    std::shared_ptr<Waiters> waiters_;
};

// Runs a task detached on the main loop. A `Cancelled` ends it quietly; any other
// escaping failure is written to the error log, since nobody awaits it.
void spawn(std::function<Task<void>()> work);

} // namespace tessel
