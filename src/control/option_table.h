#pragma once

#include <span>
#include <string_view>

#include "runtime/playback_options.h"

namespace kelp {

// A key of `setOption` that the engine reads itself. The texts are those of docs/options.md.
struct PlaybackOption {
    std::string_view key;
    const char* values;       // the standard first
    const char* recommended;  // a value; null for one that `preset` leaves alone
    const char* effect;       // of the values that aren't the standard
    const char* inForce;      // from when on it holds
    // Sets the option's field. False, and nothing is set, for a text that is none of the values.
    bool (*read)(std::string_view value, PlaybackOptions& options);
};

// All of them: the one place where these keys and values stand.
std::span<const PlaybackOption> playbackOptions();

// The option of this key; null for a key that isn't the engine's.
const PlaybackOption* findPlaybackOption(std::string_view key);

}  // namespace kelp
