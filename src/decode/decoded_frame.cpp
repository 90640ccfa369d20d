#include "decode/decoded_frame.h"

namespace kelp {

FrameBuffer::~FrameBuffer() {
    delete[] data;
}

DecodedFrame::~DecodedFrame() {
    if (freeBuffer && buffer) {
        freeBuffer(buffer);
    }
}

}  // namespace kelp
