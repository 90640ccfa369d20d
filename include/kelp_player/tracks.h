#pragma once

#include <cstdint>
#include <string>

namespace kelp {

// What a track carries.
enum TrackKind : int32_t {
    TRACK_KIND_VIDEO = 0,
    TRACK_KIND_AUDIO = 1,
    TRACK_KIND_SUBTITLE = 2,
    TRACK_KIND_OTHER = 3,  // data, attached files and the like
};

// One track of a source, as its opening found it: all that a menu of tracks shows. A plain value, which stays valid
// when the player is gone. Texts are UTF-8, also where the source's aren't: what can't be read becomes U+FFFD.
struct Track {
    // Of this track alone in its source, 0 or greater: what `selectTrack` and the options "video_track", "audio_track"
    // and "subtitle_track" take.
    int number = -1;
    TrackKind kind = TRACK_KIND_OTHER;
    std::string codec;     // FFmpeg's short name: "h264", "aac"; "none" or "unknown_codec" for one that it doesn't know
    std::string language;  // as the source writes it, mostly three letters: "eng"; empty where it doesn't say
    std::string title;     // for people to read; empty where there is none
    bool isDefault = false;          // the source asks for it where nobody chooses
    bool isAttachedPicture = false;  // a single picture that goes with the sound, such as a song's cover
    // There is a decoder for it, and the options in force at the load let it be used. A track that is protected or
    // damaged may turn out not to be playable all the same.
    bool isPlayable = false;
    bool isPlayed =
        false;  // the player has taken it at the load, or the host has selected it since, and it is playable

    int width = 0;         // of a video track's picture before it is turned, in pixels; 0 where it isn't known
    int height = 0;        // likewise
    double frameRate = 0;  // pictures per second, on average; 0 where it isn't known, and for an attached picture
    int sampleRate = 0;    // of the sound, in Hz; 0 where it isn't known
    int channels = 0;      // of the sound; 0 where it isn't known
};

}  // namespace kelp
