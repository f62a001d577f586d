// Events cross from producer threads to the main loop without loss or reordering.
#include "capture/CaptureAudio.h"

#include "support/Wait.h"
#include <QCoroTask>

#include <gtest/gtest.h>

#include <thread>

using namespace tessel;

namespace {

Task<std::vector<double>> readAll(CaptureEventStream& stream) {
    std::vector<double> seen;
    while (auto event = co_await stream.next()) {
        seen.push_back(std::get<MeterReading>(*event).elapsed);
    }
    co_return seen;
}

} // namespace

TEST(CaptureEventStream, TwoProducerThreadsKeepTheirOwnOrderAndLoseNothing) {
    CaptureEventStream stream;
    constexpr int perThread = 20000;
    auto produce = [&stream](double base) {
        for (int i = 0; i < perThread; ++i) {
            stream.push(MeterReading{base + i, true, false, false});
        }
    };
    std::thread a(produce, 0.0);
    std::thread b(produce, 1e6);
    std::thread closer([&] {
        a.join();
        b.join();
        stream.finish();
        stream.push(MeterReading{-1, false, false, false}); // after the end: dropped
    });
    const auto seen = test::wait(readAll(stream));
    closer.join();

    ASSERT_EQ(seen.size(), 2u * perThread);
    double lastA = -1, lastB = 1e6 - 1;
    for (double value : seen) {
        double& last = value >= 1e6 ? lastB : lastA;
        EXPECT_EQ(value, last + 1) << "events of one producer arrive in order";
        last = value;
    }
}

TEST(CaptureEventStream, ReaderWaitingWhenTheStreamDiesHearsTheEnd) {
    auto stream = std::make_unique<CaptureEventStream>();
    auto reading = [](CaptureEventStream& s) -> Task<bool> {
        const auto event = co_await s.next();
        co_return event.has_value();
    }(*stream);
    QCoreApplication::processEvents();
    stream.reset();
    EXPECT_FALSE(test::wait(std::move(reading)));
}
