// Prints what the filter of live sources makes of each case of arrivals, for docs/plots/live_timing.py: a line per
// packet with the case's name, the time, the error of the arrival and the error of the answer, in milliseconds.

#include <cstdio>

#include "clock/live_arrivals.h"

int main() {
    for (const auto& entry : kelp::test::arrivalCases()) {
        for (const auto& estimate : kelp::test::estimateArrivals(kelp::test::makeArrivals(entry.faults))) {
            std::printf("%s %.1f %.1f %.1f\n", entry.name.c_str(), estimate.atMs, estimate.arrivalMs, estimate.errorMs);
        }
    }
}
