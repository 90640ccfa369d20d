#include "control/option_table.h"

#include <algorithm>
#include <iterator>

namespace kelp {

namespace {

// Reads one of two words; the standard one stands for false.
bool readWord(std::string_view value, std::string_view standard, std::string_view other, bool& field) {
    if (value != standard && value != other) {
        return false;
    }
    field = value == other;
    return true;
}

constexpr PlaybackOption kOptions[] = {
    {"pictures", "packed, shared", "shared",
     "a planar 4:2:0 picture of 8 bits is handed on in the decoder's own memory, uncopied: frame sinks meet rows that "
     "are longer than the width, and must not write",
     "next play",
     [](std::string_view value, PlaybackOptions& options) {
         return readWord(value, "packed", "shared", options.sharedPictures);
     }},
};

}  // namespace

std::span<const PlaybackOption> playbackOptions() {
    return kOptions;
}

const PlaybackOption* findPlaybackOption(std::string_view key) {
    const auto* const row = std::ranges::find(kOptions, key, &PlaybackOption::key);
    return row == std::end(kOptions) ? nullptr : row;
}

}  // namespace kelp
