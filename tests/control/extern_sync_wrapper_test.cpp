#include "control/extern_sync_wrapper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace kelp {
namespace {

class HostClock : public KelpSyncClock {
public:
    HostClock(int64_t pts, int64_t threshold, bool force) : pts_(pts), threshold_(threshold), force_(force) {}
    int64_t getNoSyncThreshold() override { return threshold_; }
    bool isForceSync() override { return force_; }
    int64_t getSyncPts() override { return pts_; }

private:
    int64_t pts_;
    int64_t threshold_;
    bool force_;
};

TEST(ExternSyncWrapper, ReadsTheHostsClockLessTheOffset) {
    HostClock clock(0x1'0000'0000, 12345, true);
    ExternSyncWrapper wrapper;
    wrapper.set(&clock, 1000);
    EXPECT_EQ(wrapper.getSyncPts(), 0x1'0000'0000 - 1000);
    EXPECT_EQ(wrapper.getNoSyncThreshold(), 12345);
    EXPECT_TRUE(wrapper.isForceSync());
    wrapper.set(&clock, -1000);
    EXPECT_EQ(wrapper.getSyncPts(), 0x1'0000'0000 + 1000);
}

TEST(ExternSyncWrapper, ChangesItsClockInPlace) {
    HostClock first(100, 1, true);
    HostClock second(200, 2, false);
    ExternSyncWrapper wrapper;
    wrapper.set(&first, 0);
    wrapper.set(&second, 5);
    EXPECT_EQ(wrapper.getSyncPts(), 195);
    EXPECT_EQ(wrapper.getNoSyncThreshold(), 2);
    EXPECT_FALSE(wrapper.isForceSync());
}

TEST(ExternSyncWrapper, TakesAReadingOfAnySize) {
    HostClock clock(std::numeric_limits<int64_t>::min(), 1, true);
    ExternSyncWrapper wrapper;
    wrapper.set(&clock, 1);
    EXPECT_EQ(wrapper.getSyncPts(), std::numeric_limits<int64_t>::max());
}

TEST(ExternSyncWrapper, IsOutOfEveryonesReachWithoutAClock) {
    ExternSyncWrapper wrapper;
    for (int round = 0; round < 2; ++round) {
        EXPECT_FALSE(wrapper.isForceSync());
        EXPECT_EQ(wrapper.getNoSyncThreshold(), 10000);
        EXPECT_LT(wrapper.getSyncPts(), std::numeric_limits<int64_t>::min() / 4);
        HostClock clock(100, 1, true);
        wrapper.set(&clock, 0);
        EXPECT_EQ(wrapper.getSyncPts(), 100);
        wrapper.set(nullptr, 0);
    }
}

// A clock that takes its time over an answer.
class SlowClock : public KelpSyncClock {
public:
    int64_t getNoSyncThreshold() override { return 1; }
    bool isForceSync() override { return true; }
    int64_t getSyncPts() override {
        asked = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        return ++answered;
    }
    std::atomic<bool> asked{false};
    std::atomic<int> answered{0};
};

TEST(ExternSyncWrapper, LetsAnAnswerComeBeforeItsClockMayEnd) {
    SlowClock slow;
    HostClock other(100, 1, true);
    for (KelpSyncClock* next : {static_cast<KelpSyncClock*>(&other), static_cast<KelpSyncClock*>(nullptr)}) {
        slow.asked = false;
        slow.answered = 0;
        ExternSyncWrapper wrapper;
        wrapper.set(&slow, 0);
        std::thread player([&] { EXPECT_EQ(wrapper.getSyncPts(), 1); });
        while (!slow.asked) {
            std::this_thread::yield();
        }
        wrapper.set(next, 0);
        EXPECT_EQ(slow.answered, 1);
        player.join();
    }
}

// A clock whose answers wait for a lock that its host holds while it takes the clock back.
class LockedClock : public KelpSyncClock {
public:
    int64_t getNoSyncThreshold() override { return 1; }
    bool isForceSync() override { return true; }
    int64_t getSyncPts() override {
        asked = true;
        std::lock_guard lock(mutex);
        return 1;
    }
    std::atomic<bool> asked{false};
    std::mutex mutex;
};

TEST(ExternSyncWrapper, DoesNotWaitForEverForALockOfItsHost) {
    LockedClock clock;
    ExternSyncWrapper wrapper;
    wrapper.set(&clock, 0);
    std::unique_lock lock(clock.mutex);
    std::thread player([&] { wrapper.getSyncPts(); });
    while (!clock.asked) {
        std::this_thread::yield();
    }
    wrapper.set(nullptr, 0);
    EXPECT_FALSE(wrapper.isForceSync());
    lock.unlock();
    player.join();
}

TEST(ExternSyncWrapper, GivesUpAClockWhilePlayersReadIt) {
    ExternSyncWrapper wrapper;
    std::atomic<bool> done{false};
    std::vector<std::thread> players;
    for (int i = 0; i < 2; ++i) {
        players.emplace_back([&] {
            while (!done) {
                const int64_t pts = wrapper.getSyncPts();
                EXPECT_TRUE(pts == 100 || pts < std::numeric_limits<int64_t>::min() / 4) << pts;
                const int64_t threshold = wrapper.getNoSyncThreshold();
                EXPECT_TRUE(threshold == 7 || threshold == 10000) << threshold;
                wrapper.isForceSync();
            }
        });
    }
    for (int i = 0; i < 500; ++i) {
        const auto clock = std::make_unique<HostClock>(100, 7, true);
        wrapper.set(clock.get(), 0);
        std::this_thread::yield();
        wrapper.set(nullptr, 0);
    }
    done = true;
    for (auto& player : players) {
        player.join();
    }
}

TEST(ExternSyncWrapper, FollowsNobody) {
    HostClock clock(100, 1, true);
    const auto other = std::make_shared<ExternSyncWrapper>();
    ExternSyncWrapper wrapper;
    wrapper.set(&clock, 0);
    wrapper.setSyncObject(other);
    EXPECT_EQ(other.use_count(), 1);
    EXPECT_EQ(wrapper.getSyncPts(), 100);
}

}  // namespace
}  // namespace kelp
