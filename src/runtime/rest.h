#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>

namespace kelp {

// A rest of one thread between two looks at something that is polled. A request that was noted ends it; none is missed.
//
// It lasts by the steady clock; tests link a fake of this class beside that of the time class, and step it.
class Rest {
public:
    // `ms` milliseconds, or until `isOver` holds: asked before the rest and at each `end`. It reads atomics alone.
    void forMs(int ms, const std::function<bool()>& isOver);

    // Lets a rest look whether it is over, after the request was noted. Any thread, under any lock.
    void end();

private:
    std::mutex mutex_;  // a leaf
    std::condition_variable ended_;
};

}  // namespace kelp
