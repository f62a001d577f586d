#include "audio/SerialQueue.h"

#include <pthread.h>

#include <cerrno>
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
    sem_init(&available_, 0, 0);
    thread_ = std::thread([this] { loop(); });
    pthread_setname_np(thread_.native_handle(), name);
}

SerialQueue::~SerialQueue() {
    async([this] { running_ = false; });
    thread_.join();
    sem_destroy(&available_);
    delete stub_;
}

void SerialQueue::push(Job* job) noexcept {
    job->next_.store(nullptr, std::memory_order_relaxed);
    Job* previous = head_.exchange(job, std::memory_order_acq_rel);
    previous->next_.store(job, std::memory_order_release);
}

void SerialQueue::post(Job* job) noexcept {
    push(job);
    sem_post(&available_);
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

// The next job, or null when a producer has swapped the head but not linked its
// job yet; that link is a store away, so the caller retries.
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
    push(stub_); // not work: no count for it
    next = tail->next_.load(std::memory_order_acquire);
    if (next) {
        tail_ = next;
        return tail;
    }
    return nullptr;
}

// Returns when a job is available; runs the timer while none is.
void SerialQueue::waitForWork() {
    for (;;) {
        if (!timer_) {
            while (sem_wait(&available_) != 0 && errno == EINTR) {
            }
            return;
        }
        const auto deadline = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                  timer_->deadline.time_since_epoch())
                                  .count();
        const timespec until{static_cast<time_t>(deadline / 1'000'000'000),
                             static_cast<long>(deadline % 1'000'000'000)};
        if (sem_clockwait(&available_, CLOCK_MONOTONIC, &until) == 0) {
            return;
        }
        if (errno != ETIMEDOUT) {
            continue;
        }
        // A late handler fires once, not once per missed period.
        const auto now = std::chrono::steady_clock::now();
        while (timer_->deadline <= now) {
            timer_->deadline += timer_->period;
        }
        auto handler = timer_->handler; // it may cancel or replace the timer
        handler();
    }
}

void SerialQueue::loop() {
    while (running_) {
        waitForWork();
        Job* job = nullptr;
        while (!(job = pop())) {
            std::this_thread::yield();
        }
        job->run();
        delete job;
    }
}

} // namespace tessel
