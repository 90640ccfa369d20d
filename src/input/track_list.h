#pragma once

#include <vector>

#include "kelp_player/tracks.h"
#include "runtime/playback_options.h"

struct AVFormatContext;
struct AVStream;

namespace kelp {

// What the demuxer's streams are to a host. A track's number is the index of its stream.

TrackKind trackKindOf(const AVStream& stream);

// Whether pictures, sound or subtitles come of it, for a host that wants this.
bool isPlayable(const AVStream& stream, const PlaybackOptions& options);

// All of them, in their order; none is played yet.
std::vector<Track> listTracks(const AVFormatContext& context, const PlaybackOptions& options);

}  // namespace kelp
