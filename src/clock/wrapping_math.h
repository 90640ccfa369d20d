#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

// Arithmetic of times that come from outside and may be anything. Sums wrap around where the plain operators would
// overflow.
namespace kelp {

constexpr int64_t wrappingAdd(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

constexpr int64_t wrappingSubtract(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

constexpr int64_t wrappingMultiply(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) * static_cast<uint64_t>(b));
}

// `value`, held at the ends of the type's range.
constexpr int saturatedInt(int64_t value) {
    return static_cast<int>(
        std::clamp<int64_t>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

// `value` without its fraction, held at the ends of the type's range; 0 for what is not a number.
template <class T>
T truncated(double value) {
    if (value >= static_cast<double>(std::numeric_limits<T>::max())) {
        return std::numeric_limits<T>::max();
    }
    if (value <= static_cast<double>(std::numeric_limits<T>::min())) {
        return std::numeric_limits<T>::min();
    }
    return std::isnan(value) ? T{0} : static_cast<T>(value);
}

}  // namespace kelp
