#include <limits>

#include "decode/audio_frame_info.h"
#include "present/video_play_fixture.h"

namespace kelp {
namespace {

using test::FakeTime;
using test::kStart;
using test::LogCapture;
using test::makePacketPicture;
using test::makePicture;
using test::Shown;
using testing::ElementsAre;
using testing::IsEmpty;
using Peer = VideoPlayThreadPeer;

using VideoPlayThreadTiming = test::VideoPlayFixture;

TEST_F(VideoPlayThreadTiming, DrawsFramesAsFarApartAsTheirTimes) {
    for (const int64_t pts : {0, 40, 80, 90, 190}) {
        EXPECT_TRUE(output(pts));
    }
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{40, 40}, Shown{80, 80}, Shown{90, 90}, Shown{190, 190}));
}

TEST_F(VideoPlayThreadTiming, DrawsTheLastPictureAgainEvery15MsWhileTheNextOneWaits) {
    output(0);
    output(40);
    // 15, 15 and the 10 that remain; no drawing ahead of a sleep of 15 or less.
    EXPECT_THAT(refreshes(), ElementsAre(Shown{0, 0}, Shown{0, 0}, Shown{15, 0}, Shown{40, 40}));
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(15, 15, 10));
    FakeTime::reset(FakeTime::nowMs());
    output(55);
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(15));
    EXPECT_EQ(renders.refreshes().size(), 5U);
}

TEST_F(VideoPlayThreadTiming, HoldsAJumpInTimeForASecondAtMost) {
    output(0);
    output(5000);
    output(6000);
    output(7001);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{1000, 5000}, Shown{2000, 6000}, Shown{3000, 7001}));
}

TEST_F(VideoPlayThreadTiming, DrawsTheFirstFrameAtOnceWhateverItsTime) {
    output(123456);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 123456}));
    EXPECT_EQ(FakeTime::sleepCount(), 0);
}

TEST_F(VideoPlayThreadTiming, DrawsTheFirstFrameAtOnceEvenAheadOfAForcingMaster) {
    follow(0)->forcing = true;
    LogCapture log;
    EXPECT_TRUE(output(499));
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 499}));
    EXPECT_EQ(FakeTime::sleepCount(), 0);
    // The wait of `early` was broken off: the timer is set back by it and moved on by one step.
    EXPECT_TRUE(
        log.has("[VideoPlayThread]: set nowMs to frameTimer_, 1000000 <-> 1000000 + 499, pts:499, dur:40, "
                "queue.size:0\n"));
    EXPECT_EQ(Peer::frameTimer(thread), kStart);
}

TEST_F(VideoPlayThreadTiming, DrawsTheFirstFrameAfterASeekWithoutWaiting) {
    output(0);
    thread.seek(5000, /*needFlush=*/true);
    Peer::seekStart(thread, 5000);
    output(5010);
    output(5050);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{0, 5010}, Shown{40, 5050}));
}

// A slide that stands for a second, and is looked up in its last tenth.
TEST_F(VideoPlayThreadTiming, GoesOnFromTheTargetOfAnExactSeek) {
    const auto master = follow(5900, /*running=*/true);
    Peer::seekStart(thread, 5900);
    Peer::land(thread, 5900, 5000);
    output(5000);
    EXPECT_EQ(thread.getCurrentTime(), 5900);
    output(5000);  // again, as in a pause
    EXPECT_EQ(thread.getCurrentTime(), 5900);
    output(6000);
    EXPECT_EQ(thread.getCurrentTime(), 6000);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 5000}, Shown{100, 6000}));
}

TEST_F(VideoPlayThreadTiming, ShowsThePictureOfAnExactSeekHoweverLateItIs) {
    follow(9000);
    queue(2);
    Peer::seekStart(thread, 5900);
    output(5000);
    EXPECT_THAT(pictures(), testing::IsEmpty());
    Peer::seekStart(thread, 5900);
    Peer::land(thread, 5900, 5000);
    output(5000);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 5000}));
}

TEST_F(VideoPlayThreadTiming, WaitsForAForcingMasterAfterASeek) {
    output(0);
    const auto master = follow(5000 - 300);
    master->forcing = true;
    thread.seek(5000, /*needFlush=*/true);
    Peer::seekStart(thread, 5000);
    output(5000);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{300, 5000}));
}

TEST_F(VideoPlayThreadTiming, RestartsTheTimerForAFrameAfterASeekThatAnOldFrameAnswered) {
    output(0);
    output(40);
    thread.seek(9000, /*needFlush=*/true);
    output(80);  // was on its way out when the seek came, and is at once
    Peer::seekStart(thread, 9000);
    output(9000);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{40, 40}, Shown{40, 80}, Shown{40, 9000}));
}

TEST_F(VideoPlayThreadTiming, LetsNoFrameFromBeforeASeekWaitForAForcingMaster) {
    output(0);
    output(40);
    follow(-8000)->forcing = true;
    thread.seek(9000, /*needFlush=*/true);
    output(80);  // takes the restart of the timer, and would wait for eight seconds
    EXPECT_EQ(elapsed(), 40);
}

TEST_F(VideoPlayThreadTiming, GoesOnWithTheTimerThroughAPause) {
    output(0);
    thread.pause(true);
    output(0);
    FakeTime::advanceMs(50);
    output(0);
    thread.pause(false);
    // A timer that a pause restarted would hold this frame until 90.
    output(40);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{50, 40}));
}

TEST_F(VideoPlayThreadTiming, DrawsAFrameEarlierByWhatVideoLags) {
    output(0);
    follow(30, /*running=*/true);
    output(100);  // lags by 30: no correction, the threshold is 100
    output(120);  // a threshold of 25 and a delay of 20 - 30
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{100, 100}, Shown{100, 120}));
}

TEST_F(VideoPlayThreadTiming, HoldsAFrameTwiceAsLongIfVideoIsAhead) {
    output(0);
    follow(-150, /*running=*/true);
    output(40);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{80, 40}));
}

TEST_F(VideoPlayThreadTiming, HoldsAFrameForAForcingMasterByAllThatVideoIsAhead) {
    output(0);
    follow(-150, /*running=*/true)->forcing = true;
    output(40);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{150, 40}));
}

TEST_F(VideoPlayThreadTiming, FollowsAnotherMasterFromTheNextFrameOn) {
    output(0);
    follow(-150, /*running=*/true);
    output(40);
    thread.setSyncObject(nullptr);
    output(80);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{80, 40}, Shown{120, 80}));
}

TEST_F(VideoPlayThreadTiming, BreaksAWaitOffWhenTheWallClockJumpsAhead) {
    output(0);
    LogCapture log;
    renders.onRefresh = [this](int64_t pts) {
        if (pts == 0 && elapsed() < 100) {
            FakeTime::advanceMs(6000);
        }
    };
    output(40);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{6000, 40}));
    EXPECT_TRUE(log.has("[VideoPlayThread]: abs(nowMs - frameTimer_) > 5000 : 6000\n"));
    // The timer moves in whole steps to just before now.
    EXPECT_TRUE(log.has("[VideoPlayThread]: delayCount:150 n:150\n"));
    EXPECT_EQ(Peer::frameTimer(thread), kStart + 6000);
}

TEST_F(VideoPlayThreadTiming, BreaksAWaitOffWhenTheWallClockJumpsBack) {
    output(0);
    LogCapture log;
    bool jumped = false;
    renders.onRefresh = [&](int64_t) {
        if (!jumped) {
            jumped = true;
            FakeTime::setNowMs(kStart - 5016);
        }
    };
    output(40);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{-5001, 40}));
    EXPECT_TRUE(log.has("[VideoPlayThread]: abs(nowMs - frameTimer_) > 5000 : 5001\n"));
    EXPECT_TRUE(
        log.has("[VideoPlayThread]: set nowMs to frameTimer_, 994999 <-> 1000000 + 40, pts:40, dur:40, "
                "queue.size:0\n"));
    EXPECT_EQ(Peer::frameTimer(thread), kStart - 5001);
}

TEST_F(VideoPlayThreadTiming, BreaksAWaitOffForAJumpUnderAMasterThatDoesNotForce) {
    output(0);
    follow(0, /*running=*/true);
    bool jumped = false;
    renders.onRefresh = [&](int64_t) {
        if (!jumped) {
            jumped = true;
            FakeTime::setNowMs(kStart - 5016);
        }
    };
    output(40);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{-5001, 40}));
}

TEST_F(VideoPlayThreadTiming, WaitsOnWhenTheWallClockJumpsBackBy5000) {
    output(0);
    bool jumped = false;
    renders.onRefresh = [&](int64_t) {
        if (!jumped) {
            jumped = true;
            FakeTime::setNowMs(kStart - 5015);
        }
    };
    output(40);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{40, 40}));
}

TEST_F(VideoPlayThreadTiming, WaitsForAForcingMasterHoweverTheWallClockJumps) {
    output(0);
    follow(-100, /*running=*/true)->forcing = true;
    LogCapture log;
    bool jumped = false;
    renders.onRefresh = [&](int64_t) {
        if (!jumped) {
            jumped = true;
            FakeTime::setNowMs(kStart - 8000);
        }
    };
    output(40);
    // The master runs by the same clock: the frame is far ahead of it at the end of the wait, but not by 500.
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{100, 40}));
    EXPECT_FALSE(log.has("abs(nowMs"));
}

TEST_F(VideoPlayThreadTiming, BreaksAWaitOffForASeek) {
    output(0);
    renders.onRefresh = [this](int64_t) {
        if (elapsed() == 15) {
            thread.seek(3000, /*needFlush=*/true);
        }
    };
    output(900);
    EXPECT_EQ(elapsed(), 15);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{15, 900}));
}

TEST_F(VideoPlayThreadTiming, DrawsNothingOnceAStopIsRequested) {
    output(0);
    renders.onRefresh = [this](int64_t) {
        if (elapsed() == 15) {
            thread.stop();
        }
    };
    EXPECT_TRUE(output(900));
    EXPECT_EQ(elapsed(), 15);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}));
    EXPECT_EQ(thread.getCurrentTime(), 0);
}

TEST_F(VideoPlayThreadTiming, CatchesUpInWholeStepsAfterAStall) {
    output(0);
    FakeTime::advanceMs(130);
    LogCapture log;
    output(40);
    EXPECT_TRUE(log.has("[VideoPlayThread]: delayCount:3 n:3\n"));
    EXPECT_EQ(Peer::frameTimer(thread), kStart + 120);
    output(80);
    output(120);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{130, 40}, Shown{160, 80}, Shown{200, 120}));
}

TEST_F(VideoPlayThreadTiming, MovesTheTimerByOneStepForAFrameOnTime) {
    output(0);
    LogCapture log;
    FakeTime::advanceMs(79);
    output(40);
    EXPECT_EQ(Peer::frameTimer(thread), kStart + 40);
    EXPECT_FALSE(log.has("delayCount"));
}

TEST_F(VideoPlayThreadTiming, LeavesTheTimerWhereItIsForADelayOf0OrLess) {
    output(1000);
    FakeTime::advanceMs(70);
    output(1000);
    EXPECT_EQ(Peer::frameTimer(thread), kStart);
    output(960);
    EXPECT_EQ(Peer::frameTimer(thread), kStart);
    EXPECT_EQ(elapsed(), 70);
}

TEST_F(VideoPlayThreadTiming, TakesTheStepFromTheCorrectedDelay) {
    output(0);
    follow(-150, /*running=*/true);
    output(40);
    EXPECT_EQ(Peer::frameTimer(thread), kStart + 80);
}

TEST_F(VideoPlayThreadTiming, LogsALateFrameIfThereIsAMaster) {
    output(0);
    follow(0, /*running=*/true);
    FakeTime::advanceMs(60);
    LogCapture log;
    output(40);
    EXPECT_FALSE(log.has("nowMs:"));  // 20 late is not late
    FakeTime::advanceMs(41);
    output(80);  // own clock at 101 - 20, so that it lags by 20
    EXPECT_TRUE(
        log.has("[VideoPlayThread]: nowMs:1000101, frameTimer_:1000040, delay:40, n-f:61, video.syncPts:81, "
                "master.syncPts:101, diff_pts:40, currentPts_:40, paused:0, hadOutput:1\n"));
    log.clear();
    thread.pause(true);
    FakeTime::advanceMs(100);
    output(120);
    EXPECT_FALSE(log.has("nowMs:"));
}

TEST_F(VideoPlayThreadTiming, LogsNoLateFrameWithoutAMaster) {
    output(0);
    FakeTime::advanceMs(500);
    LogCapture log;
    output(40);
    EXPECT_FALSE(log.has("nowMs:"));
}

TEST_F(VideoPlayThreadTiming, DropsAFrameOfAnotherClass) {
    EXPECT_TRUE(output(std::make_shared<AudioFrameInfo>()));
    EXPECT_TRUE(output(std::shared_ptr<DecodedFrame>()));
    EXPECT_THAT(renders.calls(), IsEmpty());
    EXPECT_EQ(thread.getSyncPts(), 0);
}

TEST_F(VideoPlayThreadTiming, SkipsAFrameThatIsTooLate) {
    output(0);
    follow(600);
    queue(2);
    LogCapture log;
    EXPECT_TRUE(output(40));
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}));
    EXPECT_TRUE(log.has("[VideoPlayThread]: skip draw too late frame, pts 40, syncPts:600\n"));
    // The position goes on all the same.
    EXPECT_EQ(thread.getCurrentTime(), 40);
    EXPECT_EQ(thread.getSyncPts(), 40);
}

TEST_F(VideoPlayThreadTiming, DrawsALateFrameIfItIsTheLast) {
    output(0);
    follow(600);
    queue(1);
    FakeTime::advanceMs(10);
    output(40);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{10, 40}));
    EXPECT_EQ(Peer::frameTimer(thread), kStart);  // its delay of -1 moves no timer
}

TEST_F(VideoPlayThreadTiming, SkipsNoPassThroughFrame) {
    output(0);
    follow(600);
    queue(2);
    output(makePacketPicture(40));
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{0, 40}));
}

TEST_F(VideoPlayThreadTiming, SkipsNoFrameWhilePaused) {
    output(0);
    follow(600);
    queue(2);
    thread.pause(true);
    output(40);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{0, 40}));
}

TEST_F(VideoPlayThreadTiming, SkipsAFrameThatGoesBackInTime) {
    output(100);
    queue(2);
    LogCapture log;
    output(60);
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 100}));
    EXPECT_TRUE(log.has("skip draw too late frame, pts 60, syncPts:-1\n"));
    output(60);  // a distance of 0 from the one before
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 100}, Shown{0, 60}));
}

TEST_F(VideoPlayThreadTiming, HoldsAFrame500MsAheadOfAForcingMaster) {
    output(0);
    const auto master = follow(0);
    master->forcing = true;
    const auto frame = makePicture(500);
    EXPECT_FALSE(output(frame));
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}));
    EXPECT_EQ(renders.refreshes().back(), (Shown{kStart + 500, 0}));  // the last picture stays up
    EXPECT_EQ(thread.getCurrentTime(), 500);                          // the position moves all the same

    EXPECT_FALSE(output(frame));
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}));

    master->set(1);
    EXPECT_TRUE(output(frame));
    EXPECT_EQ(pictures().size(), 2U);
    EXPECT_EQ(pictures().back().pts, 500);
}

TEST_F(VideoPlayThreadTiming, HoldsTheVeryFirstFrame500MsAheadOfAForcingMaster) {
    const auto master = follow(0);
    master->forcing = true;
    const auto frame = makePicture(500);
    EXPECT_FALSE(output(frame));
    EXPECT_EQ(FakeTime::sleepCount(), 0);
    EXPECT_THAT(renders.calls(), ElementsAre("1 init type:1 window:0x1 640x480 fps:0", "1 refresh"));
    EXPECT_THAT(observer->firstFrames(), ElementsAre(500));
    EXPECT_EQ(thread.getCurrentTime(), 500);
    // A frame like any other from here on: it waits for all that the clock is ahead by.
    FakeTime::advanceMs(50);
    master->set(1);
    EXPECT_TRUE(output(frame));
    EXPECT_THAT(pictures(), ElementsAre(Shown{549, 500}));
    EXPECT_THAT(observer->firstFrames(), ElementsAre(500));
}

TEST_F(VideoPlayThreadTiming, DrawsAFrameFarAheadOfAMasterThatDoesNotForce) {
    output(0);
    follow(0);
    EXPECT_TRUE(output(900));
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{900, 900}));
}

TEST_F(VideoPlayThreadTiming, ReportsTheFirstFrameOnce) {
    output(2000);
    output(2040);
    EXPECT_THAT(observer->firstFrames(), ElementsAre(2000));
}

TEST_F(VideoPlayThreadTiming, ReportsTheFirstFrameAgainIfItsTimeIsTheTimeOfDay) {
    output(kStart);  // an offset of 0 stands for no time yet
    EXPECT_EQ(thread.getSyncPts(), 0);
    output(kStart + 40);
    FakeTime::advanceMs(1);
    output(kStart + 40);
    EXPECT_THAT(observer->firstFrames(), ElementsAre(kStart, kStart + 40, kStart + 40));
}

TEST_F(VideoPlayThreadTiming, PlaysWithoutAnObserver) {
    VideoPlayThread alone(/*isLive=*/false, nullptr);
    EXPECT_TRUE(Peer::output(alone, makePicture(7)));
    Peer::seekFinish(alone, 8);
    EXPECT_EQ(alone.getCurrentTime(), 7);
}

TEST_F(VideoPlayThreadTiming, IsAClockThatRunsOnBetweenPictures) {
    EXPECT_EQ(thread.getSyncPts(), 0);
    EXPECT_EQ(thread.getCurrentTime(), 0);
    output(3000);
    FakeTime::advanceMs(25);
    EXPECT_EQ(thread.getSyncPts(), 3025);
    EXPECT_EQ(thread.getCurrentTime(), 3000);
    SyncObject& clock = thread;
    EXPECT_EQ(clock.getNoSyncThreshold(), 10000);
    EXPECT_FALSE(clock.isForceSync());
}

TEST_F(VideoPlayThreadTiming, StandsAtTheTargetFromTheStartOfASeek) {
    output(0);
    FakeTime::advanceMs(500);
    LogCapture log;
    Peer::seekStart(thread, 7000);
    EXPECT_EQ(thread.getCurrentTime(), 7000);
    FakeTime::advanceMs(10);
    EXPECT_EQ(thread.getSyncPts(), 7010);
    EXPECT_THAT(log.lines(), ElementsAre("[VideoPlayThread]: onSeekStart, seekTimeMs:7000\n"));
}

TEST_F(VideoPlayThreadTiming, ReportsTheFirstFrameOfEachSeek) {
    LogCapture log;
    Peer::seekFinish(thread, 7010);
    Peer::seekFinish(thread, 8010);
    EXPECT_THAT(observer->firstFrames(), ElementsAre(7010, 8010));
    EXPECT_EQ(log.lines().front(), "[VideoPlayThread]: onSeekFinish, seekTimeMs:7010\n");
}

TEST_F(VideoPlayThreadTiming, TakesAnyTimes) {
    constexpr auto kMin = std::numeric_limits<int64_t>::min();
    constexpr auto kMax = std::numeric_limits<int64_t>::max();
    for (const bool forcing : {false, true}) {
        const auto master = follow(0);
        master->threshold = kMax;
        for (const int64_t masterPts : {kMin, int64_t{0}, kMax}) {
            master->set(masterPts);
            master->forcing = forcing;
            renders.onRefresh = [&](int64_t) { master->forcing = false; };  // let nothing wait for ages
            for (const int64_t pts : {kMin, int64_t{40}, kMax, kMin, kMax, int64_t{0}}) {
                output(pts);
                EXPECT_EQ(thread.getCurrentTime(), pts);
            }
        }
    }
}

TEST_F(VideoPlayThreadTiming, CountsWhatBecomesOfEachPicture) {
    const auto first = makePicture(0);
    output(first);
    EXPECT_EQ(thread.counts().shown.read(), 1);
    EXPECT_EQ(thread.counts().aheadOfMasterMs.read(), 0);
    thread.pause(true);
    output(first);  // painted again
    thread.pause(false);
    EXPECT_EQ(thread.counts().shown.read(), 1);

    const auto master = follow(600);
    queue(2);
    output(40);
    EXPECT_EQ(thread.counts().late.read(), 1);
    EXPECT_EQ(thread.counts().shown.read(), 1);
    EXPECT_EQ(thread.counts().aheadOfMasterMs.read(), -600);

    master->set(-1000);
    master->forcing = true;
    EXPECT_FALSE(output(80));
    EXPECT_EQ(thread.counts().repeated.read(), 1);
    EXPECT_EQ(thread.counts().shown.read(), 1);
    master->set(80);
    EXPECT_TRUE(output(80));
    EXPECT_EQ(thread.counts().shown.read(), 2);
}

TEST_F(VideoPlayThreadTiming, TellsHowManyPicturesWait) {
    thread.fillFrame(makePicture(0));
    thread.fillFrame(makePicture(40));
    thread.fillFrame(makePicture(80));
    EXPECT_EQ(thread.level().count(), 3);
    EXPECT_EQ(thread.level().durationMs(), 80);
    thread.clearBuffer(40);
    EXPECT_EQ(thread.level().count(), 2);
    EXPECT_EQ(thread.level().durationMs(), 40);
    thread.seek(0, /*needFlush=*/true);
    EXPECT_EQ(thread.level().count(), 0);
    EXPECT_EQ(thread.level().durationMs(), 0);
}

}  // namespace
}  // namespace kelp
