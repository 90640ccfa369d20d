#include "present/standard_timing.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "clock/render_timing.h"
#include "kelp_player/log.h"

namespace kelp {

constexpr char kTag[] = "VideoPlayThread";

using LogInt = long long;  // as %lld takes it

// All in milliseconds.
constexpr int64_t kNoSyncThresholdMs = 10000;  // the least distance at which clocks mean nothing to each other
constexpr int64_t kMinSyncThresholdMs = 25;    // a smaller difference is never corrected
constexpr int64_t kMaxSyncThresholdMs = 100;   // a larger one always is
constexpr int64_t kLateFrameMs = -500;         // a frame further behind is too late
constexpr int64_t kTooLate = -1;
constexpr int64_t kMaxDelayMs = 1000;   // a larger jump in time is not waited for
constexpr int64_t kClockJumpMs = 5000;  // a longer wait means that the wall clock was set
constexpr int64_t kLongestLeftMs = 1'000'000'000;
constexpr int64_t kLateLogMs = 20;
constexpr int64_t kHoldAheadMs = 500;  // a frame this far ahead of a forcing master is not due at all

constexpr int kTooLateMinQueued = 2;  // the last frame in the queue is never skipped

StandardTiming::StandardTiming(bool isLive, RenderTiming* renderTiming, std::function<int()> queueSize)
    : PictureTiming(std::move(queueSize)), isLive_(isLive), renderTiming_(renderTiming) {
}

void StandardTiming::begin(const VideoFrameInfo& frame, int64_t nowUs) {
    if (frameTimer_ == 0) {
        frameTimer_ = nowUs / 1000;
        lastFramePts_ = frame.pts;
    }
    delay_ = computeDelay(std::min(wrappingSubtract(frame.pts, lastFramePts_), kMaxDelayMs));
}

int64_t StandardTiming::leftUs(int64_t nowUs) {
    const int64_t leftMs = hadOutput_ ? wrappingSubtract(dueMs(), nowUs / 1000) : 0;
    return leftMs > 0 ? std::min(leftMs, kLongestLeftMs) * 1000 - nowUs % 1000 : 0;
}

int64_t StandardTiming::computeDelay(int64_t delay) {
    const auto master = master_.load();
    aheadOfMasterMs_ = 0;
    if (!master) {
        return delay;
    }
    const int64_t curPts = clock_.read();
    const int64_t syncPts = master->getSyncPts();
    const int64_t early = wrappingSubtract(curPts, syncPts);  // positive: video runs ahead
    aheadOfMasterMs_ = early;
    const int64_t threshold = std::clamp(delay, kMinSyncThresholdMs, kMaxSyncThresholdMs);
    const int64_t noSync = std::max(kNoSyncThresholdMs, master->getNoSyncThreshold());

    int64_t corrected = delay;
    if (early >= noSync || early <= -noSync) {
        Log::Debug(kTag, "diff:%lld, no sync threshold:%lld, out of sync...\n", LogInt{early}, LogInt{noSync});
    } else if (early < kLateFrameMs) {
        corrected = kTooLate;
    } else if (early <= -threshold) {
        corrected = std::max<int64_t>(0, wrappingAdd(delay, early));
    } else if (early >= threshold) {
        corrected = master->isForceSync() ? early : wrappingMultiply(2, delay);
    }
    if (!paused_ && corrected != delay) {
        Log::Debug(kTag, "%s, currentPts_:%lld curPts:%lld, syncPts:%lld, early:%lld, delay:%lld->%lld\n",
                   "computeDelay", LogInt{clock_.pts()}, LogInt{curPts}, LogInt{syncPts}, LogInt{early}, LogInt{delay},
                   LogInt{corrected});
    }
    return corrected;
}

bool StandardTiming::hasClockJumped(int64_t nowUs) {
    const int64_t sinceTimer = wrappingSubtract(nowUs / 1000, frameTimer_);
    const int64_t offTimer = sinceTimer < 0 ? wrappingSubtract(0, sinceTimer) : sinceTimer;
    if (offTimer <= kClockJumpMs) {
        return false;
    }
    if (const auto master = master_.load(); master && master->isForceSync()) {
        return false;
    }
    Log::Debug(kTag, "abs(nowMs - frameTimer_) > 5000 : %d\n", static_cast<int>(offTimer));
    return true;
}

void StandardTiming::logIfLate(const VideoFrameInfo& frame, int64_t nowUs) {
    const int64_t nowMs = nowUs / 1000;
    const auto master = master_.load();
    if (paused_ || !master || nowMs <= wrappingAdd(dueMs(), kLateLogMs)) {
        return;
    }
    const int64_t videoPts = clock_.read();
    const int64_t masterPts = master->getSyncPts();
    Log::Debug(kTag,
               "nowMs:%lld, frameTimer_:%lld, delay:%lld, n-f:%lld, video.syncPts:%lld, master.syncPts:%lld, "
               "diff_pts:%lld, currentPts_:%lld, paused:%d, hadOutput:%d\n",
               LogInt{nowMs}, LogInt{frameTimer_}, LogInt{delay_}, LogInt{wrappingSubtract(nowMs, frameTimer_)},
               LogInt{videoPts}, LogInt{masterPts}, LogInt{wrappingSubtract(frame.pts, lastFramePts_)},
               LogInt{clock_.pts()}, paused_.load(), hadOutput_);
}

void StandardTiming::step(const VideoFrameInfo& frame, int64_t durationMs, int64_t nowUs) {
    const int64_t nowMs = nowUs / 1000;
    if (nowMs < dueMs()) {  // the wait was broken off
        Log::Debug(kTag, "set nowMs to frameTimer_, %lld <-> %lld + %lld, pts:%lld, dur:%lld, queue.size:%d\n",
                   LogInt{nowMs}, LogInt{frameTimer_}, LogInt{delay_}, LogInt{frame.pts}, LogInt{durationMs},
                   queueSize_());
        frameTimer_ = wrappingSubtract(nowMs, delay_);
    }
    if (delay_ > 0) {
        const auto sinceTimer = static_cast<double>(wrappingSubtract(nowMs, frameTimer_));
        const int n = truncated<int>(std::floor(sinceTimer / static_cast<double>(delay_)));
        const int count = std::max(n, 1);
        if (count > 1) {
            Log::Debug(kTag, "delayCount:%d n:%d\n", count, n);
        }
        frameTimer_ = wrappingAdd(frameTimer_, wrappingMultiply(count, delay_));
    }
    if (isLive_ && !master_.load()) {
        const int64_t renderTimeMs = renderTiming_->renderTime(frame.pts);
        if (renderTimeMs > 0) {
            frameTimer_ = renderTimeMs;
        }
    }
    lastFramePts_ = frame.pts;
}

bool StandardTiming::isTooLate(const VideoFrameInfo& frame) {
    if (paused_ || delay_ >= 0 || queueSize_() < kTooLateMinQueued || frame.pixFormat == PIX_FMT_PACKET) {
        return false;
    }
    const auto master = master_.load();
    Log::Debug(kTag, "skip draw too late frame, pts %lld, syncPts:%lld\n", LogInt{frame.pts},
               master ? LogInt{master->getSyncPts()} : LogInt{-1});
    return true;
}

bool StandardTiming::isHeld(const VideoFrameInfo& frame) {
    const auto master = master_.load();
    return master && wrappingSubtract(frame.pts, master->getSyncPts()) >= kHoldAheadMs && master->isForceSync();
}

void StandardTiming::setDrawn(const VideoFrameInfo& frame, int64_t nowUs) {
    hadOutput_ = true;
    setTime(frame.pts, nowUs);
}

}  // namespace kelp
