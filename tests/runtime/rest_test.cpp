#include "runtime/rest.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "runtime/kelp_time.h"

namespace kelp {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kLongMs = 60'000;

TEST(Rest, LastsAsLongAsItWasAskedTo) {
    Rest rest;
    const auto start = Clock::now();
    rest.forMs(20, [] { return false; });
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(20));
}

TEST(Rest, SaysWhetherAWaitIsOverForItsReason) {
    Rest rest;
    const auto start = Clock::now();
    EXPECT_FALSE(rest.waitMs(20, [] { return false; }));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(20));
    std::atomic<bool> over{false};
    std::thread other([&] {
        over = true;
        rest.end();
    });
    EXPECT_TRUE(rest.waitMs(kLongMs, [&] { return over.load(); }));
    other.join();
    EXPECT_TRUE(rest.waitMs(Rest::kForeverMs, [&] { return over.load(); }));
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(kLongMs / 2));
}

TEST(Rest, LastsForMicroseconds) {
    Rest rest;
    const auto start = Clock::now();
    rest.forUs(300, [] { return false; });
    const auto lasted = Clock::now() - start;
    EXPECT_GE(lasted, std::chrono::microseconds(300));
    EXPECT_LT(lasted, std::chrono::milliseconds(kLongMs / 2));
    rest.forUs(-300, [] { return false; });
    rest.forUs(int64_t{kLongMs} * 1000, [] { return true; });
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(kLongMs / 2));
}

TEST(Rest, LastsUntilTheWallClockShowsItsTime) {
    Rest rest;
    const int64_t endMs = KelpTime::getTimeMs() + 20;
    rest.untilMs(endMs, [] { return false; });
    EXPECT_GE(KelpTime::getTimeMs(), endMs);
    rest.untilMs(endMs, [] { return false; });
    EXPECT_LT(KelpTime::getTimeMs(), endMs + kLongMs / 2);
}

TEST(Rest, ForeverIsNotShorterThanItsReason) {
    for (const bool isUntil : {false, true}) {
        Rest rest;
        std::atomic<bool> over{false};
        std::atomic<bool> rested{false};
        std::thread resting([&] {
            const auto isOver = [&] { return over.load(); };
            isUntil ? rest.untilMs(Rest::kNeverMs, isOver) : rest.forMs(Rest::kForeverMs, isOver);
            rested = true;
        });
        // For real: nothing is to happen.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        rest.end();
        EXPECT_FALSE(rested);
        over = true;
        rest.end();
        resting.join();
    }
}

TEST(Rest, DoesNotBeginWhenItIsOver) {
    Rest rest;
    const auto start = Clock::now();
    rest.forMs(kLongMs, [] { return true; });
    rest.untilMs(Rest::kNeverMs, [] { return true; });
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(kLongMs / 2));
}

TEST(Rest, GoesOnWhenItsEndIsNotForIt) {
    Rest rest;
    rest.end();
    std::atomic<bool> done{false};
    std::thread other([&] {
        while (!done) {
            rest.end();
            std::this_thread::yield();
        }
    });
    const auto start = Clock::now();
    rest.forMs(20, [] { return false; });
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(20));
    done = true;
    other.join();
}

// A lost wake-up would leave the thread asleep for a minute.
TEST(Rest, MissesNoRequestInAnyInterleaving) {
    Rest rest;
    std::atomic<int> requested{0};
    std::atomic<int> served{0};
    constexpr int kRequests = 20'000;
    const auto start = Clock::now();
    std::thread resting([&] {
        while (served < kRequests) {
            rest.forMs(kLongMs, [&] { return requested > served; });
            served = requested.load();
        }
    });
    for (int i = 1; i <= kRequests; ++i) {
        requested = i;
        rest.end();
        while (i % 2 == 0 && served != i) {
            std::this_thread::yield();
        }
    }
    resting.join();
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(kLongMs / 2));
}

}  // namespace
}  // namespace kelp
