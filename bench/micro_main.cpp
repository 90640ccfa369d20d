// Measures small parts of the library one by one. Takes the options of Google Benchmark:
// kelp_micro --benchmark_filter=Ring --benchmark_min_time=0.1. Fails if a part doesn't do its work.

#include <atomic>

#include "kelp_player/log.h"
#include "micro_check.h"

namespace kelp::bench {
namespace {

std::atomic<bool> failed{false};

}  // namespace

void check(benchmark::State& state, bool done, const char* what) {
    if (!done) {
        failed = true;
        state.SkipWithError(what);
    }
}

}  // namespace kelp::bench

int main(int argc, char** argv) {
    kelp::Log::SetLevel(-1);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    const bool ran = benchmark::RunSpecifiedBenchmarks() > 0;
    benchmark::Shutdown();
    return ran && !kelp::bench::failed ? 0 : 1;
}
