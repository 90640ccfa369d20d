#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "runtime/worker.h"
#include "support/fake_time.h"
#include "support/gate.h"
#include "support/log_capture.h"

namespace kelp {
namespace {

using test::FakeTime;
using test::Gate;
using test::LogCapture;

constexpr int64_t kStartMs = 1'000'000;

// The clock is moved by hand. The timer thread sees a timer that was added or removed 5 ms later, or when it is due.
class WorkerTimerTest : public testing::Test {
protected:
    WorkerTimerTest() {
        FakeTime::reset(kStartMs);
        FakeTime::setManual(true);
        worker_->start();
        EXPECT_TRUE(FakeTime::waitForSleepers(1));
    }
    ~WorkerTimerTest() override {
        FakeTime::reset();
        worker_->close();
    }

    // Lets the time pass millisecond by millisecond, and runs what was queued at each.
    void run(int ms) {
        for (int i = 0; i < ms; ++i) {
            ASSERT_TRUE(FakeTime::runFor(1, 1));
            flush();
        }
    }

    // Moves the clock at once, so the timer thread finds itself late.
    void jump(int64_t ms) {
        FakeTime::advanceMs(ms);
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
        flush();
    }

    void flush() {
        Gate done;
        worker_->task([&] { done.open(); });
        done.wait();
    }

    // A timer that notes `mark` each time.
    unsigned int addMarkTimer(unsigned int intervalMs, bool oneShot, int mark = 0) {
        return worker_->addTimer(intervalMs, oneShot, [this, mark] { marks_.push_back(mark); });
    }

    std::shared_ptr<Worker> worker_ = std::make_shared<Worker>();
    std::vector<int> marks_;  // written on the task thread
};

using Marks = std::vector<int>;

TEST_F(WorkerTimerTest, CountsItsIdsFromOne) {
    EXPECT_EQ(addMarkTimer(1000, false), 1U);
    EXPECT_EQ(addMarkTimer(1000, true), 2U);
    EXPECT_EQ(addMarkTimer(1000, false), 3U);
}

TEST_F(WorkerTimerTest, ReusesTheIdOfATimerThatWasRemovedAndReaped) {
    EXPECT_EQ(addMarkTimer(1000, false), 1U);
    EXPECT_EQ(addMarkTimer(1000, false), 2U);
    run(5);
    worker_->removeTimer(1);
    run(5);
    EXPECT_EQ(addMarkTimer(1000, false), 1U);
    EXPECT_EQ(addMarkTimer(1000, false), 3U);
}

TEST_F(WorkerTimerTest, ReusesIdsInTheOrderInWhichTheyCameBack) {
    for (unsigned int id = 1; id <= 4; ++id) {
        ASSERT_EQ(addMarkTimer(1000, false), id);
    }
    worker_->removeTimer(3);
    worker_->removeTimer(1);
    worker_->removeTimer(4);
    EXPECT_EQ(addMarkTimer(1000, false), 3U);
    EXPECT_EQ(addMarkTimer(1000, false), 1U);
    EXPECT_EQ(addMarkTimer(1000, false), 4U);
    EXPECT_EQ(addMarkTimer(1000, false), 5U);
}

TEST_F(WorkerTimerTest, FreesTheIdOfAnUnarmedTimerAtOnce) {
    EXPECT_EQ(addMarkTimer(10, false), 1U);
    worker_->removeTimer(1);
    EXPECT_EQ(addMarkTimer(10, false, 7), 1U);
    run(15);
    EXPECT_EQ(marks_, Marks{7});
}

TEST_F(WorkerTimerTest, FreesTheIdOfAnArmedTimerOnTheNextPass) {
    EXPECT_EQ(addMarkTimer(1000, false), 1U);
    run(5);
    worker_->removeTimer(1);
    EXPECT_EQ(addMarkTimer(1000, false), 2U);
    run(5);
    EXPECT_EQ(addMarkTimer(1000, false), 1U);
}

TEST_F(WorkerTimerTest, GivesTheIdsOfOnePassBackInTheOrderOfTheTimers) {
    addMarkTimer(1000, false);
    addMarkTimer(10, true);
    addMarkTimer(1000, false);
    addMarkTimer(1000, false);
    run(5);
    worker_->removeTimer(4);
    worker_->removeTimer(1);
    worker_->removeTimer(4);  // it goes once
    EXPECT_EQ(addMarkTimer(1000, false), 5U);
    worker_->removeTimer(5);
    run(5);
    for (const unsigned int id : {5U, 1U, 2U, 4U, 6U}) {
        EXPECT_EQ(addMarkTimer(1000, false), id);
    }
}

TEST_F(WorkerTimerTest, RemovesTheTimerThatHasTheIdNow) {
    EXPECT_EQ(addMarkTimer(10, true, 1), 1U);
    run(10);
    EXPECT_EQ(addMarkTimer(10, false, 2), 1U);
    run(10);
    worker_->removeTimer(1);
    EXPECT_EQ(addMarkTimer(10, false, 3), 2U);
    run(5);
    EXPECT_EQ(addMarkTimer(1000, false), 1U);
    run(5);
    EXPECT_EQ(marks_, (Marks{1, 2, 3}));
}

TEST_F(WorkerTimerTest, ChangesNothingForAnUnknownId) {
    addMarkTimer(10, false);
    worker_->removeTimer(0);
    worker_->removeTimer(17);
    run(5);
    worker_->removeTimer(0);
    worker_->removeTimer(17);
    run(5);
    EXPECT_EQ(marks_, Marks{0});
    EXPECT_EQ(addMarkTimer(10, false), 2U);
}

TEST_F(WorkerTimerTest, FiresOneIntervalAfterItsArmingAndNotBefore) {
    addMarkTimer(20, false);
    run(19);
    EXPECT_EQ(marks_, Marks{});
    run(1);
    EXPECT_EQ(marks_, Marks{0});
    run(19);
    EXPECT_EQ(marks_, Marks{0});
    run(1);
    EXPECT_EQ(marks_, (Marks{0, 0}));
}

TEST_F(WorkerTimerTest, FiresAOneShotTimerOnce) {
    addMarkTimer(20, true);
    run(20);
    EXPECT_EQ(marks_, Marks{0});
    run(200);
    EXPECT_EQ(marks_, Marks{0});
}

TEST_F(WorkerTimerTest, FiresAtTheTimeItselfAndNotAtAMultipleOfAnything) {
    for (const unsigned int intervalMs : {1U, 3U, 12U, 13U}) {
        marks_.clear();
        addMarkTimer(intervalMs, true);
        run(static_cast<int>(intervalMs) - 1);
        EXPECT_EQ(marks_, Marks{});
        run(1);
        EXPECT_EQ(marks_, Marks{0});
    }
}

TEST_F(WorkerTimerTest, FiresATimerOfNoIntervalWithoutAPauseAfterItWasMerged) {
    addMarkTimer(0, true);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    flush();
    EXPECT_EQ(marks_, Marks{0});
}

TEST_F(WorkerTimerTest, SleepsFromOneTimerToTheNext) {
    addMarkTimer(1000, false);
    addMarkTimer(2500, true);
    run(5);
    int64_t sleeps = FakeTime::sleepCount();
    jump(994);
    EXPECT_EQ(FakeTime::sleepCount(), sleeps);
    for (const int ms : {1, 1000, 500, 500, 1000}) {
        jump(ms);
        EXPECT_EQ(FakeTime::sleepCount(), ++sleeps);
    }
    EXPECT_EQ(marks_, (Marks{0, 0, 0, 0, 0}));
}

TEST_F(WorkerTimerTest, FiresANewTimerAheadOfThoseThatAreDueLater) {
    addMarkTimer(1000, true, 1);
    run(500);
    addMarkTimer(2, true, 2);
    run(2);
    EXPECT_EQ(marks_, Marks{2});
    run(498);
    EXPECT_EQ(marks_, (Marks{2, 1}));
}

TEST_F(WorkerTimerTest, FollowsAClockThatIsSet) {
    addMarkTimer(1000, true);
    run(5);
    FakeTime::setNowMs(kStartMs - 100'000);
    run(5);
    EXPECT_EQ(marks_, Marks{});
    FakeTime::setNowMs(kStartMs + 999);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    flush();
    EXPECT_EQ(marks_, Marks{});
    run(1);
    EXPECT_EQ(marks_, Marks{0});
}

TEST_F(WorkerTimerTest, LetsGoOfARemovedFunctionWithin5Ms) {
    auto owned = std::make_shared<int>();
    const std::weak_ptr<int> watched = owned;
    const unsigned int id = worker_->addTimer(3'600'000, false, [owned = std::move(owned)] {});
    run(100);
    worker_->removeTimer(id);
    run(4);
    EXPECT_FALSE(watched.expired());
    run(1);
    EXPECT_TRUE(watched.expired());
}

TEST_F(WorkerTimerTest, CountsThePeriodFromALateFiring) {
    addMarkTimer(10, false);
    run(5);
    jump(30);  // three periods in one
    EXPECT_EQ(marks_, Marks{0});
    run(5);
    EXPECT_EQ(marks_, Marks{0});
    run(5);
    EXPECT_EQ(marks_, (Marks{0, 0}));
}

TEST_F(WorkerTimerTest, FiresTimersOfOnePassInTheOrderOfTheirArming) {
    addMarkTimer(20, false, 1);
    addMarkTimer(20, true, 2);
    addMarkTimer(20, false, 3);
    run(20);
    EXPECT_EQ(marks_, (Marks{1, 2, 3}));
    run(20);
    EXPECT_EQ(marks_, (Marks{1, 2, 3, 1, 3}));
}

TEST_F(WorkerTimerTest, KeepsTheOrderOfArmingAmongTimersOfDifferentPasses) {
    addMarkTimer(30, true, 1);
    run(5);
    addMarkTimer(25, true, 2);
    run(5);
    addMarkTimer(20, true, 3);
    run(20);
    EXPECT_EQ(marks_, (Marks{1, 2, 3}));
}

TEST_F(WorkerTimerTest, DoesNotSortByDeadline) {
    addMarkTimer(30, true, 1);
    addMarkTimer(10, true, 2);
    run(5);
    jump(100);
    EXPECT_EQ(marks_, (Marks{1, 2}));
}

TEST_F(WorkerTimerTest, GivesTheIdOfAOneShotTimerBackBeforeItsCallableHasRun) {
    Gate gate;
    worker_->task([&] { gate.wait(); });
    EXPECT_EQ(addMarkTimer(10, true, 1), 1U);
    EXPECT_TRUE(FakeTime::runFor(10, 1));
    EXPECT_EQ(addMarkTimer(1000, true, 2), 1U);
    gate.open();
    flush();
    EXPECT_EQ(marks_, Marks{1});
}

TEST_F(WorkerTimerTest, RunsACallableThatWasQueuedBeforeItsTimerWasRemoved) {
    Gate gate;
    worker_->task([&] { gate.wait(); });
    const unsigned int id = addMarkTimer(10, false);
    EXPECT_TRUE(FakeTime::runFor(10, 1));
    worker_->removeTimer(id);
    gate.open();
    run(100);
    EXPECT_EQ(marks_, Marks{0});
}

// With nothing armed only a new timer, or the end, wakes the timer thread.
TEST_F(WorkerTimerTest, RestsWhileThereIsNoTimer) {
    const auto expectRest = [] {
        const int64_t sleeps = FakeTime::sleepCount();
        FakeTime::advanceMs(1'000'000'000);
        EXPECT_TRUE(FakeTime::waitForSleepers(1));
        EXPECT_EQ(FakeTime::sleepCount(), sleeps);
    };
    expectRest();
    addMarkTimer(20, true);
    run(20);
    EXPECT_EQ(marks_.size(), 1U);
    expectRest();
    const unsigned int id = addMarkTimer(20, false);
    run(20);
    worker_->removeTimer(id);
    run(5);  // until it is reaped
    EXPECT_EQ(marks_.size(), 2U);
    expectRest();
    worker_->close();
}

TEST_F(WorkerTimerTest, NeverSleepsWithARepeatingTimerOfNoInterval) {
    Gate manyFired;
    int fired = 0;
    const unsigned int id = worker_->addTimer(0, false, [&] {
        if (++fired == 100) {
            manyFired.open();
        }
    });
    manyFired.wait();
    EXPECT_EQ(FakeTime::sleepCount(), 1);  // before there was one
    EXPECT_EQ(FakeTime::nowMs(), kStartMs);
    worker_->removeTimer(id);
    EXPECT_TRUE(FakeTime::waitForSleepers(1));
    flush();
}

TEST_F(WorkerTimerTest, MakesAWaitForTheEmptyQueueWaitForATimerThatWasArmedBefore) {
    LogCapture log;
    Gate running;
    Gate gate;
    addMarkTimer(20, true);
    EXPECT_TRUE(FakeTime::runFor(15, 1));
    worker_->task([&] {
        running.open();
        gate.wait();
    });
    running.wait();
    auto waiter = std::async(std::launch::async, [&] { worker_->waitEmpty(); });
    EXPECT_TRUE(FakeTime::runFor(15, 2));
    EXPECT_TRUE(log.has("waitEmpty, tasks_.size:1\n"));
    gate.open();
    flush();
    FakeTime::advanceMs(5);
    waiter.get();
    EXPECT_EQ(marks_, Marks{0});
    EXPECT_EQ(log.count("waitEmpty"), 2);
}

// Each callable stands at a gate for longer than the interval, so there is always one queued.
TEST_F(WorkerTimerTest, LetsAWaitForTheEmptyQueueEndBesideATimerThatIsSlowerThanItsInterval) {
    LogCapture log;
    Gate running[6];
    Gate gates[6];
    int fired = 0;
    worker_->addTimer(10, false, [&] {
        const int number = std::min(++fired, 5);
        worker_->task([] {});  // is the timer's like the callable itself
        running[number].open();
        gates[number].wait();
    });
    gates[3].open();
    EXPECT_TRUE(FakeTime::runFor(12, 1));
    running[1].wait();
    EXPECT_TRUE(FakeTime::runFor(10, 1));  // the second is queued
    auto waiter = std::async(std::launch::async, [&] { worker_->waitEmpty(); });
    EXPECT_TRUE(FakeTime::runFor(14, 2));  // the third is the first one since the call
    EXPECT_TRUE(log.has("waitEmpty, tasks_.size:3\n"));
    gates[1].open();
    running[2].wait();
    EXPECT_TRUE(FakeTime::runFor(7, 2));  // the fourth is queued behind what the second has queued
    EXPECT_TRUE(log.has("waitEmpty, tasks_.size:2\n"));
    gates[2].open();
    running[4].wait();
    EXPECT_TRUE(FakeTime::runFor(8, 2));  // the fifth is queued behind what the fourth has queued
    FakeTime::advanceMs(1);
    EXPECT_EQ(waiter.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(log.count("waitEmpty, tasks_.size:2\n"), 2);
    EXPECT_EQ(log.count("waitEmpty"), 3);
    gates[4].open();
    gates[5].open();
    FakeTime::setManual(false);
    worker_->close();
}

TEST_F(WorkerTimerTest, TakesTheLongestInterval) {
    addMarkTimer(0xFFFFFFFFU, true);
    run(5);
    jump(4'294'967'289);
    EXPECT_EQ(marks_, Marks{});
    run(5);
    EXPECT_EQ(marks_, Marks{0});
}

TEST_F(WorkerTimerTest, RunsTimersOnTheTaskThread) {
    char name[16] = {};
    std::thread::id timerCallable;
    std::thread::id task;
    worker_->addTimer(10, true, [&] {
        timerCallable = std::this_thread::get_id();
        pthread_getname_np(pthread_self(), name, sizeof(name));
    });
    worker_->task([&] { task = std::this_thread::get_id(); });
    run(10);
    EXPECT_EQ(timerCallable, task);
    EXPECT_STREQ(name, "Worker");
}

TEST_F(WorkerTimerTest, LetsACallableRemoveItsOwnTimerAndAddAnother) {
    unsigned int id = 0;
    id = worker_->addTimer(10, false, [&] {
        marks_.push_back(1);
        worker_->removeTimer(id);
        addMarkTimer(10, true, 2);
    });
    run(100);
    EXPECT_EQ(marks_, (Marks{1, 2}));
}

TEST_F(WorkerTimerTest, KeepsItsFunctionForEveryFiring) {
    auto owned = std::make_shared<int>(3);
    worker_->addTimer(10, false, [this, owned] { marks_.push_back((*owned)++); });
    run(30);
    EXPECT_EQ(marks_, (Marks{3, 4, 5}));
}

TEST_F(WorkerTimerTest, StartsItsIdsOverAfterAClose) {
    addMarkTimer(10, false);
    addMarkTimer(10, false);
    run(5);
    addMarkTimer(10, false);
    worker_->removeTimer(2);
    FakeTime::setManual(false);
    worker_->close();
    EXPECT_EQ(addMarkTimer(10, false), 1U);
    EXPECT_EQ(addMarkTimer(10, false), 2U);
}

TEST_F(WorkerTimerTest, LogsWhatItIsAskedFor) {
    LogCapture log;
    addMarkTimer(250, true);
    worker_->removeTimer(1);
    worker_->removeTimer(4294967295U);
    EXPECT_TRUE(log.has("[Worker]: addTimer, intervalMs:250, oneShot:1\n"));
    EXPECT_TRUE(log.has("[Worker]: addTimer, intervalMs:250, oneShot:1, lastShotTickMs:1000000, timer.id:1\n"));
    EXPECT_TRUE(log.has("[Worker]: removeTimer, timerId:1\n"));
    EXPECT_TRUE(log.has("[Worker]: removeTimer, timerId:4294967295\n"));
}

}  // namespace
}  // namespace kelp
