#pragma once

#include <benchmark/benchmark.h>

namespace kelp::bench {

// Ends the benchmark with an error, and the program with a failure, if what it measures didn't do its work.
void check(benchmark::State& state, bool done, const char* what);

}  // namespace kelp::bench
