#pragma once

#include <cstdint>
#include <string>

namespace kelp {

// Where the sound goes.
enum SoundOutput : int32_t {
    SOUND_OUTPUT_NONE = 0,     // no sound is played, it hasn't begun, or it waits for a device
    SOUND_OUTPUT_DEVICE = 1,   // to a sound device
    SOUND_OUTPUT_SILENCE = 2,  // nowhere, for want of a device, at its pace all the same
};

// What waits between two stages of a playback.
struct QueueStatistics {
    int count = 0;           // packets, pictures or pieces of sound
    int64_t durationMs = 0;  // from the time of the first to that of the last one
};

// One stream as it is read. The counts begin with `play`.
struct ReadStatistics {
    int track = -1;           // the number in `getTracks`; -1 where no track of the kind is played, and all else is 0
    std::string codec;        // FFmpeg's short name, such as "h264"
    int64_t packets = 0;      // read and handed on
    int64_t bytes = 0;        // in these
    int64_t bitRate = 0;      // bits that were read in the last second; a file is read ahead, by fits and starts
    QueueStatistics queue;    // packets that wait to be decoded
    std::string decoder;      // the library's name for what decodes it, such as "h264" or "libdav1d"; empty without one
    bool isHardware = false;  // hardware decodes it, or helps
};

// The video, or the picture that goes with a sound.
struct VideoStatistics : ReadStatistics {
    int width = 0;                // of the pictures, in pixels
    int height = 0;               // likewise
    double frameRate = 0;         // pictures per second, as the source states them; 0 where it doesn't
    int64_t decoded = 0;          // pictures that left the decoder to be shown
    int64_t shown = 0;            // of these, brought to the windows; repaints don't count
    int64_t late = 0;             // left out, as they came too late: half a second, with exact timing 25 ms; of these
                                  // and of packets that weren't decoded at all, so that `decoded` needn't hold them
    int64_t repeated = 0;         // times that a picture was drawn again as the next one was far too early
    QueueStatistics pictures;     // that wait to be shown
    int64_t aheadOfMasterMs = 0;  // by how much the picture runs ahead of what it follows, below 0 behind it, at the
                                  // last picture; 0 where it follows nothing
};

// The sound.
struct AudioStatistics : ReadStatistics {
    int sampleRate = 0;     // of the stream, in Hz
    int channels = 0;       // likewise
    int64_t decoded = 0;    // pieces of sound that left the decoder
    int64_t blocks = 0;     // handed to the output, as the tempo change puts them together
    int64_t underruns = 0;  // gaps: the device asked for sound, and got it later; those of seeks don't count
    SoundOutput output = SOUND_OUTPUT_NONE;  // where it goes
    QueueStatistics sound;                   // pieces that wait to be played
    int64_t aheadOfMasterMs = 0;             // as for the picture, at the last piece
};

// How a playback goes, as the stages count it: a snapshot, taken while they work on, so that figures of one moment may
// differ by one. A plain value, which stays valid when the player is gone. Out of playback all is 0, empty, or a
// `track` of -1, but for what is said of the player, and, while a source is open, of its tracks.
struct Statistics {
    VideoStatistics video;  // of the picture
    AudioStatistics audio;  // of the sound

    // Of a live source: how far the last packet of video came behind the time at which it was due by those before it,
    // below 0 for too early, and the mean of that distance over some 16 packets. Milliseconds; 0 for other sources.
    double liveDelayMs = 0;
    double liveJitterMs = 0;

    // The time that the host's packet sink has taken since `play`, and at most for one call. Nothing is read meanwhile.
    double packetSinkMs = 0;
    double packetSinkLongestMs = 0;

    // Of the player, from its making on: restarts of the source by a TarnPlayer, and the last failure, a
    // KelpPlayerErrorType, or 0 where there was none. Failures that a TarnPlayer mends by itself count.
    int restarts = 0;
    int lastFailure = 0;
};

}  // namespace kelp
