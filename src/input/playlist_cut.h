#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelp {

// The playlist of segments `text` (HLS, RFC 8216) without those that end at or before `fromUs`, counted from its
// beginning; the last one stays. What holds for later segments too, as keys and init segments, is kept, and segments
// keep their numbers. None if nothing is to be left out, or if segments at its beginning go in the course of time.
std::optional<std::string> cutPlaylist(std::string_view text, int64_t fromUs);

}  // namespace kelp
