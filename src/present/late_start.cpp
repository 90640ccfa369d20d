#include "present/late_start.h"

#include <algorithm>

#include "clock/wrapping_math.h"

namespace kelp {

namespace {

// Streams that begin so much apart begin together: their first frames differ in length, or in what the encoder needs.
constexpr int64_t kTogetherMs = 100;
constexpr int64_t kLongestStepMs = 1000;  // a longer one means that the wall clock was set
constexpr int64_t kLargestLeadMs = 1000;  // by which the other stream's thread may have begun anew before this one

}  // namespace

void LateStart::begin(int64_t positionMs) {
    isOver_ = false;
    isLate_ = false;
    positionMs_ = positionMs;
    lookedMs_.reset();
    anewMs_.reset();
}

void LateStart::beginAnew(int64_t positionMs, int64_t nowMs) {
    begin(positionMs);
    anewMs_ = nowMs;
}

void LateStart::comeTo(int64_t positionMs, int64_t nowMs) {
    const int64_t playedMs = wrappingSubtract(positionMs, positionMs_);
    if (playedMs > 0 && (!anewMs_ || playedMs <= wrappingAdd(wrappingSubtract(nowMs, *anewMs_), kLargestLeadMs))) {
        positionMs_ = positionMs;
    }
}

int64_t LateStart::remaining(int64_t pts, int64_t nowMs, bool isPaused) {
    if (!isWanted_ || isOver_) {
        return 0;
    }
    if (lookedMs_ && !isPaused) {
        const int64_t step = std::clamp<int64_t>(wrappingSubtract(nowMs, *lookedMs_), 0, kLongestStepMs);
        positionMs_ = wrappingAdd(positionMs_, step);
    }
    lookedMs_ = nowMs;
    const int64_t remainingMs = wrappingSubtract(pts, positionMs_);
    isLate_ = isLate_ || remainingMs > kTogetherMs;
    isOver_ = !isLate_ || remainingMs <= 0;
    return isOver_ ? 0 : remainingMs;
}

}  // namespace kelp
