#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "clock/playout_delay.h"
#include "decode/decoded_frame.h"

namespace kelp {

// Brings the sound of a live source back to the present behind a standstill, where a low delay is wanted. A frame is
// behind by how much longer it has waited than the jitter asks for, as PlayoutDelay has it, but by no more than what
// waits with it: a longer way from the source is nothing to catch up with. What lies in the output when it comes, and
// the device wouldn't lack, is on top of that.
//
// What the frames of a second have all been behind by is a standing queue, and goes by tempo: the least wait of an
// interval, as K. Nichols and V. Jacobson, "Controlling queue delay", ACM Queue 10 (2012), tell it from a burst. At the
// start, where the frames that fill the output wait for nothing and hide it, and behind a standstill the
// first intervals are shorter, so that it is gone two seconds later. What is more than a tempo of 10 % takes away in
// these is left out, once, up to the newest.
//
// The play thread's.
class SoundCatchUp {
public:
    // For each frame, before it is played: false if it is to be left out. `queuedMs`: of the sound that waits, this
    // frame included; `hasMore`: more waits behind it; `spareUs`: of HeardSound, from the output. `behindMasterMs`: as
    // the clock that is followed has it; what isn't behind that stays.
    bool isWanted(const DecodedFrame& frame, int64_t nowUs, int64_t queuedMs, bool hasMore, int64_t spareUs,
                  int64_t behindMasterMs);

    // What follows a clock may be as much slower than at its speed.
    static constexpr double kSlowest = 0.9;
    // By how much faster than at its speed the sound may be played: 1 to 1.1.
    double fastest() const { return fastest_; }

private:
    static constexpr int64_t kFirstIntervalUs = 250'000;

    void note(int64_t behindUs, int64_t nowUs);
    void restart(int64_t nowUs);

    PlayoutDelay playout_;
    bool isLeavingOut_ = false;
    int64_t lastMs_ = 0;  // the time stamp of the frame before
    int64_t lastUs_ = 0;  // when it came
    double fastest_ = 1;
    int64_t leastUs_ = 0;                        // of this interval so far
    int64_t beginUs_ = 0;                        // of it
    int64_t intervalUs_ = kFirstIntervalUs / 2;  // doubled at the first frame
};

}  // namespace kelp
