#pragma once

#include <mutex>

#include "present/pace_meter.h"
#include "present/sound_clock.h"
#include "present/sound_timing.h"

namespace kelp {

// The exact form: the clock tells what is heard, and sound that follows another one is put into step with it within a
// second, and stays so by tempo changes that nobody hears. Nothing is left out for that; sound that is far ahead waits.
//
// What is measured is by how much the next sample will be off when it is heard. So the tempo that is chosen now counts
// at once, however much sound is on its way, and nothing swings.
class ExactSound : public SoundTiming {
public:
    void setSpeed(float speed) override;
    void setPaused(bool paused) override;

    bool hasTime() const override;
    int64_t positionMs() const override;
    int64_t readMs() const override;
    int64_t readUs() const override;

    void seek(int64_t ms) override;
    void runFrom(int64_t ms) override;
    void setOutput(std::shared_ptr<IAudioOutput> output) override { output_.store(std::move(output)); }
    void empty(IAudioOutput* output, void* tempoLibrary) override;
    int64_t begin(const AudioFrameInfo& frame, int64_t durationMs, IAudioOutput& output, int64_t nowMs) override;
    float tempo() const override { return static_cast<float>(tempo_); }
    void handOver(void* tempoLibrary, int64_t put, int64_t got) override;

private:
    HeardSound heard(int64_t nowUs) const;
    void stand(int64_t us, int64_t fromUs);
    // When the frame begins, in the stream.
    int64_t beginOf(const AudioFrameInfo& frame) const;
    int64_t toUs(double frames) const;
    // For how long the frame is to wait where sound is missing before it, in microseconds, as with `begin`. The clock
    // runs on through that, and whoever follows it.
    int64_t leftOfHole(const HeardSound& heardNow, int64_t nowUs);

    AtomicSharedPtr<IAudioOutput> output_;
    mutable std::mutex mutex_;  // a leaf but for the output's
    SoundClock clock_;          // guarded by mutex_

    // The play thread's.
    PaceMeter masterPace_;
    int64_t beginUs_ = 0;        // of the present frame
    int64_t endUs_ = kNoTimeUs;  // of what was put in last
    int64_t outUs_ = 0;          // of what came out last, before anything of what comes out first
    double tempo_ = 1;

    static constexpr int64_t kNoTimeUs = INT64_MIN;
};

}  // namespace kelp
