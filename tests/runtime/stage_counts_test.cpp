#include "runtime/stage_counts.h"

#include <gtest/gtest.h>

namespace kelp {
namespace {

constexpr int64_t kCountedAtMs = 1'700'000'000'000;

TEST(LastSecond, ForgetsWhatIsOlderToATenth) {
    LastSecond bytes;
    EXPECT_EQ(bytes.read(kCountedAtMs), 0);
    bytes.add(1000, kCountedAtMs);
    bytes.add(500, kCountedAtMs + 99);
    bytes.add(20, kCountedAtMs + 100);
    EXPECT_EQ(bytes.read(kCountedAtMs + 100), 1520);
    EXPECT_EQ(bytes.read(kCountedAtMs + 999), 1520);
    EXPECT_EQ(bytes.read(kCountedAtMs + 1000), 20);
    EXPECT_EQ(bytes.read(kCountedAtMs + 1100), 0);
}

TEST(LastSecond, TakesATenthOfASecondThatComesRoundAgainForANewOne) {
    LastSecond bytes;
    bytes.add(1000, kCountedAtMs);
    bytes.add(7, kCountedAtMs + 1000);
    EXPECT_EQ(bytes.read(kCountedAtMs + 1000), 7);
}

TEST(LastSecond, HoldsWhatAFastNetworkBringsInATenth) {
    LastSecond bytes;
    bytes.add(int64_t{4'000'000'000}, kCountedAtMs);
    EXPECT_EQ(bytes.read(kCountedAtMs), 4'000'000'000);
}

TEST(QueueLevel, TellsNoDurationWhereTimesGoBack) {
    QueueLevel level;
    level.set(3, 80);
    EXPECT_EQ(level.count(), 3);
    EXPECT_EQ(level.durationMs(), 80);
    EXPECT_EQ(level.bytes(), 0);
    level.set(2, -40, 17);
    EXPECT_EQ(level.durationMs(), 0);
    EXPECT_EQ(level.bytes(), 17);
}

TEST(ReadCounts, BeginAnew) {
    ReadCounts counts;
    counts.add(10, kCountedAtMs);
    counts.add(20, kCountedAtMs);
    EXPECT_EQ(counts.packets.read(), 2);
    EXPECT_EQ(counts.bytes.read(), 30);
    EXPECT_EQ(counts.lastSecond.read(kCountedAtMs), 30);
    counts.reset();
    EXPECT_EQ(counts.packets.read(), 0);
    EXPECT_EQ(counts.bytes.read(), 0);
}

}  // namespace
}  // namespace kelp
