#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <optional>

namespace kelp {

// The newest time that others have asked one thread for. Posting and taking are one atomic step each: what was posted
// is taken, or a newer one stands in its place. It is to be taken before it is served: one that comes meanwhile is the
// next.
class LatestTime {
public:
    void post(int64_t time) { time_ = time; }
    bool isPending() const { return time_ != kNone; }

    std::optional<int64_t> take() {
        if (!isPending()) {
            return std::nullopt;
        }
        const int64_t time = time_.exchange(kNone);
        return time == kNone ? std::nullopt : std::optional(time);
    }

    void drop() { time_ = kNone; }

private:
    static constexpr int64_t kNone = std::numeric_limits<int64_t>::min();  // no time of a seek

    std::atomic<int64_t> time_{kNone};
};

}  // namespace kelp
