#pragma once

#include <cstdint>
#include <span>

namespace kelp {

// Whether the counts are such as streams have, in what describes a stream before its pictures: parameter sets with
// start codes of H.264, HEVC and VVC, or a sequence header of AV1. libavformat reads them to write the description of a
// file, counts as far as they tell it to, and where they end too early may count to 2^32 or for ever. `codecId` is an
// AVCodecID; true for all other codecs, and for configuration records, which it doesn't look into.
bool areCountsBounded(int codecId, std::span<const uint8_t> description);

}  // namespace kelp
