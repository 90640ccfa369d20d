#pragma once

namespace kelp {

// A block of bytes that frames and the pools pass to each other.
class FrameBuffer {
public:
    FrameBuffer() = default;
    FrameBuffer(const FrameBuffer&) = delete;
    FrameBuffer& operator=(const FrameBuffer&) = delete;
    virtual ~FrameBuffer();

    unsigned char* data = nullptr;  // owned, made by new[]
    unsigned int size = 0;          // capacity in bytes; a frame may use less
};

}  // namespace kelp
