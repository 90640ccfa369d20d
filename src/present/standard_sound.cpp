#include "present/standard_sound.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "kelp_player/log.h"
#include "present/tempo_library.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

constexpr const char* kTag = "AudioPlayThread";

constexpr int kDiffAvgFrames = 20;  // differences before the average counts
constexpr int kMinThresholdMs = 25;
constexpr int kMaxThresholdMs = 100;

}  // namespace

StandardSound::StandardSound() : diffAvgCoef_(std::exp(std::log(0.01) / kDiffAvgFrames)) {
}

void StandardSound::runFrom(int64_t ms) {
    clock_.set(ms, KelpTime::getTimeMs());
}

void StandardSound::empty(IAudioOutput* output, void* tempoLibrary) {
    if (output) {
        output->flush();
    }
    if (tempoLibrary) {
        soundtouch_flush(tempoLibrary);
    }
}

int64_t StandardSound::begin(const AudioFrameInfo& frame, int64_t durationMs, IAudioOutput& output, int64_t nowMs) {
    // The clock names the sample at the loudspeaker, not the one that enters the ring.
    const int64_t ahead = output.getBufferDuration();
    clock_.set(frame.pts > ahead ? frame.pts - ahead : 0, nowMs);
    computeUnSyncSamples(durationMs);
    const auto master = master_.load();
    return master && master->isForceSync() && unSyncSamples() > 0 ? kRetryUs : 0;
}

float StandardSound::tempo() const {
    const auto behind = static_cast<float>(-unSyncSamples());
    const float correction = behind / static_cast<float>(spec_.sampleRate) / static_cast<float>(spec_.channels) * 2.0f;
    const float tempo = correction + speed_.load(std::memory_order_relaxed);
    const float possible = tempo >= 0.0f && tempo < kMinTempo ? kMinTempo : tempo;
    return static_cast<float>(limited(possible, speed_.load(std::memory_order_relaxed)));
}

void StandardSound::computeUnSyncSamples(int64_t durationMs) {
    const auto master = master_.load();
    if (!master) {
        unSyncSamples_.store(0, std::memory_order_relaxed);
        aheadOfMasterMs_ = 0;
        return;
    }
    const double diff = static_cast<double>(readMs()) - static_cast<double>(master->getSyncPts());
    aheadOfMasterMs_ = truncated<int64_t>(diff);
    const int64_t noSync = std::max(kNoSyncThresholdMs, master->getNoSyncThreshold());
    int result = 0;
    if (std::abs(diff) < static_cast<double>(noSync)) {
        diffCum_ = diffAvgCoef_ * diffCum_ + diff;
        if (diffAvgCount_ < kDiffAvgFrames) {
            ++diffAvgCount_;
        } else {
            const auto twice = static_cast<int>(2 * static_cast<uint32_t>(durationMs));
            const int threshold = std::clamp(twice, kMinThresholdMs, kMaxThresholdMs);
            // The mean decides whether to correct, the present difference by how much.
            if (std::abs((1.0 - diffAvgCoef_) * diffCum_) >= threshold) {
                result = toSamples(diff);
            }
        }
    } else {
        Log::Debug(kTag, "diff:%lf, no sync threshold:%lld, out of sync...\n", diff, static_cast<long long>(noSync));
        diffAvgCount_ = 0;
        diffCum_ = 0;
    }
    if (master->isForceSync() && diff > 0) {
        result = toSamples(diff);
    }
    unSyncSamples_.store(result, std::memory_order_relaxed);
}

int StandardSound::toSamples(double ms) const {
    constexpr double kLimit = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp(spec_.sampleRate * ms / 1000.0, -kLimit, kLimit));
}

}  // namespace kelp
