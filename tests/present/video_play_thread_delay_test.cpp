#include "present/video_play_fixture.h"

namespace kelp {
namespace {

using test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;
using Peer = VideoPlayThreadPeer;

class VideoPlayThreadDelay : public test::VideoPlayFixture {
protected:
    // The corrected `delay` while the thread's own clock runs `early` ahead of the master.
    int64_t corrected(int64_t delay, int64_t early) {
        constexpr int64_t kOwnPts = 50'000;
        Peer::setClock(thread, kOwnPts);
        master->set(kOwnPts - early);
        return Peer::computeDelay(thread, delay);
    }

    std::shared_ptr<test::FakeMaster> master = follow(0);
};

TEST_F(VideoPlayThreadDelay, StaysWithoutAMaster) {
    thread.setSyncObject(nullptr);
    LogCapture log;
    EXPECT_EQ(Peer::computeDelay(thread, 40), 40);
    EXPECT_EQ(Peer::computeDelay(thread, -700), -700);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(VideoPlayThreadDelay, StaysBelowAThresholdOfItsOwnSize) {
    EXPECT_EQ(corrected(40, 0), 40);
    EXPECT_EQ(corrected(40, -30), 40);
    EXPECT_EQ(corrected(40, -39), 40);
    EXPECT_EQ(corrected(40, 39), 40);
}

TEST_F(VideoPlayThreadDelay, ShrinksByWhatVideoLagsButNotBelow0) {
    EXPECT_EQ(corrected(40, -40), 0);
    EXPECT_EQ(corrected(40, -50), 0);
    EXPECT_EQ(corrected(300, -100), 200);
    EXPECT_EQ(corrected(300, -500), 0);
    EXPECT_EQ(corrected(1000, -500), 500);
}

TEST_F(VideoPlayThreadDelay, HasAThresholdFrom25To100) {
    EXPECT_EQ(corrected(10, -24), 10);
    EXPECT_EQ(corrected(10, -25), 0);
    EXPECT_EQ(corrected(10, 24), 10);
    EXPECT_EQ(corrected(10, 25), 20);
    EXPECT_EQ(corrected(0, 24), 0);
    EXPECT_EQ(corrected(300, -99), 300);
    EXPECT_EQ(corrected(300, 99), 300);
    EXPECT_EQ(corrected(300, 100), 600);
}

TEST_F(VideoPlayThreadDelay, DoublesIfVideoIsAhead) {
    EXPECT_EQ(corrected(40, 40), 80);
    EXPECT_EQ(corrected(40, 150), 80);
    EXPECT_EQ(corrected(0, 150), 0);
    EXPECT_EQ(corrected(-40, 150), -80);
}

TEST_F(VideoPlayThreadDelay, IsAllThatVideoIsAheadOfAForcingMaster) {
    master->forcing = true;
    EXPECT_EQ(corrected(40, 150), 150);
    EXPECT_EQ(corrected(0, 9999), 9999);
    EXPECT_EQ(corrected(40, 39), 40);
    EXPECT_EQ(corrected(40, -50), 0);
}

TEST_F(VideoPlayThreadDelay, IsMinus1ForAFrameThatIsTooLate) {
    EXPECT_EQ(corrected(40, -600), -1);
    EXPECT_EQ(corrected(40, -501), -1);
    EXPECT_EQ(corrected(40, -500), 0);
    EXPECT_EQ(corrected(40, -9999), -1);
    EXPECT_EQ(corrected(-40, -600), -1);
}

TEST_F(VideoPlayThreadDelay, GoesThroughNegative) {
    EXPECT_EQ(corrected(-40, 0), -40);
    EXPECT_EQ(corrected(-40, -30), 0);
}

TEST_F(VideoPlayThreadDelay, StaysIfTheClocksAreTooFarApart) {
    LogCapture log;
    EXPECT_EQ(corrected(40, 10000), 40);
    EXPECT_EQ(corrected(40, -10000), 40);
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: diff:10000, no sync threshold:10000, out of sync...\n",
                                         "[VideoPlayThread]: diff:-10000, no sync threshold:10000, out of sync...\n"));
    EXPECT_EQ(corrected(40, 9999), 80);
}

TEST_F(VideoPlayThreadDelay, TakesALargerThresholdOfTheMastersButNoSmallerOne) {
    master->threshold = 20000;
    EXPECT_EQ(corrected(40, 19999), 80);
    EXPECT_EQ(corrected(40, -19999), -1);
    EXPECT_EQ(corrected(40, 20000), 40);
    master->threshold = 3000;
    EXPECT_EQ(corrected(40, 9999), 80);
}

TEST_F(VideoPlayThreadDelay, LogsACorrectionUnlessPaused) {
    LogCapture log;
    corrected(40, 30);
    EXPECT_THAT(log.lines(), IsEmpty());
    corrected(40, 150);
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: computeDelay, currentPts_:50000 curPts:50000, "
                                         "syncPts:49850, early:150, delay:40->80\n"));
    thread.pause(true);
    log.clear();
    corrected(40, 150);
    EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace
}  // namespace kelp
