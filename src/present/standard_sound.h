#pragma once

#include "present/running_clock.h"
#include "present/sound_timing.h"

namespace kelp {

// The standard form: the clock is set at each frame, by what the output holds back, and runs on with the wall clock.
class StandardSound : public SoundTiming {
public:
    StandardSound();

    bool hasTime() const override { return clock_.hasTime(); }
    int64_t positionMs() const override { return clock_.pts(); }
    int64_t readMs() const override { return clock_.read(); }

    void seek(int64_t ms) override { runFrom(ms); }
    void runFrom(int64_t ms) override;
    void empty(IAudioOutput* output, void* tempoLibrary) override;
    int64_t begin(const AudioFrameInfo& frame, int64_t durationMs, IAudioOutput& output, int64_t nowMs) override;
    float tempo() const override;

    // Measures the distance to the clock that is followed, as a running average over about 20 frames. `durationMs` is
    // the frame's.
    void computeUnSyncSamples(int64_t durationMs);

private:
    friend class AudioPlayThreadPeer;  // lets tests set the clock

    int toSamples(double ms) const;

    const double diffAvgCoef_;  // weight of the past in diffCum_
    RunningClock clock_;        // what is at the loudspeaker
    double diffCum_ = 0;        // running weighted sum of the difference, in milliseconds
    int diffAvgCount_ = 0;      // differences in diffCum_, up to 20
};

}  // namespace kelp
