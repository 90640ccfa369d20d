#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <limits>
#include <mutex>

namespace kelp {

// A rest of one thread between two looks at something that is polled. A request that was noted ends it; none is missed.
//
// Tests link a fake of this class beside that of the time class, and step it.
class Rest {
public:
    // For a rest that nothing but its reason ends.
    static constexpr int64_t kNeverMs = std::numeric_limits<int64_t>::max();
    static constexpr int kForeverMs = std::numeric_limits<int>::max();

    // `ms` milliseconds by the steady clock, or until `isOver` holds: asked before the rest and at each `end`. It reads
    // atomics alone.
    void forMs(int ms, const std::function<bool()>& isOver);

    // The same for microseconds, which are not forever.
    void forUs(int64_t us, const std::function<bool()>& isOver);

    // The same, until the wall clock shows `timeMs`, also when it is set meanwhile.
    void untilMs(int64_t timeMs, const std::function<bool()>& isOver);

    // As forMs, for who waits for other threads' work: no fake time flies by meanwhile. Whether `isOver` held.
    bool waitMs(int ms, const std::function<bool()>& isOver);

    // Lets a rest look whether it is over, after the request was noted. Any thread, under any lock.
    void end();

private:
    std::mutex mutex_;  // a leaf
    std::condition_variable ended_;
};

}  // namespace kelp
