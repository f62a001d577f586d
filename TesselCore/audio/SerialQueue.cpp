#include "audio/SerialQueue.h"

#include <pthread.h>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <mutex>

namespace tessel {

class SerialQueue::Stub : public Job {
public:
    void run() noexcept override {}
};

class SerialQueue::Function : public Job {
public:
    explicit Function(std::function<void()> work) : work_(std::move(work)) {}
    void run() noexcept override { work_(); }

private:
    std::function<void()> work_;
};

SerialQueue::SerialQueue(const char* name) : head_(nullptr), tail_(nullptr), stub_(new Stub) {
    head_.store(stub_, std::memory_order_relaxed);
    tail_ = stub_;
    thread_ = std::thread([this] { loop(); });
    pthread_setname_np(thread_.native_handle(), name);
}

SerialQueue::~SerialQueue() {
    async([this] { running_ = false; });
    thread_.join();
    delete stub_;
}

void SerialQueue::push(Job* job) noexcept {
    job->next_.store(nullptr, std::memory_order_relaxed);
    Job* previous = head_.exchange(job, std::memory_order_seq_cst);
    previous->next_.store(job, std::memory_order_release);
}

void SerialQueue::post(Job* job) noexcept {
    push(job);
    if (sleeping_.load(std::memory_order_seq_cst)) {
        wakeups_.fetch_add(1, std::memory_order_release);
        syscall(SYS_futex, &wakeups_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
}

void SerialQueue::async(std::function<void()> work) {
    post(new Function(std::move(work)));
}

void SerialQueue::sync(const std::function<void()>& work) {
    if (isCurrent()) {
        work();
        return;
    }
    std::exception_ptr failure;
    std::mutex mutex;
    std::condition_variable condition;
    bool done = false;
    async([&] {
        try {
            work();
        } catch (...) {
            failure = std::current_exception();
        }
        // Notified under the lock, so the waiter cannot return and destroy these
        // while this job still touches them.
        std::lock_guard lock(mutex);
        done = true;
        condition.notify_one();
    });
    std::unique_lock lock(mutex);
    condition.wait(lock, [&] { return done; });
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void SerialQueue::setTimer(double period, std::function<void()> handler) {
    const auto step = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(period));
    timer_ = Timer{step, std::chrono::steady_clock::now() + step, std::move(handler)};
}

void SerialQueue::cancelTimer() {
    timer_.reset();
}

// The next job, or null when there is none or a producer has swapped the head
// but not linked its job yet (that link is a store away).
SerialQueue::Job* SerialQueue::pop() {
    Job* tail = tail_;
    Job* next = tail->next_.load(std::memory_order_acquire);
    if (tail == stub_) {
        if (!next) {
            return nullptr;
        }
        tail_ = next;
        tail = next;
        next = next->next_.load(std::memory_order_acquire);
    }
    if (next) {
        tail_ = next;
        return tail;
    }
    if (tail != head_.load(std::memory_order_acquire)) {
        return nullptr;
    }
    push(stub_); // behind the last job, so that it can be taken
    next = tail->next_.load(std::memory_order_acquire);
    if (next) {
        tail_ = next;
        return tail;
    }
    return nullptr;
}

// No job, and none half linked: only the stub is left.
bool SerialQueue::quiet() const {
    return tail_ == stub_ && head_.load(std::memory_order_seq_cst) == stub_;
}

void SerialQueue::runTimerIfDue() {
    const auto now = std::chrono::steady_clock::now();
    if (!timer_ || timer_->deadline > now) {
        return;
    }
    // A late handler fires once, not once per missed period.
    while (timer_->deadline <= now) {
        timer_->deadline += timer_->period;
    }
    auto handler = timer_->handler; // it may cancel or replace the timer
    handler();
}

// Until a producer wakes the thread, or the timer is due.
void SerialQueue::sleep() {
    const std::uint32_t seen = wakeups_.load(std::memory_order_acquire);
    sleeping_.store(true, std::memory_order_seq_cst);
    if (quiet()) {
        timespec timeout{};
        if (timer_) {
            const auto left = std::max(timer_->deadline - std::chrono::steady_clock::now(),
                                       std::chrono::steady_clock::duration::zero());
            const auto nanoseconds =
                std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
            timeout = {static_cast<time_t>(nanoseconds / 1'000'000'000),
                       static_cast<long>(nanoseconds % 1'000'000'000)};
        }
        syscall(SYS_futex, &wakeups_, FUTEX_WAIT_PRIVATE, seen, timer_ ? &timeout : nullptr,
                nullptr, 0);
    }
    sleeping_.store(false, std::memory_order_relaxed);
}

void SerialQueue::loop() {
    while (running_) {
        runTimerIfDue();
        if (Job* job = pop()) {
            job->run();
            delete job;
        } else if (quiet()) {
            sleep();
        } else {
            std::this_thread::yield(); // a producer is between its two steps
        }
    }
}

} // namespace tessel
