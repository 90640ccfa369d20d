#pragma once

#include "decode/decoded_frame.h"

namespace kelp {

// A block of samples, interleaved or planar as the output was specified.
class AudioFrameInfo : public DecodedFrame {
public:
    // Replaces the buffer with one of at least `size` bytes and keeps the valid bytes that fit. Where no buffer is to
    // be had, nothing changes.
    void reAllocBuffer(int size);

    unsigned int dataSize = 0;  // valid bytes at the start of `buffer`
};

}  // namespace kelp
