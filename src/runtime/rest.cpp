#include "runtime/rest.h"

#include <chrono>

namespace kelp {

void Rest::forMs(int ms, const std::function<bool()>& isOver) {
    std::unique_lock lock(mutex_);
    ended_.wait_for(lock, std::chrono::milliseconds(ms), isOver);
}

// What was noted before is seen by a look that comes after the mutex is free, and one that came before it sleeps by
// then.
void Rest::end() {
    std::lock_guard lock(mutex_);
    ended_.notify_all();
}

}  // namespace kelp
