#pragma once

#include <atomic>
#include <cstdint>

#include "clock/wrapping_math.h"
#include "runtime/kelp_time.h"

namespace kelp {

// The time of what is shown, in milliseconds, as a clock that runs on with the wall clock until the next is shown.
// Set by one thread, read by any; a reader that comes in between sees the old time or the new one.
class RunningClock {
public:
    void set(int64_t pts, int64_t nowMs) {
        pts_.store(pts, std::memory_order_relaxed);
        offset_.store(wrappingSubtract(pts, nowMs), std::memory_order_relaxed);
    }

    // As it was set.
    int64_t pts() const { return pts_.load(std::memory_order_relaxed); }

    bool hasTime() const { return offset_.load(std::memory_order_relaxed) != 0; }

    // What it reads now; 0 without a time.
    int64_t read() const {
        const int64_t offset = offset_.load(std::memory_order_relaxed);
        return offset == 0 ? 0 : wrappingAdd(KelpTime::getTimeMs(), offset);
    }

private:
    std::atomic<int64_t> pts_{0};
    std::atomic<int64_t> offset_{0};  // pts_ minus the wall clock when it was set; 0 means no time yet
};

}  // namespace kelp
