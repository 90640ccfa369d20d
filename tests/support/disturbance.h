#pragma once

#include <cstdint>

namespace kelp::test {

// What a thread is doing when it may be held up.
enum class DisturbedPoint { Lock, Unlock, Wait, Notify, ThreadStart };

// How often threads came past a kind of point, and what happened to them there.
struct DisturbanceCounts {
    uint64_t passes = 0;
    uint64_t yields = 0;
    uint64_t sleeps = 0;
};

// Holds the calling thread up at random: mostly not at all, sometimes by giving the processor away, sometimes by a
// sleep of up to two milliseconds, rarely by a longer one. Any thread may call it, with any locks held.
//
// Each thread draws from a sequence of its own, which the seed and the number of threads before it determine.
void disturb(DisturbedPoint point);

// KELP_DISTURB_SEED of the environment, or 1.
uint64_t disturbanceSeed();

// Of the program, or of the library: each has a disturbance of its own.
DisturbanceCounts disturbanceCounts(DisturbedPoint point);

}  // namespace kelp::test
