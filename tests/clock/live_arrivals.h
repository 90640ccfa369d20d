#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelp::test {

// One packet of a made-up live source, as it comes.
struct Arrival {
    int64_t timestamp = 0;  // ticks of 90 kHz, by the sender's clock
    int64_t arrivalMs = 0;  // local time, as the network and the scheduler have it
    double truthMs = 0;     // local time at which it would come over the same way without jitter
};

// What is wrong with the source.
struct ArrivalFaults {
    int jitterMs = 0;          // each packet comes up to this much early or late
    double driftPpm = 0;       // how much the sender's clock runs fast
    int stepMs = 0;            // how much the way gets longer for good,
    int stepAtMs = 20000;      // and when
    bool wraps = false;        // the time stamps have 33 bits and wrap around after half a minute
    int lostOfHundred = 0;     // packets that never come
    int swappedOfHundred = 0;  // packets that come behind their successor
    int lengthMs = 60000;
};

struct ArrivalCase {
    std::string name;
    ArrivalFaults faults;
};

// The cases that tests and plots go by.
const std::vector<ArrivalCase>& arrivalCases();
const ArrivalFaults& arrivalFaults(const std::string& name);

constexpr int64_t kArrivalsStartMs = 1'700'000'000'000;  // local time of the first sending
constexpr int kArrivalsFrameMs = 40;

// The packets of a source, the same ones for the same faults.
std::vector<Arrival> makeArrivals(const ArrivalFaults& faults);

// What the filter makes of one packet, asked right after it was fed.
struct ArrivalEstimate {
    double atMs = 0;       // truth, from the first sending
    double arrivalMs = 0;  // how far the arrival is behind the truth
    double errorMs = 0;    // how far the filter's answer is behind the truth, without the fixed render delay
};

// Runs the packets through a TimestampExtrapolator and a RenderTiming on the fake clock.
std::vector<ArrivalEstimate> estimateArrivals(const std::vector<Arrival>& arrivals);

}  // namespace kelp::test
