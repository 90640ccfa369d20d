#include "runtime/latest_time.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace kelp {
namespace {

TEST(LatestTime, IsTakenOnce) {
    LatestTime asked;
    EXPECT_FALSE(asked.isPending());
    EXPECT_EQ(asked.take(), std::nullopt);
    asked.post(0);
    EXPECT_TRUE(asked.isPending());
    EXPECT_EQ(asked.take(), 0);
    EXPECT_FALSE(asked.isPending());
    EXPECT_EQ(asked.take(), std::nullopt);
}

TEST(LatestTime, IsTheNewestOne) {
    LatestTime asked;
    asked.post(3000);
    asked.post(-1);
    EXPECT_EQ(asked.take(), -1);
    EXPECT_EQ(asked.take(), std::nullopt);
}

TEST(LatestTime, IsForgottenWhenItIsDropped) {
    LatestTime asked;
    asked.post(7);
    asked.drop();
    EXPECT_FALSE(asked.isPending());
    EXPECT_EQ(asked.take(), std::nullopt);
}

// The second of two is lost if taking the first isn't one step.
TEST(LatestTime, LosesNoneInAnyInterleaving) {
    constexpr int64_t kLast = 20'001;
    LatestTime asked;
    std::atomic<int64_t> taken{0};
    std::atomic<bool> inOrder{true};
    std::thread thread([&] {
        while (taken < kLast) {
            if (const auto time = asked.take()) {
                inOrder = inOrder && *time > taken;
                taken = *time;
            }
        }
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    bool isLost = false;
    for (int64_t time = 2; time < kLast && !isLost; time += 2) {
        asked.post(time);
        asked.post(time + 1);
        while (taken != time + 1 && !isLost) {
            isLost = std::chrono::steady_clock::now() > deadline;
        }
    }
    EXPECT_FALSE(isLost) << "after " << taken;
    asked.post(kLast);
    thread.join();
    EXPECT_TRUE(inOrder);
}

}  // namespace
}  // namespace kelp
