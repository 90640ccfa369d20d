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

    // Reads `path`, a path or URL, with `options` for protocol and demuxer, until `isStopped` holds or 10 s are over;
    // numbers its tracks from `firstNumber` on. Text that isn't UTF-8 is in the charset of the option "sub_charenc".
    // Without any track where it can't be read, and an Error line says why.
    static SubtitleFile read(const std::string& path, const std::map<std::string, std::string>& options,
                             int firstNumber, const std::function<bool()>& isStopped);
};

}  // namespace kelp
