#pragma once

#include <cstddef>
#include <vector>

namespace kelp::bench {

// The steady clock, in milliseconds.
double nowMs();

// What the process (RUSAGE_SELF), the calling thread (RUSAGE_THREAD) or the ended children (RUSAGE_CHILDREN) have used
// of a processor.
double cpuSeconds(int who);

// What the system says of this process now.
struct ProcessState {
    double residentMiB = 0;
    double peakMiB = 0;  // the highest residentMiB so far
    int threads = 0;
};

ProcessState processState();

// How values lie. All 0 without values.
struct Spread {
    size_t count = 0;
    double median = 0;
    double p99 = 0;
    double worst = 0;  // the largest
};

Spread spreadOf(std::vector<double> values);

}  // namespace kelp::bench
