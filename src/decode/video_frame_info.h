#pragma once

#include <cstdint>

#include "decode/decoded_frame.h"
#include "kelp_player/types.h"

namespace kelp {

// A picture. The planes lie in `buffer` and die with the frame. A picture that was not decoded has the format
// PIX_FMT_PACKET, no size, and its bytes as the first plane.
class VideoFrameInfo : public DecodedFrame {
public:
    PixFormat pixFormat;
    int32_t colorRange;   // 0 not stated, 1 limited, 2 full
    int32_t colorSpace;   // 0 not stated, 1 BT.709, 2 BT.601
    uint8_t* data[8];     // Y, U and V in 0 to 2
    int32_t linesize[8];  // bytes per row, likewise
    int32_t width;        // in pixels
    int32_t height;       // in pixels
    bool keyFrame;
    int32_t rotate;  // clockwise rotation for display, 0 to 359 degrees
};

}  // namespace kelp
