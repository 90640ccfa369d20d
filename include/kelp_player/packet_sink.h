#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "kelp_player/tracks.h"

struct AVCodecParameters;
struct AVPacket;

namespace kelp {

// A stream whose packets a sink gets.
struct PacketStream {
    int track = -1;                     // its number, see Track, by which packets name it
    TrackKind kind = TRACK_KIND_OTHER;  // video or sound
    std::string codec;                  // FFmpeg's short name, such as "h264"
    int timeBaseNum = 1;                // its times count in units of so many seconds, as a fraction
    int timeBaseDen = 1;                // the denominator

    int width = 0;         // of a video, before it is turned, in pixels
    int height = 0;        // likewise
    double frameRate = 0;  // pictures per second, as the source states them; 0 where it doesn't
    int sampleRate = 0;    // of the sound, in Hz
    int channels = 0;      // of the sound

    // What the decoder needs beside the packets, as the source has it; null if there is nothing. Valid during the call.
    const uint8_t* configuration = nullptr;
    int configurationSize = 0;  // in bytes

    // All of this and more, for hosts that link the libavcodec that this library runs with. Valid during the call.
    const AVCodecParameters* parameters = nullptr;
};

// One packet, as it was read. Valid during the call.
struct Packet {
    // In place of a time that the source doesn't state. With the option "codecs" = "all" a packet without either has
    // the time of decoding that follows from those before it.
    static constexpr int64_t kNoTime = std::numeric_limits<int64_t>::min();

    int track = -1;                     // of which stream
    TrackKind kind = TRACK_KIND_OTHER;  // video or sound
    const uint8_t* data = nullptr;      // H.264 and HEVC with start codes or with lengths, as the source has them
    int size = 0;                       // in bytes
    int64_t pts = kNoTime;              // when it is shown, in the stream's units and on the source's own time line
    int64_t dts = kNoTime;              // when it is decoded, likewise
    int64_t duration = 0;               // likewise; 0 if it isn't known
    bool isKeyFrame = false;            // decoding can begin with it

    // The same for hosts that link the libavcodec that this library runs with: av_packet_ref keeps it without a copy.
    const AVPacket* packet = nullptr;
};

// Takes the packets of the streams that are played, as they are read and before they are decoded: the host implements
// it and hands it to `setPacketSink` of a player. The object stays the host's.
//
// `onStreams` comes first, then the packets in the order in which they are read: video from the first key frame on, as
// it is played, and all of the sound; of an attached picture and of subtitles none. Without a seek or a loop nothing
// comes twice, but for sound that is read once more when another track of it is selected, which has an `onStreams` of
// its own. A file is read some seconds ahead of what is shown.
//
// All operations are called on the thread that reads, one at a time. Nothing is read while one runs, so a sink that
// takes long makes the playback run dry; Statistics say how long it takes. It must not throw. `stop` waits for it, so
// little may be called from here: of a KelpPlayer the `get` operations, `clearScreen`, `takeSnapshot`, `setPacketSink`,
// `runInWorker`, `addTimer` and `removeTimer`; of a TarnPlayer `getTracks`, `getStatistics` and the last five alone.
class ExternPacketSink {
public:
    // The streams of the packets to come: before the first one, and before the first one after another track was
    // selected, after the end, and after the source was opened anew.
    virtual void onStreams(const std::vector<PacketStream>& streams) = 0;

    // The next packet.
    virtual void onPacket(const Packet& packet) = 0;

    // What comes next doesn't go on from what came last: a seek, the next turn of a loop, or the end of a live source's
    // pause.
    virtual void onGap() {}

    // No packet comes behind this, unless `onStreams` does: the source is at its end, can't be read, or was stopped.
    virtual void onEnd() {}

protected:
    // Not virtual: players never destroy it.
    ~ExternPacketSink() = default;
};

}  // namespace kelp
