#include "present/exact_timing.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "clock/render_timing.h"
#include "kelp_player/log.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

constexpr char kTag[] = "VideoPlayThread";

constexpr int64_t kTooLateUs = 25'000;         // at the least; less than that no eye and no ear tells apart
constexpr int64_t kLateOnOwnTimeUs = 100'000;  // the line moves then, so that those which follow don't race
constexpr int64_t kHoldUs = 500'000;           // beyond, a picture isn't waited for but offered again
constexpr int64_t kStandstillUs = 500'000;     // so much longer a master that stands may hold a picture
constexpr int64_t kLongestPeriodUs = 1'000'000;
constexpr int64_t kNeverUs = std::numeric_limits<int64_t>::max() / 4;
constexpr int kTooLateMinQueued = 2;  // the last frame in the queue is never skipped

int64_t timeOf(const VideoFrameInfo& frame) {
    constexpr int64_t kMostMs = std::numeric_limits<int64_t>::max() / 8000;
    return std::clamp(frame.pts, -kMostMs, kMostMs) * 1000 + frame.fractionUs;
}

// How long a clock of that speed takes for a time; what stands still takes forever, and is behind no time that it has
// passed.
int64_t timeTaken(int64_t streamUs, double speed) {
    if (speed <= 0) {
        return streamUs > 0 ? kNeverUs : streamUs;
    }
    return std::clamp(truncated<int64_t>(static_cast<double>(streamUs) / speed), -kNeverUs, kNeverUs);
}

}  // namespace

ExactTiming::ExactTiming(bool isLive, RenderTiming* renderTiming, std::function<int()> queueSize)
    : PictureTiming(std::move(queueSize)), isLive_(isLive), renderTiming_(renderTiming) {
    line_.stand(KelpTime::getSteadyUs());
}

int64_t ExactTiming::nowUs() const {
    return KelpTime::getSteadyUs();
}

void ExactTiming::follow(std::shared_ptr<SyncObject> master) {
    PictureTiming::follow(std::move(master));
    isDueKnown_ = false;
    ++changes_;
}

void ExactTiming::setPaused(bool paused) {
    {
        std::lock_guard lock(lineMutex_);
        paused_ = paused;
        moveLine(KelpTime::getSteadyUs());
    }
    isDueKnown_ = false;  // until the next look at the master: due_ runs on in a pause
    ++changes_;
}

void ExactTiming::setSpeed(double speed) {
    const int64_t nowUs = KelpTime::getSteadyUs();
    line_.setSpeed(speed, nowUs);
    due_.setSpeed(speed, nowUs);
    ++changes_;
}

int64_t ExactTiming::positionUs() {
    return line_.read(KelpTime::getSteadyUs());
}

// What is no later than this would still be shown. A host's clock may stand meanwhile: it isn't thought to run on for
// long.
std::optional<int64_t> ExactTiming::timeToShowMs() {
    if (paused_ || !isDueKnown_) {
        return std::nullopt;
    }
    return due_.read(std::min(KelpTime::getSteadyUs(), dueReadUs_ + kHoldUs) - kTooLateUs) / 1000;
}

void ExactTiming::setTime(int64_t pts, int64_t nowUs) {
    clock_.set(pts, KelpTime::getTimeMs());
    if (isFirst_) {
        line_.set(wrappingMultiply(pts, 1000), nowUs);
    }
}

void ExactTiming::restart() {
    isFirst_ = true;
    isDueKnown_ = false;
    std::lock_guard lock(lineMutex_);
    isStarted_ = false;
    moveLine(KelpTime::getSteadyUs());
}

void ExactTiming::moveLine(int64_t nowUs) {
    if (isStarted_ && !paused_) {
        line_.run(nowUs);
    } else {
        line_.stand(nowUs);
    }
}

int64_t ExactTiming::wallUs(int64_t streamUs) const {
    return timeTaken(streamUs, line_.speed());
}

void ExactTiming::begin(const VideoFrameInfo& frame, int64_t nowUs) {
    ptsUs_ = timeOf(frame);
    isAgain_ = !isFirst_ && ptsUs_ == lastPtsUs_;
    lateUs_ = 0;
    longestUs_ = nowUs + wallUs(std::clamp<int64_t>(ptsUs_ - lastPtsUs_, 0, kNoSyncMs * 1000)) + kStandstillUs;
}

int64_t ExactTiming::leftUs(int64_t nowUs) {
    isHeld_ = paused_ && !isFirst_ && !isAgain_;
    isFollowing_ = false;
    if (paused_ || isAgain_) {
        return 0;
    }
    const std::optional<int64_t> byMaster = leftByMaster(nowUs);
    isFollowing_ = byMaster.has_value();
    isDueKnown_ = isFollowing_ && !isFirst_;
    const int64_t left = byMaster ? *byMaster : leftByOwnTime(nowUs);
    lateUs_ = std::max<int64_t>(0, -left);
    return isHeld_ ? 0 : left;
}

std::optional<int64_t> ExactTiming::leftByMaster(int64_t nowUs) {
    const auto master = master_.load();
    if (!master) {
        return std::nullopt;
    }
    const int64_t limitUs = noSyncUs(*master);
    const bool isForcing = master->isForceSync();
    const int64_t masterUs = master->getSyncPtsUs();
    const int64_t aheadUs = wrappingSubtract(ptsUs_, masterUs);
    aheadOfMasterMs_ = wrappingSubtract(line_.read(nowUs), masterUs) / 1000;
    if (aheadUs <= -limitUs || (aheadUs >= limitUs && !isForcing)) {
        return std::nullopt;
    }
    due_.set(masterUs, nowUs);
    dueReadUs_ = nowUs;
    const int64_t left = timeTaken(aheadUs, master->getSyncSpeed().value_or(line_.speed()));
    if (!isForcing) {
        return isFirst_ ? 0 : std::min(left, longestUs_ - nowUs);
    }
    // The very first picture is shown as soon as it is near.
    if (!hadOutput_ && aheadUs < kHoldUs) {
        return std::min<int64_t>(left, 0);
    }
    isHeld_ = left >= kHoldUs;
    return left;
}

int64_t ExactTiming::leftByOwnTime(int64_t nowUs) {
    if (isFirst_) {
        return 0;
    }
    if (isLive_ && !master_.load()) {
        if (const int64_t renderTimeMs = renderTiming_->renderTime(ptsUs_ / 1000); renderTimeMs > 0) {
            return std::min(wrappingSubtract(wrappingMultiply(renderTimeMs, 1000), KelpTime::getTimeUs()),
                            longestUs_ - nowUs);
        }
    }
    if (wrappingSubtract(ptsUs_, line_.read(nowUs)) >= kNoSyncMs * 1000) {
        // The film's times jump.
        line_.set(ptsUs_ - periodUs_, nowUs);
    }
    return wallUs(wrappingSubtract(ptsUs_, line_.read(nowUs)));
}

void ExactTiming::step(const VideoFrameInfo& /*frame*/, int64_t durationMs, int64_t nowUs) {
    if (isHeld_) {
        return;
    }
    tooLateUs_ = std::max(kTooLateUs, wallUs(wrappingMultiply(durationMs, 1000)));
    if (!isFollowing_ && lateUs_ > kLateOnOwnTimeUs) {
        line_.set(ptsUs_, nowUs);
    }
    if (!isAgain_) {
        periodUs_ = isFirst_ ? 0 : std::clamp<int64_t>(ptsUs_ - lastPtsUs_, 0, kLongestPeriodUs);
        lastPtsUs_ = ptsUs_;
    }
}

bool ExactTiming::isTooLate(const VideoFrameInfo& frame) {
    if (isHeld_ || isFirst_ || isAgain_ || !isFollowing_ || lateUs_ <= tooLateUs_ || queueSize_() < kTooLateMinQueued ||
        frame.pixFormat == PIX_FMT_PACKET) {
        return false;
    }
    Log::Debug(kTag, "skip draw too late frame, pts %lld, late by %lld ms\n", static_cast<long long>(frame.pts),
               static_cast<long long>(lateUs_ / 1000));
    return true;
}

void ExactTiming::setDrawn(const VideoFrameInfo& frame, int64_t nowUs) {
    if (isHeld_) {
        return;
    }
    hadOutput_ = true;
    clock_.set(frame.pts, KelpTime::getTimeMs());
    if (isFirst_ || isFollowing_) {
        line_.set(ptsUs_, nowUs - std::min(lateUs_, kTooLateUs));
    }
    if (std::exchange(isFirst_, false)) {
        std::lock_guard lock(lineMutex_);
        isStarted_ = true;
        moveLine(nowUs);
    }
}

}  // namespace kelp
