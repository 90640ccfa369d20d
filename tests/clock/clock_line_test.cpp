#include "clock/clock_line.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace kelp {
namespace {

constexpr int64_t kBeginUs = 1'700'000'000'000'000;

// A clock that tells whole milliseconds, by a wall clock that does, read every 10 ms.
class ClockLineTest : public testing::Test {
protected:
    // Reads for `ms` of the wall clock, while the clock runs at `speed`; how far the line is off at the most, in
    // milliseconds of the clock, from `settledMs` on.
    double run(double speed, int ms, int settledMs) {
        double worst = 0;
        for (int t = 0; t < ms * 1000; t += 9'700) {
            nowUs += 9'700;
            clockMs += 9.7 * speed;
            const double sinceMs = static_cast<double>(nowUs % 1000) / 1000;
            line.add(static_cast<int64_t>(std::floor(clockMs - sinceMs * speed)), nowUs);
            if (t >= settledMs * 1000) {
                worst = std::max(worst, std::abs(static_cast<double>(line.timeUs()) / 1000 - clockMs));
            }
        }
        return worst;
    }

    ClockLine line;
    int64_t nowUs = kBeginUs;
    double clockMs = 12'345.678;
};

TEST_F(ClockLineTest, RunsWithoutTheStepsOfItsClock) {
    EXPECT_LT(run(1, 3000, 100), 0.8);
    EXPECT_NEAR(line.speed().value(), 1, 0.002);
}

TEST_F(ClockLineTest, FindsTheSpeed) {
    for (const double speed : {0.25, 0.5, 1.5, 2.0, 4.0, 1.0}) {
        EXPECT_LT(run(speed, 4000, 1000), 1) << speed;
        EXPECT_NEAR(line.speed().value(), speed, 0.004) << speed;
    }
}

TEST_F(ClockLineTest, IsNeverFarOffBehindAChangeOfSpeed) {
    run(1, 1000, 0);
    EXPECT_LT(run(2, 300, 0), 8.6);
    EXPECT_LT(run(2, 300, 0), 2);
    EXPECT_NEAR(line.speed().value(), 2, 0.1);
}

TEST_F(ClockLineTest, StandsWithItsClock) {
    run(1, 1000, 0);
    run(0, 1000, 0);
    EXPECT_EQ(line.speed(), 0);
    EXPECT_LT(run(0, 100, 0), 0.7);
    EXPECT_LT(run(1, 1000, 200), 2);
}

TEST_F(ClockLineTest, ForgetsHowItRanSecondsAgo) {
    run(1, 60'000, 0);
    run(1.003, 2000, 0);
    EXPECT_LT(run(1.003, 100, 0), 2);
    EXPECT_NEAR(line.speed().value(), 1.003, 0.0015);
}

TEST_F(ClockLineTest, FollowsAJumpAtOnce) {
    run(2, 1000, 0);
    clockMs += 30'000;
    run(2, 1, 0);
    EXPECT_NEAR(line.speed().value(), 2, 0.1) << "of before the jump";
    EXPECT_LT(run(2, 100, 0), 1.6);
    EXPECT_NEAR(line.speed().value(), 2, 0.1);
    clockMs -= 70'000;
    EXPECT_LT(run(2, 100, 0), 1.6);
}

TEST_F(ClockLineTest, TakesReadingsOfTheSameMomentAndOutOfOrder) {
    for (int i = 0; i < 1000; ++i) {
        nowUs += 10'000;
        clockMs += 10;
        for (const int early : {0, 0, 3}) {
            line.add(static_cast<int64_t>(std::floor(clockMs)), nowUs - early);
        }
    }
    EXPECT_NEAR(static_cast<double>(line.timeUs()) / 1000, clockMs, 0.6);
    EXPECT_NEAR(line.speed().value(), 1, 0.002);
}

TEST_F(ClockLineTest, TakesASecondReadingFarOffForAJump) {
    line.add(0, nowUs);
    nowUs += 100'000;
    line.add(80'000, nowUs);
    EXPECT_EQ(line.timeUs(), 80'000'500);
    clockMs = 80'000;
    EXPECT_LT(run(1, 100, 0), 1.6);
}

TEST_F(ClockLineTest, ForgetsAll) {
    run(2, 1000, 0);
    line.restart();
    EXPECT_FALSE(line.speed());
    line.add(7, kBeginUs);
    EXPECT_EQ(line.timeUs(), 7'500);
    line.add(7, kBeginUs);
    EXPECT_FALSE(line.speed()) << "both are of one moment";
    line.add(8, kBeginUs + 1001);
    EXPECT_TRUE(line.speed());
}

TEST_F(ClockLineTest, TakesAnyReading) {
    constexpr auto kMin = std::numeric_limits<int64_t>::min();
    constexpr auto kMax = std::numeric_limits<int64_t>::max();
    for (const int64_t reading : {kMin, kMax, int64_t{0}, kMax, kMin}) {
        line.add(reading, nowUs += 1000);
        EXPECT_FALSE(std::isnan(line.speed().value_or(0)));
        line.timeUs();
    }
    run(1, 100, 0);
    EXPECT_LT(run(1, 1000, 0), 1.6);
}

}  // namespace
}  // namespace kelp
