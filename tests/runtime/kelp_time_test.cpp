#include "runtime/kelp_time.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <limits>
#include <vector>

#include "runtime/kelp_time_calls.h"

namespace kelp {
namespace {

class KelpTimeSleepTest : public testing::Test {
protected:
    KelpTimeSleepTest() { test::recordSleeps(true); }
    ~KelpTimeSleepTest() override { test::recordSleeps(false); }
};

TEST(KelpTime, ReadsTheWallClock) {
    const auto systemUs = [] {
        return std::chrono::duration_cast<std::chrono::microseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    const int64_t before = systemUs();
    const int64_t now = KelpTime::getTimeUs();
    const int64_t after = systemUs();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

TEST(KelpTime, CountsFromTheUsualOrigin) {
    const std::time_t before = std::time(nullptr);
    EXPECT_GE(KelpTime::getTimeMs() / 1000, before);
    EXPECT_LE(KelpTime::getTimeMs() / 1000, before + 60);
}

TEST(KelpTime, ReadsTheSteadyClock) {
    const auto steadyUs = [] {
        return std::chrono::duration_cast<std::chrono::microseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    };
    const int64_t before = steadyUs();
    const int64_t now = KelpTime::getSteadyUs();
    EXPECT_LE(before, now);
    EXPECT_LE(now, steadyUs());
}

TEST(KelpTime, CutsMicrosecondsToMilliseconds) {
    for (int i = 0; i < 1000; ++i) {
        const int64_t before = KelpTime::getTimeUs() / 1000;
        const int64_t now = KelpTime::getTimeMs();
        const int64_t after = KelpTime::getTimeUs() / 1000;
        ASSERT_LE(before, now);
        ASSERT_LE(now, after);
    }
}

TEST_F(KelpTimeSleepTest, SleepsWholeMilliseconds) {
    KelpTime::sleepUs(1000);
    KelpTime::sleepUs(1999);
    KelpTime::sleepUs(2000);
    KelpTime::sleepMs(1);
    KelpTime::sleepMs(1500);
    EXPECT_EQ(test::recordedSleepsNs(),
              (std::vector<int64_t>{1'000'000, 1'000'000, 2'000'000, 1'000'000, 1'500'000'000}));
    EXPECT_EQ(test::recordedYields(), 0);
}

TEST_F(KelpTimeSleepTest, YieldsForLessThanAMillisecond) {
    KelpTime::sleepUs(999);
    KelpTime::sleepUs(0);
    KelpTime::sleepUs(-999);
    KelpTime::sleepMs(0);
    EXPECT_TRUE(test::recordedSleepsNs().empty());
    EXPECT_EQ(test::recordedYields(), 4);
}

TEST_F(KelpTimeSleepTest, DoesNotSleepForANegativeTime) {
    KelpTime::sleepUs(-1000);
    KelpTime::sleepUs(std::numeric_limits<int>::min());
    KelpTime::sleepMs(-1);
    EXPECT_TRUE(test::recordedSleepsNs().empty());
}

TEST_F(KelpTimeSleepTest, OverflowsBeyondItsLongestSleep) {
    KelpTime::sleepMs(2147483);
    EXPECT_EQ(test::recordedSleepsNs(), std::vector<int64_t>{2'147'483'000'000});
    KelpTime::sleepMs(2147484);  // a negative product of 32 bits
    EXPECT_EQ(test::recordedSleepsNs().size(), 1U);
    KelpTime::sleepMs(4294968);  // 704 microseconds
    EXPECT_EQ(test::recordedSleepsNs().size(), 1U);
}

// Sleeps for real: that the system's sleep is reached, and goes on after a part of it, has no other proof.
TEST(KelpTime, SleepsForRealAtLeastAsLongAsAsked) {
    const auto start = std::chrono::steady_clock::now();
    KelpTime::sleepMs(20);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
}

}  // namespace
}  // namespace kelp
