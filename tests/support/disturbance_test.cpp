#include "support/disturbance.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>
#include <thread>

namespace kelp::test {
namespace {

// What this program does itself comes past the disturbance: the linker put it in.
void expectDisturbed(DisturbedPoint point, uint64_t passesBefore, uint64_t passes) {
    const DisturbanceCounts counts = disturbanceCounts(point);
    EXPECT_GE(counts.passes, passesBefore + passes);
    EXPECT_GT(counts.yields, 0U);
    EXPECT_GT(counts.sleeps, 0U);
    EXPECT_LT(counts.yields + counts.sleeps, counts.passes);
}

uint64_t passesOf(DisturbedPoint point) {
    return disturbanceCounts(point).passes;
}

TEST(Disturbance, HoldsUpWhoLocksAndUnlocks) {
    const uint64_t locks = passesOf(DisturbedPoint::Lock);
    const uint64_t unlocks = passesOf(DisturbedPoint::Unlock);
    std::mutex mutex;
    std::shared_mutex sharedMutex;
    for (int i = 0; i < 5000; ++i) {
        const std::lock_guard lock(mutex);
        const std::shared_lock sharedLock(sharedMutex);
    }
    expectDisturbed(DisturbedPoint::Lock, locks, 20000);
    expectDisturbed(DisturbedPoint::Unlock, unlocks, 20000);
}

TEST(Disturbance, HoldsUpWhoWaits) {
    const uint64_t waits = passesOf(DisturbedPoint::Wait);
    std::mutex mutex;
    std::condition_variable condition;
    std::unique_lock lock(mutex);
    for (int i = 0; i < 400; ++i) {
        condition.wait_for(lock, std::chrono::microseconds(1));
        condition.wait_until(lock, std::chrono::system_clock::now());
    }
    expectDisturbed(DisturbedPoint::Wait, waits, 800);
}

TEST(Disturbance, HoldsUpWhoNotifies) {
    const uint64_t notifications = passesOf(DisturbedPoint::Notify);
    std::mutex mutex;
    std::condition_variable condition;
    bool mine = true;
    std::thread other([&] {
        for (int i = 0; i < 400; ++i) {
            std::unique_lock lock(mutex);
            condition.wait(lock, [&] { return !mine; });
            mine = true;
            condition.notify_all();
        }
    });
    for (int i = 0; i < 400; ++i) {
        std::unique_lock lock(mutex);
        condition.wait(lock, [&] { return mine; });
        mine = false;
        condition.notify_one();
    }
    other.join();
    expectDisturbed(DisturbedPoint::Notify, notifications, 800);
}

TEST(Disturbance, HoldsUpNewThreads) {
    const uint64_t starts = passesOf(DisturbedPoint::ThreadStart);
    int ran = 0;
    for (int i = 0; i < 200; ++i) {
        std::thread([&] { ++ran; }).join();
    }
    EXPECT_EQ(ran, 200);
    expectDisturbed(DisturbedPoint::ThreadStart, starts, 400);
}

TEST(Disturbance, KeepsLocksAndSignals) {
    std::mutex mutex;
    int sum = 0;
    const auto add = [&] {
        for (int i = 0; i < 2000; ++i) {
            const std::lock_guard lock(mutex);
            ++sum;
        }
    };
    std::thread first(add);
    std::thread second(add);
    first.join();
    second.join();
    EXPECT_EQ(sum, 4000);
    EXPECT_TRUE(mutex.try_lock());
    std::thread([&] { EXPECT_FALSE(mutex.try_lock()); }).join();
    mutex.unlock();
}

}  // namespace
}  // namespace kelp::test
