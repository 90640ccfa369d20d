// The ring between the audio play thread and the device: a block of sound in, and out again.

#include <algorithm>
#include <vector>

#include "micro_check.h"
#include "runtime/cycle_buffer_wrapper.h"

namespace kelp::bench {
namespace {

constexpr int kRingBytes = 8193;  // as the sound output's

void Ring(benchmark::State& state) {
    CycleBufferWrapper ring;
    ring.init(kRingBytes, nullptr, nullptr);
    const auto size = static_cast<int>(state.range(0));
    std::vector<unsigned char> in(static_cast<size_t>(size));
    for (size_t i = 0; i < in.size(); ++i) {
        in[i] = static_cast<unsigned char>(i * 7);
    }
    std::vector<unsigned char> out(in.size());
    for (auto _ : state) {
        ring.write(in.data(), size);
        benchmark::DoNotOptimize(ring.read_noblock(out.data(), size));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * size);
    check(state, out == in && ring.availableReadSize() == 0, "what came out isn't what went in");
}
BENCHMARK(Ring)->Arg(64)->Arg(1024)->Arg(4096)->Arg(8192);

}  // namespace
}  // namespace kelp::bench
