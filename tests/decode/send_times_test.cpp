#include "decode/send_times.h"

#include <gtest/gtest.h>

#include <limits>

namespace kelp {
namespace {

TEST(SendTimes, GivesEachTimeOnce) {
    SendTimes times;
    // In the order of decoding, which isn't that of the times.
    times.put(0, 1000);
    times.put(120, 1001);
    times.put(40, 1002);
    EXPECT_EQ(times.take(40), 1002);
    EXPECT_EQ(times.take(120), 1001);
    EXPECT_EQ(times.take(0), 1000);
    EXPECT_FALSE(times.take(40));
}

TEST(SendTimes, KnowsNothingOfOtherTimes) {
    SendTimes times;
    EXPECT_FALSE(times.take(0));
    times.put(40, 1);
    EXPECT_FALSE(times.take(39));
    EXPECT_FALSE(times.take(41));
    times.clear();
    EXPECT_FALSE(times.take(40));
}

TEST(SendTimes, KeepsTheLastOfTwoAtTheSameTime) {
    SendTimes times;
    times.put(40, 1);
    times.put(40, 2);
    EXPECT_EQ(times.take(40), 2);
    EXPECT_FALSE(times.take(40));
}

TEST(SendTimes, ForgetsAllWhenThereAreTooMany) {
    SendTimes times;
    for (int i = 0; i < 101; ++i) {
        times.put(i, 1000 + i);
    }
    times.put(101, 2000);
    EXPECT_FALSE(times.take(100));
    EXPECT_EQ(times.take(101), 2000);
}

TEST(SendTimes, ForgetsAllWhenTheFirstIsTooFarAway) {
    SendTimes times;
    times.put(0, 1);
    times.put(5000, 2);
    EXPECT_EQ(times.take(5000), 2);
    times.put(5001, 3);
    EXPECT_FALSE(times.take(0));
    EXPECT_EQ(times.take(5001), 3);

    times.put(std::numeric_limits<int64_t>::max(), 4);
    times.put(std::numeric_limits<int64_t>::min(), 5);
    EXPECT_FALSE(times.take(std::numeric_limits<int64_t>::max()));
    EXPECT_EQ(times.take(std::numeric_limits<int64_t>::min()), 5);
}

}  // namespace
}  // namespace kelp
