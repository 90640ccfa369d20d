// The filter over the arrivals of a live source: a packet's time in, a picture's time out.

#include <cstdint>
#include <cstdlib>

#include "clock/timestamp_extrapolator.h"
#include "micro_check.h"
#include "runtime/kelp_time.h"

namespace kelp::bench {
namespace {

constexpr int64_t kFrequency = 90000;
constexpr int64_t kTicksPerMs = kFrequency / 1000;
constexpr int64_t kToleranceMs = 100;

// The sender's clock runs as the local one.
int64_t ticksSince(int64_t startMs) {
    return (KelpTime::getTimeMs() - startMs) * kTicksPerMs;
}

bool isNear(int64_t answerMs, int64_t startMs, int64_t ticks) {
    return std::abs(answerMs - startMs - ticks / kTicksPerMs) < kToleranceMs;
}

void ExtrapolatorUpdate(benchmark::State& state) {
    TimestampExtrapolator extrapolator;
    extrapolator.init(kFrequency);
    const int64_t startMs = KelpTime::getTimeMs();
    extrapolator.reset(startMs);
    for (auto _ : state) {
        extrapolator.update(ticksSince(startMs));
    }
    const int64_t ticks = ticksSince(startMs);
    check(state, isNear(extrapolator.extrapolateLocalTime(ticks), startMs, ticks), "the answer is far off");
}
BENCHMARK(ExtrapolatorUpdate);

void ExtrapolatorAnswer(benchmark::State& state) {
    TimestampExtrapolator extrapolator;
    extrapolator.init(kFrequency);
    const int64_t startMs = KelpTime::getTimeMs();
    extrapolator.reset(startMs);
    for (int i = 0; i < 100; ++i) {
        extrapolator.update(ticksSince(startMs));
    }
    int64_t ticks = ticksSince(startMs);
    int64_t answerMs = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ticks);
        answerMs = extrapolator.extrapolateLocalTime(ticks);
        benchmark::DoNotOptimize(answerMs);
    }
    check(state, isNear(answerMs, startMs, ticks), "the answer is far off");
}
BENCHMARK(ExtrapolatorAnswer);

}  // namespace
}  // namespace kelp::bench
