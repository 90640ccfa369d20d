#include "control/worker_end.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "runtime/never_destroyed.h"

namespace kelp {

namespace {

constexpr std::chrono::seconds kLongestWaitAtExit{1};

// Workers that a thread of its own is ending.
struct LeftWorkers {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<const Worker*> workers;  // guarded by mutex
};

LeftWorkers& leftWorkers() {
    static NeverDestroyed<LeftWorkers> left;
    return *left;
}

void waitAtExit() {
    auto& left = leftWorkers();
    std::unique_lock lock(left.mutex);
    // An exit from within a callable isn't held up by that one.
    left.changed.wait_for(lock, kLongestWaitAtExit, [&] {
        return std::ranges::all_of(left.workers, [](const Worker* worker) { return worker->isOwnThread(); });
    });
}

}  // namespace

void WorkerEnd::reach(bool drain) {
    const bool first = !begun_.exchange(true);
    const bool canWait = !worker_->isOwnThread() && ender_.load() != std::this_thread::get_id();
    if (first) {
        canWait ? bringAbout(drain) : bringAboutElsewhere(drain);
    } else if (canWait) {
        reached_.wait(false);
    }
}

void WorkerEnd::bringAbout(bool drain) {
    ender_ = std::this_thread::get_id();
    if (drain) {
        worker_->waitEmpty();
    }
    worker_->close();
    reached_ = true;
    reached_.notify_all();
}

void WorkerEnd::bringAboutElsewhere(bool drain) {
    auto& left = leftWorkers();
    {
        std::lock_guard lock(left.mutex);
        left.workers.push_back(worker_.get());
    }
    // Asked for when the first one is left: it runs before the destruction of what the host made earlier.
    [[maybe_unused]] static const int asked = std::atexit(waitAtExit);
    std::thread([self = shared_from_this(), drain, &left] {
        self->bringAbout(drain);
        std::lock_guard lock(left.mutex);
        left.workers.erase(std::ranges::find(left.workers, self->worker_.get()));
        left.changed.notify_all();
    }).detach();
}

}  // namespace kelp
