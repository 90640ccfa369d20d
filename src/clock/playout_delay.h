#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kelp {

// Tells when the pictures or the sound of a live source are due if they are to come as early as can be and still as
// evenly as they were made.
//
// What arrives has an offset, its arrival minus its time stamp. The smallest one of the last two seconds is that of the
// way without a wait; the jitter is what others have on top of it. Due is the time stamp plus the offset that nine of
// ten keep within: the sliding percentile of S. Moon, J. Kurose and D. Towsley, "Packet audio playout delay adjustment:
// performance bounds and algorithms", Multimedia Systems 6 (1998). As there, a spike is no jitter: what comes more than
// 100 ms behind the fastest has stood somewhere, isn't counted, and doesn't age the others.
//
// One thread uses it. Times of the steady clock are microseconds, time stamps milliseconds.
class PlayoutDelay {
public:
    void add(int64_t ptsMs, int64_t arrivedUs);

    // Behind at least one `add`. Never more than 100 ms behind the arrival of what was added last.
    int64_t dueUs(int64_t ptsMs) const;

private:
    struct Arrival {
        int64_t ageUs;  // ageUs_ when it came
        int64_t offsetUs;
    };
    static constexpr size_t kMostArrivals = 256;  // two seconds of 120 pictures each

    const Arrival& at(size_t index) const { return arrivals_[(first_ + index) % kMostArrivals]; }
    void measure();

    std::array<Arrival, kMostArrivals> arrivals_{};  // a ring of those of the last two seconds, the oldest at first_
    size_t first_ = 0;
    size_t count_ = 0;
    int64_t lastUs_ = 0;   // when the last one came
    int64_t ageUs_ = 0;    // how long they have been coming, without standstills
    int64_t delayUs_ = 0;  // from time stamp to due time
};

}  // namespace kelp
