#include "clock/exact_clock.h"

#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include "support/fake_time.h"

namespace kelp {
namespace {

using test::FakeTime;

class ExactClockTest : public testing::Test {
protected:
    void SetUp() override { FakeTime::reset(1'700'000'000'000); }
};

TEST_F(ExactClockTest, RunsAtItsSpeed) {
    ExactClock clock(2);
    EXPECT_EQ(clock.getSyncPtsUs(), 0);
    FakeTime::advanceUs(1'000'500);
    EXPECT_EQ(clock.getSyncPtsUs(), 2'001'000);
    EXPECT_EQ(clock.getSyncPts(), 2001);
    EXPECT_FALSE(clock.isForceSync());
}

TEST_F(ExactClockTest, TakesAnotherSpeedWithoutAJump) {
    ExactClock clock(1);
    FakeTime::advanceMs(1000);
    clock.setSpeed(0.5);
    EXPECT_EQ(clock.getSyncPtsUs(), 1'000'000);
    FakeTime::advanceMs(1000);
    EXPECT_EQ(clock.getSyncPtsUs(), 1'500'000);
    clock.setSpeed(4);
    FakeTime::advanceMs(1000);
    EXPECT_EQ(clock.getSyncPtsUs(), 5'500'000);
}

TEST_F(ExactClockTest, StandsInAPause) {
    ExactClock clock(1.5);
    FakeTime::advanceMs(1000);
    clock.save(-1);
    FakeTime::advanceMs(1000);
    EXPECT_EQ(clock.getSyncPtsUs(), 1'500'000);
    clock.setSpeed(3);
    FakeTime::advanceMs(1000);
    clock.restore();
    EXPECT_EQ(clock.getSyncPtsUs(), 1'500'000);
    FakeTime::advanceMs(1000);
    EXPECT_EQ(clock.getSyncPtsUs(), 4'500'000);
    clock.restore();  // no pause has ended
    EXPECT_EQ(clock.getSyncPtsUs(), 4'500'000);
}

TEST_F(ExactClockTest, IsSetByASeekInAPauseAndOutside) {
    ExactClock clock(1);
    clock.rebase(5000);
    FakeTime::advanceMs(10);
    EXPECT_EQ(clock.getSyncPts(), 5010);
    clock.save(-1);
    clock.rebase(9000);
    FakeTime::advanceMs(10);
    EXPECT_EQ(clock.getSyncPts(), 9000);
    clock.restore();
    FakeTime::advanceMs(10);
    EXPECT_EQ(clock.getSyncPts(), 9010);
}

TEST_F(ExactClockTest, StandsAtTheTimeThatAPauseKeeps) {
    ExactClock clock(1);
    for (const int64_t pts : {7000, 0}) {
        FakeTime::advanceMs(1000);
        clock.save(pts);
        FakeTime::advanceMs(1000);
        EXPECT_EQ(clock.getSyncPts(), pts);
        clock.restore();
        EXPECT_EQ(clock.getSyncPts(), pts);
    }
}

TEST_F(ExactClockTest, TakesAnySpeed) {
    ExactClock clock(0);
    for (const double speed : {0.0, -5.0, std::nan(""), HUGE_VAL, 1e-300}) {
        clock.setSpeed(speed);
        const int64_t before = clock.getSyncPtsUs();
        FakeTime::advanceMs(2);
        EXPECT_GT(clock.getSyncPtsUs(), before) << speed;
    }
}

TEST_F(ExactClockTest, NeverJumpsWhileItsSpeedChangesOnAnotherThread) {
    ExactClock clock(1);
    std::thread changer([&] {
        for (int i = 0; i < 2000; ++i) {
            clock.setSpeed(i % 2 == 0 ? 4 : 0.25);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        ASSERT_EQ(clock.getSyncPtsUs(), 0);
    }
    changer.join();
}

}  // namespace
}  // namespace kelp
