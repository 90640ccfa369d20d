#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "runtime/atomic_shared_ptr.h"
#include "runtime/worker.h"
#include "support/fake_time.h"

namespace kelp {
namespace {

using test::FakeTime;

class WorkerStress : public testing::Test {
protected:
    WorkerStress() { FakeTime::reset(); }
    ~WorkerStress() override { FakeTime::reset(); }
};

// A lost wake-up shows as a test that never ends: close joins a thread that waits for good.
TEST_F(WorkerStress, EndsWheneverItIsClosed) {
    constexpr int kCycles = 200;
    AtomicSharedPtr<Worker> current;
    std::atomic<bool> stop{false};
    std::atomic<int> runs{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 3; ++i) {
        clients.emplace_back([&] {
            while (!stop) {
                if (const auto worker = current.load()) {
                    worker->task([&] { ++runs; });
                }
                std::this_thread::yield();
            }
        });
    }
    std::mt19937 random(3);
    for (int i = 0; i < kCycles; ++i) {
        const auto worker = std::make_shared<Worker>();
        current.store(worker);
        worker->start();
        for (unsigned int spin = random() % 50; spin > 0; --spin) {
            std::this_thread::yield();
        }
        worker->close();
    }
    stop = true;
    for (auto& client : clients) {
        client.join();
    }
    EXPECT_GT(runs, 0);
}

TEST_F(WorkerStress, EndsWhenItIsClosedAtTheEndOfItsLastTask) {
    constexpr int kCycles = 300;
    for (int i = 0; i < kCycles; ++i) {
        const auto worker = std::make_shared<Worker>();
        std::atomic<bool> ran{false};
        worker->task([&] { ran = true; });
        worker->start();
        while (!ran) {
            std::this_thread::yield();
        }
        // The task thread is on its way from its look at the flag to its wait.
        for (int spin = i % 100; spin > 0; --spin) {
            ran = true;
        }
        worker->close();
    }
}

TEST_F(WorkerStress, RunsEveryTaskAndTimerOfManyClients) {
    constexpr int kClients = 4;
    constexpr int kTasks = 2000;
    const auto worker = std::make_shared<Worker>();
    worker->start();
    int taskRuns[kClients] = {};  // written on the task thread
    int timerRuns = 0;
    bool inOrder = true;
    std::vector<std::thread> clients;
    for (int client = 0; client < kClients; ++client) {
        clients.emplace_back([&, client] {
            for (int i = 0; i < kTasks; ++i) {
                worker->task([&, client, i] {
                    inOrder &= taskRuns[client] == i;
                    ++taskRuns[client];
                });
                if (i % 10 == 0) {
                    worker->addTimer(0, true, [&] { ++timerRuns; });
                }
                if (i % 10 == 5) {
                    worker->removeTimer(worker->addTimer(1'000'000, false, [] {}));
                }
            }
        });
    }
    for (auto& client : clients) {
        client.join();
    }
    // All timers are due; the last of them is queued within some passes.
    std::atomic<bool> done{false};
    while (!done) {
        worker->task([&] { done = timerRuns == kClients * kTasks / 10; });
        worker->waitEmpty();
    }
    worker->close();
    for (const int runs : taskRuns) {
        EXPECT_EQ(runs, kTasks);
    }
    EXPECT_TRUE(inOrder);
}

}  // namespace
}  // namespace kelp
