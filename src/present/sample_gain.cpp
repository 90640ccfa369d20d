#include "present/sample_gain.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace kelp {

namespace {

int16_t scale(int16_t sample, float volume, float mute) {
    const float scaled = static_cast<float>(sample) * volume * mute;
    if (std::isnan(scaled)) {
        return 0;
    }
    return static_cast<int16_t>(
        std::clamp<float>(scaled, std::numeric_limits<int16_t>::min(), std::numeric_limits<int16_t>::max()));
}

}  // namespace

void SampleGain::open(int channels, int sampleRate) {
    channels_ = static_cast<size_t>(std::max(channels, 1));
    const int steps = std::max(sampleRate * kRampMs / 1000, 1);
    volumeRamp_.setLength(steps);
    muteRamp_.setLength(steps);
}

void SampleGain::apply(unsigned char* samples, size_t count) {
    const bool ramps = changes_ == Changes::Ramped;
    float rampedVolume = 0;
    float mute = 0;
    size_t left = 0;  // samples of the present moment
    for (size_t i = 0; i < count; ++i, --left, samples += sizeof(int16_t)) {
        const float volume = volume_.load(std::memory_order_relaxed);
        if (left == 0) {
            left = channels_;
            mute = muteRamp_.next(isMuted_.load(std::memory_order_relaxed) ? 0.0F : 1.0F);
            rampedVolume = ramps ? volumeRamp_.next(std::isnan(volume) ? 0.0F : volume) : 0.0F;
        }
        const float gain = ramps ? rampedVolume : volume;
        if (gain == 1 && mute == 1) {
            continue;  // as it is
        }
        int16_t sample;
        std::memcpy(&sample, samples, sizeof(sample));
        sample = scale(sample, gain, mute);
        std::memcpy(samples, &sample, sizeof(sample));
    }
}

float SampleGain::Ramp::next(float target) {
    if (target != target_ || !hasBegun_) {
        // There is no even way to or from infinity.
        left_ = hasBegun_ && std::isfinite(target - value_) ? steps_ : 0;
        step_ = (target - value_) / static_cast<float>(steps_);
        target_ = target;
        hasBegun_ = true;
    }
    if (left_ > 1) {
        --left_;
        value_ += step_;
    } else {
        left_ = 0;
        value_ = target_;
    }
    return value_;
}

}  // namespace kelp
