#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kelp {

// How loud samples of 16 bits are: by a volume, which is a linear factor, and not at all while muted.
//
// The setters come from any thread; `open` and `apply` from the one that has the samples, in this order.
class SampleGain {
public:
    // What a new volume does: each sample takes the one that is set at its moment; or it comes over kRampMs, so that no
    // step is heard. Mute comes and goes that way in either form. Neither does ahead of the first sample.
    enum class Changes { AtOnce, Ramped };

    static constexpr int kRampMs = 10;

    explicit SampleGain(Changes changes) : changes_(changes) {}

    void setVolume(float volume) { volume_.store(volume, std::memory_order_relaxed); }
    void setMuted(bool muted) { isMuted_.store(muted, std::memory_order_relaxed); }

    void open(int channels, int sampleRate);
    // Scales `count` samples in place: truncated toward zero and held in their range. A volume that is no number gives
    // silence.
    void apply(unsigned char* samples, size_t count);

private:
    // Goes to each new target evenly, in so many steps; to the first one at once.
    class Ramp {
    public:
        void setLength(int steps) { steps_ = steps; }
        float next(float target);

    private:
        int steps_ = 1;
        int left_ = 0;
        bool hasBegun_ = false;
        float value_ = 0;
        float target_ = 0;
        float step_ = 0;
    };

    const Changes changes_;
    std::atomic<float> volume_{1.0F};
    std::atomic<bool> isMuted_{false};
    size_t channels_ = 1;
    Ramp volumeRamp_;
    Ramp muteRamp_;
};

}  // namespace kelp
