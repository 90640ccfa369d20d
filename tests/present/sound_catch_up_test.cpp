#include "present/sound_catch_up.h"

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <limits>

namespace kelp {
namespace {

constexpr int64_t kBlockMs = 20;
constexpr int64_t kNoMaster = std::numeric_limits<int64_t>::max();

// A source whose blocks of 20 ms come every 20 ms, and a player that plays one at a time, at the tempo that it may.
class SoundCatchUpTest : public testing::Test {
protected:
    // Lets `ms` pass. While `stands` nothing comes, and then all of it at once.
    void run(int ms, bool stands = false) {
        for (const double endMs = nowMs_ + ms; nowMs_ < endMs; nowMs_ += 1) {
            for (int i = 0; i < mostPerMs_ && !stands && static_cast<double>(madeMs_) + kBlockMs <= nowMs_; ++i) {
                DecodedFrame& frame = queue_.emplace_back();
                frame.pts = madeMs_;
                frame.duration = kBlockMs;
                frame.queuedUs = us(nowMs_);
                madeMs_ += kBlockMs;
            }
            while (!queue_.empty() && nowMs_ >= freeMs_) {
                const int64_t queued = queue_.back().pts - queue_.front().pts;
                const int64_t spareUs = spareMs_(played_) * 1000;
                if (catchUp_.isWanted(queue_.front(), us(nowMs_), queued, queue_.size() > 1, spareUs,
                                      behindMasterMs_)) {
                    lagMs_ = nowMs_ - static_cast<double>(queue_.front().pts);
                    freeMs_ = std::max(freeMs_, nowMs_ - 1) + kBlockMs / catchUp_.fastest();
                    EXPECT_LE(catchUp_.fastest(), 1.1);
                    ++played_;
                } else {
                    ++leftOut_;
                }
                queue_.pop_front();
            }
        }
    }
    static int64_t us(double ms) { return 1'700'000'000'000'000 + static_cast<int64_t>(ms * 1000); }

    SoundCatchUp catchUp_;
    std::deque<DecodedFrame> queue_;
    int mostPerMs_ = 1000;  // come out of the decoder
    double nowMs_ = 0;
    int64_t madeMs_ = 0;
    double freeMs_ = 0;  // when the next block can be played
    double lagMs_ = 0;   // of the last one
    int64_t behindMasterMs_ = kNoMaster;
    std::function<int64_t(int)> spareMs_ = [](int) { return 0; };  // in the output, when the block of that number comes
    int played_ = 0;
    int leftOut_ = 0;
};

TEST_F(SoundCatchUpTest, LeavesSoundThatComesInTimeAsItIs) {
    run(10'000);
    EXPECT_EQ(leftOut_, 0);
    EXPECT_EQ(catchUp_.fastest(), 1);
    EXPECT_NEAR(lagMs_, kBlockMs, 2);
}

TEST_F(SoundCatchUpTest, LeavesOutOnceWhatNoTempoTakesAwayInTwoSeconds) {
    run(3000);
    run(3000, /*stands=*/true);
    run(100);
    EXPECT_NEAR(leftOut_, 3000 / kBlockMs, 3);
    EXPECT_LE(lagMs_, 2 * kBlockMs + 2);
    const int before = leftOut_;
    run(5000);
    EXPECT_EQ(leftOut_, before);
}

TEST_F(SoundCatchUpTest, LeavesOutAlsoWhatComesOneByOneInABurst) {
    mostPerMs_ = 1;
    for (const int ms : {2800, 2900, 3000, 3100, 3200}) {
        run(3000);
        leftOut_ = 0;
        run(ms, /*stands=*/true);
        run(300);
        EXPECT_NEAR(leftOut_, ms / kBlockMs, 10);
        EXPECT_LE(lagMs_, 2 * kBlockMs + 2);
    }
}

TEST_F(SoundCatchUpTest, TakesASmallerOneAwayByTempoInTwoSeconds) {
    for (const int ms : {60, 100, 140, 160}) {
        run(4000);
        const double usualMs = lagMs_;
        run(ms, /*stands=*/true);
        run(100);
        EXPECT_GT(lagMs_, usualMs + ms - 60);
        run(1900);
        EXPECT_LE(lagMs_, usualMs + 25);
        run(2000);
        EXPECT_LE(lagMs_, usualMs + 10);
    }
    EXPECT_EQ(leftOut_, 0);
}

TEST_F(SoundCatchUpTest, HurriesWhatTheOutputHoldsForNothing) {
    spareMs_ = [](int) { return 40; };
    run(3000);
    EXPECT_NEAR(catchUp_.fastest(), 1.04, 0.001);
    spareMs_ = [](int) { return 9; };
    run(3000);
    EXPECT_EQ(catchUp_.fastest(), 1);
    EXPECT_EQ(leftOut_, 0);
}

TEST_F(SoundCatchUpTest, SeesWithinASecondWhatStandsFromTheStartOn) {
    spareMs_ = [](int block) { return block < 3 ? 0 : 40; };  // the first ones fill the output
    run(800);
    EXPECT_NEAR(catchUp_.fastest(), 1.04, 0.001);
}

TEST_F(SoundCatchUpTest, LeavesInTheOutputWhatABlockThatComesLateNeeds) {
    spareMs_ = [](int block) { return block % 25 == 0 ? 5 : 40; };
    run(5000);
    EXPECT_EQ(catchUp_.fastest(), 1);
}

TEST_F(SoundCatchUpTest, LeavesItThereWhereBlocksComeLateNowAndThen) {
    for (int64_t block = 0; block < 500; ++block) {
        const bool isLate = block % 23 == 22;
        DecodedFrame frame;
        frame.pts = 40 * block;
        frame.queuedUs = us(static_cast<double>(frame.pts + (isLate ? 30 : 0)));
        EXPECT_TRUE(catchUp_.isWanted(frame, frame.queuedUs, 0, false, isLate ? 5000 : 40'000, kNoMaster));
        EXPECT_TRUE(block < 100 || catchUp_.fastest() == 1) << block;
    }
}

// The way from the source has become longer for good: nothing waits here.
TEST_F(SoundCatchUpTest, HurriesNothingThatIsLateByItself) {
    run(3000);
    const int before = played_;
    run(500, /*stands=*/true);
    madeMs_ += 500 / kBlockMs * kBlockMs;
    run(5000);
    EXPECT_NEAR(played_ - before, 5000 / kBlockMs, 3);
    nowMs_ += 300;
    freeMs_ = nowMs_;
    run(200);
    const int left = leftOut_;
    run(5000);
    EXPECT_EQ(leftOut_, left);
}

TEST_F(SoundCatchUpTest, LeavesOutNothingThatIsInStepWithItsMaster) {
    behindMasterMs_ = 0;
    run(3000);
    run(1000, /*stands=*/true);
    run(1000);
    EXPECT_EQ(leftOut_, 0);
    behindMasterMs_ = 900;
    run(100);
    EXPECT_GT(leftOut_, 30);
}

}  // namespace
}  // namespace kelp
