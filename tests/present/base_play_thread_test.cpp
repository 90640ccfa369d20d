#include "present/base_play_thread.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kelp_player/log.h"
#include "support/fake_time.h"
#include "support/log_capture.h"

namespace kelp {
namespace {

using test::FakeTime;
using test::LogCapture;
using testing::ElementsAre;

constexpr auto kPatience = std::chrono::seconds(20);

std::shared_ptr<DecodedFrame> makeFrame(int64_t pts, int64_t duration = 40) {
    auto frame = std::make_shared<DecodedFrame>();
    frame->frameTag = 0;
    frame->pts = pts;
    frame->duration = duration;
    return frame;
}

// Writes down what the loop asks for, as texts: "out 40", "idle", "start 1000", "finish 1000", "exit". The hooks run
// on the play thread, after the text was written.
class RecordingPlayThread : public BasePlayThread {
public:
    explicit RecordingPlayThread(int keepFrames = 0, Idle idleMode = Idle::Served)
        : BasePlayThread("RecordingThread", keepFrames, idleMode) {}
    ~RecordingPlayThread() override {
        if (isStarted()) {
            FakeTime::setManual(false);
            stop();
        }
    }

    std::function<bool(int64_t)> output = [](int64_t) { return true; };
    std::function<void(int)> seekStart = [](int) {};
    std::function<void(int)> seekFinish = [](int) {};
    std::function<void()> idle = [] {};
    std::function<void(int)> taken = [](int) {};  // on the thread that took them
    std::atomic<int64_t> otherMs{-1};             // where the other stream has come to

    void fill(std::initializer_list<int64_t> times) {
        for (const int64_t pts : times) {
            fillFrame(makeFrame(pts));
        }
    }

    std::vector<std::string> events(bool withIdle = false) {
        std::lock_guard lock(mutex_);
        std::vector<std::string> found;
        for (const auto& event : events_) {
            if (withIdle || event != "idle") {
                found.push_back(event);
            }
        }
        return found;
    }

    // Waits in real time.
    bool waitFor(const std::string& event, int count = 1) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kPatience,
                                 [&] { return std::count(events_.begin(), events_.end(), event) >= count; });
    }

    bool started() const { return isStarted(); }

private:
    bool onOutput(std::shared_ptr<DecodedFrame> frame) override {
        note("out " + std::to_string(frame->pts));
        return output(frame->pts);
    }
    void onOutput() override {
        note("idle");
        idle();
    }
    void onSeekStart(int seekTimeMs) override {
        note("start " + std::to_string(seekTimeMs));
        seekStart(seekTimeMs);
    }
    void onSeekFinish(int ptsMs) override {
        note("finish " + std::to_string(ptsMs));
        seekFinish(ptsMs);
    }
    int64_t otherTimeMs() override { return otherMs; }
    void onExit() override { note("exit"); }
    void onFramesTaken(int left) override { taken(left); }

    void note(const std::string& event) {
        std::lock_guard lock(mutex_);
        events_.push_back(event);
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
};

class BasePlayThreadTest : public testing::Test {
protected:
    void SetUp() override {
        FakeTime::reset();
        Log::SetLevel(1);
    }
    void TearDown() override {
        Log::SetLevel(logLevel_);
        FakeTime::reset();
    }

private:
    const int logLevel_ = Log::GetLevel();
};

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

// The queue, without a thread.

TEST_F(BasePlayThreadTest, FillReturnsTheNewQueueSize) {
    RecordingPlayThread thread;
    EXPECT_EQ(thread.getFrameQueueSize(), 0);
    EXPECT_EQ(thread.fillFrame(makeFrame(0)), 1);
    EXPECT_EQ(thread.fillFrame(makeFrame(40)), 2);
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
    EXPECT_EQ(thread.fillFrame(makeFrame(37)), 2);
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
    const auto first = makeFrame(1000, 40);
    const auto second = makeFrame(1100, 40);
    thread.fillFrame(first);
    thread.fillFrame(second);
    EXPECT_EQ(first->duration, 100);
    EXPECT_EQ(second->duration, 40);
}

TEST_F(BasePlayThreadTest, KeepsTheDurationBeforeAFrameThatIsNotLater) {
    RecordingPlayThread thread;
    const auto first = makeFrame(1000, 40);
    const auto same = makeFrame(1000, 41);
    const auto smaller = makeFrame(500, 42);
    thread.fillFrame(first);
    thread.fillFrame(same);
    thread.fillFrame(smaller);
    EXPECT_EQ(first->duration, 40);
    EXPECT_EQ(same->duration, 41);
    EXPECT_EQ(thread.getFrameQueueSize(), 3);
}

TEST_F(BasePlayThreadTest, TakesAnyTimesOfADamagedFile) {
    RecordingPlayThread thread;
    const auto lowest = makeFrame(std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::min());
    thread.fillFrame(lowest);
    thread.fillFrame(makeFrame(std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::max()));
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
    const auto frame = makeFrame(5);
    frame->buffer = std::make_shared<FrameBuffer>();
    frame->buffer->size = 4096;
    thread.fillFrame(frame);
    LogCapture log;
    EXPECT_TRUE(thread.clearBuffer(5));
    EXPECT_TRUE(log.has("duration:40, seekTime:5, bfsz:4096\n"));
}

TEST_F(BasePlayThreadTest, ClearBufferThatRunsTheQueueEmptyIsTrue) {
    RecordingPlayThread thread;
    const auto first = makeFrame(0);
    const auto last = makeFrame(100, -200);
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

// The loop.

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
        const auto frame = makeFrame(pts);
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
    EXPECT_EQ(thread.fillFrame(makeFrame(40)), 2);
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

// Seeks.

TEST_F(BasePlayThreadTest, AFrameIsTheTargetUpToItsLastMillisecond) {
    {
        RecordingPlayThread thread;
        thread.fillFrame(makeFrame(1000, 40));
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
        thread.fillFrame(makeFrame(1000, 40));
        thread.seek(1040, /*needFlush=*/false);
        thread.start();
        ASSERT_TRUE(thread.waitFor("idle"));
        EXPECT_THAT(thread.events(), ElementsAre("start 1040"));
        EXPECT_EQ(thread.getFrameQueueSize(), 0);
    }
}

TEST_F(BasePlayThreadTest, AFrameWithoutDurationIsTheTargetAtItsOwnTime) {
    RecordingPlayThread thread;
    thread.fillFrame(makeFrame(1000, 0));
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
    const auto frame = makeFrame(1000);
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

// Counts what a seek needs to be served. The play thread writes, the test waits.
class SeekRecord {
public:
    explicit SeekRecord(RecordingPlayThread& thread) {
        thread.seekStart = [this](int target) {
            odd_ = odd_ || target <= started_;
            started_ = target;
        };
        thread.seekFinish = [this](int pts) {
            odd_ = odd_ || pts < started_ || finished_ == started_;
            // Time for another seek to come before this one is over.
            std::this_thread::yield();
            std::this_thread::yield();
            finished_ = started_.load();
        };
    }

    // Waits in real time until the seek to `target` was started and then finished.
    bool waitForServed(int target) {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (finished_ != target && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        return finished_ == target;
    }

    // A start that was not asked for or out of order, or a finish without its start.
    bool odd() const { return odd_; }

private:
    std::atomic<int> started_{0};
    std::atomic<int> finished_{0};
    std::atomic<bool> odd_{false};
};

// No interleaving loses a seek, while another thread fills without a pause.
TEST_F(BasePlayThreadTest, ServesThousandsOfSeeksToFramesThatAreStillToCome) {
    RecordingPlayThread thread;
    SeekRecord record(thread);
    thread.start();
    std::atomic<int> position{0};
    std::atomic<bool> filling{true};
    std::thread filler([&] {
        while (filling) {
            // A frame of the old position may come in after the flush, as from a decoder that is just handing it on.
            const int base = position;
            for (int i = 0; i < 3 && thread.getFrameQueueSize() < 20; ++i) {
                thread.fillFrame(makeFrame(base + i, 1));
            }
            std::this_thread::yield();
        }
    });
    bool served = true;
    for (int target = 1000; served && target <= 3'000'000; target += 1000) {
        thread.seek(target, /*needFlush=*/target % 2000 == 0);
        position = target;
        served = record.waitForServed(target);
        EXPECT_TRUE(served) << "lost: " << target;
    }
    filling = false;
    filler.join();
    thread.stop();
    EXPECT_FALSE(record.odd());
}

TEST_F(BasePlayThreadTest, ServesTheLastOfSeeksThatOvertakeEachOther) {
    RecordingPlayThread thread;
    SeekRecord record(thread);
    thread.start();
    std::atomic<bool> filling{true};
    std::thread filler([&] {
        while (filling) {
            // The target of any seek: each finishes as soon as it can.
            if (thread.getFrameQueueSize() < 20) {
                thread.fillFrame(makeFrame(1'000'000'000, 1));
            }
            std::this_thread::yield();
        }
    });
    bool served = true;
    for (int target = 10; served && target <= 30'000; target += 10) {
        for (int i = 3; i >= 0; --i) {
            thread.seek(target - i, /*needFlush=*/target % 20 == 0);
        }
        served = record.waitForServed(target);
        EXPECT_TRUE(served) << "lost: " << target;
    }
    filling = false;
    filler.join();
    thread.stop();
    EXPECT_FALSE(record.odd());
}

TEST_F(BasePlayThreadTest, AStopBeforeTheWaitIsSeenAtOnce) {
    RecordingPlayThread thread;
    LogCapture log;
    thread.seekStart = [&](int) {
        // The wake-up has gone out, and the loop is still ahead of its wait.
        while (!log.has("] joinThread\n")) {
            std::this_thread::yield();
        }
    };
    thread.seek(0, /*needFlush=*/false);
    thread.start();
    ASSERT_TRUE(thread.waitFor("start 0"));
    thread.stop();
    EXPECT_THAT(thread.events(/*withIdle=*/true), ElementsAre("start 0", "exit"));
}

TEST_F(BasePlayThreadTest, StopsAtAnyMoment) {
    const auto begin = std::chrono::steady_clock::now();
    constexpr int kRuns = 1000;
    for (int i = 0; i < kRuns; ++i) {
        RecordingPlayThread thread;
        thread.start();
        for (int spin = 0; spin < i % 50; ++spin) {
            std::this_thread::yield();
        }
        if (i % 4 == 0) {
            thread.fillFrame(makeFrame(0));
        }
        thread.stop();
        ASSERT_EQ(thread.events().back(), "exit");
    }
    // A stop that had to wait for the end of the timed wait would take 50 ms.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, kRuns * std::chrono::milliseconds(25));
}

}  // namespace
}  // namespace kelp
