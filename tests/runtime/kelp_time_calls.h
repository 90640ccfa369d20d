#pragma once

#include <cstdint>
#include <vector>

namespace kelp::test {

// Looks at the sleeps that the time class asks the system for, on the calling thread. While they are recorded nobody
// sleeps. Starting clears the record.
void recordSleeps(bool record);
std::vector<int64_t> recordedSleepsNs();
int recordedYields();

}  // namespace kelp::test
