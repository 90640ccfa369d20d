#include "input/tick_math.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace kelp {
namespace {

TEST(TickMath, TruncatesMillisecondsTowardsZero) {
    EXPECT_EQ(ticksToMs(90000, 1, 90000), 1000);
    EXPECT_EQ(ticksToMs(89999, 1, 90000), 999);
    EXPECT_EQ(ticksToMs(-89999, 1, 90000), -999);
    EXPECT_EQ(ticksToMs(1, 1001, 30000), 33);
}

TEST(TickMath, GivesZeroWithoutADenominator) {
    EXPECT_EQ(ticksToMs(90000, 1, 0), 0);
}

TEST(TickMath, WrapsAroundInsteadOfOverflowing) {
    EXPECT_EQ(ticksToMs(INT64_MIN, 1, 90000), 0);
    EXPECT_EQ(ticksToMs(INT64_MIN / 1000, 1, -1), 9223372036854775000);
    EXPECT_EQ(ticksToMs(INT64_C(1) << 60, 1, -1), INT64_MIN);
    EXPECT_EQ(ticksToMs(INT64_MIN, INT64_MIN, -1), 0);
}

TEST(TickMath, TruncatesDoublesOfAnySize) {
    EXPECT_EQ(truncated<int64_t>(1999.99), 1999);
    EXPECT_EQ(truncated<int64_t>(-1999.99), -1999);
    EXPECT_EQ(truncated<int64_t>(1e300), INT64_MAX);
    EXPECT_EQ(truncated<int64_t>(-1e300), INT64_MIN);
    EXPECT_EQ(truncated<int64_t>(std::numeric_limits<double>::infinity()), INT64_MAX);
    EXPECT_EQ(truncated<int64_t>(std::nan("")), 0);
}

}  // namespace
}  // namespace kelp
