#pragma once

#include <cstdint>

namespace kelp {

// Whether a stream's packets hold length-prefixed units, as its extra data shows, and have to be converted to start
// codes for the decoder. Only H.264 and HEVC can; `codecId` is an AVCodecID.
bool isLengthPrefixed(int codecId, const uint8_t* extraData, int size);

}  // namespace kelp
