#include "present/low_delay_timing.h"

#include <algorithm>

#include "kelp_player/log.h"

namespace kelp {

namespace {

constexpr char kTag[] = "VideoPlayThread";

constexpr int64_t kLeastPictureUs = 5'000;
constexpr int64_t kMostPictureUs = 1'000'000;
constexpr int64_t kLongestGapUs = 100'000;  // between pictures while some are left out
constexpr int64_t kClockJumpUs = 1'000'000;
constexpr int64_t kTogetherUs = 5'000;  // so much earlier than its sound nobody sees a picture

}  // namespace

void LowDelayTiming::setPaused(bool paused) {
    PictureTiming::setPaused(paused);
    wasPaused_ = true;
}

void LowDelayTiming::begin(const VideoFrameInfo& frame, int64_t nowUs) {
    playout_.add(frame.pts, frame.queuedUs);
    dueUs_ = playout_.dueUs(frame.pts);
    const int64_t periodUs = wrappingMultiply(wrappingSubtract(frame.pts, ptsMs_), 1000);
    pictureUs_ = std::clamp(periodUs, kLeastPictureUs, kMostPictureUs);
    ptsMs_ = frame.pts;
    if (wasPaused_.exchange(false)) {
        sound_.forget();
    }
    sound_.begin(std::max(dueUs_, frame.queuedUs), heardUs(nowUs), nowUs);
}

int64_t LowDelayTiming::leftUs(int64_t nowUs) {
    if (const auto master = master_.load()) {
        const int64_t limitUs = noSyncUs(*master);
        const int64_t leftUs = wrappingSubtract(wrappingMultiply(ptsMs_, 1000), master->getSyncPtsUs());
        if (leftUs > -limitUs && leftUs < limitUs) {
            sound_.forget();
            return leftUs;
        }
    }
    return std::max(wrappingSubtract(dueUs_, nowUs), sound_.leftUs(heardUs(nowUs), nowUs));
}

std::optional<int64_t> LowDelayTiming::heardUs(int64_t nowUs) const {
    const int64_t heardMs = heardMs_ ? heardMs_() : -1;
    if (heardMs < 0) {
        return std::nullopt;
    }
    const int64_t leftUs = wrappingMultiply(wrappingSubtract(ptsMs_, heardMs), 1000);
    return wrappingAdd(nowUs, wrappingSubtract(leftUs, kTogetherUs));
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
    sound_.forget();
    Log::Debug(kTag, "skip draw too late frame, pts %lld, late:%lld ms\n", static_cast<long long>(frame.pts),
               static_cast<long long>(lateUs_ / 1000));
    return true;
}

void LowDelayTiming::setDrawn(const VideoFrameInfo& frame, int64_t nowUs) {
    drawnUs_ = nowUs;
    clock_.set(frame.pts, wrappingSubtract(KelpTime::getTimeMs(), sound_.end(nowUs) / 1000));
}

}  // namespace kelp
