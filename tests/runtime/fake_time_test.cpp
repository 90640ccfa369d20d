#include "support/fake_time.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "runtime/base_thread.h"
#include "runtime/kelp_time.h"
#include "runtime/rest.h"

namespace kelp {
namespace {

using test::FakeTime;

class FakeTimeTest : public testing::Test {
protected:
    FakeTimeTest() { FakeTime::reset(); }
    ~FakeTimeTest() override {
        FakeTime::reset();
        for (auto& thread : threads_) {
            thread.join();
        }
    }

    template <class Body>
    void onAThread(Body body) {
        threads_.emplace_back(body);
    }

    void joinAll() {
        for (auto& thread : threads_) {
            thread.join();
        }
        threads_.clear();
    }

    std::vector<std::thread> threads_;
};

TEST_F(FakeTimeTest, HasMicroseconds) {
    FakeTime::reset(5000);
    FakeTime::advanceUs(1999);
    EXPECT_EQ(KelpTime::getTimeUs(), 5'001'999);
    EXPECT_EQ(KelpTime::getTimeMs(), 5001);
    Rest rest;
    rest.forUs(2, [] { return false; });
    EXPECT_EQ(FakeTime::nowUs(), 5'002'001);
    EXPECT_EQ(FakeTime::nowMs(), 5002);
    EXPECT_EQ(FakeTime::sleepCount(), 1);
}

TEST_F(FakeTimeTest, StandsStillByItself) {
    FakeTime::reset(5000);
    EXPECT_EQ(KelpTime::getTimeMs(), 5000);
    EXPECT_EQ(KelpTime::getTimeUs(), 5'000'000);
    EXPECT_EQ(FakeTime::nowMs(), 5000);
    FakeTime::advanceMs(20);
    EXPECT_EQ(KelpTime::getTimeMs(), 5020);
    FakeTime::setNowMs(100);
    EXPECT_EQ(KelpTime::getTimeMs(), 100);
}

TEST_F(FakeTimeTest, AutomaticSleepsMoveTheClockAndReturn) {
    FakeTime::reset(1000);
    KelpTime::sleepMs(30);
    KelpTime::sleepUs(2999);
    EXPECT_EQ(FakeTime::nowMs(), 1032);
    EXPECT_EQ(FakeTime::sleptMs(), 32);
    EXPECT_EQ(FakeTime::sleeps(), (std::vector<int>{30, 2}));
}

TEST_F(FakeTimeTest, SleepsWholeMillisecondsOnlyInBothModes) {
    for (const bool manual : {false, true}) {
        FakeTime::reset(1000);
        FakeTime::setManual(manual);
        KelpTime::sleepUs(999);
        KelpTime::sleepUs(-999);
        KelpTime::sleepUs(-5000);
        KelpTime::sleepMs(0);
        KelpTime::sleepMs(-1);
        KelpTime::sleepMs(2147484);  // the product wraps to a negative number
        EXPECT_EQ(FakeTime::nowMs(), 1000);
        EXPECT_EQ(FakeTime::sleptMs(), 0);
        EXPECT_EQ(FakeTime::sleepCount(), 6);
    }
}

TEST_F(FakeTimeTest, ManualSleepersWakeWhenTheirTimeComes) {
    FakeTime::setManual(true);
    std::atomic<int> woken{0};
    for (const int ms : {10, 20, 20}) {
        onAThread([&, ms] {
            KelpTime::sleepMs(ms);
            ++woken;
        });
    }
    ASSERT_TRUE(FakeTime::waitForSleepers(3));
    FakeTime::advanceMs(9);
    ASSERT_TRUE(FakeTime::waitForSleepers(3, 0));
    FakeTime::advanceMs(1);
    EXPECT_FALSE(FakeTime::waitForSleepers(3, 0));
    EXPECT_TRUE(FakeTime::waitForSleepers(2, 0));
    FakeTime::setNowMs(FakeTime::nowMs() + 10);
    EXPECT_FALSE(FakeTime::waitForSleepers(1, 0));
    joinAll();
    EXPECT_EQ(woken, 3);
}

TEST_F(FakeTimeTest, AWokenSleeperStaysAwakeWhenTheClockIsSetBack) {
    FakeTime::reset(1000);
    FakeTime::setManual(true);
    onAThread([] { KelpTime::sleepMs(10); });
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    FakeTime::setNowMs(1010);
    FakeTime::setNowMs(0);
    joinAll();
}

TEST_F(FakeTimeTest, LeavingTheManualModeReleasesTheSleepers) {
    FakeTime::reset(1000);
    FakeTime::setManual(true);
    onAThread([] { KelpTime::sleepMs(10); });
    onAThread([] { KelpTime::sleepMs(70); });
    ASSERT_TRUE(FakeTime::waitForSleepers(2));
    FakeTime::setManual(false);
    joinAll();
    EXPECT_EQ(FakeTime::nowMs(), 1070);
}

TEST_F(FakeTimeTest, ResetReleasesTheSleepers) {
    FakeTime::setManual(true);
    std::atomic<bool> stop{false};
    onAThread([&] {
        while (!stop) {
            KelpTime::sleepMs(1'000'000);
        }
    });
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    stop = true;
    FakeTime::reset(77);
    joinAll();
    EXPECT_EQ(FakeTime::nowMs(), 77);
    EXPECT_EQ(FakeTime::sleepCount(), 0);
    EXPECT_EQ(FakeTime::sleptMs(), 0);
    EXPECT_TRUE(FakeTime::sleeps().empty());
}

TEST_F(FakeTimeTest, ARestIsSteppedLikeASleep) {
    FakeTime::reset(1000);
    Rest rest;
    rest.forMs(30, [] { return false; });
    EXPECT_EQ(FakeTime::nowMs(), 1030);
    FakeTime::setManual(true);
    onAThread([&] { rest.forMs(10, [] { return false; }); });
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    FakeTime::advanceMs(9);
    EXPECT_TRUE(FakeTime::waitForSleepers(1, 0));
    FakeTime::advanceMs(1);
    joinAll();
    EXPECT_EQ(FakeTime::sleeps(), (std::vector<int>{30, 10}));
}

TEST_F(FakeTimeTest, ARestThatIsOverIsNone) {
    FakeTime::reset(1000);
    for (const bool manual : {false, true}) {
        FakeTime::setManual(manual);
        Rest().forMs(30, [] { return true; });
    }
    EXPECT_EQ(FakeTime::nowMs(), 1000);
    EXPECT_EQ(FakeTime::sleepCount(), 0);
}

TEST_F(FakeTimeTest, ARestEndsWithoutTheClockForItsOwnReasonOnly) {
    FakeTime::reset(1000);
    FakeTime::setManual(true);
    Rest rests[2];
    std::atomic<bool> wanted{false};
    for (auto& rest : rests) {
        onAThread([&] { rest.forMs(10, [&] { return wanted.load(); }); });
    }
    onAThread([] { KelpTime::sleepMs(10); });
    ASSERT_TRUE(FakeTime::waitForSleepers(3));
    rests[0].end();
    EXPECT_TRUE(FakeTime::waitForSleepers(3, 0));
    wanted = true;
    rests[0].end();
    EXPECT_FALSE(FakeTime::waitForSleepers(3, 0));
    EXPECT_TRUE(FakeTime::waitForSleepers(2, 0));
    rests[1].end();
    EXPECT_FALSE(FakeTime::waitForSleepers(2, 0));
    EXPECT_EQ(FakeTime::nowMs(), 1000);
    FakeTime::advanceMs(10);
    joinAll();
}

TEST_F(FakeTimeTest, RunsPollingThreadsThroughTheirEventsInOrder) {
    FakeTime::reset(1000);
    FakeTime::setManual(true);
    std::atomic<bool> stop{false};
    std::vector<int64_t> wakeUps[2];
    for (const int which : {0, 1}) {
        onAThread([&, which] {
            while (!stop) {
                KelpTime::sleepMs(which == 0 ? 30 : 50);
                wakeUps[which].push_back(KelpTime::getTimeMs());
            }
        });
    }
    ASSERT_TRUE(FakeTime::runFor(100, 2));
    EXPECT_EQ(FakeTime::nowMs(), 1100);
    stop = true;
    FakeTime::setManual(false);
    joinAll();
    EXPECT_EQ(std::vector<int64_t>(wakeUps[0].begin(), wakeUps[0].begin() + 3),
              (std::vector<int64_t>{1030, 1060, 1090}));
    EXPECT_EQ(std::vector<int64_t>(wakeUps[1].begin(), wakeUps[1].begin() + 2), (std::vector<int64_t>{1050, 1100}));
}

TEST_F(FakeTimeTest, SaysSoWhenNobodySleeps) {
    FakeTime::setManual(true);
    EXPECT_TRUE(FakeTime::waitForSleepers(0, 0));
    EXPECT_FALSE(FakeTime::waitForSleepers(1, 1));
    EXPECT_FALSE(FakeTime::runFor(10, 1, 1));
}

TEST_F(FakeTimeTest, ARestUntilATimeGoesByTheClockAlone) {
    FakeTime::reset(1000);
    Rest rest;
    rest.untilMs(1030, [] { return false; });
    EXPECT_EQ(FakeTime::nowMs(), 1030);
    rest.untilMs(1030, [] { return false; });
    EXPECT_EQ(FakeTime::sleeps(), (std::vector<int>{30}));
    FakeTime::setManual(true);
    onAThread([&] { rest.untilMs(1040, [] { return false; }); });
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    FakeTime::setNowMs(0);
    FakeTime::setNowMs(1039);
    EXPECT_TRUE(FakeTime::waitForSleepers(1, 0));
    FakeTime::setNowMs(1040);
    joinAll();
}

TEST_F(FakeTimeTest, ARestForeverEndsForItsReasonAloneInBothModes) {
    for (const bool manual : {false, true}) {
        FakeTime::reset(1000);
        FakeTime::setManual(manual);
        Rest rest;
        std::atomic<bool> wanted{false};
        onAThread([&] { rest.forMs(Rest::kForeverMs, [&] { return wanted.load(); }); });
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
        FakeTime::advanceMs(1'000'000'000'000);
        EXPECT_TRUE(FakeTime::waitForSleepers(1, 0));
        wanted = true;
        rest.end();
        joinAll();
        EXPECT_EQ(FakeTime::nowMs(), 1'000'000'001'000);
    }
}

TEST_F(FakeTimeTest, AWaitIsSteppedAndTakesItsRealTimeInTheAutomaticMode) {
    FakeTime::reset(1000);
    Rest rest;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(rest.waitMs(20, [] { return false; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
    EXPECT_EQ(FakeTime::nowMs(), 1000);
    FakeTime::setManual(true);
    std::atomic<bool> wanted{false};
    for (const bool isWanted : {false, true}) {
        onAThread([&, isWanted] { EXPECT_EQ(rest.waitMs(10, [&] { return wanted.load(); }), isWanted); });
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
        FakeTime::advanceMs(9);
        EXPECT_TRUE(FakeTime::waitForSleepers(1, 0));
        wanted = isWanted;
        isWanted ? rest.end() : FakeTime::advanceMs(1);
        joinAll();
    }
    EXPECT_EQ(FakeTime::nowMs(), 1019);
    EXPECT_EQ(FakeTime::sleepCount(), 0);
}

TEST_F(FakeTimeTest, ATimerThreadLeavesTheAutomaticClockAlone) {
    FakeTime::reset(1000);
    Rest rest;
    onAThread([&] {
        SetThreadName(0, "WorkerTimer");
        rest.untilMs(1005, [] { return false; });
    });
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(FakeTime::nowMs(), 1000);
    KelpTime::sleepMs(5);
    joinAll();
    EXPECT_EQ(FakeTime::nowMs(), 1005);
}

}  // namespace
}  // namespace kelp
