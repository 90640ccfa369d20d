#pragma once

#include <cstdint>
#include <string>
#include <vector>

// One access unit of H.264 with start codes; a key frame has its parameter sets in front.
struct EncodedFrame {
    std::vector<unsigned char> bytes;
    int64_t timeUs = 0;
    bool isKeyFrame = false;
};

// Writes encoded pictures to an MP4 file, or to an "rtsp://" or "rtp://" destination. False if that failed.
bool record(const std::string& destination, int width, int height, std::vector<EncodedFrame>& frames);
