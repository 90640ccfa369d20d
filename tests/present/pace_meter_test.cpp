#include "present/pace_meter.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace kelp {
namespace {

class PaceMeterTest : public testing::Test {
protected:
    // Reads a clock of whole milliseconds that runs at `pace`, every 21 ms for `ms`.
    void run(double pace, int ms) {
        for (const int64_t endUs = nowUs + ms * 1000; nowUs < endUs; nowUs += 21'333) {
            meter.read(static_cast<int64_t>(clockUs / 1000) * 1000, nowUs);
            clockUs += 21'333 * pace;
        }
    }

    PaceMeter meter;
    double clockUs = 0;

private:
    int64_t nowUs = 1'000'000;
};

TEST_F(PaceMeterTest, TakesWhatIsExpectedUntilItKnows) {
    meter.expect(1.5);
    EXPECT_EQ(meter.pace(), 1.5);
    run(1.5, 50);
    EXPECT_EQ(meter.pace(), 1.5);
}

TEST_F(PaceMeterTest, LearnsAnotherPaceWithinASecond) {
    for (const double pace : {0.25, 0.5, 0.99, 1.01, 1.5, 2.0, 4.0}) {
        run(pace, 1000);
        EXPECT_NEAR(meter.pace(), pace, 0.005) << pace;
    }
}

TEST_F(PaceMeterTest, AClockThatWasSetHasItsOldPace) {
    run(1, 1000);
    clockUs += 300'000;
    run(1, 21);
    EXPECT_NEAR(meter.pace(), 1, 0.005);
    run(1, 300);
    EXPECT_NEAR(meter.pace(), 1, 0.005);
    clockUs -= 5'000'000;
    run(1, 300);
    EXPECT_NEAR(meter.pace(), 1, 0.005);
}

TEST_F(PaceMeterTest, AnyTimeMayBeRead) {
    int64_t atUs = 1'000'000;
    for (const int64_t us : {INT64_MIN, INT64_MAX, int64_t{0}, INT64_MIN, INT64_MAX}) {
        meter.read(us, atUs += 200'000);
        EXPECT_EQ(meter.pace(), 1);
    }
}

TEST_F(PaceMeterTest, KeepsTheRatioToWhatIsExpected) {
    run(1.1, 1000);
    meter.expect(2);
    EXPECT_NEAR(meter.pace(), 2.2, 0.01);
}

TEST_F(PaceMeterTest, HasItsRatioAgainAfterItWasExpectedToStand) {
    run(1.1, 1000);
    meter.expect(0);
    run(0, 1000);
    EXPECT_EQ(meter.pace(), 0);
    run(1, 1000);
    EXPECT_EQ(meter.pace(), 0);
    meter.expect(1);
    EXPECT_NEAR(meter.pace(), 1.1, 0.01);
}

TEST_F(PaceMeterTest, OfAClockThatStandsNothingIsLearnt) {
    run(1.1, 1000);
    run(0, 1000);
    EXPECT_EQ(meter.pace(), 1);
}

}  // namespace
}  // namespace kelp
