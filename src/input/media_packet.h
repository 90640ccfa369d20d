#pragma once

#include <cstdint>
#include <memory>
#include <string>

struct AVPacket;

namespace kelp {

class CodecInfo;
struct LoopTurn;

// One demuxed packet with a copy of its bytes. Made by the parser, immutable from then on, shared by the queues and
// decoders behind it.
//
// Times count ticks of the packet's time base, from the start of the input.
class MediaPacket {
public:
    MediaPacket() = default;
    MediaPacket(const MediaPacket&) = delete;
    MediaPacket& operator=(const MediaPacket&) = delete;
    virtual ~MediaPacket();

    // The fields as one line for the log.
    std::string toString();

    int mediaType = 0;              // 0 video, 1 audio
    unsigned char* data = nullptr;  // owned, made by new[]; null marks a packet without payload
    int size = 0;                   // bytes in `data`
    int64_t pos = -1;               // byte position in the input
    int64_t dts = -1;
    int64_t pts = -1;
    int64_t duration = -1;
    int64_t timeBaseNum = 1;
    int64_t timeBaseDen = 1;
    int flags = 0;                             // of the AVPacket, as they came
    std::shared_ptr<const AVPacket> sideData;  // what the decoder gets beside the bytes; null if there is nothing
    bool flush = false;                        // an order to the video decoder to drop its state; there is no payload
    bool isHopeless = false;      // a picture of a stream that has no key frame: it is shown whatever it misses
    bool isTimedByOrder = false;  // pts tells its place in the order of decoding, not when it is shown
    // The track, with what its decoder needs, where it isn't the one that was played at first; else null.
    std::shared_ptr<const CodecInfo> track;
    std::shared_ptr<const LoopTurn> turn;  // of the loop that is played; null without one
};

// A normal packet has bytes, an end packet has none and a flush packet has none and `flush` set.
class VideoPacket : public MediaPacket {
public:
    bool keyFrame = false;
    bool foundKeyFrame = false;  // a key frame came before this packet since the input was opened, sought or resumed
};

class AudioPacket : public MediaPacket {
public:
    AudioPacket() { mediaType = 1; }
};

}  // namespace kelp
