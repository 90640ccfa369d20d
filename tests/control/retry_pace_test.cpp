#include "control/retry_pace.h"

#include <gmock/gmock.h>

#include <set>

namespace kelp::test {
namespace {

constexpr unsigned int kIntervalMs = 1000;

TEST(RetryPace, IsTheIntervalForEverAsLongAsTheHostAsksForNothing) {
    RetryPace pace;
    pace.begin();
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(pace.nextMs(kIntervalMs), kIntervalMs);
    }
}

TEST(RetryPace, GrowsFromTheIntervalToTenOfThemLessALittleChance) {
    for (const auto& [key, value] : {std::pair("closed_live_source", "failed"), {"preset", "recommended"}}) {
        RetryPace pace;
        pace.setOption(key, value);
        pace.begin();
        double fullMs = kIntervalMs;
        for (int i = 0; i < 20; ++i) {
            const unsigned int waitMs = pace.nextMs(kIntervalMs);
            EXPECT_LE(waitMs, fullMs) << i;
            EXPECT_GE(waitMs, fullMs * 0.8 - 1) << i;
            fullMs = std::min(fullMs * 1.5, 10.0 * kIntervalMs);
        }
    }
}

TEST(RetryPace, SpreadsManyPlayersThatFailAtOneMoment) {
    std::set<unsigned int> waits;
    for (int i = 0; i < 100; ++i) {
        RetryPace pace;
        pace.setOption("closed_live_source", "failed");
        pace.begin();
        waits.insert(pace.nextMs(kIntervalMs) / 20);
    }
    EXPECT_GE(waits.size(), 7U);  // of ten parts of 20 ms
}

TEST(RetryPace, BeginsAnewWhenSomethingWasShownAndWithEachLoad) {
    RetryPace pace;
    pace.setOption("closed_live_source", "failed");
    pace.begin();
    for (const bool isShown : {true, false}) {
        for (int i = 0; i < 10; ++i) {
            pace.nextMs(kIntervalMs);
        }
        EXPECT_GT(pace.nextMs(kIntervalMs), 7 * kIntervalMs);
        isShown ? pace.shown() : pace.begin();
        EXPECT_LE(pace.nextMs(kIntervalMs), kIntervalMs);
    }
}

TEST(RetryPace, ChangesItsRuleWithTheNextLoadAlone) {
    RetryPace pace;
    pace.begin();
    pace.setOption("closed_live_source", "failed");
    pace.nextMs(kIntervalMs);
    EXPECT_EQ(pace.nextMs(kIntervalMs), kIntervalMs);
    pace.begin();
    pace.setOption("closed_live_source", "no such value");
    pace.setOption("rtsp_transport", "udp");
    pace.nextMs(kIntervalMs);
    EXPECT_GT(pace.nextMs(kIntervalMs), kIntervalMs);
}

TEST(RetryPace, BearsIntervalsOfAnyLength) {
    RetryPace pace;
    pace.setOption("closed_live_source", "failed");
    pace.begin();
    for (const unsigned int intervalMs : {1U, 4294967295U}) {
        for (int i = 0; i < 10; ++i) {
            EXPECT_GE(pace.nextMs(intervalMs), 1U);
        }
    }
    EXPECT_EQ(pace.nextMs(4294967295U), 4294967295U);
}

}  // namespace
}  // namespace kelp::test
