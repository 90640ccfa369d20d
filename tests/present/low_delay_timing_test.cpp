#include "present/low_delay_timing.h"

#include <gmock/gmock.h>

#include <functional>
#include <limits>
#include <utility>
#include <vector>

#include "present/fake_master.h"
#include "present/video_frames.h"
#include "support/log_capture.h"

namespace kelp {
namespace {

using test::FakeTime;
using test::kStart;
using testing::ElementsAre;

// Pictures one step at a time, as their play thread takes them. The source's clock reads 0 at the start.
class LowDelayTimingTest : public testing::Test {
protected:
    LowDelayTimingTest() { FakeTime::reset(kStart); }
    explicit LowDelayTimingTest(std::function<int64_t()> heardMs)
        : timing_([this] { return waiting_; }, std::move(heardMs)) {
        FakeTime::reset(kStart);
    }

    // The picture comes out of the decoder `atMs` behind the start. When it is due, from then on.
    double begin(int64_t pts, double atMs) {
        atMs_ = atMs;
        frame_ = test::makePicture(pts);
        frame_->queuedUs = us(atMs);
        FakeTime::setNowMs(kStart + static_cast<int64_t>(atMs));
        timing_.begin(*frame_, us(atMs));
        return static_cast<double>(timing_.leftUs(us(atMs))) / 1000;
    }
    // The same; whether it is shown then.
    bool show(int64_t pts, double atMs) {
        const double leftMs = begin(pts, atMs);
        const int64_t shownUs = us(atMs + std::max(0.0, leftMs));
        timing_.step(*frame_, 40, shownUs);
        if (timing_.isTooLate(*frame_)) {
            return false;
        }
        timing_.setDrawn(*frame_, shownUs);
        return true;
    }
    // Some seconds of 25 pictures, each of which takes `waysMs` and has `jitterMs` more in turn.
    void play(double waysMs, double jitterMs = 0) {
        for (int i = 0; i < 75; ++i) {
            pts_ += 40;
            EXPECT_TRUE(show(pts_, static_cast<double>(pts_) + waysMs + jitterMs * (i * 7 % 20) / 19));
        }
    }

    static int64_t us(double ms) { return kStart * 1000 + static_cast<int64_t>(ms * 1000); }

    int waiting_ = 1;
    LowDelayTiming timing_{[this] { return waiting_; }};
    std::shared_ptr<VideoFrameInfo> frame_;
    int64_t pts_ = 0;
    double atMs_ = 0;  // when the last picture came out of the decoder
};

// The same with sound, of which a picture's time is heard some milliseconds behind the picture.
class LowDelayTimingWithSoundTest : public LowDelayTimingTest {
protected:
    // Some seconds of it, by when the jitter is known.
    LowDelayTimingWithSoundTest() : LowDelayTimingTest([this] { return heardMs_; }) { play(60); }

    // How long the next picture waits that comes as the others do.
    double waitFor(double soundBehindMs) {
        const double readyMs = static_cast<double>(pts_ += 40) + 60;
        heardMs_ = pts_ - static_cast<int64_t>(soundBehindMs);
        return begin(pts_, readyMs);
    }

    int64_t heardMs_ = -1;
};

TEST_F(LowDelayTimingWithSoundTest, HoldsAPictureUntilItsSoundIsHeard) {
    EXPECT_EQ(waitFor(30), 25) << "5 ms nobody sees";
    EXPECT_EQ(waitFor(100), 95);
    EXPECT_EQ(waitFor(5), 0);
    EXPECT_EQ(waitFor(-50), 0) << "the sound waits for it, not it for the sound";
}

TEST_F(LowDelayTimingWithSoundTest, HoldsNoneForSoundThatIsTooFarBehindOrThatIsNone) {
    EXPECT_EQ(waitFor(110), 0);
    EXPECT_EQ(waitFor(3000), 0);
    heardMs_ = -1;
    pts_ += 40;
    EXPECT_EQ(begin(pts_, static_cast<double>(pts_) + 60), 0);
}

TEST_F(LowDelayTimingWithSoundTest, HoldsNoneForLongerThanThatIfTheSoundStands) {
    double waitedMs = 0;
    for (double leftMs = waitFor(60); leftMs > 0; leftMs = static_cast<double>(timing_.leftUs(us(atMs_))) / 1000) {
        waitedMs += leftMs;
        atMs_ += leftMs;
    }
    EXPECT_GT(waitedMs, 0);
    EXPECT_LE(waitedMs, 100);
}

// Sound that follows it would wait for itself, and never come back.
TEST_F(LowDelayTimingWithSoundTest, IsAClockOfPicturesThatDontWait) {
    const double waitedMs = waitFor(60);
    ASSERT_EQ(waitedMs, 55);
    FakeTime::advanceMs(55);
    const int64_t shownUs = us(atMs_ + waitedMs);
    heardMs_ = pts_ - 5;
    timing_.step(*frame_, 40, shownUs);
    EXPECT_FALSE(timing_.isTooLate(*frame_));
    timing_.setDrawn(*frame_, shownUs);
    EXPECT_EQ(timing_.clock().pts(), pts_);
    EXPECT_EQ(timing_.clock().read(), pts_ + 55);
}

TEST_F(LowDelayTimingWithSoundTest, IsAClockOfPicturesThatWaitForAnotherReason) {
    const auto keepFor = [this](int ms) {
        const double readyMs = static_cast<double>(pts_ += 40) + 60;
        frame_ = test::makePicture(pts_);
        frame_->queuedUs = us(readyMs);
        heardMs_ = pts_ + 30;
        FakeTime::setNowMs(kStart + static_cast<int64_t>(readyMs) + ms);
        const int64_t nowUs = us(readyMs + ms);
        timing_.begin(*frame_, nowUs);
        timing_.step(*frame_, 40, nowUs);
        timing_.setDrawn(*frame_, nowUs);
    };
    keepFor(70);
    EXPECT_EQ(timing_.clock().read(), pts_) << "for its turn";
    EXPECT_GT(waitFor(60), 0);
    timing_.setDrawn(*frame_, us(atMs_ + 55));
    timing_.setPaused(true);
    timing_.setPaused(false);
    keepFor(500);
    EXPECT_EQ(timing_.clock().read(), pts_) << "in a pause";
    timing_.follow(std::make_shared<test::FakeMaster>(pts_ + 40));
    EXPECT_EQ(waitFor(60), 0);
    timing_.setDrawn(*frame_, us(atMs_ + 30));
    EXPECT_EQ(timing_.clock().read(), pts_) << "for a clock";
}

TEST_F(LowDelayTimingTest, ShowsEachPictureAsItComesIfTheyComeEvenly) {
    for (int64_t pts = 0; pts < 2000; pts += 40) {
        ASSERT_EQ(begin(pts, static_cast<double>(pts) + 60), 0);
    }
}

TEST_F(LowDelayTimingTest, WaitsForNoLongerThanTheJitterAsksFor) {
    play(60, 20);
    EXPECT_NEAR(begin(pts_ + 40, static_cast<double>(pts_) + 40 + 60), 18, 2);
    EXPECT_NEAR(begin(pts_ + 80, static_cast<double>(pts_) + 80 + 80), -2, 2);
}

TEST_F(LowDelayTimingTest, ShowsALatePictureAtOnceIfItIsTheNewest) {
    play(60);
    EXPECT_TRUE(show(pts_ + 40, static_cast<double>(pts_) + 40 + 300));
    EXPECT_EQ(begin(pts_ + 80, static_cast<double>(pts_) + 80 + 60), 0) << "the next one isn't in time";
}

// 75 pictures come at once; the decoder takes 4 ms for each.
TEST_F(LowDelayTimingTest, CatchesUpWithABurstByShowingTheNewestPicture) {
    play(60);
    const double endMs = static_cast<double>(pts_) + 3000 + 60;
    std::vector<int64_t> shown;
    for (int i = 1; i <= 75; ++i) {
        waiting_ = 76 - i;
        pts_ += 40;
        if (show(pts_, endMs + i * 4)) {
            shown.push_back(3000 - i * 40);
        }
    }
    // Behind the first one there is one each 100 ms.
    EXPECT_THAT(shown, ElementsAre(2960, 1960, 960, 0));
    EXPECT_LE(begin(pts_ + 40, static_cast<double>(pts_) + 40 + 60), 0);
}

TEST_F(LowDelayTimingTest, LeavesOutNoneThatIsInTimeOrAloneOrPausedOrNotDecoded) {
    play(60);
    const auto isLeftOut = [this](double lateMs) {
        pts_ += 40;
        EXPECT_TRUE(show(pts_, static_cast<double>(pts_) + 60));
        return !show(pts_ + 40, static_cast<double>(pts_) + 40 + 60 + lateMs);
    };
    waiting_ = 2;
    EXPECT_FALSE(isLeftOut(39));
    EXPECT_TRUE(isLeftOut(41));
    test::LogCapture log;
    EXPECT_TRUE(isLeftOut(50));
    EXPECT_EQ(log.count("[VideoPlayThread]: skip draw too late frame"), 1);
    waiting_ = 1;
    EXPECT_FALSE(isLeftOut(50));
    waiting_ = 2;
    timing_.setPaused(true);
    EXPECT_FALSE(isLeftOut(50));
    timing_.setPaused(false);
    play(60);
    EXPECT_FALSE(timing_.isTooLate(*test::makePacketPicture(pts_)));
    EXPECT_TRUE(isLeftOut(50));
}

TEST_F(LowDelayTimingTest, FollowsAClockThatItIsGiven) {
    const auto clock = std::make_shared<test::FakeMaster>(-200, /*running=*/true);
    timing_.follow(clock);
    EXPECT_EQ(begin(0, 60), 140);
    EXPECT_EQ(begin(40, 300), -60);
    clock->set(-20'000);
    EXPECT_EQ(begin(80, 140), 0) << "it is too far away to mean anything";
    clock->threshold = std::numeric_limits<int64_t>::max();
    EXPECT_EQ(begin(120, 180), 19'940) << "from however far, if it is to be";
    timing_.follow(nullptr);
    EXPECT_EQ(begin(160, 220), 0);
}

TEST_F(LowDelayTimingTest, KnowsAWallClockThatWasSetBack) {
    play(60, 20);
    begin(pts_ + 40, static_cast<double>(pts_) + 40 + 60);
    EXPECT_FALSE(timing_.hasClockJumped(us(static_cast<double>(pts_) + 40)));
    EXPECT_TRUE(timing_.hasClockJumped(us(static_cast<double>(pts_) - 3'600'000)));
}

TEST_F(LowDelayTimingTest, IsAClockOfThePictureOnTheScreen) {
    play(60);
    FakeTime::setNowMs(kStart + pts_ + 60);
    EXPECT_EQ(timing_.clock().read(), pts_);
    FakeTime::advanceMs(500);
    EXPECT_EQ(timing_.clock().read(), pts_ + 500);
}

}  // namespace
}  // namespace kelp
