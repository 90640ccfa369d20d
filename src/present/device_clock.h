#pragma once

#include <cstdint>

namespace kelp {

// What became of the sound that was handed to an output, at one moment. Frames are samples per channel.
struct HeardSound {
    double frames = 0;           // heard, of all that were handed over; those that were dropped count as heard
    int64_t delayUs = 0;         // until a frame that is handed over now would be heard
    int64_t dryFromUs = 0;       // since when all has been heard; means nothing while something is on its way
    double framesPerSecond = 0;  // at which the device takes them; 0 if it isn't known
};

// Tells what is heard of a device that takes sound in blocks: while it asks for one, it begins to play the one before.
// It knows no thread; its owner guards it. Times are microseconds by KelpTime.
//
// The device asks now a little early, now late, and its clock isn't the system's. So the times go through a
// delay-locked loop of second order (F. Adriaensen, "Using a DLL to filter time", 2005), which learns the true pace,
// and what is heard moves on evenly within a block and from one to the next. A device that comes late by a whole block
// has been silent meanwhile, and the loop begins anew.
class DeviceClock {
public:
    // A device with this form of blocks is there. The counts go on.
    void open(int blockFrames, double framesPerSecond);

    // The next `frames` are handed over, not all of them taken at once.
    void handOver(int64_t frames) { handed_ += frames; }

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

    double heardOf(const Block& block, double blocks) const;

    double blockFrames_ = 0;
    double nominalUs_ = 0;  // of a block
    double gain_ = 0;       // of the loop, for the time
    double paceGain_ = 0;   // and for the length of a block
    bool isLocked_ = false;
    double beginUs_ = 0;  // when the block began that is heard now, by the loop
    double endUs_ = 0;    // when it ends and the next one is asked for
    double blockUs_ = 0;  // learnt length of a block
    int64_t handed_ = 0;
    int64_t taken_ = 0;
    Block playing_;  // from beginUs_ on
    Block next_;     // from endUs_ on
    int64_t dryFromUs_ = 0;
};

}  // namespace kelp
