// The queue of a play thread, without the thread: what fills it, splices, looks for a target and cleans it.

#include <limits>
#include <thread>
#include <vector>

#include "present/base_play_thread_fixture.h"
#include "support/log_capture.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;

TEST_F(BasePlayThreadTest, FillReturnsTheNewQueueSize) {
    RecordingPlayThread thread;
    EXPECT_EQ(thread.getFrameQueueSize(), 0);
    EXPECT_EQ(thread.fillFrame(makePlayFrame(0)), 1);
    EXPECT_EQ(thread.fillFrame(makePlayFrame(40)), 2);
    EXPECT_EQ(thread.getFrameQueueSize(), 2);
}

TEST_F(BasePlayThreadTest, SplicesFramesOfAnotherTrackInBehindTheNextOne) {
    RecordingPlayThread thread;
    thread.fill({0, 40, 80, 120});
    thread.splice();
    EXPECT_EQ(thread.getFrameQueueSize(), 1) << "what waits holds nothing up";
    // They begin before the end of the next one.
    thread.fill({-40, 0});
    EXPECT_EQ(thread.getFrameQueueSize(), 1);
    EXPECT_EQ(thread.fillFrame(makePlayFrame(37)), 2);
    thread.fill({77});
    EXPECT_EQ(thread.getFrameQueueSize(), 3);
    ASSERT_TRUE(thread.start());
    EXPECT_TRUE(thread.waitFor("out 77"));
    EXPECT_THAT(thread.events(), ElementsAre("out 0", "out 37", "out 77"));
}

TEST_F(BasePlayThreadTest, SplicesBehindTheLastOneThatWentWhereNoneWaits) {
    RecordingPlayThread thread;
    thread.fill({0, 40});
    ASSERT_TRUE(thread.start());
    ASSERT_TRUE(thread.waitFor("idle"));
    thread.splice();
    thread.fill({0, 40, 79, 120});
    EXPECT_TRUE(thread.waitFor("out 120"));
    EXPECT_THAT(thread.events(), ElementsAre("out 0", "out 40", "out 79", "out 120"));
}

TEST_F(BasePlayThreadTest, KeepsEarlierFramesAtASplice) {
    RecordingPlayThread thread;
    thread.fill({0, 40, 80});
    thread.splice();
    thread.fill({120, 160});
    EXPECT_EQ(thread.getFrameQueueSize(), 5);
}

TEST_F(BasePlayThreadTest, SplicesAnyFrameInBehindASeekAndOneOfAnotherTime) {
    RecordingPlayThread thread;
    thread.fill({5000, 5040});
    thread.splice();
    thread.seek(1000, /*needFlush=*/true);
    thread.fill({960, 1000});
    EXPECT_EQ(thread.getFrameQueueSize(), 2);

    RecordingPlayThread other;
    other.fill({100000, 100040});
    other.splice();
    other.fill({0});
    EXPECT_EQ(other.getFrameQueueSize(), 2) << "the front one may be on its way out";
}

TEST_F(BasePlayThreadTest, GivesAFrameTheDistanceToItsSuccessorAsDuration) {
    RecordingPlayThread thread;
    const auto first = makePlayFrame(1000, 40);
    const auto second = makePlayFrame(1100, 40);
    thread.fillFrame(first);
    thread.fillFrame(second);
    EXPECT_EQ(first->duration, 100);
    EXPECT_EQ(second->duration, 40);
}

TEST_F(BasePlayThreadTest, KeepsTheDurationBeforeAFrameThatIsNotLater) {
    RecordingPlayThread thread;
    const auto first = makePlayFrame(1000, 40);
    const auto same = makePlayFrame(1000, 41);
    const auto smaller = makePlayFrame(500, 42);
    thread.fillFrame(first);
    thread.fillFrame(same);
    thread.fillFrame(smaller);
    EXPECT_EQ(first->duration, 40);
    EXPECT_EQ(same->duration, 41);
    EXPECT_EQ(thread.getFrameQueueSize(), 3);
}

TEST_F(BasePlayThreadTest, TakesAnyTimesOfADamagedFile) {
    RecordingPlayThread thread;
    const auto lowest = makePlayFrame(std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::min());
    thread.fillFrame(lowest);
    thread.fillFrame(makePlayFrame(std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::max()));
    EXPECT_EQ(lowest->duration, -1);
    EXPECT_TRUE(thread.checkBuffer(0));
    EXPECT_TRUE(thread.clearBuffer(0));
}

TEST_F(BasePlayThreadTest, MaximumOnlyGrowsUntilStop) {
    RecordingPlayThread thread;
    EXPECT_EQ(thread.getMaxPtsMs(), -1);
    thread.setMaxPtsMs(-5);
    EXPECT_EQ(thread.getMaxPtsMs(), -1);
    thread.setMaxPtsMs(9000);
    thread.setMaxPtsMs(5000);
    EXPECT_EQ(thread.getMaxPtsMs(), 9000);
    thread.stop();
    EXPECT_EQ(thread.getMaxPtsMs(), -1);
}

TEST_F(BasePlayThreadTest, KeepsTheLargestMaximumOfManyThreads) {
    RecordingPlayThread thread;
    std::vector<std::thread> setters;
    for (int i = 0; i < 4; ++i) {
        setters.emplace_back([&thread, i] {
            for (int64_t ms = i; ms < 4000; ms += 4) {
                thread.setMaxPtsMs(ms);
            }
        });
    }
    for (auto& setter : setters) {
        setter.join();
    }
    EXPECT_EQ(thread.getMaxPtsMs(), 3999);
}

TEST_F(BasePlayThreadTest, CheckBufferFindsTheTargetInsideTheQueuedRangeOnly) {
    RecordingPlayThread thread;
    EXPECT_FALSE(thread.checkBuffer(0));
    thread.fill({1000, 1040, 1080});
    EXPECT_FALSE(thread.checkBuffer(999));
    EXPECT_TRUE(thread.checkBuffer(1000));
    EXPECT_TRUE(thread.checkBuffer(1060));
    EXPECT_TRUE(thread.checkBuffer(1080));
    EXPECT_FALSE(thread.checkBuffer(1081));
    EXPECT_EQ(thread.getFrameQueueSize(), 3);
}

TEST_F(BasePlayThreadTest, CheckBufferLogsTheRange) {
    RecordingPlayThread thread;
    LogCapture log;
    thread.checkBuffer(7);
    EXPECT_THAT(log.lines(), ElementsAre("[BasePlayThread]: [RecordingThread], checkBuffer, seekTimeMs:7, qsz:0\n"));
    thread.fill({1000, 1040});
    log.clear();
    thread.checkBuffer(1041);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(
            "[BasePlayThread]: [RecordingThread], checkBuffer, seekTimeMs:1041, qsz:2\n",
            "[BasePlayThread]: [RecordingThread], checkBuffer, seek time 1041, frame buffer range:[1000, 1040]\n",
            "[BasePlayThread]: [RecordingThread], checkBuffer, out of range\n"));
}

TEST_F(BasePlayThreadTest, ClearBufferOfAnEmptyQueueIsFalse) {
    RecordingPlayThread thread;
    LogCapture log;
    EXPECT_FALSE(thread.clearBuffer(0));
    EXPECT_THAT(log.lines(), ElementsAre("[BasePlayThread]: [RecordingThread], clearBuffer, seekTimeMs:0, qsz:0\n"));
}

TEST_F(BasePlayThreadTest, ClearBufferDropsAllFramesWhenTheTargetIsOutOfRange) {
    for (const int target : {999, 1081}) {
        RecordingPlayThread thread;
        thread.fill({1000, 1040, 1080});
        LogCapture log;
        EXPECT_FALSE(thread.clearBuffer(target));
        EXPECT_EQ(thread.getFrameQueueSize(), 0);
        EXPECT_EQ(log.count("clearBuffer, out of range\n"), 1);
    }
}

TEST_F(BasePlayThreadTest, ClearBufferLeavesTheTargetAtTheFront) {
    RecordingPlayThread thread;
    thread.fill({1000, 1040, 1080});
    EXPECT_TRUE(thread.clearBuffer(1039));
    EXPECT_EQ(thread.getFrameQueueSize(), 3);
    LogCapture log;
    EXPECT_TRUE(thread.clearBuffer(1040));
    EXPECT_EQ(thread.getFrameQueueSize(), 2);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(
            "[BasePlayThread]: [RecordingThread], clearBuffer, seekTimeMs:1040, qsz:3\n",
            "[BasePlayThread]: [RecordingThread], clearBuffer, seek time 1040, frame buffer range:[1000, 1080]\n",
            "[BasePlayThread]: [RecordingThread], clearBuffer, frame pts:1000, duration:40, seekTime:1040, bfsz:0\n",
            "[BasePlayThread]: [RecordingThread], clearBuffer, frame pts:1040, duration:40, seekTime:1040, bfsz:0\n",
            "[BasePlayThread]: [RecordingThread], clearBuffer, frame pts:1040 found\n"));
}

TEST_F(BasePlayThreadTest, ClearBufferLogsTheCapacityOfTheBuffer) {
    RecordingPlayThread thread;
    const auto frame = makePlayFrame(5);
    frame->buffer = std::make_shared<FrameBuffer>();
    frame->buffer->size = 4096;
    thread.fillFrame(frame);
    LogCapture log;
    EXPECT_TRUE(thread.clearBuffer(5));
    EXPECT_TRUE(log.has("duration:40, seekTime:5, bfsz:4096\n"));
}

TEST_F(BasePlayThreadTest, ClearBufferThatRunsTheQueueEmptyIsTrue) {
    RecordingPlayThread thread;
    const auto first = makePlayFrame(0);
    const auto last = makePlayFrame(100, -200);
    thread.fillFrame(first);
    thread.fillFrame(last);
    first->duration = 10;
    EXPECT_TRUE(thread.clearBuffer(50));
    EXPECT_EQ(thread.getFrameQueueSize(), 0);
}

TEST_F(BasePlayThreadTest, SeekWithFlushEmptiesTheQueueAndWithoutKeepsIt) {
    RecordingPlayThread thread;
    thread.fill({1000, 1040});
    LogCapture log;
    thread.seek(5000, /*needFlush=*/false);
    EXPECT_EQ(thread.getFrameQueueSize(), 2);
    thread.seek(6000, /*needFlush=*/true);
    EXPECT_EQ(thread.getFrameQueueSize(), 0);
    thread.seek(7000, /*needFlush=*/true);
    EXPECT_THAT(log.lines(),
                ElementsAre("[BasePlayThread]: [RecordingThread], seek, seekTimeMs:5000\n",
                            "[BasePlayThread]: [RecordingThread], seek, seek req... queue size:2, needFlush:0\n",
                            "[BasePlayThread]: [RecordingThread], seek, flush firstPts:1000, backPts:1040\n",
                            "[BasePlayThread]: [RecordingThread], seek, seekTimeMs:6000\n",
                            "[BasePlayThread]: [RecordingThread], seek, seek req... queue size:2, needFlush:1\n",
                            "[BasePlayThread]: [RecordingThread], seek, flush firstPts:1000, backPts:1040\n",
                            "[BasePlayThread]: [RecordingThread], seek, seekTimeMs:7000\n",
                            "[BasePlayThread]: [RecordingThread], seek, seek req... queue size:0, needFlush:1\n"));
}

TEST_F(BasePlayThreadTest, PauseStoresTheRequestAndIsTrue) {
    RecordingPlayThread thread;
    LogCapture log;
    EXPECT_FALSE(thread.isPaused());
    EXPECT_TRUE(thread.pause(true));
    EXPECT_TRUE(thread.isPaused());
    EXPECT_TRUE(thread.pause(false));
    EXPECT_FALSE(thread.isPaused());
    EXPECT_THAT(log.lines(), ElementsAre("[BasePlayThread]: [RecordingThread], pause:1\n",
                                         "[BasePlayThread]: [RecordingThread], pause:0\n"));
}

TEST_F(BasePlayThreadTest, StopWithoutAThreadReturns) {
    RecordingPlayThread thread;
    EXPECT_FALSE(thread.isStopRequested());
    thread.stop();
    thread.stop();
    EXPECT_TRUE(thread.isStopRequested());
    EXPECT_TRUE(thread.events(/*withIdle=*/true).empty());
}

}  // namespace
}  // namespace kelp::test
