#include "control/option_table.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <string>
#include <utility>

namespace kelp {

namespace {

// Reads one of two words; the standard one stands for false, or for the first of two values.
template <class Field>
bool readWord(std::string_view value, std::string_view standard, std::string_view other, Field& field) {
    if (value != standard && value != other) {
        return false;
    }
    field = static_cast<Field>(value == other);
    return true;
}

bool readNumber(std::string_view value, int64_t& field) {
    const char* const end = value.data() + value.size();
    int64_t number = 0;
    const auto [rest, error] = std::from_chars(value.data(), end, number);
    if (error != std::errc() || rest != end || value.front() == '-') {
        return false;
    }
    field = number;
    return true;
}

// Any text; the standard one is empty in the field.
bool readName(std::string_view value, std::string_view standard, std::string& field) {
    if (value.empty()) {
        return false;
    }
    field = value == standard ? std::string_view() : value;
    return true;
}

bool readTrack(std::string_view value, int& field) {
    if (value == "auto" || value == "none") {
        field = value == "auto" ? PlaybackOptions::kAutoTrack : PlaybackOptions::kNoTrack;
        return true;
    }
    int64_t number = 0;
    if (!readNumber(value, number) || !std::in_range<int>(number)) {
        return false;
    }
    field = static_cast<int>(number);
    return true;
}

bool readPreset(std::string_view value, PlaybackOptions& options);

constexpr const char* kTracks = "auto, none, or the number of a track";
constexpr const char* kTrackEffect = "which track is played, by its number in `getTracks`; none leaves that kind out";

constexpr PlaybackOption kOptions[] = {
    {"preset", "standard, recommended", "recommended",
     "sets every key below to the recommended value, where it has one; `standard` sets those back. A key that is set "
     "afterwards has its own way",
     "at once", readPreset},
    {"codecs", "standard, all", "all", "plays whatever libavcodec has a decoder for, not the short list alone",
     "next load",
     [](std::string_view value, PlaybackOptions& options) {
         return readWord(value, "standard", "all", options.allCodecs);
     }},
    {"timing", "standard, exact", "exact",
     "clocks count what the tempo change and the device hold back; pictures are even at every speed; the internal "
     "clock begins with each playback and runs at its speed; a new volume comes over 10 ms",
     "next play",
     [](std::string_view value, PlaybackOptions& options) {
         return readWord(value, "standard", "exact", options.exactTiming);
     }},
    {"no_sound_device", "wait, silence", "silence",
     "without a sound device, or when it is lost, the sound goes on in silence at its pace, and picture, seeks and the "
     "end with it; the device is taken when it comes (back)",
     "next play",
     [](std::string_view value, PlaybackOptions& options) {
         return readWord(value, "wait", "silence", options.neverWaitsForDevice);
     }},
    {"live_delay", "standard, low", "low",
     "a picture of a live source is shown as soon as it is decoded, or, with `timing` as `exact`, its sound is heard, "
     "and the sound follows it, whoever the master is but for a host's clock; what of either falls behind is caught up "
     "with",
     "next load",
     [](std::string_view value, PlaybackOptions& options) {
         return readWord(value, "standard", "low", options.lowLiveDelay);
     }},
    {"read_ahead", "standard, or milliseconds", "10000",
     "a source over a network that isn't live is read so far ahead, 64 MiB at most, instead of 200 packets; over HTTP "
     "it "
     "is asked again where the connection broke",
     "next load",
     [](std::string_view value, PlaybackOptions& options) {
         int64_t ms = 0;
         if (value != "standard" && (!readNumber(value, ms) || ms == 0)) {
             return false;
         }
         options.readAheadMs = ms;
         return true;
     }},
    {"rebuffer", "0, or milliseconds", "1000",
     "such a source that runs dry stands, tells a `StallObserver`, and goes on when so much is there, or all that is "
     "left",
     "next play",
     [](std::string_view value, PlaybackOptions& options) { return readNumber(value, options.rebufferMs); }},
    {"max_pixels", "0, or a number", "67108864",
     "streams of larger pictures are left out, with an Error line; pictures that grow beyond it are not decoded",
     "next load",
     [](std::string_view value, PlaybackOptions& options) { return readNumber(value, options.maxPixels); }},
    {"pictures", "packed, shared", "shared",
     "a planar 4:2:0 picture of 8 bits is handed on in the decoder's own memory, uncopied: frame sinks meet rows that "
     "are longer than the width, and must not write",
     "next play",
     [](std::string_view value, PlaybackOptions& options) {
         return readWord(value, "packed", "shared", options.sharedPictures);
     }},
    {"closed_live_source", "completed, failed", "failed",
     "the end of a live source, or of a pipe, is a failure, so that a `TarnPlayer` with a retry comes back",
     "next load",
     [](std::string_view value, PlaybackOptions& options) {
         return readWord(value, "completed", "failed", options.closedLiveFails);
     }},
    {"rtsp_fallback", "none, udp", "udp", "an RTSP server that refuses TCP is asked for UDP", "next load",
     [](std::string_view value, PlaybackOptions& options) {
         return readWord(value, "none", "udp", options.rtspFallsBack);
     }},
    {"seek", "standard, exact", "exact",
     "a seek shows the picture whose time holds the target, and the sound begins there; every seek ends with one first "
     "picture, or first sound where there is none, and the newest one wins",
     "next seek",
     [](std::string_view value, PlaybackOptions& options) {
         return readWord(value, "standard", "exact", options.seekRule);
     }},
    {"fit", "fill, keep", "keep",
     "a window keeps the picture's ratio, with that of its pixels and its rotation, and is black beside it", "at once",
     [](std::string_view value, PlaybackOptions& options) { return readWord(value, "fill", "keep", options.fit); }},
    {"video_track", kTracks, nullptr, kTrackEffect, "next load",
     [](std::string_view value, PlaybackOptions& options) { return readTrack(value, options.videoTrack); }},
    {"audio_track", kTracks, nullptr, kTrackEffect, "next load",
     [](std::string_view value, PlaybackOptions& options) { return readTrack(value, options.audioTrack); }},
    {"audio_device", "default, or a name of `getAudioDevices`", nullptr,
     "which sound device is played on, also while it plays; one that can't be opened is a Warn line, and what plays "
     "goes "
     "on",
     "at once",
     [](std::string_view value, PlaybackOptions& options) { return readName(value, "default", options.audioDevice); }},
    {"subtitle_track", kTracks, nullptr,
     "which subtitles windows and a subtitle sink show, by the number in `getTracks`; `auto` shows none, unless there "
     "is a `subtitle_file`",
     "next load",
     [](std::string_view value, PlaybackOptions& options) { return readTrack(value, options.subtitleTrack); }},
    {"subtitle_file", "none, or a name of a file, a path or URL", nullptr,
     "a file whose subtitles are tracks of the source as well, behind its own; `subtitle_track` as `auto` shows the "
     "first of them",
     "next load",
     [](std::string_view value, PlaybackOptions& options) { return readName(value, "none", options.subtitleFile); }},
};

bool readPreset(std::string_view value, PlaybackOptions& options) {
    bool isRecommended = false;
    if (!readWord(value, "standard", "recommended", isRecommended)) {
        return false;
    }
    for (const PlaybackOption& row : kOptions) {
        if (row.recommended && row.read != readPreset) {
            const std::string_view values = row.values;
            row.read(isRecommended ? row.recommended : values.substr(0, values.find(',')), options);
        }
    }
    return true;
}

}  // namespace

std::span<const PlaybackOption> playbackOptions() {
    return kOptions;
}

const PlaybackOption* findPlaybackOption(std::string_view key) {
    const auto* const row = std::ranges::find(kOptions, key, &PlaybackOption::key);
    return row == std::end(kOptions) ? nullptr : row;
}

}  // namespace kelp
