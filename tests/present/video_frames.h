#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "decode/video_frame_info.h"

namespace kelp::test {

struct Yuv {
    uint8_t y = 100;
    uint8_t u = 90;
    uint8_t v = 200;
};

// A picture of one colour as the decoder makes it: planes tightly packed in a block of width * height * 3 / 2 bytes,
// the chroma size rounded down.
std::shared_ptr<VideoFrameInfo> makePicture(int64_t pts, int width = 16, int height = 8, Yuv color = {});

// A picture that went past the decoder.
std::shared_ptr<VideoFrameInfo> makePacketPicture(int64_t pts, const std::string& bytes = "packet");

// The bytes of the frame's block.
std::vector<int> blockOf(const VideoFrameInfo& frame);

// The bytes of a block with `y` for luma bytes and `c` for as many chroma bytes as two quarters give.
std::vector<int> blockWith(int pixels, int y, int c);

}  // namespace kelp::test
