#pragma once

#include "runtime/playback_options.h"

namespace kelp {

// Chooses the length of the pieces of sound that the tempo change moves and blends, where the options leave no room for
// the library's own choice: up to 90 ms at lower speeds.
void chooseTempoPieces(void* soundTouch, const PlaybackOptions& options);

}  // namespace kelp
