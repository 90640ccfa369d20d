#include "present/late_start.h"

#include <gtest/gtest.h>

namespace kelp {
namespace {

constexpr int64_t kNowMs = 5'000'000;

TEST(LateStart, LetsNothingWaitUnlessItIsWanted) {
    LateStart start;
    start.begin(0);
    EXPECT_EQ(start.remaining(3000, kNowMs, false), 0);
}

TEST(LateStart, LetsTheFirstFrameWaitForItsTimeAndNoOther) {
    LateStart start(true);
    start.begin(0);
    EXPECT_EQ(start.remaining(1000, kNowMs, false), 1000);
    EXPECT_EQ(start.remaining(1000, kNowMs + 950, false), 50);
    EXPECT_EQ(start.positionMs(), 950);
    EXPECT_EQ(start.remaining(1000, kNowMs + 1000, false), 0);
    EXPECT_EQ(start.remaining(9000, kNowMs + 1000, false), 0);
}

TEST(LateStart, TakesStreamsThatBeginATenthOfASecondApartForOnesThatBeginTogether) {
    LateStart start(true);
    start.begin(0);
    EXPECT_EQ(start.remaining(100, kNowMs, false), 0);
    start.begin(0);
    EXPECT_EQ(start.remaining(101, kNowMs, false), 101);
}

TEST(LateStart, GoesOnFromTheTargetOfASeek) {
    LateStart start(true);
    start.begin(0);
    EXPECT_EQ(start.remaining(0, kNowMs, false), 0);
    start.begin(600);
    EXPECT_EQ(start.remaining(1000, kNowMs + 7000, false), 400);
    EXPECT_EQ(start.remaining(1000, kNowMs + 7400, false), 0);
}

// The first frame comes seconds after the other stream has begun, when so much of that was read.
TEST(LateStart, CountsFromWhereTheOtherStreamHasCome) {
    EXPECT_FALSE(LateStart().isUnseen());
    LateStart start(true);
    start.begin(0);
    ASSERT_TRUE(start.isUnseen());
    start.comeTo(6000, kNowMs);
    EXPECT_EQ(start.remaining(10'000, kNowMs, false), 4000);
    EXPECT_FALSE(start.isUnseen());
    EXPECT_EQ(start.remaining(10'000, kNowMs + 900, false), 3100);
    // One that hasn't begun tells nothing.
    start.begin(600);
    ASSERT_TRUE(start.isUnseen());
    start.comeTo(-1, kNowMs);
    EXPECT_EQ(start.remaining(1000, kNowMs + 900, false), 400);
}

// The other stream tells the time before the seek until it has heard of that.
TEST(LateStart, TakesNothingForPlayedSinceASeekThatCannotHaveBeen) {
    LateStart start(true);
    start.beginAnew(10'000, kNowMs);
    start.comeTo(60'000, kNowMs + 500);
    EXPECT_EQ(start.remaining(14'000, kNowMs + 500, false), 4000);
    start.beginAnew(10'000, kNowMs);
    start.comeTo(13'000, kNowMs + 3000);
    EXPECT_EQ(start.remaining(14'000, kNowMs + 3000, false), 1000);
    // Its thread has begun anew before this one.
    start.beginAnew(10'000, kNowMs);
    start.comeTo(10'900, kNowMs);
    EXPECT_EQ(start.remaining(14'000, kNowMs, false), 3100);
}

TEST(LateStart, StandsInAPause) {
    LateStart start(true);
    start.begin(0);
    EXPECT_EQ(start.remaining(1000, kNowMs, false), 1000);
    EXPECT_EQ(start.remaining(1000, kNowMs + 500, true), 1000);
    EXPECT_EQ(start.remaining(1000, kNowMs + 600, false), 900);
    // One that was slept through.
    start.hold();
    EXPECT_EQ(start.remaining(1000, kNowMs + 60'000, false), 900);
    EXPECT_EQ(start.remaining(1000, kNowMs + 60'100, false), 800);
}

TEST(LateStart, GoesOnByASecondAtMostWhenTheWallClockIsSet) {
    LateStart start(true);
    start.begin(0);
    EXPECT_EQ(start.remaining(5000, kNowMs, false), 5000);
    EXPECT_EQ(start.remaining(5000, kNowMs + 3'600'000, false), 4000);
    EXPECT_EQ(start.remaining(5000, kNowMs - 3'600'000, false), 4000);
}

}  // namespace
}  // namespace kelp
