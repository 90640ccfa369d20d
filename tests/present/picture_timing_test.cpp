#include "present/picture_timing.h"

#include <gmock/gmock.h>

#include "present/fake_master.h"
#include "support/log_capture.h"

namespace kelp {
namespace {

using test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

class PictureTimingDelay : public testing::Test {
protected:
    PictureTimingDelay() {
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
    PictureTiming timing{/*isLive=*/false, /*renderTiming=*/nullptr, [] { return 1; }};
};

TEST_F(PictureTimingDelay, StaysWithoutAMaster) {
    timing.follow(nullptr);
    LogCapture log;
    EXPECT_EQ(timing.computeDelay(40), 40);
    EXPECT_EQ(timing.computeDelay(-700), -700);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(PictureTimingDelay, StaysBelowAThresholdOfItsOwnSize) {
    EXPECT_EQ(corrected(40, 0), 40);
    EXPECT_EQ(corrected(40, -30), 40);
    EXPECT_EQ(corrected(40, -39), 40);
    EXPECT_EQ(corrected(40, 39), 40);
}

TEST_F(PictureTimingDelay, ShrinksByWhatVideoLagsButNotBelow0) {
    EXPECT_EQ(corrected(40, -40), 0);
    EXPECT_EQ(corrected(40, -50), 0);
    EXPECT_EQ(corrected(300, -100), 200);
    EXPECT_EQ(corrected(300, -500), 0);
    EXPECT_EQ(corrected(1000, -500), 500);
}

TEST_F(PictureTimingDelay, HasAThresholdFrom25To100) {
    EXPECT_EQ(corrected(10, -24), 10);
    EXPECT_EQ(corrected(10, -25), 0);
    EXPECT_EQ(corrected(10, 24), 10);
    EXPECT_EQ(corrected(10, 25), 20);
    EXPECT_EQ(corrected(0, 24), 0);
    EXPECT_EQ(corrected(300, -99), 300);
    EXPECT_EQ(corrected(300, 99), 300);
    EXPECT_EQ(corrected(300, 100), 600);
}

TEST_F(PictureTimingDelay, DoublesIfVideoIsAhead) {
    EXPECT_EQ(corrected(40, 40), 80);
    EXPECT_EQ(corrected(40, 150), 80);
    EXPECT_EQ(corrected(0, 150), 0);
    EXPECT_EQ(corrected(-40, 150), -80);
}

TEST_F(PictureTimingDelay, IsAllThatVideoIsAheadOfAForcingMaster) {
    master->forcing = true;
    EXPECT_EQ(corrected(40, 150), 150);
    EXPECT_EQ(corrected(0, 9999), 9999);
    EXPECT_EQ(corrected(40, 39), 40);
    EXPECT_EQ(corrected(40, -50), 0);
}

TEST_F(PictureTimingDelay, IsMinus1ForAFrameThatIsTooLate) {
    EXPECT_EQ(corrected(40, -600), -1);
    EXPECT_EQ(corrected(40, -501), -1);
    EXPECT_EQ(corrected(40, -500), 0);
    EXPECT_EQ(corrected(40, -9999), -1);
    EXPECT_EQ(corrected(-40, -600), -1);
}

TEST_F(PictureTimingDelay, GoesThroughNegative) {
    EXPECT_EQ(corrected(-40, 0), -40);
    EXPECT_EQ(corrected(-40, -30), 0);
}

TEST_F(PictureTimingDelay, StaysIfTheClocksAreTooFarApart) {
    LogCapture log;
    EXPECT_EQ(corrected(40, 10000), 40);
    EXPECT_EQ(corrected(40, -10000), 40);
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: diff:10000, no sync threshold:10000, out of sync...\n",
                                         "[VideoPlayThread]: diff:-10000, no sync threshold:10000, out of sync...\n"));
    EXPECT_EQ(corrected(40, 9999), 80);
}

TEST_F(PictureTimingDelay, TakesALargerThresholdOfTheMastersButNoSmallerOne) {
    master->threshold = 20000;
    EXPECT_EQ(corrected(40, 19999), 80);
    EXPECT_EQ(corrected(40, -19999), -1);
    EXPECT_EQ(corrected(40, 20000), 40);
    master->threshold = 3000;
    EXPECT_EQ(corrected(40, 9999), 80);
}

TEST_F(PictureTimingDelay, LogsACorrectionUnlessPaused) {
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

}  // namespace
}  // namespace kelp
