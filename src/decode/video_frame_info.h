#pragma once

#include <cstdint>

#include "decode/decoded_frame.h"
#include "kelp_player/types.h"

namespace kelp {

// A picture. The planes lie in `buffer` and die with the frame. A picture that was not decoded has the format
// PIX_FMT_PACKET, no size, and its bytes as the first plane.
class VideoFrameInfo : public DecodedFrame {
public:
    PixFormat pixFormat = PIX_FMT_YUV420P;
    int32_t colorRange = 0;    // 0 not stated, 1 limited, 2 full
    int32_t colorSpace = 0;    // 0 not stated, 1 BT.709, 2 BT.601
    uint8_t* data[8] = {};     // Y, U and V in 0 to 2
    int32_t linesize[8] = {};  // bytes per row, likewise
    int32_t width = 0;         // in pixels
    int32_t height = 0;        // in pixels
    bool keyFrame = false;
    int32_t rotate = 0;  // clockwise rotation for display, 0 to 359 degrees
};

}  // namespace kelp
