// The queue with a scripted uploader and virtual time: order per channel,
// independent back-off, the sign-in pause, the memory bound and flush.
#include "support/FakeClock.h"
#include "upload/UploadQueue.h"

#include "support/Wait.h"
#include <QCoroTask>

#include <gtest/gtest.h>

#include <deque>
#include <map>

using namespace tessel;
using tessel::test::FakeClock;

namespace {

AudioSegment segment(AudioChannel channel, qint64 sequence, qsizetype size = 100) {
    return AudioSegment{channel, sequence, QUuid::createUuid(), QByteArray(size, 'a')};
}

// An uploader whose every call does what the test said, and can be held in
// flight until the test lets it go.
class ScriptedUploads {
public:
    std::map<AudioChannel, std::vector<qint64>> calls; // sequences tried, in order
    std::map<AudioChannel, std::deque<std::exception_ptr>> failures;
    std::map<AudioChannel, bool> holding;

    void failNext(AudioChannel channel, std::exception_ptr error, int times = 1) {
        for (int i = 0; i < times; ++i) {
            failures[channel].push_back(error);
        }
    }
    void release(AudioChannel channel) {
        holding[channel] = false;
        test::wait(sleepFor(0.01)); // the held upload polls on a real 1 ms timer
        FakeClock::settle();
    }

    UploadQueue::Upload function() {
        return [this](AudioSegment s, CancellationToken token) { return run(std::move(s), token); };
    }

private:
    Task<void> run(AudioSegment s, CancellationToken token) {
        calls[s.channel].push_back(s.sequence);
        while (holding[s.channel]) {
            co_await sleepFor(0.001, token);
        }
        auto& queue = failures[s.channel];
        if (!queue.empty()) {
            auto error = queue.front();
            queue.pop_front();
            std::rethrow_exception(error);
        }
    }
};

std::exception_ptr refused(int status) {
    return std::make_exception_ptr(HTTPFailure(status, QString(), QStringLiteral("/presign")));
}

class UploadQueueTest : public ::testing::Test {
protected:
    FakeClock clock;
    ScriptedUploads uploads;
    std::vector<HTTPFailure> told;
    std::shared_ptr<UploadQueue> queue =
        UploadQueue::create(uploads.function(), clock.sleepFunction(), clock.nowFunction(),
                            [this](HTTPFailure failure) -> Task<void> {
                                told.push_back(failure);
                                co_return;
                            });

    // Nothing stays suspended past the test: waits still pending are cancelled.
    void TearDown() override {
        queue->cancel();
        for (auto& [channel, held] : uploads.holding) {
            held = false;
        }
        test::wait(sleepFor(0.01));
        FakeClock::settle();
    }
};

} // namespace

TEST_F(UploadQueueTest, UploadsEachChannelInOrderAndCountsConfirmations) {
    for (qint64 i = 0; i < 3; ++i) {
        queue->enqueue(segment(AudioChannel::local, i));
    }
    queue->enqueue(segment(AudioChannel::remote, 0));
    queue->enqueue(segment(AudioChannel::remote, 1));
    FakeClock::settle();
    EXPECT_EQ(uploads.calls[AudioChannel::local], (std::vector<qint64>{0, 1, 2}));
    EXPECT_EQ(uploads.calls[AudioChannel::remote], (std::vector<qint64>{0, 1}));
    EXPECT_EQ(queue->status(), (UploadStatus{3, 2, 0, std::nullopt}));
}

TEST_F(UploadQueueTest, BackOffDoublesToThirtyAndOneSuccessResetsIt) {
    uploads.failNext(AudioChannel::local, refused(503), 6);
    queue->enqueue(segment(AudioChannel::local, 0));
    FakeClock::settle();
    EXPECT_EQ(queue->status().error, "Uploads paused — retrying in 2s");
    EXPECT_EQ(queue->status().pending, 1);

    clock.advance(2 + 4 + 8 + 16 + 30 + 30);
    EXPECT_EQ(clock.sleeps, (std::vector<double>{2, 4, 8, 16, 30, 30}));
    EXPECT_EQ(queue->status().local, 1);
    EXPECT_EQ(queue->status().error, "Uploads resumed") << "a success that ended a back-off";
    clock.advance(5);
    EXPECT_EQ(queue->status().error, std::nullopt);

    // The series starts again from 2 after that success.
    uploads.failNext(AudioChannel::local, refused(503));
    queue->enqueue(segment(AudioChannel::local, 1));
    FakeClock::settle();
    EXPECT_EQ(clock.sleeps.back(), 2);
    clock.advance(2);
    EXPECT_EQ(queue->status().local, 2);
}

TEST_F(UploadQueueTest, ChannelsBackOffIndependentlyAndStatusShowsTheSoonestRetry) {
    uploads.failNext(AudioChannel::remote, refused(503), 4); // waits 2, 4, 8, then 16
    queue->enqueue(segment(AudioChannel::remote, 0));
    FakeClock::settle();
    clock.advance(2 + 4 + 8, 0.5);
    // local fails now and waits 2; a new segment doesn't start a waiting channel.
    uploads.failNext(AudioChannel::local, refused(503));
    queue->enqueue(segment(AudioChannel::local, 0));
    queue->enqueue(segment(AudioChannel::local, 1));
    FakeClock::settle();
    EXPECT_EQ(uploads.calls[AudioChannel::local], (std::vector<qint64>{0}));
    clock.now += 0.8; // local due in 1.2, remote in 15.2
    EXPECT_EQ(queue->status().error, "Uploads paused — retrying in 2s");
    clock.now += 1.5; // late: never below zero
    EXPECT_EQ(queue->status().error, "Uploads paused — retrying in 0s");
    clock.advance(0.05);
    EXPECT_EQ(uploads.calls[AudioChannel::local], (std::vector<qint64>{0, 0, 1}));
    EXPECT_EQ(uploads.calls[AudioChannel::remote].size(), 4u) << "still waiting its 16 s";
    EXPECT_EQ(queue->status().local, 2);
}

TEST_F(UploadQueueTest, MemoryBoundIsExactAndKeepsTheSegmentThatPassedIt) {
    queue->pauseForSignIn(HTTPFailure(401, QString(), QStringLiteral("/")));
    queue->enqueue(segment(AudioChannel::local, 0, UploadQueue::memoryLimit - 10));
    queue->enqueue(segment(AudioChannel::remote, 0, 10)); // exactly at the limit
    EXPECT_THROW(queue->enqueue(segment(AudioChannel::remote, 1, 1)), TesselError)
        << "one byte over the limit";
    EXPECT_EQ(queue->status().pending, 3);
}

TEST_F(UploadQueueTest, SignInRefusalPausesEverythingAndLosesNothing) {
    uploads.holding[AudioChannel::remote] = true;
    queue->enqueue(segment(AudioChannel::remote, 0));
    FakeClock::settle();
    uploads.failNext(AudioChannel::local, refused(403));
    queue->enqueue(segment(AudioChannel::local, 0));
    queue->enqueue(segment(AudioChannel::local, 1));
    FakeClock::settle();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].status, 403);

    // The remote upload in flight finishes and is confirmed, then its drain stops.
    queue->enqueue(segment(AudioChannel::remote, 1));
    uploads.release(AudioChannel::remote);
    EXPECT_EQ(queue->status().remote, 1);
    EXPECT_EQ(uploads.calls[AudioChannel::remote], (std::vector<qint64>{0}));
    EXPECT_EQ(queue->status().pending, 3);

    // flush during the pause throws the stored refusal, not the leftover text.
    EXPECT_THROW(test::wait(queue->flush()), HTTPFailure);

    test::wait(queue->resumeAfterSignIn());
    FakeClock::settle();
    EXPECT_EQ(queue->status().pending, 3) << "resuming alone starts nothing";
    queue->retryPending();
    FakeClock::settle();
    EXPECT_EQ(uploads.calls[AudioChannel::local], (std::vector<qint64>{0, 0, 1}));
    EXPECT_EQ(queue->status(), (UploadStatus{2, 2, 0, std::nullopt}));
}

TEST_F(UploadQueueTest, FlushMakesOneLastEffortAndReportsWhatIsLeft) {
    test::wait(queue->flush()); // nothing held: returns at once

    uploads.failNext(AudioChannel::remote, refused(503), 1);
    uploads.failNext(AudioChannel::local,
                     std::make_exception_ptr(TesselError(QStringLiteral("b local broke"))), 2);
    queue->enqueue(segment(AudioChannel::local, 0));
    queue->enqueue(segment(AudioChannel::remote, 0));
    FakeClock::settle();
    // flush skips the back-off waits; local fails again, remote goes up.
    try {
        test::wait(queue->flush());
        FAIL();
    } catch (const TesselError& error) {
        EXPECT_EQ(error.message(), "Some audio has not uploaded — keep this app open, restore the "
                                   "connection and use Stop & write notes again. b local broke");
    }
    EXPECT_EQ(queue->status().remote, 1);
    EXPECT_EQ(queue->status().pending, 1);
    // The queue keeps working: a second flush gets it up.
    test::wait(queue->flush());
    EXPECT_EQ(queue->status(), (UploadStatus{1, 1, 0, QStringLiteral("Uploads resumed")}));
}
