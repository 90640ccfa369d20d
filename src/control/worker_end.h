#pragma once

#include <atomic>
#include <memory>
#include <thread>
#include <utility>

#include "runtime/worker.h"

namespace kelp {

// The end of a player's worker, which several threads may ask for: the first one brings it about, the others wait for
// it.
//
// The worker's own threads can't wait for themselves. If one of them is the first, a thread is left behind that ends
// the worker; the end of the process gives it a second, as what is queued may use what is destroyed then.
class WorkerEnd : public std::enable_shared_from_this<WorkerEnd> {
public:
    explicit WorkerEnd(std::shared_ptr<Worker> worker) : worker_(std::move(worker)) {}

    // Has what is queued run, if `drain` says so, and ends the worker. Returns when it has ended, but on the worker's
    // threads and on the one that is just ending it, where something may die that asks for the end once more.
    void reach(bool drain);

private:
    void bringAbout(bool drain);
    void bringAboutElsewhere(bool drain);

    const std::shared_ptr<Worker> worker_;
    std::atomic<bool> begun_{false};
    std::atomic<std::thread::id> ender_;
    std::atomic<bool> reached_{false};
};

}  // namespace kelp
