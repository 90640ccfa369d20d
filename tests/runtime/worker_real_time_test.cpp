#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "runtime/worker.h"
#include "support/gate.h"

namespace kelp {
namespace {

using Clock = std::chrono::steady_clock;

// These sleep for real: they show that the two threads keep time together with the system's clock and sleep.

TEST(WorkerInRealTime, FiresATimerWhenItIsDue) {
    const auto worker = std::make_shared<Worker>();
    worker->start();
    test::Gate fired;
    const auto start = Clock::now();
    worker->addTimer(30, true, [&] { fired.open(); });
    fired.wait();
    const auto lasted = Clock::now() - start;
    // The interval counts whole milliseconds of the clock, so it may lack the part of one.
    EXPECT_GE(lasted, std::chrono::milliseconds(29));
    worker->close();
}

TEST(WorkerInRealTime, WaitsAboutTenMillisecondsWhenItIsIdle) {
    const auto worker = std::make_shared<Worker>();
    worker->start();
    const auto start = Clock::now();
    worker->waitEmpty();
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(10));
    worker->close();
}

TEST(WorkerInRealTime, ClosesBesideATimerThatIsFarFromDue) {
    const auto worker = std::make_shared<Worker>();
    worker->start();
    worker->addTimer(3'600'000, false, [] {});
    const auto start = Clock::now();
    worker->close();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));  // wide: the machine may be busy
}

}  // namespace
}  // namespace kelp
