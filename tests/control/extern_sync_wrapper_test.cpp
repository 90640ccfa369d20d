#include "control/extern_sync_wrapper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "support/gate.h"
#include "support/log_capture.h"

// The host's clock as the players see it, and how it is taken back from threads that read it.

namespace kelp::test {
namespace {

class FixedClock : public KelpSyncClock {
public:
    FixedClock(int64_t pts, int64_t threshold, bool force) : pts_(pts), threshold_(threshold), force_(force) {}
    int64_t getNoSyncThreshold() override { return threshold_; }
    bool isForceSync() override { return force_; }
    int64_t getSyncPts() override { return pts_; }

private:
    int64_t pts_;
    int64_t threshold_;
    bool force_;
};

// A clock whose answers wait until the test lets them come.
class GatedClock : public KelpSyncClock {
public:
    int64_t getNoSyncThreshold() override { return 1; }
    bool isForceSync() override { return true; }
    int64_t getSyncPts() override {
        asked.open();
        mayAnswer.wait();
        answered = true;
        return 1;
    }
    Gate asked;
    Gate mayAnswer;
    std::atomic<bool> answered{false};
};

// What the player is told, beside.
void ignore(bool) {
}

// As a player changes its clock.
void change(ExternSyncWrapper& wrapper, KelpSyncClock* clock, int32_t offsetMs) {
    wrapper.waitUntilUnread(wrapper.set(clock, offsetMs, ignore));
}

// On a machine that is so busy that the answer takes longer than anyone waits, that has been said.
void expectWaitedFor(const GatedClock& clock, LogCapture& log) {
    EXPECT_TRUE(clock.answered || log.count("is still being read after 1000 ms") == 1);
}

bool isOutOfReach(int64_t pts) {
    return pts < std::numeric_limits<int64_t>::min() / 4;
}

TEST(ExternSyncWrapper, ReadsTheHostsClockLessTheOffset) {
    FixedClock clock(0x1'0000'0000, 12345, true);
    ExternSyncWrapper wrapper;
    change(wrapper, &clock, 1000);
    EXPECT_EQ(wrapper.getSyncPts(), 0x1'0000'0000 - 1000);
    EXPECT_EQ(wrapper.getNoSyncThreshold(), 12345);
    EXPECT_TRUE(wrapper.isForceSync());
    change(wrapper, &clock, -1000);
    EXPECT_EQ(wrapper.getSyncPts(), 0x1'0000'0000 + 1000);
}

// Neither the reading nor the difference fits 32 bits.
TEST(ExternSyncWrapper, CutsNothingOffAtTheEndsOf32Bits) {
    constexpr int32_t kLowest = std::numeric_limits<int32_t>::min();
    constexpr int32_t kHighest = std::numeric_limits<int32_t>::max();
    FixedClock high(kHighest, 0x1'0000'0000, true);
    FixedClock low(kLowest, 0x1'0000'0000, true);
    ExternSyncWrapper wrapper;
    change(wrapper, &high, kLowest);
    EXPECT_EQ(wrapper.getSyncPts(), int64_t{0xFFFF'FFFF});
    EXPECT_EQ(wrapper.getNoSyncThreshold(), 0x1'0000'0000);
    change(wrapper, &low, kHighest);
    EXPECT_EQ(wrapper.getSyncPts(), -int64_t{0xFFFF'FFFF});
}

TEST(ExternSyncWrapper, ChangesItsClockInPlace) {
    FixedClock first(100, 1, true);
    FixedClock second(200, 2, false);
    ExternSyncWrapper wrapper;
    change(wrapper, &first, 0);
    change(wrapper, &second, 5);
    EXPECT_EQ(wrapper.getSyncPts(), 195);
    EXPECT_EQ(wrapper.getNoSyncThreshold(), 2);
    EXPECT_FALSE(wrapper.isForceSync());
}

TEST(ExternSyncWrapper, TakesAReadingOfAnySize) {
    FixedClock clock(std::numeric_limits<int64_t>::min(), 1, true);
    ExternSyncWrapper wrapper;
    change(wrapper, &clock, 1);
    EXPECT_EQ(wrapper.getSyncPts(), std::numeric_limits<int64_t>::max());
}

TEST(ExternSyncWrapper, IsOutOfEveryonesReachWithoutAClock) {
    ExternSyncWrapper wrapper;
    for (int round = 0; round < 2; ++round) {
        EXPECT_FALSE(wrapper.isForceSync());
        EXPECT_EQ(wrapper.getNoSyncThreshold(), 10000);
        EXPECT_TRUE(isOutOfReach(wrapper.getSyncPts()));
        FixedClock clock(100, 1, true);
        change(wrapper, &clock, 0);
        EXPECT_EQ(wrapper.getSyncPts(), 100);
        change(wrapper, nullptr, 0);
    }
}

TEST(ExternSyncWrapper, IsFollowedFromAfterItHasAClockUntilBeforeItHasNone) {
    FixedClock clock(100, 1, true);
    ExternSyncWrapper wrapper;
    std::vector<bool> told;
    const auto follow = [&](bool followed) {
        told.push_back(followed);
        EXPECT_TRUE(wrapper.isForceSync());
    };
    EXPECT_EQ(wrapper.set(&clock, 0, follow), nullptr);
    EXPECT_EQ(wrapper.set(&clock, 5, follow), nullptr) << "the same clock, which isn't given up";
    EXPECT_EQ(wrapper.set(nullptr, 0, follow), &clock);
    EXPECT_EQ(told, (std::vector<bool>{true, true, false}));
}

// One takes its clock back, and is held up between the player's word and the clock's end; another one sets a clock.
TEST(ExternSyncWrapper, LetsTwoThreadsChangeItOneAfterTheOther) {
    FixedClock clock(100, 1, true);
    ExternSyncWrapper wrapper;
    wrapper.set(&clock, 0, ignore);
    std::atomic<bool> followed{true};
    Gate within;
    Gate mayGoOn;
    std::thread taker([&] {
        wrapper.set(nullptr, 0, [&](bool follow) {
            followed = follow;
            within.open();
            mayGoOn.wait();
        });
    });
    within.wait();
    std::atomic<bool> set{false};
    std::thread setter([&] {
        wrapper.set(&clock, 0, [&](bool follow) { followed = follow; });
        set = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // nothing to wait for: it must not get on
    EXPECT_FALSE(set);
    mayGoOn.open();
    taker.join();
    setter.join();
    EXPECT_TRUE(followed);
    EXPECT_TRUE(wrapper.isForceSync()) << "followed, without a clock";
}

TEST(ExternSyncWrapper, LetsAnAnswerComeBeforeItsClockMayEnd) {
    FixedClock other(100, 1, true);
    for (KelpSyncClock* next : {static_cast<KelpSyncClock*>(&other), static_cast<KelpSyncClock*>(nullptr)}) {
        GatedClock clock;
        ExternSyncWrapper wrapper;
        change(wrapper, &clock, 0);
        std::thread player([&] { EXPECT_EQ(wrapper.getSyncPts(), 1); });
        clock.asked.wait();
        std::thread answer([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));  // while it is waited for
            clock.mayAnswer.open();
        });
        LogCapture log(1);
        change(wrapper, next, 0);
        expectWaitedFor(clock, log);
        answer.join();
        player.join();
    }
}

// An answer that the first change has not waited for keeps its clock all the same.
TEST(ExternSyncWrapper, LetsAnAnswerComeAlsoAfterAChangeOfTheOffset) {
    GatedClock clock;
    ExternSyncWrapper wrapper;
    change(wrapper, &clock, 0);
    std::thread player([&] { EXPECT_EQ(wrapper.getSyncPts(), 1); });
    clock.asked.wait();
    change(wrapper, &clock, 5);
    EXPECT_FALSE(clock.answered);
    std::thread answer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        clock.mayAnswer.open();
    });
    LogCapture log(1);
    change(wrapper, nullptr, 0);
    expectWaitedFor(clock, log);
    answer.join();
    player.join();
}

TEST(ExternSyncWrapper, WaitsForNobodyWhoReadsAnotherClock) {
    GatedClock busy;
    FixedClock idle(100, 1, true);
    ExternSyncWrapper wrapper;
    change(wrapper, &idle, 0);
    EXPECT_EQ(wrapper.set(&busy, 0, ignore), &idle);
    std::thread player([&] { wrapper.getSyncPts(); });
    busy.asked.wait();
    LogCapture log;
    wrapper.waitUntilUnread(&idle);
    wrapper.waitUntilUnread(&busy);  // which is the one that is set
    wrapper.waitUntilUnread(nullptr);
    EXPECT_EQ(log.count("still being read"), 0) << "one of them was waited for to the end";
    busy.mayAnswer.open();
    player.join();
}

// The answer waits for a lock that the host holds while it takes the clock back; other threads aren't held up by that.
TEST(ExternSyncWrapper, DoesNotWaitForEverForALockOfItsHost) {
    GatedClock clock;
    FixedClock other(100, 1, true);
    ExternSyncWrapper wrapper;
    change(wrapper, &clock, 0);
    std::thread player([&] { wrapper.getSyncPts(); });
    clock.asked.wait();
    LogCapture log(1);
    KelpSyncClock* const replaced = wrapper.set(nullptr, 0, ignore);
    std::atomic<bool> waited{false};
    const auto begin = std::chrono::steady_clock::now();
    std::thread taker([&] {
        wrapper.waitUntilUnread(replaced);
        waited = true;
    });
    change(wrapper, &other, 0);
    EXPECT_EQ(wrapper.getSyncPts(), 100);
    const bool isOver = waited;
    EXPECT_TRUE(!isOver || std::chrono::steady_clock::now() - begin >= std::chrono::seconds(1));
    taker.join();
    EXPECT_FALSE(clock.answered);
    EXPECT_EQ(log.count("[ExternSyncWrapper]: setExternSyncClock, the host's clock is still being read after 1000 ms, "
                        "it must not end yet\n"),
              1);
    clock.mayAnswer.open();
    player.join();
}

// A waiting thread leaves the processor to the others.
TEST(ExternSyncWrapper, DoesNotSpinWhileItWaits) {
    GatedClock clock;
    ExternSyncWrapper wrapper;
    change(wrapper, &clock, 0);
    std::thread player([&] { wrapper.getSyncPts(); });
    clock.asked.wait();
    std::thread answer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        clock.mayAnswer.open();
    });
    const auto usedMs = [] {
        timespec used{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
        return used.tv_sec * 1000 + used.tv_nsec / 1'000'000;
    };
    LogCapture log(1);
    const auto before = usedMs();
    change(wrapper, nullptr, 0);
    EXPECT_LT(usedMs() - before, 30);
    expectWaitedFor(clock, log);
    answer.join();
    player.join();
}

// Also no reading that is made of the one clock and the other one's offset.
TEST(ExternSyncWrapper, ChangesAndGivesUpClocksWhilePlayersReadThem) {
    ExternSyncWrapper wrapper;
    std::atomic<bool> done{false};
    std::vector<std::thread> players;
    for (int i = 0; i < 2; ++i) {
        players.emplace_back([&] {
            while (!done) {
                const int64_t pts = wrapper.getSyncPts();
                EXPECT_TRUE(pts == 100 || isOutOfReach(pts)) << pts;
                const int64_t threshold = wrapper.getNoSyncThreshold();
                EXPECT_TRUE(threshold == 7 || threshold == 10000) << threshold;
                wrapper.isForceSync();
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        const auto clock = std::make_unique<FixedClock>(100, 7, true);
        change(wrapper, clock.get(), 0);
        std::this_thread::yield();
        {
            FixedClock later(5100, 7, false);
            change(wrapper, &later, 5000);
            std::this_thread::yield();
            change(wrapper, clock.get(), 0);
        }
        change(wrapper, nullptr, 0);
    }
    done = true;
    for (auto& player : players) {
        player.join();
    }
}

TEST(ExternSyncWrapper, FollowsNobody) {
    FixedClock clock(100, 1, true);
    const auto other = std::make_shared<ExternSyncWrapper>();
    ExternSyncWrapper wrapper;
    change(wrapper, &clock, 0);
    wrapper.setSyncObject(other);
    EXPECT_EQ(other.use_count(), 1);
    EXPECT_EQ(wrapper.getSyncPts(), 100);
}

}  // namespace
}  // namespace kelp::test
