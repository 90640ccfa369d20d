#include "runtime/worker.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <numeric>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "kelp_player/log.h"
#include "support/fake_time.h"
#include "support/gate.h"
#include "support/log_capture.h"
#include "support/private_member.h"
#include "support/sanitizers.h"

namespace kelp {

namespace test {

using WorkerFlag = std::atomic<bool> Worker::*;
WorkerFlag privateMember(PrivateMember<struct ClosedTag, WorkerFlag>);
template struct ExposeMember<struct ClosedTag, &Worker::closed_>;

}  // namespace test

namespace {

using test::FakeTime;
using test::Gate;
using test::LogCapture;

bool isClosed(Worker& worker) {
    return worker.*privateMember(test::PrivateMember<test::ClosedTag, test::WorkerFlag>{});
}

class WorkerTest : public testing::Test {
protected:
    WorkerTest() { FakeTime::reset(); }
    ~WorkerTest() override { FakeTime::reset(); }

    // Waits until all that is queued has run.
    void flush() {
        Gate done;
        worker_->task([&] { done.open(); });
        done.wait();
    }

    // Queues a callable that stands at `gate`, and waits until it runs.
    void block(Gate& gate) {
        Gate running;
        worker_->task([&] {
            running.open();
            gate.wait();
        });
        running.wait();
    }

    std::shared_ptr<Worker> worker_ = std::make_shared<Worker>();
};

TEST_F(WorkerTest, RunsTasksInOrderOnItsTaskThread) {
    std::vector<int> order;
    std::set<std::thread::id> threads;
    char name[16] = {};
    worker_->start();
    for (int i = 0; i < 100; ++i) {
        worker_->task([&, i] {
            order.push_back(i);
            threads.insert(std::this_thread::get_id());
            pthread_getname_np(pthread_self(), name, sizeof(name));
        });
    }
    flush();
    std::vector<int> expected(100);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(order, expected);
    EXPECT_EQ(threads.size(), 1U);
    EXPECT_FALSE(threads.contains(std::this_thread::get_id()));
    EXPECT_STREQ(name, "Worker");
}

TEST_F(WorkerTest, HasTwoThreadsWithNames) {
    const auto threadNames = [] {
        std::multiset<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
            std::string name;
            std::getline(std::ifstream(entry.path() / "comm") >> std::ws, name);
            names.insert(name);
        }
        return names;
    };
    FakeTime::setManual(true);
    worker_->start();
    flush();
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(threadNames().count("Worker"), 1U);
    EXPECT_EQ(threadNames().count("WorkerTimer"), 1U);
    FakeTime::setManual(false);
    worker_->close();
}

TEST_F(WorkerTest, RunsWhatWasQueuedBeforeItsStart) {
    int runs = 0;
    worker_->task([&] { ++runs; });
    EXPECT_EQ(runs, 0);
    worker_->start();
    flush();
    EXPECT_EQ(runs, 1);
}

TEST_F(WorkerTest, TakesAllQueuedTasksAsOneBatch) {
    LogCapture log;
    Gate done;
    worker_->task([] {});
    worker_->task([] {});
    worker_->task([&] { done.open(); });
    worker_->start();
    done.wait();
    worker_->close();
    const auto lines = log.lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], "[Worker]: Worker wait task, task.size:3\n");
    EXPECT_EQ(lines[1], "[Worker]: Worker got tasks, size:3\n");
}

TEST_F(WorkerTest, LogsItsWaitOnAnEmptyQueue) {
    LogCapture log;
    worker_->start();
    while (!log.has("[Worker]: Worker wait task, task.size:0\n")) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(log.has("got tasks"));
    worker_->close();
}

TEST_F(WorkerTest, DestroysABatchAfterItsLastTask) {
    auto owned = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = owned;
    bool aliveInTheNext = false;
    worker_->task([owned = std::move(owned)] {});
    worker_->task([&] { aliveInTheNext = !watched.expired(); });
    worker_->start();
    flush();
    flush();
    EXPECT_TRUE(aliveInTheNext);
    EXPECT_TRUE(watched.expired());
}

TEST_F(WorkerTest, LetsATaskQueueAnother) {
    std::vector<int> order;
    Gate done;
    worker_->task([&] {
        worker_->task([&] {
            order.push_back(3);
            done.open();
        });
        order.push_back(1);
    });
    worker_->task([&] { order.push_back(2); });
    worker_->start();
    done.wait();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST_F(WorkerTest, NeverWaitsForARunningTaskToQueueAnother) {
    Gate gate;
    int runs = 0;
    worker_->start();
    block(gate);
    for (int i = 0; i < 1000; ++i) {
        worker_->task([&] { ++runs; });
    }
    gate.open();
    flush();
    EXPECT_EQ(runs, 1000);
}

TEST_F(WorkerTest, WaitsTenMillisecondsForAnEmptyQueueWhenIdle) {
    LogCapture log;
    worker_->waitEmpty();  // without its threads nobody else sleeps
    EXPECT_EQ(FakeTime::sleeps(), std::vector<int>{10});
    EXPECT_EQ(log.lines(), std::vector<std::string>{"[Worker]: waitEmpty, tasks_.size:0\n"});
}

TEST_F(WorkerTest, WaitsUntilTheQueueIsEmptyButNotForTheRunningBatch) {
    LogCapture log;
    Gate first;
    Gate second;
    Gate secondRuns;
    std::atomic<bool> secondEnded{false};
    FakeTime::setManual(true);
    worker_->start();
    block(first);
    worker_->task([&] {
        secondRuns.open();
        second.wait();
        secondEnded = true;
    });

    auto waiter = std::async(std::launch::async, [&] { worker_->waitEmpty(); });
    EXPECT_TRUE(FakeTime::runFor(30, 2));  // the waiter and the timer thread
    EXPECT_EQ(log.count("[Worker]: waitEmpty, tasks_.size:1\n"), 3);
    EXPECT_EQ(log.count("tasks_.size:0"), 0);

    first.open();
    secondRuns.wait();
    FakeTime::advanceMs(10);
    waiter.get();
    EXPECT_FALSE(secondEnded);
    EXPECT_EQ(log.count("[Worker]: waitEmpty, tasks_.size:0\n"), 1);
    second.open();
    FakeTime::setManual(false);
    worker_->close();
}

TEST_F(WorkerTest, WaitsAlsoForWhatATaskQueues) {
    LogCapture log;
    Gate first;
    Gate second;
    Gate secondRuns;
    Gate thirdRuns;
    FakeTime::setManual(true);
    worker_->start();
    block(first);
    worker_->task([&] {
        worker_->task([&] { thirdRuns.open(); });
        secondRuns.open();
        second.wait();
    });
    auto waiter = std::async(std::launch::async, [&] { worker_->waitEmpty(); });
    EXPECT_TRUE(FakeTime::runFor(5, 2));
    first.open();
    secondRuns.wait();
    EXPECT_TRUE(FakeTime::runFor(20, 2));
    EXPECT_EQ(log.count("[Worker]: waitEmpty, tasks_.size:1\n"), 2);
    second.open();
    thirdRuns.wait();
    FakeTime::advanceMs(10);
    waiter.get();
    FakeTime::setManual(false);
    worker_->close();
}

TEST_F(WorkerTest, CloseDropsWhatIsQueuedAndRunsTheBatchThatWasTaken) {
    Gate gate;
    Gate running;
    std::atomic<int> batchRuns{0};
    std::atomic<int> droppedRuns{0};
    auto owned = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = owned;
    worker_->task([&] {
        running.open();
        gate.wait();
        ++batchRuns;
    });
    worker_->task([&] { ++batchRuns; });
    worker_->task([&] { ++batchRuns; });
    worker_->start();
    running.wait();
    worker_->task([&, owned = std::move(owned)] { ++droppedRuns; });
    auto closer = std::async(std::launch::async, [&] { worker_->close(); });
    while (!isClosed(*worker_)) {
        std::this_thread::yield();
    }
    gate.open();
    closer.get();
    EXPECT_EQ(batchRuns, 3);
    EXPECT_EQ(droppedRuns, 0);
    EXPECT_TRUE(watched.expired());
}

TEST_F(WorkerTest, CloseEndsATaskThreadThatWaits) {
    LogCapture log;
    worker_->start();
    while (!log.has("Worker wait task, task.size:0\n")) {
        std::this_thread::yield();
    }
    worker_->close();
}

// Leads close into the instant between the task thread's look at the flag and its wait, by a hold of the queue's mutex
// over that time: waitEmpty logs under it. If the wake-up is lost, close never returns. Who gets the mutex next is the
// system's choice, hence the rounds.
TEST_F(WorkerTest, CloseEndsATaskThreadThatIsAboutToWait) {
    Log::SetLogCallback([](const char*) {});
    Log::SetLevel(4);
    for (int round = 0; round < 20; ++round) {
        Gate lastTask;
        Gate mutexHeld;
        Gate mutexReleased;
        worker_ = std::make_shared<Worker>();
        worker_->start();
        worker_->task([] {
            // Lets the thread that wakes this one run on.
            const sched_param parameters{};
            pthread_setschedparam(pthread_self(), SCHED_BATCH, &parameters);
        });
        block(lastTask);
        Log::SetLogCallback([&](const char* line) {
            if (std::strstr(line, "waitEmpty, tasks_.size:0")) {
                mutexHeld.open();
                mutexReleased.wait();
            }
        });
        std::thread closer([&] {
            worker_->waitEmpty();
            worker_->close();  // takes the mutex again before the one that waits for it is awake
        });
        mutexHeld.wait();
        lastTask.open();
        // For real: nothing tells that a thread has come to wait for a mutex.
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        mutexReleased.open();
        closer.join();
        Log::SetLogCallback([](const char*) {});
    }
    Log::SetLevel(3);
    Log::SetLogCallback(nullptr);
}

TEST_F(WorkerTest, ClosesWithoutAStartAndMoreThanOnce) {
    worker_->close();
    worker_->close();
    EXPECT_TRUE(isClosed(*worker_));
}

TEST_F(WorkerTest, IsClosedByItsDestructor) {
    int runs = 0;
    auto owned = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = owned;
    worker_->start();
    worker_->task([&] { ++runs; });
    flush();
    worker_->addTimer(1000, false, [owned = std::move(owned)] {});
    worker_.reset();
    EXPECT_EQ(runs, 1);
    EXPECT_TRUE(watched.expired());
}

TEST_F(WorkerTest, KeepsATaskOfAfterItsCloseUnrun) {
    int runs = 0;
    auto owned = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = owned;
    worker_->start();
    worker_->close();
    worker_->task([&, owned = std::move(owned)] { ++runs; });
    EXPECT_FALSE(watched.expired());
    worker_.reset();
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(runs, 0);
}

TEST_F(WorkerTest, StartsNothingAfterItsClose) {
    LogCapture log;
    int runs = 0;
    worker_->close();
    worker_->task([&] { ++runs; });
    worker_->addTimer(0, true, [&] { ++runs; });
    worker_->start();
    worker_.reset();
    EXPECT_EQ(runs, 0);
    EXPECT_FALSE(log.has("Worker wait task"));
}

// Calls into the worker when it dies, as an object that owns a timer does.
struct DyingClient {
    Worker* worker;
    int* died;
    ~DyingClient() {
        worker->task([] {});
        worker->removeTimer(worker->addTimer(1, true, [] {}));
        ++*died;
    }
};

TEST_F(WorkerTest, HoldsNoLockWhileWhatItDropsIsDestroyed) {
    int died = 0;
    const auto client = [&] { return std::make_shared<DyingClient>(DyingClient{worker_.get(), &died}); };
    FakeTime::setManual(true);
    const unsigned int unarmed = worker_->addTimer(1000, false, [owned = client()] {});
    died = 0;  // the temporaries' destructors
    worker_->removeTimer(unarmed);
    EXPECT_EQ(died, 1);

    const unsigned int armed = worker_->addTimer(1000, false, [owned = client()] {});
    worker_->start();
    ASSERT_TRUE(FakeTime::runFor(5, 1));
    died = 0;
    worker_->removeTimer(armed);
    EXPECT_EQ(died, 0);
    ASSERT_TRUE(FakeTime::runFor(5, 1));
    EXPECT_EQ(died, 1);

    worker_->addTimer(1000, false, [owned = client()] {});
    ASSERT_TRUE(FakeTime::runFor(5, 1));
    worker_->addTimer(1000, false, [owned = client()] {});
    Gate gate;
    block(gate);
    worker_->task([owned = client()] {});
    died = 0;
    FakeTime::setManual(false);
    auto closer = std::async(std::launch::async, [&] { worker_->close(); });
    while (!isClosed(*worker_)) {
        std::this_thread::yield();
    }
    gate.open();
    closer.get();
    EXPECT_EQ(died, 3);
}

TEST_F(WorkerTest, RefusesToBeClosedByATask) {
    if (KELP_THREAD_SANITIZER) {
        GTEST_SKIP() << "the thread sanitizer doesn't stand a thread that joins itself";
    }
    std::error_code code;
    Gate refused;
    worker_->start();
    worker_->task([&] {
        try {
            worker_->close();
        } catch (const std::system_error& error) {
            code = error.code();
        }
        refused.open();
    });
    refused.wait();
    worker_.reset();  // joins the threads that the refused close has left
    EXPECT_EQ(code, std::errc::resource_deadlock_would_occur);
}

class WorkerDeathTest : public WorkerTest {
protected:
    WorkerDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(WorkerDeathTest, EndsTheProcessWhenStartedTwice) {
    EXPECT_DEATH(
        {
            worker_->start();
            worker_->start();
        },
        "terminate called");
}

TEST_F(WorkerDeathTest, EndsTheProcessWhenATaskThrows) {
    EXPECT_DEATH(
        {
            worker_->task([] { throw std::runtime_error("thrown by a task"); });
            worker_->start();
            flush();
        },
        "thrown by a task");
}

TEST_F(WorkerDeathTest, EndsTheProcessOnAnEmptyTask) {
    EXPECT_DEATH(
        {
            worker_->task(nullptr);
            worker_->start();
            flush();
        },
        "bad_function_call");
}

TEST_F(WorkerDeathTest, EndsTheProcessWhenATimerWithoutAFunctionFires) {
    EXPECT_DEATH(
        {
            worker_->addTimer(0, true, nullptr);
            worker_->start();
            Gate().wait();
        },
        "bad_function_call");
}

}  // namespace
}  // namespace kelp
