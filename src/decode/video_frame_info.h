#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "decode/decoded_frame.h"
#include "kelp_player/types.h"

struct AVBufferRef;

namespace kelp {

struct ReleaseDecoderMemory {
    void operator()(AVBufferRef* reference) const;
};
// A share of memory of the decoder's, given up on whatever thread drops it. It outlives the decoder.
using DecoderMemory = std::unique_ptr<AVBufferRef, ReleaseDecoderMemory>;

// A picture. The planes lie in `buffer`, without gaps, or in `decoderMemory`, and die with the frame. A picture that
// was not decoded has the format PIX_FMT_PACKET, no size, and its bytes as the first plane.
class VideoFrameInfo : public DecodedFrame {
public:
    // Lays the planes out in `block`, without gaps, for the size that is set; the chroma planes have half of it,
    // rounded down.
    void layOutIn(unsigned char* block);

    // The picture of `frame` as it is now, for a reader on another thread, without a copy of its bytes: fields and
    // memory stay whatever its owner does to the frame, and the memory isn't given back to a pool before. Not its
    // times. Null if there is no memory.
    static std::shared_ptr<const VideoFrameInfo> share(std::shared_ptr<VideoFrameInfo> frame);

    uint64_t bytes() const override;

    PixFormat pixFormat = PIX_FMT_YUV420P;
    int32_t colorRange = 0;    // 0 not stated, 1 limited, 2 full
    int32_t colorSpace = 0;    // 0 not stated, 1 BT.709, 2 BT.601
    uint8_t* data[8] = {};     // Y, U and V in 0 to 2
    int32_t linesize[8] = {};  // bytes per row, likewise; more than the width in the decoder's memory
    int32_t width = 0;         // in pixels
    int32_t height = 0;        // in pixels
    int32_t pixelWidth = 1;    // one pixel as seen: so wide
    int32_t pixelHeight = 1;   // and so high; of the picture before it is turned
    bool keyFrame = false;
    int32_t rotate = 0;   // clockwise rotation for display, 0 to 359 degrees
    bool isLent = false;  // others may read its memory; for whoever lends it to guard
    // What the planes lie in where they weren't copied; `buffer` is empty then. The decoder reads it again: nobody
    // writes to it.
    std::array<DecoderMemory, 3> decoderMemory;
};

}  // namespace kelp
