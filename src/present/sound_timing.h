#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

#include "clock/sync_object.h"
#include "clock/wrapping_math.h"
#include "decode/audio_frame_info.h"
#include "decode/audio_output_spec.h"
#include "present/audio_output.h"
#include "runtime/atomic_shared_ptr.h"

namespace kelp {

// What time the sound is at, how far it is off the clock that it follows, and what tempo makes up for that. Knows no
// thread: its owner does the waiting. Each form of it has rules of its own; one is chosen before playback begins.
//
// Two groups: what may come from any thread; and the play thread's, which ends with the steps of one frame in the order
// in which they stand here.
class SoundTiming {
public:
    // A frame that is to be offered again waits for this long at most.
    static constexpr int64_t kRetryUs = 50'000;

    virtual ~SoundTiming() = default;

    // Of the samples that come; before all else.
    void setSpec(AudioOutputSpec spec) { spec_ = spec; }

    void follow(std::shared_ptr<SyncObject> master) { master_.store(std::move(master)); }
    // By how many samples per channel the sound runs ahead; negative if it lags.
    int unSyncSamples() const { return unSyncSamples_.load(std::memory_order_relaxed); }

    bool isFollowing() const { return master_.load() != nullptr; }
    virtual void setSpeed(float speed) { speed_.store(speed, std::memory_order_relaxed); }
    virtual void setPaused(bool /*paused*/) {}

    virtual bool hasTime() const = 0;
    // What the host is told, in milliseconds.
    virtual int64_t positionMs() const = 0;
    // The clock for others; 0 without a time.
    virtual int64_t readMs() const = 0;
    virtual int64_t readUs() const { return wrappingMultiply(readMs(), 1000); }

    // A seek goes to `ms`.
    virtual void seek(int64_t ms) = 0;
    // Playback is at `ms`, and no sound is due yet.
    virtual void runFrom(int64_t ms) = 0;
    virtual void setOutput(std::shared_ptr<IAudioOutput> /*output*/) {}
    // Lets go of what is in the tempo library and on its way to the device; each may be null.
    virtual void empty(IAudioOutput* output, void* tempoLibrary) = 0;

    // What the tempo may be at the least and at the most, as parts of the one at which as much comes out as the device
    // takes in the time of the film; none, until this is called.
    void limitTempo(double least, double most) {
        leastTempo_ = least;
        mostTempo_ = most;
    }
    // Sets the clock for the frame, which came at `nowMs`, and measures how far it is off. How long to wait before it
    // is offered again, in microseconds; 0 if it is to be played now.
    virtual int64_t begin(const AudioFrameInfo& frame, int64_t durationMs, IAudioOutput& output, int64_t nowMs) = 0;
    // As it was measured then; 0 without a clock to follow.
    int64_t aheadOfMasterMs() const { return aheadOfMasterMs_; }
    virtual float tempo() const = 0;
    // The frame's `put` samples per channel went in, and `got` came out of the tempo library, if there is one, and go
    // to the output next.
    virtual void handOver(void* /*tempoLibrary*/, int64_t /*put*/, int64_t /*got*/) {}

protected:
    friend class AudioPlayThreadPeer;  // lets tests set what is measured

    static constexpr int64_t kNoSyncThresholdMs = 10000;
    // The tempo library makes 1 / tempo samples out of one and doesn't come back from a tempo of 0. Below zero it drops
    // samples and does come back.
    static constexpr float kMinTempo = 0.0005f;

    // `even`: the tempo that the limits are parts of.
    double limited(double tempo, double even) const {
        return mostTempo_ > 0 ? std::clamp(tempo, leastTempo_ * even, mostTempo_ * even) : tempo;
    }

    AudioOutputSpec spec_;
    AtomicSharedPtr<SyncObject> master_;  // the clock to follow, or none
    std::atomic<int> unSyncSamples_{0};
    std::atomic<float> speed_{1.0f};
    int64_t aheadOfMasterMs_ = 0;  // the play thread's, like the next
    double leastTempo_ = 0;
    double mostTempo_ = 0;  // 0 for no limits
};

}  // namespace kelp
