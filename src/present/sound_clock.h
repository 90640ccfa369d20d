#pragma once

#include <cstdint>
#include <deque>
#include <optional>

#include "present/device_clock.h"

namespace kelp {

// The time of what is heard, in microseconds of the stream. Its owner says what each piece of sound is that it hands to
// the output, and the output how much has been heard; in between the clock is as even as that, at the speed that each
// piece was given. When all has been heard it runs on, so that pictures behind the last sound go on.
//
// It knows no thread; its owner guards it. `nowUs` is KelpTime's steady one.
class SoundClock {
public:
    static constexpr int64_t kNeverUs = INT64_MAX;

    // Nothing of what was handed over counts. The clock stands at `us`, and runs on from `fromUs` if nothing came.
    void stand(int64_t us, int64_t fromUs);

    // One that stands for good, with nothing handed over since, runs on from now.
    void start(int64_t nowUs);

    // A piece is handed over, `frames` long. It ends at `endUs`, and if it is the first, it begins at `beginUs`.
    void add(int64_t frames, int64_t beginUs, int64_t endUs, const HeardSound& heard);

    // In force when the clock runs on, and then from now.
    void setSpeed(double speed, const HeardSound& heard, int64_t nowUs);

    // A clock that runs on stands in a pause; what is on its way to the ear comes to it all the same.
    void pause(bool paused, const HeardSound& heard, int64_t nowUs);

    bool hasTime() const { return stand_ || !marks_.empty(); }

    int64_t read(const HeardSound& heard, int64_t nowUs) const;

    // The same, but never beyond what was handed over.
    int64_t position(const HeardSound& heard) const;

    // Whether all that was handed over has been heard.
    bool isDry(const HeardSound& heard) const { return marks_.empty() || heard.frames >= handed(); }

private:
    struct Mark {
        int64_t frames = 0;  // handed over up to here
        int64_t us = 0;      // the time of the last of them
    };
    struct Stand {
        int64_t us = 0;
        int64_t fromUs = 0;  // when the clock runs on from there
    };

    double handed() const { return static_cast<double>(marks_.back().frames); }
    int64_t runOn(Stand from, int64_t nowUs) const;

    std::deque<Mark> marks_;      // from what is heard to the last that was handed over
    std::optional<Stand> stand_;  // counts while all has been heard
    int64_t handedFrames_ = 0;    // since ever
    double speed_ = 1;            // media per wall clock
};

}  // namespace kelp
