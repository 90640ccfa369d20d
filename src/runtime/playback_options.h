#pragma once

#include <cstdint>
#include <string>

#include "runtime/picture_fit.h"
#include "runtime/seek_rule.h"

namespace kelp {

// What a host wants done in another way than the standard one, read from the texts of KelpPlayer::setOption. A member
// says what its field is named there; at first all is the standard.
//
// Each stage gets a copy when the option comes into force, so none changes under it.
struct PlaybackOptions {
    // For a track: one that the player chooses, or no track.
    static constexpr int kAutoTrack = -1;
    static constexpr int kNoTrack = -2;

    bool allCodecs = false;                  // "codecs": all that libavcodec decodes is played
    bool exactTiming = false;                // sound and pictures are in step as exactly as can be, at every speed
    bool lowLiveDelay = false;               // "live_delay": a live source is shown as soon as can be
    bool sharedPictures = false;             // "pictures": pictures stay in the decoder's memory where that can be
    bool closedLiveFails = false;            // "closed_live_source": the end of a live source is its loss
    bool rtspFallsBack = false;              // "rtsp_fallback": an RTSP server that refuses TCP is asked for UDP
    bool neverWaitsForDevice = false;        // "no_sound_device": sound goes on in silence while there is none
    int64_t readAheadMs = 0;                 // "read_ahead": so far is a remote source read ahead; 0 for 200 packets
    int64_t rebufferMs = 0;                  // "rebuffer": so much is waited for when it runs dry; 0 for nothing
    int64_t maxPixels = 0;                   // "max_pixels": of a picture; 0 for no limit
    int videoTrack = kAutoTrack;             // "video_track" and so on: the number of a track, or one of the above
    SeekRule seekRule = SeekRule::Standard;  // "seek": of the seeks from here on
    int audioTrack = kAutoTrack;
    PictureFit fit = PictureFit::Fill;  // "fit": of the windows, at once
    std::string audioDevice{};          // "audio_device": a name; empty for the default one
    int subtitleTrack = kAutoTrack;
    std::string subtitleFile{};  // "subtitle_file": a path or URL; empty for none

    bool operator==(const PlaybackOptions&) const = default;
};

}  // namespace kelp
