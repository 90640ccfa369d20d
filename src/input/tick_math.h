#pragma once

#include <cstdint>

#include "clock/wrapping_math.h"

// Conversions of time stamps. A damaged input can hold any 64-bit value: these wrap around or stop at the limits where
// plain operators would be undefined.
namespace kelp {

// Ticks of the time base `num` / `den` in milliseconds, multiplied first and truncated; 0 if `den` is 0.
inline int64_t ticksToMs(int64_t ticks, int64_t num, int64_t den) {
    if (den == 0) {
        return 0;
    }
    const int64_t product = wrappingMultiply(wrappingMultiply(num, ticks), 1000);
    return den == -1 ? wrappingSubtract(0, product) : product / den;
}

}  // namespace kelp
