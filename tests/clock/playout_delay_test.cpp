#include "clock/playout_delay.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace kelp {
namespace {

// Pictures every 40 ms. The wall clock stands at kMadeUs when time stamp 0 is made.
class PlayoutDelayTest : public testing::Test {
protected:
    // The next picture takes `waysMs` to arrive; how long after its making it is due.
    double next(double waysMs) {
        ptsMs_ += 40;
        delay_.add(ptsMs_, madeUs(ptsMs_) + static_cast<int64_t>(waysMs * 1000));
        return due();
    }
    // The same for `count` pictures with a jitter of `jitterMs`, evenly spread; the last answer.
    double play(int count, double waysMs, double jitterMs = 0) {
        double due = 0;
        for (int i = 0; i < count; ++i) {
            due = next(waysMs + jitterMs * (i * 7 % 20) / 19);
        }
        return due;
    }
    // `count` pictures that all arrive now, when the last of them is made and has come its way of `waysMs`.
    void burst(int count, double waysMs) {
        const int64_t lastPtsMs = ptsMs_ + int64_t{40} * count;
        for (int i = 0; i < count; ++i) {
            ptsMs_ += 40;
            delay_.add(ptsMs_, madeUs(lastPtsMs) + static_cast<int64_t>(waysMs * 1000) + i * 300);
        }
    }
    double due() const { return static_cast<double>(delay_.dueUs(ptsMs_) - madeUs(ptsMs_)) / 1000; }

    static int64_t madeUs(int64_t ptsMs) { return kMadeUs + ptsMs * 1000; }

    static constexpr int64_t kMadeUs = 1'700'000'000'000'000;
    PlayoutDelay delay_;
    int64_t ptsMs_ = 5'000'000;
};

TEST_F(PlayoutDelayTest, IsNoneWhereAllComesEvenly) {
    EXPECT_EQ(next(30), 30);
    EXPECT_EQ(play(100, 30), 30);
}

TEST_F(PlayoutDelayTest, LetsNineOfTenComeInTime) {
    EXPECT_NEAR(play(100, 30, 20), 30 + 0.9 * 20, 1);
    EXPECT_NEAR(play(100, 30, 80), 30 + 0.9 * 80, 4);
    EXPECT_NEAR(play(100, 30, 2), 30 + 0.9 * 2, 0.2);
}

TEST_F(PlayoutDelayTest, IsNotMovedByAFewThatAreLate) {
    play(60, 30);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(next(120), 30);
        EXPECT_EQ(play(20, 30), 30);
    }
}

TEST_F(PlayoutDelayTest, IsMovedByAllThatComeWithinATenthOfASecond) {
    for (int i = 0; i < 60; ++i) {
        next(30);
        next(130);
    }
    EXPECT_EQ(due(), 130);
    for (int i = 0; i < 60; ++i) {
        next(30);
        next(130.5);
    }
    EXPECT_EQ(due(), 30);
}

TEST_F(PlayoutDelayTest, AgesByAFifthOfASecondAtMostFromOneToTheNext) {
    next(30);
    for (int i = 0; i < 11; ++i) {
        ptsMs_ += 1000;
        EXPECT_EQ(next(330), i < 10 ? 30 : 330) << i;
    }
}

TEST_F(PlayoutDelayTest, IsTheOldOneAllThroughABurstAndBehindIt) {
    play(60, 30, 5);
    const double before = due();
    for (const int pictures : {5, 75, 200}) {
        burst(pictures, 30);
        EXPECT_NEAR(due(), before, 1) << pictures;
        EXPECT_NEAR(play(50, 30, 5), before, 1) << pictures;
    }
}

TEST_F(PlayoutDelayTest, FollowsAFasterWayAtOnceAndASlowerOneAfterTwoSeconds) {
    play(60, 300);
    EXPECT_EQ(next(30), 30);
    EXPECT_EQ(play(60, 30), 30);
    EXPECT_EQ(next(330), 30);
    EXPECT_EQ(play(40, 330), 30);
    EXPECT_EQ(play(10, 330), 330);
}

TEST_F(PlayoutDelayTest, FollowsTheBeginningOfASourceThatHadQueuedSome) {
    burst(30, 30);
    EXPECT_NEAR(play(30, 30), 30, 10);
}

TEST_F(PlayoutDelayTest, FollowsASendersClockThatIsFast) {
    double ways = 30;
    for (int i = 0; i < 20000; ++i, ways -= 0.004) {  // 100 ppm
        ASSERT_NEAR(next(ways), ways, 0.5);
    }
}

TEST_F(PlayoutDelayTest, BearsTimeStampsThatJump) {
    play(60, 30);
    for (const int64_t jumpMs : {int64_t{-3'600'000}, int64_t{3'600'000}}) {
        ptsMs_ += jumpMs;
        const int64_t arrivedUs = madeUs(ptsMs_) - jumpMs * 1000;
        delay_.add(ptsMs_, arrivedUs);
        EXPECT_LE(delay_.dueUs(ptsMs_), arrivedUs + 100'000);
        for (int i = 0; i < 60; ++i) {
            next(30 - static_cast<double>(jumpMs));
        }
        EXPECT_NEAR(due(), 30 - static_cast<double>(jumpMs), 1);
    }
    for (const int64_t ptsMs : {std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()}) {
        delay_.add(ptsMs, madeUs(0));
        delay_.dueUs(ptsMs);
    }
}

}  // namespace
}  // namespace kelp
