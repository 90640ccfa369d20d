// The worker that carries events to the host: from the posting of a task to its end.

#include <atomic>
#include <memory>

#include "micro_check.h"
#include "runtime/worker.h"

namespace kelp::bench {
namespace {

// Posts as many tasks at once as the argument says, and waits for the last.
void WorkerPostToRun(benchmark::State& state) {
    const auto worker = std::make_shared<Worker>();
    worker->start();
    std::atomic<int64_t> ran{0};
    std::atomic<int64_t> finished{0};
    int64_t posted = 0;
    for (auto _ : state) {
        for (int64_t i = 0; i < state.range(0); ++i) {
            ++posted;
            const bool isLast = i + 1 == state.range(0);
            worker->task([&ran, &finished, isLast] {
                ran.fetch_add(1, std::memory_order_relaxed);
                if (isLast) {
                    finished.fetch_add(1);
                    finished.notify_one();
                }
            });
        }
        const int64_t rounds = posted / state.range(0);
        for (int64_t seen = finished; seen < rounds; seen = finished) {
            finished.wait(seen);
        }
    }
    worker->close();
    state.SetItemsProcessed(posted);
    check(state, ran == posted, "not every task ran");
}
BENCHMARK(WorkerPostToRun)->Arg(1)->Arg(100)->UseRealTime();

}  // namespace
}  // namespace kelp::bench
