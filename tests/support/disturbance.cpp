#include "support/disturbance.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdlib>

namespace kelp::test {

namespace {

constexpr size_t kPoints = static_cast<size_t>(DisturbedPoint::ThreadStart) + 1;
constexpr uint64_t kShortNs = 2'000'000;
constexpr uint64_t kLongNs = 30'000'000;

// How many of 65536 passes end in each. Locks are taken so often that a program would hardly get on with more.
struct Odds {
    uint64_t yield;
    uint64_t shortSleep;
    uint64_t longSleep;
};
constexpr std::array<Odds, kPoints> kOdds{{
    {2048, 128, 2},       // Lock
    {2048, 128, 2},       // Unlock
    {8192, 4096, 128},    // Wait
    {8192, 4096, 128},    // Notify
    {16384, 16384, 512},  // ThreadStart
}};

struct Counters {
    std::atomic<uint64_t> passes{0};
    std::atomic<uint64_t> yields{0};
    std::atomic<uint64_t> sleeps{0};
};

std::array<Counters, kPoints> g_counters;
std::atomic<uint64_t> g_threads{0};

// Spreads consecutive numbers over all values.
uint64_t mix(uint64_t value) {
    value += 0x9e3779b97f4a7c15;
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9;
    value = (value ^ (value >> 27)) * 0x94d049bb133111eb;
    return value ^ (value >> 31);
}

uint64_t draw() {
    thread_local uint64_t state = mix(disturbanceSeed() * 0x10001 + g_threads.fetch_add(1, std::memory_order_relaxed));
    return mix(state++);
}

// Both by the system call itself: tests replace the library's functions, and these aren't what they look at.
void yieldProcessor() {
    syscall(SYS_sched_yield);
}

void sleepNs(uint64_t ns) {
    const timespec duration{0, static_cast<long>(ns)};
    syscall(SYS_nanosleep, &duration, nullptr);
}

void count(std::atomic<uint64_t>& counter) {
    counter.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

void disturb(DisturbedPoint point) {
    const auto index = static_cast<size_t>(point);
    const Odds& odds = kOdds[index];
    Counters& counters = g_counters[index];
    count(counters.passes);
    const uint64_t number = draw();
    const uint64_t lot = number & 0xffff;
    const uint64_t part = (number >> 16) & 0xffff;
    if (lot < odds.longSleep) {
        count(counters.sleeps);
        sleepNs(kLongNs * part >> 16);
    } else if (lot < odds.longSleep + odds.shortSleep) {
        count(counters.sleeps);
        sleepNs(kShortNs * part >> 16);
    } else if (lot < odds.longSleep + odds.shortSleep + odds.yield) {
        count(counters.yields);
        yieldProcessor();
    }
}

uint64_t disturbanceSeed() {
    static const uint64_t seed = [] {
        const char* text = std::getenv("KELP_DISTURB_SEED");
        return text != nullptr ? std::strtoull(text, nullptr, 10) : 1;
    }();
    return seed;
}

DisturbanceCounts disturbanceCounts(DisturbedPoint point) {
    const Counters& counters = g_counters[static_cast<size_t>(point)];
    return {counters.passes.load(std::memory_order_relaxed), counters.yields.load(std::memory_order_relaxed),
            counters.sleeps.load(std::memory_order_relaxed)};
}

}  // namespace kelp::test
