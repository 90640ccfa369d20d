#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <thread>
#include <type_traits>
#include <vector>

#include "kelp_player/sync_clock.h"
#include "support/fake_time.h"
#include "support/log_capture.h"

namespace {
std::atomic<bool> failNextAllocation{false};
}  // namespace

extern "C" {
void* __real__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag);

void* __wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag) {
    return failNextAllocation.exchange(false) ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}
}

namespace kelp {
namespace {

using test::FakeTime;
using test::LogCapture;
using testing::ElementsAre;

struct ClockDestroyer {
    void operator()(TarnSyncClock* clock) const { TarnSyncClock::destroy(clock); }
};
using ClockPtr = std::unique_ptr<TarnSyncClock, ClockDestroyer>;

ClockPtr makeClock(int64_t startPts, int64_t noSyncThreshold = 10000) {
    return ClockPtr(TarnSyncClock::create(startPts, noSyncThreshold));
}

// As the players see it.
int64_t read(const ClockPtr& clock) {
    return static_cast<KelpSyncClock*>(clock.get())->getSyncPts();
}

void setPercent(int percent) {
    std::atomic_ref<int>(SAMPLE_CORRECTION_PERCENT_MAX).store(percent);
}

int percent() {
    return std::atomic_ref<int>(SAMPLE_CORRECTION_PERCENT_MAX).load();
}

class TarnSyncClockTest : public testing::Test {
protected:
    void SetUp() override {
        FakeTime::reset(1'700'000'000'000);
        setPercent(10);
    }
    void TearDown() override { setPercent(10); }
};

// Only `create` and `destroy` make and end one, and players reach the readings through the interface.
static_assert(!std::is_constructible_v<TarnSyncClock, int64_t, int64_t>);
static_assert(!std::is_destructible_v<TarnSyncClock>);
static_assert(std::is_base_of_v<KelpSyncClock, TarnSyncClock>);

TEST(SampleCorrectionPercentMax, StartsAtTen) {
    EXPECT_EQ(percent(), 10);
}

TEST_F(TarnSyncClockTest, ReadsItsStartAndRunsWithTheWallClock) {
    const auto clock = makeClock(5000);
    EXPECT_EQ(read(clock), 5000);
    EXPECT_EQ(clock->getCurrentClock(), 5000);
    FakeTime::advanceMs(1000);
    EXPECT_EQ(read(clock), 6000);
    EXPECT_EQ(clock->getCurrentClock(), 6000);
    FakeTime::advanceMs(-300);
    EXPECT_EQ(read(clock), 5700);
}

TEST_F(TarnSyncClockTest, ReportsItsThresholdAndForces) {
    const auto clock = makeClock(0, 3000);
    KelpSyncClock* asPlayersSeeIt = clock.get();
    EXPECT_EQ(asPlayersSeeIt->getNoSyncThreshold(), 3000);
    EXPECT_TRUE(asPlayersSeeIt->isForceSync());
}

TEST_F(TarnSyncClockTest, GivesNullWithoutMemory) {
    failNextAllocation = true;
    EXPECT_EQ(TarnSyncClock::create(0, 10000), nullptr);
    EXPECT_FALSE(failNextAllocation);
}

TEST_F(TarnSyncClockTest, DestroysNothingForNull) {
    TarnSyncClock::destroy(nullptr);
}

TEST_F(TarnSyncClockTest, GoesOnWhereItWasPaused) {
    const auto clock = makeClock(100);
    FakeTime::advanceMs(400);
    clock->pause();
    EXPECT_EQ(read(clock), 500);
    FakeTime::advanceMs(60000);
    EXPECT_EQ(read(clock), 500);
    clock->resume();
    EXPECT_EQ(read(clock), 500);
    FakeTime::advanceMs(25);
    EXPECT_EQ(read(clock), 525);
}

TEST_F(TarnSyncClockTest, IgnoresASecondPauseAndAResumeWithoutOne) {
    const auto clock = makeClock(0);
    FakeTime::advanceMs(1000);
    clock->resume();
    EXPECT_EQ(read(clock), 1000);
    clock->pause();
    FakeTime::advanceMs(1000);
    clock->pause();
    EXPECT_EQ(read(clock), 1000);
    FakeTime::advanceMs(1000);
    clock->resume();
    FakeTime::advanceMs(10);
    clock->resume();
    EXPECT_EQ(read(clock), 1010);
}

TEST_F(TarnSyncClockTest, KeepsItsSpeedThroughAPause) {
    const auto clock = makeClock(0);
    clock->setSpeed(2.0);
    FakeTime::advanceMs(100);
    clock->pause();
    FakeTime::advanceMs(5000);
    clock->resume();
    FakeTime::advanceMs(100);
    EXPECT_EQ(read(clock), 400);
}

TEST_F(TarnSyncClockTest, IsSetWhileItRuns) {
    const auto clock = makeClock(0);
    FakeTime::advanceMs(1000);
    clock->reset(9000);
    EXPECT_EQ(read(clock), 9000);
    FakeTime::advanceMs(30);
    EXPECT_EQ(read(clock), 9030);
}

TEST_F(TarnSyncClockTest, StaysPausedWhenItIsSet) {
    const auto clock = makeClock(0);
    clock->pause();
    clock->reset(9000);
    EXPECT_EQ(read(clock), 9000);
    FakeTime::advanceMs(1000);
    EXPECT_EQ(read(clock), 9000);
    clock->resume();
    EXPECT_EQ(read(clock), 9000);
    FakeTime::advanceMs(1000);
    EXPECT_EQ(read(clock), 10000);
}

TEST_F(TarnSyncClockTest, ChangesItsSpeedWithoutAJump) {
    const auto clock = makeClock(0);
    FakeTime::advanceMs(1000);
    clock->setSpeed(2.0);
    EXPECT_EQ(read(clock), 1000);
    FakeTime::advanceMs(1000);
    EXPECT_EQ(read(clock), 3000);
    clock->setSpeed(0.5);
    EXPECT_EQ(read(clock), 3000);
    FakeTime::advanceMs(1000);
    EXPECT_EQ(read(clock), 3500);
    clock->setSpeed(-1.0);
    FakeTime::advanceMs(1000);
    EXPECT_EQ(read(clock), 2500);
}

TEST_F(TarnSyncClockTest, CutsTheFractionOffTowardZero) {
    const auto clock = makeClock(10);
    clock->setSpeed(0.25);
    FakeTime::advanceMs(7);
    EXPECT_EQ(read(clock), 11);  // 11.75
    clock->reset(-10);
    FakeTime::advanceMs(3);
    EXPECT_EQ(read(clock), -9);  // -9.25
}

TEST_F(TarnSyncClockTest, TakesANewSpeedWhilePaused) {
    const auto clock = makeClock(700);
    clock->pause();
    FakeTime::advanceMs(1000);
    clock->setSpeed(3.0);
    EXPECT_EQ(read(clock), 700);
    FakeTime::advanceMs(1000);
    clock->resume();
    FakeTime::advanceMs(10);
    EXPECT_EQ(read(clock), 730);
}

TEST_F(TarnSyncClockTest, StandsStillAtSpeedZero) {
    const auto clock = makeClock(0);
    FakeTime::advanceMs(1000);
    clock->setSpeed(0.0);
    EXPECT_EQ(read(clock), 1000);
    FakeTime::advanceMs(100000);
    EXPECT_EQ(read(clock), 1000);
    EXPECT_EQ(percent(), 10);
}

TEST_F(TarnSyncClockTest, WidensTheSampleCorrectionWithTheSpeed) {
    struct Case {
        double speed;
        int expected;
    };
    const Case cases[] = {
        {2.0, 51},    // 50 percent of the samples go
        {1.25, 21},   // 20
        {1.05, 10},   // 4 need no widening
        {1.12, 10},   // 10.7, so 10 need none, but
        {1.125, 12},  // 11.1 do
        {0.5, 99},    // 100, limited
        {0.8, 26},    // 25
        {0.51, 97},   // 96.07
        {100.0, 99},  // 99 and 1 more, limited
        {50.0, 99},   // 98 and 1 more
        {-2.0, 10},   // no sound plays backwards
        {0.0, 10},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.speed);
        setPercent(10);
        const auto clock = makeClock(0);
        clock->setSpeed(c.speed);
        EXPECT_EQ(percent(), c.expected);
    }
}

TEST_F(TarnSyncClockTest, PutsTheSampleCorrectionBackAtNormalSpeedOnly) {
    const auto clock = makeClock(0);
    clock->setSpeed(2.0);
    clock->setSpeed(1.25);
    EXPECT_EQ(percent(), 51);
    clock->setSpeed(0.0);
    EXPECT_EQ(percent(), 51);
    clock->setSpeed(1.002);
    EXPECT_EQ(percent(), 51);
    clock->setSpeed(1.0005);
    EXPECT_EQ(percent(), 10);
    clock->setSpeed(2.0);
    clock->setSpeed(0.9995);
    EXPECT_EQ(percent(), 10);
    setPercent(3);
    clock->setSpeed(1.0);
    EXPECT_EQ(percent(), 10);
}

TEST_F(TarnSyncClockTest, LimitsASampleCorrectionThatAHostSetTooHigh) {
    setPercent(500);
    const auto clock = makeClock(0);
    clock->setSpeed(1.5);
    EXPECT_EQ(percent(), 99);
}

TEST_F(TarnSyncClockTest, LogsAChangeOfSpeed) {
    const auto clock = makeClock(0);
    LogCapture log;
    clock->setSpeed(1.0);
    clock->setSpeed(1.25);
    clock->setSpeed(0.5);
    clock->setSpeed(-1.0);
    EXPECT_THAT(
        log.lines(),
        ElementsAre("[TarnSyncClock]: setSpeed, speed:1.250000, SAMPLE_CORRECTION_PERCENT_MAX:10, new threshold:20\n",
                    "[TarnSyncClock]: setSpeed, speed:0.500000, SAMPLE_CORRECTION_PERCENT_MAX:21, new threshold:100\n",
                    "[TarnSyncClock]: setSpeed, speed:-1.000000, SAMPLE_CORRECTION_PERCENT_MAX:99, new threshold:0\n"));
}

TEST_F(TarnSyncClockTest, TakesArgumentsOfAnySize) {
    constexpr int64_t kLowest = std::numeric_limits<int64_t>::min();
    constexpr int64_t kHighest = std::numeric_limits<int64_t>::max();
    const auto clock = makeClock(kLowest, kLowest);
    EXPECT_EQ(read(clock), kLowest);
    clock->pause();
    clock->resume();
    EXPECT_EQ(read(clock), kLowest);
    clock->reset(kHighest);
    EXPECT_EQ(read(clock), kHighest);
    clock->pause();
    clock->reset(kHighest - 3);
    EXPECT_EQ(read(clock), kHighest - 3);
    clock->resume();

    clock->reset(0);
    clock->setSpeed(1e-300);
    EXPECT_EQ(percent(), 99);
    clock->setSpeed(1e300);
    FakeTime::advanceMs(5);
    EXPECT_EQ(read(clock), kHighest);
    clock->reset(0);
    clock->setSpeed(-std::numeric_limits<double>::infinity());
    FakeTime::advanceMs(5);
    EXPECT_EQ(read(clock), kLowest);
    clock->reset(0);
    clock->setSpeed(std::nan(""));
    FakeTime::advanceMs(5);
    EXPECT_EQ(read(clock), 0);
    clock->setSpeed(1.0);
    FakeTime::advanceMs(5);
    EXPECT_EQ(read(clock), 5);
}

TEST_F(TarnSyncClockTest, IsUsedFromSeveralThreads) {
    const auto clock = makeClock(0);
    KelpSyncClock* asPlayersSeeIt = clock.get();
    std::atomic<bool> done{false};
    std::vector<std::thread> players;
    for (int i = 0; i < 2; ++i) {
        players.emplace_back([&] {
            while (!done) {
                EXPECT_EQ(asPlayersSeeIt->getNoSyncThreshold(), 10000);
                EXPECT_TRUE(asPlayersSeeIt->isForceSync());
                // A reading may be of an instant before the reset that it meets, but not of anything else.
                EXPECT_LT(std::abs(asPlayersSeeIt->getSyncPts()), 2000);
                EXPECT_GE(percent(), 10);
            }
        });
    }
    std::thread host([&] {
        for (int i = 0; i < 300; ++i) {
            clock->pause();
            clock->reset(i);
            clock->resume();
        }
    });
    for (int i = 0; i < 300; ++i) {
        clock->setSpeed(i % 2 == 0 ? 2.0 : 1.0);
        FakeTime::advanceMs(1);
    }
    host.join();
    done = true;
    for (auto& player : players) {
        player.join();
    }
    clock->reset(4000);
    EXPECT_EQ(read(clock), 4000);
}

}  // namespace
}  // namespace kelp
