// One thread that runs jobs one at a time, in the order they were handed over,
// and optionally a periodic timer between them. Handing over a prepared job
// never locks and never allocates, so real-time threads may do it; it makes a
// system call only when the thread sleeps for want of work.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <thread>

namespace tessel {

class SerialQueue {
public:
    // A unit of work. The queue owns it once posted and deletes it after `run`.
    class Job {
    public:
        virtual ~Job() = default;
        virtual void run() noexcept = 0;

    private:
        friend class SerialQueue;
        std::atomic<Job*> next_{nullptr};
    };

    // `name` labels the thread for debuggers (at most 15 characters show).
    explicit SerialQueue(const char* name);
    // Runs every job already posted, then ends the thread. Must not be called on it.
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    // Any thread, real-time ones included: wait-free, no allocation.
    void post(Job* job) noexcept;
    // Any thread; allocates.
    void async(std::function<void()> work);
    // Runs `work` on the queue after everything posted before, waits for it and
    // passes its failure on. On the queue's own thread it runs at once.
    void sync(const std::function<void()>& work);

    // Queue thread only. Calls `handler` every `period` seconds between jobs, the
    // first time one period from now, also while jobs keep coming; replaces any
    // timer set before.
    void setTimer(double period, std::function<void()> handler);
    void cancelTimer();

    bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

private:
    class Stub;
    class Function;
    void push(Job* job) noexcept;
    void loop();
    Job* pop();
    bool quiet() const;
    void runTimerIfDue();
    void sleep();

    // Intrusive many-producer, one-consumer list (D. Vyukov): producers swap
    // `head_`, the thread walks from `tail_`.
    std::atomic<Job*> head_;
    Job* tail_;
    Job* stub_;
    bool running_ = true;

    // The thread says it is about to sleep, then looks at the list once more;
    // a producer links its job, then looks whether the thread sleeps. With both
    // in one total order, one of them sees the other.
    std::atomic<bool> sleeping_{false};
    std::atomic<std::uint32_t> wakeups_{0}; // the futex a sleeping thread waits on

    struct Timer {
        std::chrono::steady_clock::duration period;
        std::chrono::steady_clock::time_point deadline;
        std::function<void()> handler;
    };
    std::optional<Timer> timer_;

    std::thread thread_;
};

} // namespace tessel
