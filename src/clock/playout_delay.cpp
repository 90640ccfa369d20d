#include "clock/playout_delay.h"

#include <algorithm>
#include <limits>

#include "clock/wrapping_math.h"

namespace kelp {

namespace {

constexpr int64_t kWindowUs = 2'000'000;
constexpr int64_t kSpikeUs = 100'000;
constexpr int64_t kLongestStepUs = 200'000;  // between two that come; a longer one is a standstill
constexpr size_t kInTime = 9;                // of ten

int64_t toUs(int64_t ms) {
    return wrappingMultiply(ms, 1000);
}

}  // namespace

void PlayoutDelay::add(int64_t ptsMs, int64_t arrivedUs) {
    if (count_ > 0) {
        ageUs_ += std::clamp<int64_t>(wrappingSubtract(arrivedUs, lastUs_), 0, kLongestStepUs);
    }
    lastUs_ = arrivedUs;
    while (count_ == kMostArrivals || (count_ > 0 && ageUs_ - at(0).ageUs > kWindowUs)) {
        first_ = (first_ + 1) % kMostArrivals;
        --count_;
    }
    arrivals_[(first_ + count_) % kMostArrivals] = {ageUs_, wrappingSubtract(arrivedUs, toUs(ptsMs))};
    ++count_;
    measure();
}

void PlayoutDelay::measure() {
    int64_t smallest = std::numeric_limits<int64_t>::max();
    for (size_t i = 0; i < count_; ++i) {
        smallest = std::min(smallest, at(i).offsetUs);
    }
    std::array<int64_t, kMostArrivals> jitter;
    size_t count = 0;
    for (size_t i = 0; i < count_; ++i) {
        if (const int64_t more = wrappingSubtract(at(i).offsetUs, smallest); more >= 0 && more <= kSpikeUs) {
            jitter[count++] = more;
        }
    }
    const auto rank = jitter.begin() + static_cast<std::ptrdiff_t>((count - 1) * kInTime / 10);
    std::nth_element(jitter.begin(), rank, jitter.begin() + static_cast<std::ptrdiff_t>(count));
    delayUs_ = wrappingAdd(smallest, *rank);
}

int64_t PlayoutDelay::dueUs(int64_t ptsMs) const {
    return wrappingAdd(toUs(ptsMs), delayUs_);
}

}  // namespace kelp
