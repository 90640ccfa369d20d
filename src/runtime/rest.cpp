#include "runtime/rest.h"

#include <algorithm>
#include <chrono>

namespace kelp {

void Rest::forMs(int ms, const std::function<bool()>& isOver) {
    waitMs(ms, isOver);
}

bool Rest::waitMs(int ms, const std::function<bool()>& isOver) {
    std::unique_lock lock(mutex_);
    if (ms == kForeverMs) {
        ended_.wait(lock, isOver);
        return true;
    }
    return ended_.wait_for(lock, std::chrono::milliseconds(ms), isOver);
}

void Rest::forUs(int64_t us, const std::function<bool()>& isOver) {
    std::unique_lock lock(mutex_);
    ended_.wait_for(lock, std::chrono::microseconds(us), isOver);
}

void Rest::untilMs(int64_t timeMs, const std::function<bool()>& isOver) {
    using Clock = std::chrono::system_clock;
    constexpr auto kLast = std::chrono::floor<std::chrono::milliseconds>(Clock::duration::max());
    std::unique_lock lock(mutex_);
    ended_.wait_until(lock, Clock::time_point(std::min(std::chrono::milliseconds(timeMs), kLast)), isOver);
}

// What was noted before is seen by a look that comes after the mutex is free, and one that came before it sleeps by
// then. It is free when the sleeper wakes, who would wait for it otherwise.
void Rest::end() {
    { const std::lock_guard lock(mutex_); }
    ended_.notify_all();
}

}  // namespace kelp
