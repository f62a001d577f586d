// The ground rules: a cancelled wait ends at once and quietly, and callbacks
// never run inside cancel().
#include "async/Async.h"
#include "errors/ErrorLog.h"

#include "support/Wait.h"
#include <QCoreApplication>
#include <QCoroTask>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace tessel;

namespace {

bool throwsCancelled(Task<void> task) {
    try {
        test::wait(std::move(task));
    } catch (const Cancelled&) {
        return true;
    }
    return false;
}

} // namespace

TEST(Sleep, WaitsItsTimeAndEndsAtOnceWhenCancelled) {
    double started = monotonicNow();
    test::wait(sleepFor(0.05));
    EXPECT_GE(monotonicNow() - started, 0.045);

    CancellationToken token;
    QTimer::singleShot(20, [&] { token.cancel(); });
    started = monotonicNow();
    EXPECT_TRUE(throwsCancelled(sleepFor(30, token)));
    EXPECT_LT(monotonicNow() - started, 5.0);

    // Already cancelled: no wait at all.
    started = monotonicNow();
    EXPECT_TRUE(throwsCancelled(sleepFor(30, token)));
    EXPECT_LT(monotonicNow() - started, 1.0);
}

TEST(CancellationToken, CallbacksArePostedNeverRunInsideCancel) {
    QObject context;
    CancellationToken token;
    int calls = 0;
    auto registration = token.onCancel(&context, [&] { ++calls; });
    token.cancel();
    EXPECT_EQ(calls, 0) << "cancel() must not run callbacks re-entrantly";
    QCoreApplication::processEvents();
    EXPECT_EQ(calls, 1);
    token.cancel(); // twice is harmless
    QCoreApplication::processEvents();
    EXPECT_EQ(calls, 1);

    // A registration made after the fact still hears of it, once.
    auto late = token.onCancel(&context, [&] { ++calls; });
    QCoreApplication::processEvents();
    EXPECT_EQ(calls, 2);
}

TEST(CancellationToken, DroppedRegistrationOrContextSilencesTheCallback) {
    CancellationToken token;
    int calls = 0;
    {
        QObject context;
        auto registration = token.onCancel(&context, [&] { ++calls; });
        registration.reset();
        auto other = token.onCancel(&context, [&] { ++calls; });
        (void)other;
    } // registration and context gone before the cancel
    auto* dying = new QObject;
    auto kept = token.onCancel(dying, [&] { ++calls; });
    token.cancel();
    delete dying; // gone before the posted callback is delivered
    QCoreApplication::processEvents();
    EXPECT_EQ(calls, 0);
}

TEST(CancellationToken, CancelFromAnotherThreadReachesTheMainLoop) {
    QObject context;
    CancellationToken token;
    std::atomic<bool> onMainThread{false};
    auto registration = token.onCancel(
        &context, [&] { onMainThread = QThread::currentThread() == context.thread(); });
    std::thread([token] { token.cancel(); }).join();
    QCoreApplication::processEvents();
    EXPECT_TRUE(onMainThread.load());
}

TEST(Spawn, CancellationIsQuietAndOtherFailuresAreLogged) {
    std::vector<QString> lines;
    log::ScopedSink sink([&](log::Level, const char* category, const QString& text) {
        EXPECT_STREQ(category, "errors");
        lines.push_back(text);
    });
    spawn([]() -> Task<void> {
        co_await sleepFor(0);
        throw Cancelled();
    });
    spawn([]() -> Task<void> {
        co_await sleepFor(0);
        throw TesselError(QStringLiteral("Nobody awaited this."));
    });
    test::wait(sleepFor(0.05));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "Nobody awaited this.");
}
