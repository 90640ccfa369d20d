#pragma once

#include <cstdint>
#include <vector>

#include "kelp_player/subtitle_sink.h"
#include "subtitle/subtitle_overlay.h"
#include "subtitle/subtitle_track.h"

namespace kelp {

// What a host's sink is told. `track` and `drawn` may be null; the pictures stay those of `drawn`.
ShownSubtitles shownSubtitles(int64_t timeMs, const SubtitleTrack* track,
                              const std::vector<SubtitleTrack::Event>& events, const SubtitleOverlay* drawn);

}  // namespace kelp
