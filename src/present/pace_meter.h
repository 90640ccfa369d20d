#pragma once

#include <cstdint>
#include <deque>

namespace kelp {

// Learns how fast a clock runs, from its readings. Times are microseconds. Knows no thread.
class PaceMeter {
public:
    // What the clock is expected to run at, from now on; what has been learnt is that it runs so much faster. Nothing
    // is learnt while it is expected to stand, at 0.
    void expect(double pace);

    void read(int64_t us, int64_t nowUs);

    // The readings to come have nothing to do with those before.
    void restart() { readings_.clear(); }

    double pace() const { return expected_ * ratio_; }

private:
    struct Reading {
        int64_t us = 0;
        int64_t atUs = 0;
    };

    std::deque<Reading> readings_;  // of the last moments; the clock didn't jump in between
    double lastPace_ = 1;           // from one reading to the next
    double expected_ = 1;
    double ratio_ = 1;  // to what is expected
};

}  // namespace kelp
