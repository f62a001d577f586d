#include "async/Async.h"

#include "errors/ErrorLog.h"
#include "errors/ErrorPresentation.h"

#include <QCoreApplication>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <coroutine>
#include <mutex>
#include <vector>

namespace tessel {

struct CancellationToken::Registration::State {
    struct Entry {
        quint64 id;
        QPointer<QObject> context;
        std::function<void()> callback;
    };
    std::atomic<bool> cancelled{false};
    std::mutex mutex;
    quint64 nextID = 1;
    std::vector<Entry> entries;
};

namespace {
void post(const QPointer<QObject>& context, std::function<void()> callback) {
    if (!context) {
        return;
    }
    QMetaObject::invokeMethod(context.data(), std::move(callback), Qt::QueuedConnection);
}
} // namespace

CancellationToken::CancellationToken() : state_(std::make_shared<Registration::State>()) {}

void CancellationToken::cancel() const {
    std::vector<Registration::State::Entry> entries;
    {
        std::lock_guard lock(state_->mutex);
        if (state_->cancelled.exchange(true)) {
            return;
        }
        entries.swap(state_->entries);
    }
    for (auto& entry : entries) {
        post(entry.context, std::move(entry.callback));
    }
}

bool CancellationToken::isCancelled() const {
    return state_->cancelled.load();
}

void CancellationToken::check() const {
    if (isCancelled()) {
        throw Cancelled();
    }
}

CancellationToken::Registration CancellationToken::onCancel(QObject* context,
                                                            std::function<void()> callback) const {
    Registration registration;
    {
        std::lock_guard lock(state_->mutex);
        if (!state_->cancelled.load()) {
            registration.state_ = state_;
            registration.id_ = state_->nextID++;
            state_->entries.push_back(
                {registration.id_, QPointer<QObject>(context), std::move(callback)});
            return registration;
        }
    }
    post(QPointer<QObject>(context), std::move(callback));
    return registration;
}

CancellationToken::Registration::Registration(Registration&& other) noexcept
    : state_(std::move(other.state_)), id_(std::exchange(other.id_, 0)) {}

CancellationToken::Registration&
CancellationToken::Registration::operator=(Registration&& other) noexcept {
    if (this != &other) {
        reset();
        state_ = std::move(other.state_);
        id_ = std::exchange(other.id_, 0);
    }
    return *this;
}

CancellationToken::Registration::~Registration() {
    reset();
}

void CancellationToken::Registration::reset() {
    if (!state_) {
        return;
    }
    {
        std::lock_guard lock(state_->mutex);
        std::erase_if(state_->entries, [this](const State::Entry& e) { return e.id == id_; });
    }
    state_.reset();
    id_ = 0;
}

double monotonicNow() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

namespace {

// Resumption is posted to the loop rather than done inside the timer's signal or
// the token's callback, so the awaiting coroutine may freely destroy what woke it.
class SleepAwaiter {
public:
    SleepAwaiter(double seconds, CancellationToken token)
        : seconds_(seconds), token_(std::move(token)), state_(std::make_shared<State>()) {}

    bool await_ready() {
        if (token_.isCancelled()) {
            state_->cancelled = true;
            return true;
        }
        return false;
    }

    void await_suspend(std::coroutine_handle<> handle) {
        state_->handle = handle;
        state_->timer = std::make_unique<QTimer>();
        state_->timer->setSingleShot(true);
        state_->timer->setTimerType(Qt::PreciseTimer);
        std::weak_ptr<State> weak = state_;
        QObject::connect(state_->timer.get(), &QTimer::timeout, [weak] {
            if (auto s = weak.lock()) {
                s->finish(false);
            }
        });
        state_->registration = token_.onCancel(state_->timer.get(), [weak] {
            if (auto s = weak.lock()) {
                s->finish(true);
            }
        });
        const auto ms =
            std::chrono::milliseconds(static_cast<qint64>(std::max(0.0, seconds_) * 1000.0 + 0.5));
        state_->timer->start(ms);
    }

    void await_resume() const {
        if (state_->cancelled) {
            throw Cancelled();
        }
    }

private:
    struct State {
        std::coroutine_handle<> handle;
        std::unique_ptr<QTimer> timer;
        CancellationToken::Registration registration;
        bool done = false;
        bool cancelled = false;

        void finish(bool byCancel) {
            if (done) {
                return;
            }
            done = true;
            cancelled = byCancel;
            timer->stop();
            auto h = handle;
            QMetaObject::invokeMethod(
                QCoreApplication::instance(), [h] { h.resume(); }, Qt::QueuedConnection);
        }
    };

    double seconds_;
    CancellationToken token_;
    std::shared_ptr<State> state_;
};

Task<void> runDetached(std::function<Task<void>()> work) {
    try {
        co_await work();
    } catch (const Cancelled&) {
    } catch (const std::exception& error) {
        ErrorPresentation::from(error).log();
    }
}

} // namespace

struct BackgroundTask::Waiters {
    std::vector<std::coroutine_handle<>> handles;
};

namespace {

// Constructed, not brace-initialised: GCC 12 destroys an aggregate temporary in
// a co_await operand twice.
struct FinishedAwaiter {
    FinishedAwaiter(const bool& f, std::shared_ptr<BackgroundTask::Waiters> w)
        : finished(f), waiters(std::move(w)) {}
    const bool& finished;
    std::shared_ptr<BackgroundTask::Waiters> waiters;
    bool await_ready() const { return finished; }
    void await_suspend(std::coroutine_handle<> handle) { waiters->handles.push_back(handle); }
    void await_resume() const {}
};

// `self` keeps the task alive for as long as its work runs.
Task<void> runBackground([[maybe_unused]] std::shared_ptr<BackgroundTask> self,
                         BackgroundTask::Work work, CancellationToken token, bool* finished,
                         std::shared_ptr<BackgroundTask::Waiters> waiters) {
    try {
        co_await work(token);
    } catch (const Cancelled&) {
    } catch (const std::exception& error) {
        ErrorPresentation::from(error).log();
    }
    *finished = true;
    for (auto handle : std::exchange(waiters->handles, {})) {
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [handle] { handle.resume(); }, Qt::QueuedConnection);
    }
}

} // namespace

std::shared_ptr<BackgroundTask> BackgroundTask::start(Work work) {
    std::shared_ptr<BackgroundTask> task(new BackgroundTask);
    task->waiters_ = std::make_shared<Waiters>();
    runBackground(task, std::move(work), task->token_, &task->finished_, task->waiters_);
    return task;
}

Task<void> BackgroundTask::finished() {
    // Holds the task so the flag it reads stays alive while waiting.
    auto keep = shared_from_this();
    co_await FinishedAwaiter(finished_, waiters_);
}

Task<void> sleepFor(double seconds, CancellationToken token) {
    co_await SleepAwaiter(seconds, std::move(token));
}

void spawn(std::function<Task<void>()> work) {
    runDetached(std::move(work));
}

} // namespace tessel
