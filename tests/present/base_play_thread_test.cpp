// The loop of a play thread: what it hands on, when it waits, and what ends each wait.

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "present/base_play_thread_fixture.h"
#include "support/log_capture.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;

// It was read when the other stream had been played for a while.
TEST_F(BasePlayThreadTest, LetsALateFirstFrameWaitForItsTime) {
    for (const auto& [otherMs, waitedMs] : {std::pair(6000, 1000), {-1, 7000}, {7200, 0}}) {
        RecordingPlayThread thread;
        thread.takeOddStreams(0);
        thread.otherMs = otherMs;
        std::atomic<int64_t> shownMs{0};
        thread.output = [&](int64_t) {
            shownMs = FakeTime::nowMs();
            return true;
        };
        thread.fill({7000});
        const int64_t beginMs = FakeTime::nowMs();
        ASSERT_TRUE(thread.start());
        ASSERT_TRUE(thread.waitFor("out 7000"));
        thread.stop();
        EXPECT_EQ(shownMs - beginMs, waitedMs) << otherMs;
    }
}

// The other thread tells the time before a seek until it has taken that.
TEST_F(BasePlayThreadTest, LetsALateFirstFrameBehindASeekWaitForItsTime) {
    for (const auto& [otherMs, waitedMs] : {std::pair(10'400, 600), {-1, 1000}, {60'000, 1000}}) {
        RecordingPlayThread thread;
        thread.takeOddStreams(60'000);
        std::atomic<int64_t> shownMs{0};
        thread.output = [&](int64_t) {
            shownMs = FakeTime::nowMs();
            return true;
        };
        thread.fill({60'000});
        ASSERT_TRUE(thread.start());
        ASSERT_TRUE(thread.waitFor("out 60000"));
        thread.otherMs = otherMs;
        thread.seek(10'000, true);
        ASSERT_TRUE(thread.waitFor("start 10000"));
        const int64_t beginMs = FakeTime::nowMs();
        thread.fill({11'000});
        ASSERT_TRUE(thread.waitFor("out 11000"));
        thread.stop();
        EXPECT_EQ(shownMs - beginMs, waitedMs) << otherMs;
    }
}

TEST_F(BasePlayThreadTest, HandsTheFramesOnInOrderAndPopsThem) {
    RecordingPlayThread thread;
    std::vector<std::string> names;
    thread.output = [&](int64_t) {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        names.emplace_back(name);
        return true;
    };
    thread.fill({0, 40, 80});
    LogCapture log;
    EXPECT_FALSE(thread.started());
    EXPECT_TRUE(thread.start());
    EXPECT_TRUE(thread.started());
    ASSERT_TRUE(thread.waitFor("out 80"));
    ASSERT_TRUE(thread.waitFor("idle"));
    EXPECT_EQ(thread.getFrameQueueSize(), 0);
    thread.stop();
    EXPECT_FALSE(thread.started());
    EXPECT_THAT(thread.events(), ElementsAre("out 0", "out 40", "out 80", "exit"));
    EXPECT_THAT(names, ElementsAre("RecordingThread", "RecordingThread", "RecordingThread"));
    EXPECT_EQ(log.count("[BasePlayThread]: [RecordingThread], Run\n"), 1);
    EXPECT_EQ(log.count("[BaseThread]: [RecordingThread] requestStop\n"), 1);
    EXPECT_EQ(log.count("[BaseThread]: [RecordingThread] joinThread end\n"), 1);
}

TEST_F(BasePlayThreadTest, AStoppedThreadDoesNothingButExit) {
    RecordingPlayThread thread;
    thread.fill({0, 40});
    thread.stop();
    thread.start();
    thread.stop();
    EXPECT_THAT(thread.events(/*withIdle=*/true), ElementsAre("exit"));
    EXPECT_EQ(thread.getFrameQueueSize(), 0);
}

TEST_F(BasePlayThreadTest, EndsAheadOfItsStopAndKeepsNothingThatComesThen) {
    RecordingPlayThread thread;
    thread.start();
    ASSERT_TRUE(thread.waitFor("idle"));
    thread.prepareStop();
    ASSERT_TRUE(thread.waitFor("exit"));
    thread.fill({0, 40});
    thread.stop();
    EXPECT_EQ(thread.getFrameQueueSize(), 0);
    EXPECT_THAT(thread.events(), ElementsAre("exit"));
}

TEST_F(BasePlayThreadTest, StopReleasesTheFramesThatAreLeftAndThenExits) {
    RecordingPlayThread thread;
    std::atomic<int> given{0};
    for (const int64_t pts : {0, 40, 80}) {
        const auto frame = makePlayFrame(pts);
        frame->buffer = std::make_shared<FrameBuffer>();
        frame->freeBuffer = [&](std::shared_ptr<FrameBuffer>) { ++given; };
        thread.fillFrame(frame);
    }
    thread.output = [](int64_t) { return false; };
    thread.start();
    ASSERT_TRUE(thread.waitFor("out 0", 2));
    EXPECT_EQ(given, 0);
    thread.stop();
    EXPECT_EQ(given, 3);
    EXPECT_EQ(thread.getFrameQueueSize(), 0);
    EXPECT_EQ(thread.events().back(), "exit");
}

TEST_F(BasePlayThreadTest, ReportsAnEmptyQueueEvery50Ms) {
    FakeTime::setManual(true);
    RecordingPlayThread thread;
    thread.start();
    for (size_t reports = 0; reports < 3; ++reports) {
        ASSERT_TRUE(FakeTime::runFor(49, 1));
        EXPECT_EQ(thread.events(/*withIdle=*/true).size(), reports);
        ASSERT_TRUE(FakeTime::runFor(1, 1));
        EXPECT_EQ(thread.events(/*withIdle=*/true).size(), reports + 1);
    }
    EXPECT_THAT(thread.events(/*withIdle=*/true), ElementsAre("idle", "idle", "idle"));
    EXPECT_EQ(FakeTime::sleepCount(), 0);
}

TEST_F(BasePlayThreadTest, AFrameASeekAndAStopEndTheWaitForAFrame) {
    FakeTime::setManual(true);
    RecordingPlayThread thread;
    thread.start();
    ASSERT_TRUE(FakeTime::runFor(49, 1));
    thread.fill({40});
    ASSERT_TRUE(FakeTime::runFor(49, 1));
    thread.seek(1000, /*needFlush=*/true);
    ASSERT_TRUE(FakeTime::runFor(49, 1));
    thread.stop();
    EXPECT_THAT(thread.events(/*withIdle=*/true), ElementsAre("out 40", "start 1000", "exit"));
    EXPECT_EQ(FakeTime::nowMs(), 1'000'147);
}

TEST_F(BasePlayThreadTest, IsIdleWithTheQueueLocked) {
    RecordingPlayThread thread;
    std::future<int> size;
    std::future_status status = std::future_status::ready;
    thread.idle = [&] {
        if (!size.valid()) {
            size = std::async(std::launch::async, [&] { return thread.getFrameQueueSize(); });
            // For real: nothing is to happen.
            status = size.wait_for(std::chrono::milliseconds(30));
        }
    };
    thread.start();
    ASSERT_TRUE(thread.waitFor("idle", 2));
    thread.stop();
    EXPECT_EQ(status, std::future_status::timeout);
    EXPECT_EQ(size.get(), 0);
}

TEST_F(BasePlayThreadTest, KeepsTheFrontFrameWhilePaused) {
    FakeTime::setManual(true);
    RecordingPlayThread thread;
    thread.fill({0, 40, 80});
    thread.pause(true);
    thread.start();
    ASSERT_TRUE(FakeTime::runFor(50, 1));
    EXPECT_THAT(thread.events(), ElementsAre("out 0"));
    ASSERT_TRUE(FakeTime::runFor(100, 1));
    EXPECT_THAT(thread.events(), ElementsAre("out 0", "out 0", "out 0"));
    EXPECT_EQ(thread.getFrameQueueSize(), 3);
    thread.fill({120});
    EXPECT_EQ(thread.getFrameQueueSize(), 4);

    const int64_t pausedMs = FakeTime::nowMs();
    thread.pause(false);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_THAT(thread.events(), ElementsAre("out 0", "out 0", "out 0", "out 0", "out 40", "out 80", "out 120"));
    EXPECT_EQ(FakeTime::nowMs(), pausedMs);
}

// The look at the pause and the rest are two steps.
TEST_F(BasePlayThreadTest, APauseThatEndsBeforeItsRestLetsNoneBegin) {
    FakeTime::setManual(true);
    for (const auto idle : {BasePlayThread::Idle::Served, BasePlayThread::Idle::Asleep}) {
        RecordingPlayThread thread(0, idle);
        thread.output = [&](int64_t) {
            const bool isRefused = thread.isPaused();
            thread.pause(false);
            return !isRefused;
        };
        thread.fill({0});
        thread.seek(0, /*needFlush=*/false);  // so that the pause lets it through
        thread.pause(true);
        thread.start();
        ASSERT_TRUE(thread.waitFor("out 0", 2));
    }
    EXPECT_EQ(FakeTime::sleepCount(), 0);
}

TEST_F(BasePlayThreadTest, APauseThatIsAskedForAgainOrWasNoneEndsNoRest) {
    FakeTime::setManual(true);
    RecordingPlayThread thread;
    thread.output = [](int64_t) { return false; };
    thread.fill({0});
    thread.start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    thread.pause(false);
    EXPECT_TRUE(FakeTime::waitForSleepers(1, 0));
    thread.pause(true);
    thread.pause(true);
    EXPECT_TRUE(FakeTime::waitForSleepers(1, 0));
    EXPECT_THAT(thread.events(), ElementsAre("out 0"));
}

TEST_F(BasePlayThreadTest, SkipsAtFullSpeedDuringAPause) {
    FakeTime::setManual(true);
    RecordingPlayThread thread;
    thread.fill({0, 40, 80, 120});
    thread.pause(true);
    thread.seek(80, /*needFlush=*/false);
    thread.start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_THAT(thread.events(), ElementsAre("start 80", "finish 80", "out 80"));
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(50));
    EXPECT_EQ(thread.getFrameQueueSize(), 2);
    ASSERT_TRUE(FakeTime::runFor(50, 1));
    EXPECT_THAT(thread.events(), ElementsAre("start 80", "finish 80", "out 80", "out 80"));
}

TEST_F(BasePlayThreadTest, OffersAFrameAgainAfter50MsUntilItIsDoneWith) {
    FakeTime::setManual(true);
    RecordingPlayThread thread;
    int refusals = 2;
    thread.output = [&](int64_t) { return refusals-- <= 0; };
    thread.fill({0, 40});
    thread.start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_THAT(thread.events(), ElementsAre("out 0"));
    ASSERT_TRUE(FakeTime::runFor(50, 1));
    EXPECT_THAT(thread.events(), ElementsAre("out 0", "out 0"));
    FakeTime::advanceMs(50);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_THAT(thread.events(), ElementsAre("out 0", "out 0", "out 0", "out 40"));
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(50, 50));
}

TEST_F(BasePlayThreadTest, ASeekEndsTheRestOfAPauseAndOneThatIsOfferedAgain) {
    FakeTime::setManual(true);
    RecordingPlayThread thread;
    thread.fill({0, 40, 80});
    thread.pause(true);
    thread.start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    thread.seek(40, /*needFlush=*/false);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_THAT(thread.events(), ElementsAre("start 40", "finish 40", "out 40"));
    EXPECT_EQ(FakeTime::nowMs(), 1'000'000);

    // Held by its output, and not by the pause.
    thread.output = [](int64_t) { return false; };
    FakeTime::advanceMs(50);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    thread.fill({120});
    thread.pause(false);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    thread.seek(120, /*needFlush=*/false);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_THAT(thread.events(), ElementsAre("start 40", "finish 40", "out 40", "out 40", "out 40", "start 120",
                                             "finish 120", "out 120"));
    EXPECT_EQ(FakeTime::nowMs(), 1'000'050);
}

TEST_F(BasePlayThreadTest, AStopEndsEachRest) {
    FakeTime::setManual(true);
    for (const bool isPaused : {true, false}) {
        for (const int keepFrames : {0, 1}) {
            RecordingPlayThread thread(keepFrames);
            thread.output = [&](int64_t) { return keepFrames == 1; };
            thread.fill({0});
            thread.pause(isPaused);
            thread.start();
            ASSERT_TRUE(FakeTime::waitForSleepers(1));
            thread.stop();
            EXPECT_EQ(FakeTime::nowMs(), 1'000'000);
            EXPECT_EQ(FakeTime::sleeps().back(), isPaused || keepFrames == 0 ? 50 : 30);
        }
    }
    EXPECT_EQ(FakeTime::sleepCount(), 4);
}

TEST_F(BasePlayThreadTest, ASeekEndsTheRepetitionAndTheFrameIsPoppedLikeAnyOther) {
    FakeTime::setManual(true);
    RecordingPlayThread thread;
    thread.output = [](int64_t pts) { return pts != 0; };
    thread.fill({0, 40, 80});
    LogCapture log;
    thread.start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    thread.seek(40, /*needFlush=*/false);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_THAT(thread.events(), ElementsAre("out 0", "start 40", "finish 40", "out 40", "out 80"));
    // Frame 0 was popped as presented, not skipped.
    EXPECT_TRUE(log.has("finish skip frame, skip count:0, pts:40, "));
}

TEST_F(BasePlayThreadTest, AStopEndsTheRepetition) {
    RecordingPlayThread thread;
    thread.output = [](int64_t) { return false; };
    thread.fill({0, 40});
    thread.start();
    ASSERT_TRUE(thread.waitFor("out 0", 3));
    thread.stop();
    const auto events = thread.events();
    EXPECT_EQ(events.back(), "exit");
    EXPECT_EQ(std::count(events.begin(), events.end(), "out 40"), 0);
}

TEST_F(BasePlayThreadTest, KeepsAFrameQueuedAfterOutputIfAskedTo) {
    FakeTime::setManual(true);
    RecordingPlayThread thread(/*keepFrames=*/1);
    thread.fill({0, 40});
    thread.start();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_THAT(thread.events(), ElementsAre("out 0", "out 40"));
    ASSERT_TRUE(FakeTime::runFor(30, 1));
    EXPECT_THAT(thread.events(), ElementsAre("out 0", "out 40", "out 40"));
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(30, 30));
    // The sleep holds the queue. For real: nothing is to happen.
    auto size = std::async(std::launch::async, [&] { return thread.getFrameQueueSize(); });
    EXPECT_EQ(size.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
    FakeTime::setManual(false);
    EXPECT_EQ(size.get(), 1);
}

TEST_F(BasePlayThreadTest, ASlowOutputHoldsNobodyUp) {
    RecordingPlayThread thread;
    std::promise<void> gate;
    auto opened = gate.get_future();
    thread.output = [&](int64_t pts) {
        if (pts == 0) {
            opened.wait();
        }
        return true;
    };
    thread.fill({0});
    thread.start();
    ASSERT_TRUE(thread.waitFor("out 0"));
    EXPECT_EQ(thread.fillFrame(makePlayFrame(40)), 2);
    EXPECT_EQ(thread.getFrameQueueSize(), 2);
    EXPECT_TRUE(thread.checkBuffer(40));
    thread.seek(40, /*needFlush=*/false);
    thread.pause(true);
    thread.setMaxPtsMs(40);
    thread.pause(false);
    gate.set_value();
    ASSERT_TRUE(thread.waitFor("out 40"));
    EXPECT_THAT(thread.events(), ElementsAre("out 0", "start 40", "finish 40", "out 40"));
}

TEST_F(BasePlayThreadTest, AFrameThatFollowsAFlushDuringOutputIsPoppedUnseen) {
    RecordingPlayThread thread;
    thread.output = [&](int64_t pts) {
        if (pts == 0) {
            thread.seek(500, /*needFlush=*/true);
            thread.fill({500, 540});
        }
        return true;
    };
    thread.fill({0, 40});
    LogCapture log;
    thread.start();
    ASSERT_TRUE(thread.waitFor("out 540"));
    EXPECT_THAT(thread.events(), ElementsAre("out 0", "start 500", "finish 540", "out 540"));
    EXPECT_TRUE(log.has("skip count:0, pts:540, duration:40, seekTime:500, skipLimit:500, left q.size:1\n"));
}

TEST_F(BasePlayThreadTest, AFlushDuringOutputEndsInTheWaitForAFrame) {
    for (const bool isSeek : {false, true}) {
        FakeTime::reset();
        RecordingPlayThread thread;
        thread.output = [&](int64_t) {
            isSeek ? thread.seek(500, /*needFlush=*/true) : static_cast<void>(thread.clearBuffer(500));
            return true;
        };
        thread.fill({0});
        thread.start();
        ASSERT_TRUE(thread.waitFor("idle"));
        EXPECT_THAT(FakeTime::sleeps(), testing::IsEmpty());
        EXPECT_EQ(thread.events().size(), isSeek ? 2U : 1U);
    }
}

// In a pause, and on an empty queue.
TEST_F(BasePlayThreadTest, AnOutputThatIsNotServedSleepsUntilThereIsSomethingForIt) {
    FakeTime::setManual(true);
    RecordingPlayThread thread(0, BasePlayThread::Idle::Asleep);
    thread.output = [&](int64_t) { return !thread.isPaused(); };
    thread.start();
    ASSERT_TRUE(FakeTime::runFor(10'000, 1));
    thread.seek(1000, /*needFlush=*/true);
    ASSERT_TRUE(thread.waitFor("start 1000"));
    thread.fill({1000});
    ASSERT_TRUE(thread.waitFor("out 1000"));
    ASSERT_TRUE(FakeTime::runFor(10'000, 1));
    EXPECT_THAT(thread.events(/*withIdle=*/true), ElementsAre("start 1000", "finish 1000", "out 1000"));
    EXPECT_EQ(FakeTime::sleepCount(), 0);

    thread.pause(true);
    thread.fill({1040});
    ASSERT_TRUE(FakeTime::runFor(10'000, 1));
    EXPECT_EQ(FakeTime::sleepCount(), 1);
    thread.pause(false);
    ASSERT_TRUE(thread.waitFor("out 1040"));
    thread.stop();
    const auto events = thread.events(/*withIdle=*/true);
    EXPECT_EQ(std::count(events.begin(), events.end(), "idle"), 0);
}

TEST_F(BasePlayThreadTest, TellsOfAllThatLeavesTheQueueWithTheQueueFree) {
    RecordingPlayThread thread;
    std::mutex mutex;
    std::vector<int> told;
    thread.taken = [&](int left) {
        const int size = std::async(std::launch::async, [&] { return thread.getFrameQueueSize(); }).get();
        std::lock_guard lock(mutex);
        told.push_back(left == size ? left : -1);
    };
    const auto takeTold = [&] {
        std::lock_guard lock(mutex);
        return std::exchange(told, {});
    };
    thread.fill({0, 40, 80, 120});
    thread.clearBuffer(0);
    EXPECT_THAT(takeTold(), ElementsAre());
    thread.clearBuffer(80);
    EXPECT_THAT(takeTold(), ElementsAre(2));
    thread.clearBuffer(1000);
    EXPECT_THAT(takeTold(), ElementsAre(0));
    thread.fill({0, 40});
    thread.seek(40, /*needFlush=*/false);
    EXPECT_THAT(takeTold(), ElementsAre());
    thread.seek(40, /*needFlush=*/true);
    EXPECT_THAT(takeTold(), ElementsAre(0));

    thread.fill({0, 20, 40, 80});
    thread.start();
    ASSERT_TRUE(thread.waitFor("idle"));
    // At the start, what the seek skips, and each that was shown.
    EXPECT_THAT(takeTold(), ElementsAre(4, 2, 1, 0));
    thread.seek(1000, /*needFlush=*/false);
    thread.fill({200});
    ASSERT_TRUE(thread.waitFor("idle", 2));
    EXPECT_THAT(takeTold(), ElementsAre(0));
}

}  // namespace
}  // namespace kelp::test
