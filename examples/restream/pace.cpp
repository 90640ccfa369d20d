#include "pace.h"

#include <algorithm>
#include <thread>

namespace {

constexpr int64_t kJumpUs = 5'000'000;  // further apart than any two times of one source that runs on
constexpr auto kStep = std::chrono::milliseconds(50);

}  // namespace

Pace::Clock::time_point Pace::due(int64_t timeUs) {
    const bool jumped = lastUs_ == INT64_MIN || timeUs > lastUs_ + kJumpUs || timeUs < lastUs_ - kJumpUs;
    if (jumped) {
        begin_ = Clock::now() - std::chrono::microseconds(timeUs);
    }
    lastUs_ = timeUs;
    return begin_ + std::chrono::microseconds(timeUs);
}

void Pace::sleepUntil(Clock::time_point time) {
    std::this_thread::sleep_until(std::min(time, Clock::now() + kStep));
}
