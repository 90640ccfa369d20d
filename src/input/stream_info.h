#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kelp_player/tracks.h"

namespace kelp {

// What is known of a source as a whole: a snapshot that stays valid after the source was closed.
class StreamInfo {
public:
    virtual ~StreamInfo() = default;

    // The fields as one line for the log.
    std::string toString();

    int64_t start_time = 0;  // of the input, in milliseconds
    int64_t duration = 0;    // in milliseconds
    bool has_video = false;  // a usable video stream was found
    bool is_cover = false;   // has_video: it is a picture that goes with the sound, and has no time of its own
    bool has_audio = false;  // a usable audio stream was found
    bool is_live = false;    // the source is a live one
    bool is_remote = false;  // it is read over a network, at the reader's own pace
    bool seekable = false;   // the opposite of is_live
    std::vector<Track> tracks;
};

}  // namespace kelp
