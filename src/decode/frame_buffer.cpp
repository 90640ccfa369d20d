#include "decode/frame_buffer.h"

namespace kelp {

FrameBuffer::~FrameBuffer() {
    delete[] data;
}

}  // namespace kelp
