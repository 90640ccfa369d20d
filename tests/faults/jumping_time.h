#pragma once

#include <cstdint>

namespace kelp::test {

// Sets the wall clock forward, or back, by `ms`, for a program that links jumping_time.cpp as its time class. Sleeps
// last as long as ever.
void jumpWallClock(int64_t ms);

}  // namespace kelp::test
