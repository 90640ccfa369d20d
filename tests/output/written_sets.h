#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Parameter sets and sequence headers, as a hostile encoder may write them.

namespace kelp::test {

using Bytes = std::vector<uint8_t>;

Bytes operator+(Bytes first, const Bytes& second);

// With start codes. Each ends right behind the count, which is what it says.
Bytes h264Set(uint32_t picturesOfCycle);
Bytes hevcSet(uint32_t referenceSets, uint32_t references);
Bytes vvcSet(uint32_t partsLess1);
// The same with all that may stand before the count. The references are those of the last of so many sets.
Bytes wholeH264Set(uint32_t picturesOfCycle, uint8_t profile, uint32_t chroma);  // 0 where it isn't told
Bytes wholeHevcSet(uint32_t references, uint32_t moreLayers, bool isOrderedByLayer, uint32_t sets = 4);
Bytes wholeVvcSet(uint32_t partsLess1);
// Without its last byte, which says that there are no parts.
Bytes cutVvcSet();
// A unit with its times, which end `missingBits` too early, before other units.
Bytes av1Sequence(int missingBits);

// What libavformat takes for the other sets that a stream needs.
Bytes hevcFrame();
Bytes h264Frame();

}  // namespace kelp::test
