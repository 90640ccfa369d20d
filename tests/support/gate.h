#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>

namespace kelp::test {

// Opened once by one thread, waited for by others. May die as soon as a `wait` has returned, although `open` still
// runs; a std::promise may not.
class Gate {
public:
    void open() {
        const auto state = state_;
        std::lock_guard lock(state->mutex);
        state->opened = true;
        state->condition.notify_all();
    }

    void wait() {
        const auto state = state_;
        std::unique_lock lock(state->mutex);
        state->condition.wait(lock, [&] { return state->opened; });
    }

private:
    struct State {
        std::mutex mutex;
        std::condition_variable condition;
        bool opened = false;  // guarded by mutex
    };

    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace kelp::test
