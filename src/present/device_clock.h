#pragma once

#include <atomic>
#include <cstdint>

#include "runtime/latest_value.h"
#include "runtime/stage_counts.h"

namespace kelp {

// What became of the sound that was handed to an output, at one moment. Frames are samples per channel.
struct HeardSound {
    double frames = 0;           // heard, of all that were handed over; those that were dropped count as heard
    int64_t delayUs = 0;         // until a frame that is handed over now would be heard
    int64_t dryFromUs = 0;       // since when all has been heard; means nothing while something is on its way
    double framesPerSecond = 0;  // at which the device takes them; 0 if it isn't known
    int64_t spareUs = 0;         // of the delay, what could be missing and no block would be short, whenever it is due
    int64_t overdueUs = 0;       // since when a device should have asked for more; it plays one block meanwhile
};

// Tells what is heard of a device that takes sound in blocks: while it asks for one, it begins to play the one before.
// Times are microseconds of KelpTime's steady clock.
//
// The device asks now a little early, now late, and its clock isn't the system's. So the times go through a
// delay-locked loop of second order (F. Adriaensen, "Using a DLL to filter time", 2005), which learns the true pace,
// and what is heard moves on evenly within a block and from one to the next. A device that comes late by a whole block
// has been silent meanwhile, and the loop begins anew.
//
// `take` comes from the device's thread, `handOver` and `drop` from the one thread that writes, `heard` from any. No
// call waits for another one. `open` comes while no device asks.
class DeviceClock {
public:
    // A device with this form of blocks is there. The counts go on.
    void open(int blockFrames, double framesPerSecond);

    // The next `frames` are handed over, not all of them taken at once. Ahead of the samples themselves.
    void handOver(int64_t frames) { handed_.add(frames); }

    // The device asked for a block and got `frames` of those that were handed over; the rest of it is silence.
    void take(int64_t frames, int64_t nowUs);

    // All that was handed over and isn't taken yet is gone, and what the device still plays of it doesn't count.
    void drop(int64_t nowUs);

    HeardSound heard(int64_t nowUs) const;

private:
    struct Block {
        int64_t begin = 0;   // frames that went before
        int64_t frames = 0;  // that aren't silence; they come first
    };
    // The loop, and what the device has taken.
    struct Loop {
        double blockFrames = 0;
        double nominalUs = 0;  // of a block
        double gain = 0;       // for the time
        double paceGain = 0;   // and for the length of a block
        double beginUs = 0;    // when the block began that is heard now, by the loop
        double endUs = 0;      // when it ends and the next one is asked for
        double blockUs = 0;    // learnt length of a block
        int64_t taken = 0;     // with what was dropped before
        Block playing;         // from beginUs on
        Block next;            // from endUs on
        int64_t dryFromUs = 0;
        int64_t isLocked = 0;
    };

    static double heardOf(const Loop& loop, const Block& block, double blocks);

    Loop loop_;  // the device's thread's, and shown to all as it is after each step
    LatestValue<Loop> shown_;
    Count handed_;
    std::atomic<int64_t> dropped_{0};    // what had been handed over at the last drop; behind the next
    std::atomic<int64_t> droppedUs_{0};  // when that was
};

}  // namespace kelp
