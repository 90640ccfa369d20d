#include "present/sound_catch_up.h"

#include <algorithm>
#include <limits>

#include "clock/wrapping_math.h"

namespace kelp {

namespace {

constexpr int64_t kIntervalUs = 1'000'000;
constexpr int64_t kTooFarMs = 200;  // 10 % of two seconds
constexpr int64_t kFitsUs = 20'000;
constexpr int64_t kLeastStandingUs = 10'000;  // less isn't worth a change, and a machine may be late by it
constexpr double kMostFaster = 0.1;
constexpr double kTakenInUs = 1'000'000;  // of a smaller one in which it would go

}  // namespace

bool SoundCatchUp::isWanted(const DecodedFrame& frame, int64_t nowUs, int64_t queuedMs, bool hasMore, int64_t spareUs,
                            int64_t behindMasterMs) {
    playout_.add(frame.pts, frame.queuedUs);
    const int64_t lateUs = wrappingSubtract(nowUs, playout_.dueUs(frame.pts));
    const int64_t behindUs = std::clamp<int64_t>(lateUs, 0, wrappingMultiply(queuedMs, 1000));
    const bool isTooFar = behindUs > kTooFarMs * 1000 && behindMasterMs > kTooFarMs;
    isLeavingOut_ = hasMore && (isTooFar || (isLeavingOut_ && lateUs > kFitsUs));
    if (isLeavingOut_) {
        beginUs_ = nowUs;
        leastUs_ = std::numeric_limits<int64_t>::max();
        fastest_ = 1;
        return false;
    }
    note(wrappingAdd(behindUs, spareUs), nowUs);
    return true;
}

void SoundCatchUp::note(int64_t behindUs, int64_t nowUs) {
    leastUs_ = std::min(leastUs_, behindUs);
    const int64_t sinceUs = wrappingSubtract(nowUs, beginUs_);
    if (sinceUs >= 0 && sinceUs < intervalUs_) {
        return;
    }
    intervalUs_ = beginUs_ == 0 ? intervalUs_ : std::min(2 * intervalUs_, kIntervalUs);
    const bool isStanding = leastUs_ > kLeastStandingUs && leastUs_ != std::numeric_limits<int64_t>::max();
    fastest_ = isStanding ? 1 + std::min(kMostFaster, static_cast<double>(leastUs_) / kTakenInUs) : 1;
    beginUs_ = nowUs;
    leastUs_ = std::numeric_limits<int64_t>::max();
}

}  // namespace kelp
