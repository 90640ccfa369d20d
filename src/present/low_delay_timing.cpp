#include "present/low_delay_timing.h"

#include <algorithm>
#include <limits>

#include "kelp_player/log.h"

namespace kelp {

namespace {

constexpr char kTag[] = "VideoPlayThread";

constexpr int64_t kNoSyncThresholdMs = 10'000;  // the least distance at which a clock means nothing here
constexpr int64_t kLeastPictureUs = 5'000;
constexpr int64_t kMostPictureUs = 1'000'000;
constexpr int64_t kLongestGapUs = 100'000;  // between pictures while some are left out
constexpr int64_t kClockJumpUs = 1'000'000;
constexpr int64_t kMostHeldUs = 100'000;  // until the sound is heard; what is farther behind catches up by itself
constexpr int64_t kTogetherUs = 5'000;    // so much earlier than its sound nobody sees a picture

}  // namespace

void LowDelayTiming::begin(const VideoFrameInfo& frame, int64_t /*nowUs*/) {
    playout_.add(frame.pts, frame.queuedUs);
    dueUs_ = playout_.dueUs(frame.pts);
    readyUs_ = std::max(dueUs_, frame.queuedUs);
    const int64_t periodUs = wrappingMultiply(wrappingSubtract(frame.pts, ptsMs_), 1000);
    pictureUs_ = std::clamp(periodUs, kLeastPictureUs, kMostPictureUs);
    ptsMs_ = frame.pts;
}

int64_t LowDelayTiming::leftUs(int64_t nowUs) {
    if (const auto master = master_.load()) {
        const int64_t limitUs = wrappingMultiply(std::max(kNoSyncThresholdMs, master->getNoSyncThreshold()), 1000);
        const int64_t leftUs = wrappingSubtract(wrappingMultiply(ptsMs_, 1000), master->getSyncPtsUs());
        if (leftUs > -limitUs && leftUs < limitUs) {
            return leftUs;
        }
    }
    return std::max(wrappingSubtract(dueUs_, nowUs), leftToSoundUs(nowUs));
}

int64_t LowDelayTiming::leftToSoundUs(int64_t nowUs) const {
    constexpr int64_t kNotAtAll = std::numeric_limits<int64_t>::min();
    const int64_t heardMs = heardMs_ ? heardMs_() : -1;
    if (heardMs < 0) {
        return kNotAtAll;
    }
    const int64_t leftUs = wrappingSubtract(wrappingMultiply(wrappingSubtract(ptsMs_, heardMs), 1000), kTogetherUs);
    return wrappingSubtract(wrappingAdd(nowUs, leftUs), readyUs_) > kMostHeldUs ? kNotAtAll : leftUs;
}

// No picture waits for as long as that without a clock.
bool LowDelayTiming::hasClockJumped(int64_t nowUs) {
    return !master_.load() && wrappingSubtract(dueUs_, nowUs) > kClockJumpUs;
}

void LowDelayTiming::step(const VideoFrameInfo& /*frame*/, int64_t /*durationMs*/, int64_t nowUs) {
    nowUs_ = nowUs;
    lateUs_ = wrappingSubtract(0, leftUs(nowUs));
}

bool LowDelayTiming::isTooLate(const VideoFrameInfo& frame) {
    const bool isLate = !paused_ && lateUs_ >= pictureUs_ && wrappingSubtract(nowUs_, drawnUs_) < kLongestGapUs;
    if (!isLate || frame.pixFormat == PIX_FMT_PACKET || queueSize_() < 2) {
        return false;
    }
    Log::Debug(kTag, "skip draw too late frame, pts %lld, late:%lld ms\n", static_cast<long long>(frame.pts),
               static_cast<long long>(lateUs_ / 1000));
    return true;
}

void LowDelayTiming::setDrawn(const VideoFrameInfo& frame, int64_t nowUs) {
    drawnUs_ = nowUs;
    const int64_t heldUs = heardMs_ ? std::clamp<int64_t>(wrappingSubtract(nowUs, readyUs_), 0, kMostHeldUs) : 0;
    clock_.set(frame.pts, wrappingSubtract(KelpTime::getTimeMs(), heldUs / 1000));
}

}  // namespace kelp
