#include <algorithm>
#include <cmath>
#include <new>

#include "clock/wrapping_math.h"
#include "kelp_player/log.h"
#include "kelp_player/sync_clock.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

constexpr char kTag[] = "TarnSyncClock";

constexpr int kStartCorrectionPercent = 10;
constexpr int kLargestCorrectionPercent = 99;
constexpr double kNormalSpeedTolerance = 0.001;

// By how many percent the samples of a frame must change for sound at the normal rate to keep up with `speed`.
int neededCorrectionPercent(double speed) {
    if (speed > 1.0) {
        return truncated<int>(100.0 - 100.0 / speed);
    }
    return speed > 0 ? truncated<int>(100.0 / speed - 100.0) : 0;
}

}  // namespace

int SAMPLE_CORRECTION_PERCENT_MAX = kStartCorrectionPercent;

TarnSyncClock* TarnSyncClock::create(int64_t startPts, int64_t noSyncThreshold) {
    return new (std::nothrow) TarnSyncClock(startPts, noSyncThreshold);
}

void TarnSyncClock::destroy(TarnSyncClock* clock) {
    delete clock;
}

TarnSyncClock::TarnSyncClock(int64_t startPts, int64_t noSyncThreshold) {
    reset(startPts);
    noSyncThreshold_ = noSyncThreshold;
}

TarnSyncClock::~TarnSyncClock() = default;

int64_t TarnSyncClock::getCurrentClock() {
    return getSyncPts();
}

void TarnSyncClock::pause() {
    if (paused_) {
        return;
    }
    const int64_t pts = getSyncPts();
    std::lock_guard lock(mutex_);
    basePts_ = pts;
    paused_ = true;
}

void TarnSyncClock::resume() {
    if (!paused_) {
        return;
    }
    const int64_t nowMs = KelpTime::getTimeMs();
    std::lock_guard lock(mutex_);
    baseTimeMs_ = nowMs;
    ptsOffset_ = wrappingSubtract(basePts_, nowMs);
    paused_ = false;
}

void TarnSyncClock::reset(int64_t pts) {
    const int64_t nowMs = KelpTime::getTimeMs();
    std::lock_guard lock(mutex_);
    basePts_ = pts;
    baseTimeMs_ = nowMs;
    ptsOffset_ = wrappingSubtract(pts, nowMs);
}

void TarnSyncClock::setSpeed(double speed) {
    // The new speed counts from now on only: the reading doesn't jump.
    reset(getSyncPts());
    speed_ = speed;

    std::atomic_ref<int> correction(SAMPLE_CORRECTION_PERCENT_MAX);
    if (std::abs(speed - 1.0) <= kNormalSpeedTolerance) {
        correction.store(kStartCorrectionPercent, std::memory_order_relaxed);
        return;
    }
    const int needed = neededCorrectionPercent(speed);
    const int present = correction.load(std::memory_order_relaxed);
    Log::Debug(kTag, "%s, speed:%f, SAMPLE_CORRECTION_PERCENT_MAX:%d, new threshold:%d\n", "setSpeed", speed, present,
               needed);
    const int widened = present < needed ? std::min(needed, kLargestCorrectionPercent) + 1 : present;
    const int limited = std::min(widened, kLargestCorrectionPercent);
    if (limited != present) {
        correction.store(limited, std::memory_order_relaxed);
    }
}

int64_t TarnSyncClock::getNoSyncThreshold() {
    return noSyncThreshold_;
}

bool TarnSyncClock::isForceSync() {
    return true;
}

int64_t TarnSyncClock::getSyncPts() {
    if (paused_) {
        return basePts_;
    }
    const int64_t nowMs = KelpTime::getTimeMs();
    std::lock_guard lock(mutex_);
    const double atNormalSpeed = static_cast<double>(wrappingAdd(ptsOffset_, nowMs));
    return truncated<int64_t>(atNormalSpeed - static_cast<double>(nowMs - baseTimeMs_) * (1.0 - speed_));
}

}  // namespace kelp
