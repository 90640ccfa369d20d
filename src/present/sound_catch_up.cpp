#include "present/sound_catch_up.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "clock/wrapping_math.h"

namespace kelp {

namespace {

constexpr int64_t kIntervalUs = 1'000'000;
constexpr int64_t kStandstillUs = 25'000;  // later than the one before than it was made later
constexpr int64_t kTooFarUs = 175'000;     // 10 % of what the first interval leaves of two seconds
constexpr int64_t kFitsUs = 20'000;
constexpr int64_t kLeastStandingUs = 10'000;  // less isn't worth a change, and a machine may be late by it
constexpr double kMostFaster = 0.1;
constexpr double kTakenInUs = 1'000'000;  // of a smaller one in which it would go

}  // namespace

bool SoundCatchUp::isWanted(const DecodedFrame& frame, int64_t nowUs, int64_t queuedMs, bool hasMore, int64_t spareUs,
                            int64_t behindMasterMs) {
    playout_.add(frame.pts, frame.queuedUs);
    const int64_t lateUs = wrappingSubtract(nowUs, playout_.dueUs(frame.pts));
    const int64_t behindUs = wrappingAdd(std::clamp<int64_t>(lateUs, 0, wrappingMultiply(queuedMs, 1000)), spareUs);
    const bool isTooFar = behindUs > kTooFarUs && behindMasterMs > kTooFarUs / 1000;
    const int64_t madeUs = wrappingMultiply(wrappingSubtract(frame.pts, std::exchange(lastMs_, frame.pts)), 1000);
    const int64_t cameUs = wrappingSubtract(frame.queuedUs, std::exchange(lastUs_, frame.queuedUs));
    // The last that waits isn't the newest as long as they come faster than they are played.
    const bool isMoreDue = hasMore || cameUs < madeUs / 2;
    isLeavingOut_ = isLeavingOut_ ? isMoreDue && lateUs > kFitsUs : hasMore && isTooFar;
    if (isLeavingOut_) {
        restart(nowUs);
        fastest_ = 1;
        return false;
    }
    const bool isBehindStandstill = cameUs > wrappingAdd(madeUs, kStandstillUs) && behindUs > kStandstillUs;
    if (isBehindStandstill && intervalUs_ > kFirstIntervalUs) {
        restart(nowUs);
    }
    note(behindUs, nowUs);
    return true;
}

void SoundCatchUp::note(int64_t behindUs, int64_t nowUs) {
    leastUs_ = std::min(leastUs_, behindUs);
    const int64_t sinceUs = wrappingSubtract(nowUs, beginUs_);
    if (sinceUs >= 0 && sinceUs < intervalUs_) {
        return;
    }
    intervalUs_ = std::min(2 * intervalUs_, kIntervalUs);
    fastest_ = leastUs_ > kLeastStandingUs ? 1 + std::min(kMostFaster, static_cast<double>(leastUs_) / kTakenInUs) : 1;
    beginUs_ = nowUs;
    leastUs_ = std::numeric_limits<int64_t>::max();
}

void SoundCatchUp::restart(int64_t nowUs) {
    beginUs_ = nowUs;
    intervalUs_ = kFirstIntervalUs;
    leastUs_ = std::numeric_limits<int64_t>::max();
}

}  // namespace kelp
