// Seeks of a play thread, with the standard rule and exact ones: which frame is the target, and what is skipped.

#include <atomic>
#include <chrono>
#include <thread>

#include "present/base_play_thread_fixture.h"
#include "support/log_capture.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;

TEST_F(BasePlayThreadTest, AFrameIsTheTargetUpToItsLastMillisecond) {
    {
        RecordingPlayThread thread;
        thread.fillFrame(makePlayFrame(1000, 40));
        thread.seek(1039, /*needFlush=*/false);
        LogCapture log;
        thread.start();
        ASSERT_TRUE(thread.waitFor("out 1000"));
        EXPECT_THAT(thread.events(), ElementsAre("start 1039", "finish 1000", "out 1000"));
        EXPECT_TRUE(
            log.has("[BasePlayThread]: [RecordingThread], Run, finish skip frame, skip count:0, pts:1000, duration:40, "
                    "seekTime:1039, skipLimit:1039, left q.size:1\n"));
    }
    {
        RecordingPlayThread thread;
        thread.fillFrame(makePlayFrame(1000, 40));
        thread.seek(1040, /*needFlush=*/false);
        thread.start();
        ASSERT_TRUE(thread.waitFor("idle"));
        EXPECT_THAT(thread.events(), ElementsAre("start 1040"));
        EXPECT_EQ(thread.getFrameQueueSize(), 0);
    }
}

TEST_F(BasePlayThreadTest, AFrameWithoutDurationIsTheTargetAtItsOwnTime) {
    RecordingPlayThread thread;
    thread.fillFrame(makePlayFrame(1000, 0));
    thread.seek(1000, /*needFlush=*/false);
    thread.start();
    ASSERT_TRUE(thread.waitFor("out 1000"));
    EXPECT_THAT(thread.events(), ElementsAre("start 1000", "finish 1000", "out 1000"));
}

TEST_F(BasePlayThreadTest, ASeekStaysOpenUntilAFrameReachesTheTarget) {
    RecordingPlayThread thread;
    thread.fill({0, 40, 80});
    thread.seek(1000, /*needFlush=*/false);
    LogCapture log;
    thread.start();
    ASSERT_TRUE(thread.waitFor("idle"));
    EXPECT_THAT(thread.events(), ElementsAre("start 1000"));
    EXPECT_EQ(thread.getFrameQueueSize(), 0);
    // No rest on the way to the target: it would be one for each frame.
    EXPECT_THAT(FakeTime::sleeps(), testing::IsEmpty());
    thread.fill({990});
    ASSERT_TRUE(thread.waitFor("out 990"));
    EXPECT_THAT(thread.events(), ElementsAre("start 1000", "finish 990", "out 990"));
    EXPECT_TRUE(log.has("skip count:3, pts:990, "));
}

TEST_F(BasePlayThreadTest, ATargetBehindTheEndEndsAtTheLastFrameKnown) {
    RecordingPlayThread thread;
    thread.setMaxPtsMs(8000);
    thread.fill({7920, 7960, 8000});
    thread.seek(10000, /*needFlush=*/false);
    LogCapture log;
    thread.start();
    ASSERT_TRUE(thread.waitFor("out 8000"));
    EXPECT_THAT(thread.events(), ElementsAre("start 10000", "finish 8000", "out 8000"));
    EXPECT_TRUE(log.has("skip count:2, pts:8000, duration:40, seekTime:10000, skipLimit:8000, left q.size:1\n"));
}

TEST_F(BasePlayThreadTest, WithoutAMaximumTheTargetAloneCounts) {
    for (const int maximum : {0, -1, 20000}) {
        RecordingPlayThread thread;
        thread.setMaxPtsMs(maximum);
        thread.fill({7960, 8000});
        thread.seek(10000, /*needFlush=*/false);
        thread.start();
        ASSERT_TRUE(thread.waitFor("idle"));
        thread.fill({10000});
        ASSERT_TRUE(thread.waitFor("out 10000"));
        EXPECT_THAT(thread.events(), ElementsAre("start 10000", "finish 10000", "out 10000")) << maximum;
    }
}

TEST_F(BasePlayThreadTest, TheMaximumMayComeWhileFramesAreSkipped) {
    RecordingPlayThread thread;
    thread.fill({7960});
    thread.seek(10000, /*needFlush=*/false);
    thread.start();
    ASSERT_TRUE(thread.waitFor("idle"));
    thread.setMaxPtsMs(8000);
    thread.fill({8000});
    ASSERT_TRUE(thread.waitFor("out 8000"));
    EXPECT_THAT(thread.events(), ElementsAre("start 10000", "finish 8000", "out 8000"));
}

TEST_F(BasePlayThreadTest, ClearBufferLeavesTheSkipCountAlone) {
    RecordingPlayThread thread;
    thread.fill({0, 40, 80});
    thread.seek(80, /*needFlush=*/false);
    EXPECT_TRUE(thread.clearBuffer(40));
    LogCapture log;
    thread.start();
    ASSERT_TRUE(thread.waitFor("out 80"));
    EXPECT_TRUE(log.has("skip count:1, pts:80, "));
}

TEST_F(BasePlayThreadTest, ASecondSeekStartsOver) {
    RecordingPlayThread thread;
    thread.fill({0, 40});
    thread.seek(1000, /*needFlush=*/false);
    LogCapture log;
    thread.start();
    ASSERT_TRUE(thread.waitFor("idle"));
    thread.seek(500, /*needFlush=*/true);
    ASSERT_TRUE(thread.waitFor("start 500"));
    thread.fill({400, 500, 540});
    ASSERT_TRUE(thread.waitFor("out 540"));
    EXPECT_THAT(thread.events(), ElementsAre("start 1000", "start 500", "finish 500", "out 500", "out 540"));
    EXPECT_TRUE(log.has("skip count:1, pts:500, "));
}

TEST_F(BasePlayThreadTest, ASeekThatComesDuringAStartGetsAStartOfItsOwn) {
    RecordingPlayThread thread;
    thread.seekStart = [&](int target) {
        if (target == 1000) {
            thread.seek(80, /*needFlush=*/false);
        }
    };
    thread.fill({0, 40, 80, 120});
    thread.seek(1000, /*needFlush=*/false);
    thread.start();
    ASSERT_TRUE(thread.waitFor("out 120"));
    EXPECT_THAT(thread.events(), ElementsAre("start 1000", "start 80", "finish 80", "out 80", "out 120"));
}

TEST_F(BasePlayThreadTest, ASeekThatComesAsAnotherFinishesIsNotLost) {
    RecordingPlayThread thread;
    std::thread seeker;
    thread.seekFinish = [&](int pts) {
        if (pts == 40) {
            // Blocks on the queue, which is locked here.
            seeker = std::thread([&] { thread.seek(120, /*needFlush=*/false); });
        }
    };
    thread.output = [&](int64_t pts) {
        if (pts == 40) {
            seeker.join();
        }
        return true;
    };
    thread.fill({0, 40, 80, 120});
    thread.seek(40, /*needFlush=*/false);
    thread.start();
    ASSERT_TRUE(thread.waitFor("out 120"));
    EXPECT_THAT(thread.events(), ElementsAre("start 40", "finish 40", "out 40", "start 120", "finish 120", "out 120"));
}

// Exact seeks.

class ExactPlayThread : public RecordingPlayThread {
public:
    explicit ExactPlayThread(Idle idleMode = Idle::Served) : RecordingPlayThread(/*keepFrames=*/0, idleMode) {
        setSeekRule(SeekRule::Exact);
    }
    ~ExactPlayThread() override { stop(); }  // before it becomes what it derives from
};

TEST_F(BasePlayThreadTest, AnExactSeekHoldsAFrameBackUntilTheNextOneTells) {
    for (const auto idle : {BasePlayThread::Idle::Served, BasePlayThread::Idle::Asleep}) {
        ExactPlayThread thread(idle);
        thread.seek(1900, /*needFlush=*/true);
        thread.start();
        ASSERT_TRUE(thread.waitFor("start 1900"));
        thread.fill({0});
        thread.fill({1000});
        // For real: nothing is to happen.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_THAT(thread.events(), ElementsAre("start 1900"));
        EXPECT_EQ(thread.getFrameQueueSize(), 1) << "there is room for the next one";
        thread.fill({2000});
        ASSERT_TRUE(thread.waitFor("out 2000"));
        EXPECT_THAT(thread.events(), ElementsAre("start 1900", "finish 1000", "out 1000", "out 2000"));
    }
}

TEST_F(BasePlayThreadTest, AnExactSeekWaitsForNoOtherFrameWhereItIsKnownThatNoneComesInTime) {
    ExactPlayThread thread(BasePlayThread::Idle::Asleep);
    thread.seek(1900, /*needFlush=*/true);
    thread.start();
    const auto frame = makePlayFrame(1000);
    frame->lastsToMs = 1900;
    thread.fillFrame(frame);
    ASSERT_TRUE(thread.waitFor("out 1000"));
    EXPECT_THAT(thread.events(), ElementsAre("start 1900", "finish 1000", "out 1000"));
}

TEST_F(BasePlayThreadTest, AnExactSeekEndsWithTheLastFrameWhereTheFramesEnd) {
    for (const auto idle : {BasePlayThread::Idle::Served, BasePlayThread::Idle::Asleep}) {
        ExactPlayThread thread(idle);
        thread.endFrames();  // of before the seek
        thread.seek(9000, /*needFlush=*/true);
        thread.start();
        ASSERT_TRUE(thread.waitFor("start 9000"));
        thread.endFrames();  // and before more frames, as of another track
        thread.fill({7000});
        thread.fill({8000});
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_THAT(thread.events(), ElementsAre("start 9000"));
        thread.endFrames();
        ASSERT_TRUE(thread.waitFor("out 8000"));
        EXPECT_THAT(thread.events(), ElementsAre("start 9000", "finish 8000", "out 8000"));
    }
}

TEST_F(BasePlayThreadTest, AnExactSeekEndsWithTheFirstFrameIfAllAreBehindTheTarget) {
    ExactPlayThread thread;
    thread.fill({500, 540});
    thread.seek(100, /*needFlush=*/false);
    thread.start();
    ASSERT_TRUE(thread.waitFor("out 540"));
    EXPECT_THAT(thread.events(), ElementsAre("start 100", "finish 500", "out 500", "out 540"));
}

// A frame that was on its way when the seek came takes none with it from behind the seek.
TEST_F(BasePlayThreadTest, AnExactSeekLosesNoFrameToTheOneThatIsPresented) {
    ExactPlayThread thread;
    thread.output = [&](int64_t pts) {
        if (pts == 0) {
            thread.seek(1000, /*needFlush=*/true);
            thread.fill({1000, 1040});
        }
        return true;
    };
    thread.fill({0});
    thread.start();
    ASSERT_TRUE(thread.waitFor("out 1040"));
    EXPECT_THAT(thread.events(), ElementsAre("out 0", "start 1000", "finish 1000", "out 1000", "out 1040"));
}

// The frame that is presented may hold the target itself.
TEST_F(BasePlayThreadTest, AnExactSeekInTheQueueEndsWithTheFrameThatIsPresented) {
    ExactPlayThread thread;
    std::atomic<int> found{0};
    thread.output = [&](int64_t pts) {
        if (pts == 1000 && found == 0) {
            EXPECT_TRUE(thread.holdsFrom(1000));
            EXPECT_TRUE(thread.seekInQueue(1900, [&] { ++found; }));
        }
        return true;
    };
    thread.fill({1000, 2000});
    thread.start();
    ASSERT_TRUE(thread.waitFor("out 2000"));
    EXPECT_THAT(thread.events(), ElementsAre("out 1000", "start 1900", "finish 1000", "out 1000", "out 2000"));
    EXPECT_EQ(found, 1);
}

TEST_F(BasePlayThreadTest, SeeksInTheQueueIfAFrameBeginsInTime) {
    RecordingPlayThread thread;
    const auto never = [] { ADD_FAILURE(); };
    EXPECT_FALSE(thread.holdsFrom(0));
    EXPECT_FALSE(thread.seekInQueue(0, never));
    thread.fill({1000, 1040});
    EXPECT_FALSE(thread.holdsFrom(999));
    EXPECT_FALSE(thread.seekInQueue(999, never));
    EXPECT_TRUE(thread.holdsFrom(1000));
    EXPECT_TRUE(thread.seekInQueue(5000, [] {}));
    EXPECT_EQ(thread.getFrameQueueSize(), 2);
    thread.start();
    ASSERT_TRUE(thread.waitFor("start 5000"));
}

}  // namespace
}  // namespace kelp::test
