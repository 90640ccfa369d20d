#pragma once

#include <chrono>
#include <cstdint>

// Keeps to the pace of a source's times.
class Pace {
public:
    // Waits until `timeUs` of the source has come, in small steps, for as long as `goOn` says so. A time that jumps
    // starts anew: what it counts from is lost.
    template <class GoOn>
    void waitFor(int64_t timeUs, GoOn goOn);

private:
    using Clock = std::chrono::steady_clock;

    // When `timeUs` is due.
    Clock::time_point due(int64_t timeUs);
    static void sleepUntil(Clock::time_point time);

    Clock::time_point begin_{};  // when the source's 0 was, or would have been
    int64_t lastUs_ = INT64_MIN;
};

template <class GoOn>
void Pace::waitFor(int64_t timeUs, GoOn goOn) {
    const auto time = due(timeUs);
    while (goOn() && Clock::now() < time) {
        sleepUntil(time);
    }
}
