#include "present/sound_wait.h"

#include <algorithm>
#include <limits>

#include "clock/wrapping_math.h"

namespace kelp {

namespace {

constexpr int64_t kMostWaitUs = 100'000;  // what is farther behind catches up by itself
constexpr int64_t kTooLateUs = 120'000;   // a picture that has waited as long as it may is seen 20 ms too early
constexpr int64_t kSteadyUs = 300'000;    // that the sound is to be beyond a limit

}  // namespace

void SoundWait::begin(int64_t readyUs, std::optional<int64_t> heardUs, int64_t nowUs) {
    readyUs_ = readyUs;
    beginUs_ = nowUs;
    freeUs_ = std::max(readyUs, wrappingSubtract(nowUs, delayUs_));
    hasWaited_ = false;
    decide(heardUs, nowUs);
}

void SoundWait::decide(std::optional<int64_t> heardUs, int64_t nowUs) {
    if (!heardUs) {
        waits_.reset();
        return;
    }
    const int64_t lateUs = wrappingSubtract(*heardUs, readyUs_);
    const bool agrees = lateUs <= (waits_.value_or(false) ? kTooLateUs : kMostWaitUs);
    if (!waits_ || (agrees != *waits_ && wrappingSubtract(nowUs, agreedUs_) >= kSteadyUs)) {
        waits_ = agrees;
    }
    if (agrees == *waits_) {
        agreedUs_ = nowUs;
    }
}

int64_t SoundWait::leftUs(std::optional<int64_t> heardUs, int64_t nowUs) {
    if (!heardUs || !waits_.value_or(false)) {
        return std::numeric_limits<int64_t>::min();
    }
    const int64_t leftUs =
        std::min(wrappingSubtract(*heardUs, nowUs), wrappingSubtract(wrappingAdd(readyUs_, kMostWaitUs), nowUs));
    hasWaited_ = hasWaited_ || leftUs > 0;
    return leftUs;
}

int64_t SoundWait::end(int64_t nowUs) {
    delayUs_ = std::clamp<int64_t>(wrappingSubtract(hasWaited_ ? nowUs : beginUs_, freeUs_), 0, kMostWaitUs);
    return delayUs_;
}

void SoundWait::forget() {
    delayUs_ = 0;
    freeUs_ = std::max(readyUs_, beginUs_);
}

}  // namespace kelp
