#include "upload/UploadQueue.h"

#include "errors/Failures.h"
#include "upload/SegmentUploader.h"

#include <QStringList>

#include <algorithm>
#include <cmath>

namespace tessel {

using namespace Qt::Literals::StringLiterals;

namespace {

QString descriptionOf(const std::exception_ptr& error) {
    return describeFailure(error, u"Unknown failure"_s);
}

} // namespace

std::shared_ptr<UploadQueue> UploadQueue::create(Upload upload, SleepFunction sleep,
                                                 NowFunction now,
                                                 AuthenticationFailed onAuthenticationFailure) {
    return std::shared_ptr<UploadQueue>(new UploadQueue(
        std::move(upload), std::move(sleep), std::move(now), std::move(onAuthenticationFailure)));
}

UploadQueue::Upload UploadQueue::uploadWith(const SegmentUploader& uploader) {
    return [uploader](AudioSegment segment, CancellationToken token) {
        return uploader.upload(std::move(segment), std::move(token));
    };
}

UploadQueue::UploadQueue(Upload upload, SleepFunction sleep, NowFunction now,
                         AuthenticationFailed onAuthenticationFailure)
    : upload_(std::move(upload)), sleep_(std::move(sleep)), now_(std::move(now)),
      onAuthenticationFailure_(std::move(onAuthenticationFailure)) {}

void UploadQueue::enqueue(AudioSegment segment) {
    if (cancelled_) {
        throw Cancelled();
    }
    const AudioChannel channel = segment.channel;
    bufferedBytes_ += segment.bytes.size();
    pending_[channel].push_back(std::move(segment));
    if (bufferedBytes_ > memoryLimit) {
        throw TesselError(u"Audio uploads have filled the 64 MB memory buffer — keep the app "
                          u"open, restore the connection, then use Stop & write notes to retry."_s);
    }
    if (!errors_.contains(channel)) {
        start(channel);
    }
}

void UploadQueue::start(AudioChannel channel) {
    if (cancelled_ || authenticationFailure_ || tasks_.contains(channel) ||
        pending_[channel].empty()) {
        return;
    }
    // The drain holds the queue: it lives while it works.
    auto self = shared_from_this();
    tasks_[channel] = BackgroundTask::start([self, channel](CancellationToken token) {
        return self->drain(channel, std::move(token));
    });
}

Task<void> UploadQueue::drain(AudioChannel channel, CancellationToken token) {
    auto self = shared_from_this();
    // Whatever way the drain ends, its last act is to leave `tasks_`. No other
    // drain of the channel can exist while this one runs.
    struct Leave {
        UploadQueue* queue;
        AudioChannel channel;
        ~Leave() { queue->tasks_.erase(channel); }
    } leave{this, channel};

    // The task starts eagerly: give start() the turn to store it first, or an
    // immediate end would leave a finished task standing in `tasks_`.
    co_await sleepFor(0);
    for (;;) {
        if (cancelled_ || authenticationFailure_ || token.isCancelled()) {
            co_return;
        }
        auto& queue = pending_[channel];
        if (queue.empty()) {
            co_return;
        }
        const AudioSegment head = queue.front();

        std::exception_ptr failure;
        try {
            co_await upload_(head, token);
        } catch (...) {
            failure = std::current_exception();
        }

        if (!failure) {
            if (retryDelays_.contains(channel)) {
                resumedAt_ = now_();
                retryDelays_.erase(channel);
            }
            if (cancelled_) {
                co_return;
            }
            auto& after = pending_[channel];
            if (!after.empty() && after.front().chunkUUID == head.chunkUUID) {
                bufferedBytes_ -= after.front().bytes.size();
                after.pop_front();
            }
            ++counts_[channel];
            errors_.erase(channel);
            continue;
        }

        if (cancelled_) {
            co_return;
        }
        std::optional<HTTPFailure> signIn;
        try {
            std::rethrow_exception(failure);
        } catch (const Cancelled&) {
            co_return;
        } catch (const HTTPFailure& refused) {
            if (refused.needsSignIn()) {
                signIn = refused;
            }
        } catch (...) {
        }
        if (signIn) {
            // The segment stays at the head; errors and back-off are untouched.
            pauseForSignIn(*signIn);
            co_await onAuthenticationFailure_(*signIn);
            co_return;
        }

        errors_[channel] = descriptionOf(failure);
        const double delay =
            retryDelays_.contains(channel) ? std::min(retryDelays_[channel], maxDelay) : firstDelay;
        retryDelays_[channel] = std::min(2 * delay, maxDelay);
        resumeAt_[channel] = now_() + delay;
        if (auto old = timers_.find(channel); old != timers_.end()) {
            old->second->cancel(); // a retry started early replaces the old wait
        }
        auto queueSelf = shared_from_this();
        timers_[channel] = BackgroundTask::start([queueSelf, channel, delay](CancellationToken t) {
            return queueSelf->rearm(channel, delay, std::move(t));
        });
        co_return;
    }
}

Task<void> UploadQueue::rearm(AudioChannel channel, double delay, CancellationToken token) {
    std::weak_ptr<UploadQueue> weak = weak_from_this();
    bool interrupted = false;
    try {
        co_await sleep_(delay, token);
    } catch (const Cancelled&) {
        interrupted = true;
    }
    auto self = weak.lock();
    if (!self || interrupted || token.isCancelled()) {
        // A cancelled timer was already removed by whoever cancelled it.
        co_return;
    }
    self->timers_.erase(channel);
    self->resumeAt_.erase(channel);
    if (!self->cancelled_) {
        self->start(channel);
    }
}

void UploadQueue::cancelTimers() {
    for (auto& [channel, timer] : timers_) {
        timer->cancel();
    }
    timers_.clear();
    resumeAt_.clear();
}

void UploadQueue::pauseForSignIn(const HTTPFailure& failure) {
    authenticationFailure_ = failure;
    cancelTimers();
}

Task<void> UploadQueue::waitForDrains() {
    auto self = shared_from_this();
    std::vector<std::shared_ptr<BackgroundTask>> running;
    for (const auto& [channel, task] : tasks_) {
        running.push_back(task);
    }
    for (const auto& task : running) {
        co_await task->finished();
    }
}

Task<void> UploadQueue::resumeAfterSignIn() {
    auto self = shared_from_this();
    co_await waitForDrains();
    authenticationFailure_.reset();
    errors_.clear();
    retryDelays_.clear();
}

void UploadQueue::retryPending() {
    for (const AudioChannel channel : allChannels) {
        start(channel);
    }
}

Task<void> UploadQueue::flush() {
    auto self = shared_from_this();
    if (authenticationFailure_) {
        throw *authenticationFailure_;
    }
    cancelTimers();
    co_await waitForDrains();
    if (authenticationFailure_) {
        throw *authenticationFailure_;
    }
    for (const AudioChannel channel : allChannels) {
        errors_.erase(channel);
        start(channel);
    }
    co_await waitForDrains();
    if (authenticationFailure_) {
        throw *authenticationFailure_;
    }
    const bool left = std::any_of(pending_.begin(), pending_.end(),
                                  [](const auto& entry) { return !entry.second.empty(); });
    if (left) {
        QStringList texts;
        for (const auto& [channel, text] : errors_) {
            texts << text;
        }
        texts.sort();
        throw TesselError(u"Some audio has not uploaded — keep this app open, restore the "
                          u"connection and use Stop & write notes again. "_s +
                          texts.join(u' '));
    }
}

void UploadQueue::cancel() {
    cancelled_ = true;
    for (auto& [channel, task] : tasks_) {
        task->cancel();
    }
    cancelTimers();
    pending_.clear();
    bufferedBytes_ = 0;
}

UploadStatus UploadQueue::status() const {
    UploadStatus status;
    if (auto it = counts_.find(AudioChannel::local); it != counts_.end()) {
        status.local = it->second;
    }
    if (auto it = counts_.find(AudioChannel::remote); it != counts_.end()) {
        status.remote = it->second;
    }
    for (const auto& [channel, segments] : pending_) {
        status.pending += static_cast<qint64>(segments.size());
    }
    const double now = now_();
    if (!resumeAt_.empty()) {
        double soonest = std::numeric_limits<double>::infinity();
        for (const auto& [channel, at] : resumeAt_) {
            soonest = std::min(soonest, std::max(0.0, std::ceil(at - now)));
        }
        status.error = u"Uploads paused — retrying in %1s"_s.arg(static_cast<qint64>(soonest));
    } else if (!errors_.empty()) {
        QStringList texts;
        for (const auto& [channel, text] : errors_) {
            texts << text;
        }
        texts.sort();
        status.error = texts.first();
    } else if (resumedAt_ && now - *resumedAt_ < 5.0) {
        status.error = u"Uploads resumed"_s;
    }
    return status;
}

} // namespace tessel
