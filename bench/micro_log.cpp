// A line of the log that isn't written.

#include <atomic>

#include "kelp_player/log.h"
#include "micro_check.h"

namespace kelp::bench {
namespace {

std::atomic<int> lines{0};

void LogOff(benchmark::State& state) {
    if (state.thread_index() == 0) {
        lines = 0;
        Log::SetLogCallback([](const char*) { ++lines; });
    }
    int64_t number = 0;
    for (auto _ : state) {
        Log::Debug("Bench", "%s, pts:%lld, size:%d\n", "LogOff", static_cast<long long>(++number), 7);
    }
    if (state.thread_index() == 0) {
        check(state, lines == 0, "a line was written");
        Log::SetLogCallback(nullptr);
    }
}
BENCHMARK(LogOff)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace
}  // namespace kelp::bench
