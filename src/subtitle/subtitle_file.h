#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kelp_player/tracks.h"
#include "subtitle/subtitle_track.h"

namespace kelp {

// The tracks of a file of subtitles, read as a whole.
struct SubtitleFile {
    struct Entry {
        Track track;
        std::shared_ptr<SubtitleTrack> known;  // null where there is no decoder
    };
    std::vector<Entry> entries;

    // Reads `path`, a path or URL, with `options` for the demuxer, until `isToGiveUp` holds; numbers its tracks from
    // `firstNumber` on. Without any where it can't be read, and an Error line says why.
    static SubtitleFile read(const std::string& path, const std::map<std::string, std::string>& options,
                             int firstNumber, const std::function<bool()>& isToGiveUp);
};

}  // namespace kelp
