#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelp::test {

// What a demuxer says of a file's packets, in milliseconds from the start of the input. Only the streams that a player
// picks count.
struct PacketFacts {
    bool hasVideo = false;
    bool hasAudio = false;
    int width = 0;
    int height = 0;
    int durationMs = 0;         // as the container states it
    int firstPacketMs = 0;      // of the first packet that a player passes on: video from its first key frame on
    int firstVideoFrameMs = 0;  // of the picture that is shown first
    int lastPtsMs = -1;         // the largest of all packets
};

PacketFacts packetFacts(const std::string& path);

// The times of the pictures from the first key frame on, in the order of showing, with the option "codecs" = "all".
std::vector<int64_t> pictureTimes(const std::string& path);

}  // namespace kelp::test
