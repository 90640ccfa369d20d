#include "runtime/rest.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

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

TEST(Rest, DoesNotBeginWhenItIsOver) {
    Rest rest;
    const auto start = Clock::now();
    rest.forMs(kLongMs, [] { return true; });
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
