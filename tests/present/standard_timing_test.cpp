#include "present/standard_timing.h"

#include <gmock/gmock.h>

#include "present/fake_master.h"
#include "present/video_frames.h"
#include "support/log_capture.h"

namespace kelp {
namespace {

using test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

class StandardTimingDelay : public testing::Test {
protected:
    StandardTimingDelay() {
        test::FakeTime::reset(test::kStart);
        timing.follow(master);
    }

    // The corrected `delay` while the own clock runs `early` ahead of the master.
    int64_t corrected(int64_t delay, int64_t early) {
        constexpr int64_t kOwnPts = 50'000;
        timing.clock().set(kOwnPts, test::FakeTime::nowMs());
        master->set(kOwnPts - early);
        return timing.computeDelay(delay);
    }

    std::shared_ptr<test::FakeMaster> master = std::make_shared<test::FakeMaster>(0);
    StandardTiming timing{/*isLive=*/false, /*renderTiming=*/nullptr, [] { return 1; }};
};

TEST_F(StandardTimingDelay, StaysWithoutAMaster) {
    timing.follow(nullptr);
    LogCapture log;
    EXPECT_EQ(timing.computeDelay(40), 40);
    EXPECT_EQ(timing.computeDelay(-700), -700);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(StandardTimingDelay, StaysBelowAThresholdOfItsOwnSize) {
    EXPECT_EQ(corrected(40, 0), 40);
    EXPECT_EQ(corrected(40, -30), 40);
    EXPECT_EQ(corrected(40, -39), 40);
    EXPECT_EQ(corrected(40, 39), 40);
}

TEST_F(StandardTimingDelay, ShrinksByWhatVideoLagsButNotBelow0) {
    EXPECT_EQ(corrected(40, -40), 0);
    EXPECT_EQ(corrected(40, -50), 0);
    EXPECT_EQ(corrected(300, -100), 200);
    EXPECT_EQ(corrected(300, -500), 0);
    EXPECT_EQ(corrected(1000, -500), 500);
}

TEST_F(StandardTimingDelay, HasAThresholdFrom25To100) {
    EXPECT_EQ(corrected(10, -24), 10);
    EXPECT_EQ(corrected(10, -25), 0);
    EXPECT_EQ(corrected(10, 24), 10);
    EXPECT_EQ(corrected(10, 25), 20);
    EXPECT_EQ(corrected(0, 24), 0);
    EXPECT_EQ(corrected(300, -99), 300);
    EXPECT_EQ(corrected(300, 99), 300);
    EXPECT_EQ(corrected(300, 100), 600);
}

TEST_F(StandardTimingDelay, DoublesIfVideoIsAhead) {
    EXPECT_EQ(corrected(40, 40), 80);
    EXPECT_EQ(corrected(40, 150), 80);
    EXPECT_EQ(corrected(0, 150), 0);
    EXPECT_EQ(corrected(-40, 150), -80);
}

TEST_F(StandardTimingDelay, IsAllThatVideoIsAheadOfAForcingMaster) {
    master->forcing = true;
    EXPECT_EQ(corrected(40, 150), 150);
    EXPECT_EQ(corrected(0, 9999), 9999);
    EXPECT_EQ(corrected(40, 39), 40);
    EXPECT_EQ(corrected(40, -50), 0);
}

TEST_F(StandardTimingDelay, IsMinus1ForAFrameThatIsTooLate) {
    EXPECT_EQ(corrected(40, -600), -1);
    EXPECT_EQ(corrected(40, -501), -1);
    EXPECT_EQ(corrected(40, -500), 0);
    EXPECT_EQ(corrected(40, -9999), -1);
    EXPECT_EQ(corrected(-40, -600), -1);
}

TEST_F(StandardTimingDelay, GoesThroughNegative) {
    EXPECT_EQ(corrected(-40, 0), -40);
    EXPECT_EQ(corrected(-40, -30), 0);
}

TEST_F(StandardTimingDelay, StaysIfTheClocksAreTooFarApart) {
    LogCapture log;
    EXPECT_EQ(corrected(40, 10000), 40);
    EXPECT_EQ(corrected(40, -10000), 40);
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: diff:10000, no sync threshold:10000, out of sync...\n",
                                         "[VideoPlayThread]: diff:-10000, no sync threshold:10000, out of sync...\n"));
    EXPECT_EQ(corrected(40, 9999), 80);
}

TEST_F(StandardTimingDelay, TakesALargerThresholdOfTheMastersButNoSmallerOne) {
    master->threshold = 20000;
    EXPECT_EQ(corrected(40, 19999), 80);
    EXPECT_EQ(corrected(40, -19999), -1);
    EXPECT_EQ(corrected(40, 20000), 40);
    master->threshold = 3000;
    EXPECT_EQ(corrected(40, 9999), 80);
}

TEST_F(StandardTimingDelay, LogsACorrectionUnlessPaused) {
    LogCapture log;
    corrected(40, 30);
    EXPECT_THAT(log.lines(), IsEmpty());
    corrected(40, 150);
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: computeDelay, currentPts_:50000 curPts:50000, "
                                         "syncPts:49850, early:150, delay:40->80\n"));
    timing.setPaused(true);
    log.clear();
    corrected(40, 150);
    EXPECT_THAT(log.lines(), IsEmpty());
}

// Pictures without a window, one step at a time.
class StandardTimingSteps : public testing::Test {
protected:
    StandardTimingSteps() { test::FakeTime::reset(test::kStart); }

    // All steps of a picture that is drawn, begun and drawn at once at `nowMs` from the start.
    void draw(int64_t pts, int64_t nowMs) {
        const auto picture = test::makePicture(pts);
        const int64_t nowUs = (test::kStart + nowMs) * 1000;
        timing.begin(*picture, nowUs);
        timing.step(*picture, /*durationMs=*/40, nowUs);
        timing.setDrawn(*picture, nowUs);
    }
    // When a picture that begins at `nowMs` is due.
    int64_t dueOf(int64_t pts, int64_t nowMs) {
        timing.begin(*test::makePicture(pts), (test::kStart + nowMs) * 1000);
        return timing.dueMs() - test::kStart;
    }

    int queued = 2;
    int asked = 0;
    StandardTiming timing{/*isLive=*/false, /*renderTiming=*/nullptr, [this] {
                              ++asked;
                              return queued;
                          }};
};

TEST_F(StandardTimingSteps, MakeThePictureDueItsDistanceAfterTheOneBefore) {
    draw(1000, 0);
    EXPECT_EQ(dueOf(1040, 10), 40);
    EXPECT_EQ(timing.leftUs((test::kStart + 40) * 1000 - 1), 1);
    EXPECT_EQ(timing.leftUs((test::kStart + 40) * 1000), 0);
    EXPECT_EQ(dueOf(3000, 10), 1000);
    draw(1040, 40);
    EXPECT_EQ(dueOf(1080, 50), 80);
}

TEST_F(StandardTimingSteps, MakeTheFirstPictureDueAtOnceEvenIfItsTimeIsFarOff) {
    const auto master = std::make_shared<test::FakeMaster>(0);
    master->forcing = true;
    timing.follow(master);
    timing.clock().set(500, test::kStart);
    EXPECT_EQ(dueOf(500, 0), 500);
    EXPECT_EQ(timing.leftUs(test::kStart * 1000), 0);
    EXPECT_TRUE(timing.isHeld(*test::makePicture(500)));
    EXPECT_FALSE(timing.isHeld(*test::makePicture(499)));
    master->forcing = false;
    EXPECT_FALSE(timing.isHeld(*test::makePicture(500)));
}

TEST_F(StandardTimingSteps, StartAnewAfterARestart) {
    draw(0, 0);
    timing.restart();
    EXPECT_EQ(dueOf(9000, 17), 17);
}

TEST_F(StandardTimingSteps, SkipAPictureThatIsTooLateIfItIsNotTheLast) {
    draw(100, 0);
    test::LogCapture log;
    EXPECT_EQ(dueOf(101, 1), 1);
    EXPECT_FALSE(timing.isTooLate(*test::makePicture(101)));
    EXPECT_EQ(asked, 0);
    dueOf(60, 1);
    EXPECT_TRUE(timing.isTooLate(*test::makePicture(60)));
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: skip draw too late frame, pts 60, syncPts:-1\n"));
    EXPECT_FALSE(timing.isTooLate(*test::makePacketPicture(60)));
    queued = 1;
    EXPECT_FALSE(timing.isTooLate(*test::makePicture(60)));
    queued = 2;
    timing.setPaused(true);
    EXPECT_FALSE(timing.isTooLate(*test::makePicture(60)));
}

TEST_F(StandardTimingSteps, KnowAWallClockThatWasSet) {
    draw(0, 0);
    EXPECT_FALSE(timing.hasClockJumped((test::kStart + 5000) * 1000));
    EXPECT_TRUE(timing.hasClockJumped((test::kStart + 5001) * 1000));
    EXPECT_FALSE(timing.hasClockJumped((test::kStart - 5000) * 1000));
    EXPECT_TRUE(timing.hasClockJumped((test::kStart - 5001) * 1000));
    const auto master = std::make_shared<test::FakeMaster>(0);
    timing.follow(master);
    EXPECT_TRUE(timing.hasClockJumped((test::kStart + 5001) * 1000));
    master->forcing = true;
    EXPECT_FALSE(timing.hasClockJumped((test::kStart + 5001) * 1000));
}

}  // namespace
}  // namespace kelp
