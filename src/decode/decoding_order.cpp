#include "decode/decoding_order.h"

#include <algorithm>

namespace kelp {

namespace {

// More than any decoder holds back, and not without end where none of them gives a picture.
constexpr size_t kMaxWaiting = 128;

}  // namespace

void DecodingOrder::noteSent(int64_t timeMs, bool isTimedByOrder) {
    // Times of decoding rise.
    isOn_ = isOn_ && isTimedByOrder && timeMs >= lastMs_;
    lastMs_ = timeMs;
    if (!isOn_) {
        waiting_.clear();
        return;
    }
    if (waiting_.size() == kMaxWaiting) {
        waiting_.pop_front();
    }
    waiting_.push_back(timeMs);
}

void DecodingOrder::flush() {
    waiting_.clear();
    lastMs_ = INT64_MIN;
}

int64_t DecodingOrder::takeTime(int64_t ownMs, size_t reordered) {
    const auto own = std::lower_bound(waiting_.begin(), waiting_.end(), ownMs);
    const auto ahead = static_cast<size_t>(own - waiting_.begin());
    if (own == waiting_.end() || (reordered == 0 && *own != ownMs)) {
        return ownMs;
    }
    waiting_.erase(waiting_.begin(), own - static_cast<std::ptrdiff_t>(std::min(ahead, reordered)));
    const int64_t first = waiting_.front();
    waiting_.pop_front();
    return first;
}

}  // namespace kelp
