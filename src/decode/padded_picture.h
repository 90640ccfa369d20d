#pragma once

#include <cstdint>
#include <memory>

struct AVFrame;

namespace kelp {

class VideoFrameInfo;

// Copies the three planes of a planar 4:2:0 picture, as far as `target` has room, into `target`, which is packed.
void copyPlanes(const uint8_t* const* data, const int* linesize, const VideoFrameInfo& target);

// A planar 4:2:0 picture with room behind every row and whole last rows, for a conversion whose writes a packed picture
// couldn't take: the vector code of the conversion library writes whole vectors and wants aligned rows, and its chroma
// planes of an odd size are one sample wider and higher than a frame's.
//
// Keeps its memory from picture to picture. One thread.
class PaddedPicture {
public:
    // Makes room for a picture of `width` by `height` pixels; false if there is no memory.
    bool resize(int width, int height);
    // Frees the memory.
    void release() { picture_.reset(); }

    uint8_t* const* data() const;
    const int* linesize() const;

    // Copies the three planes of `target`'s size into `target`.
    void copyTo(const VideoFrameInfo& target) const;

private:
    struct FreeFrame {
        void operator()(AVFrame* frame) const;
    };

    std::unique_ptr<AVFrame, FreeFrame> picture_;
    int width_ = 0;   // that the memory was made for, in pixels
    int height_ = 0;  // likewise
};

}  // namespace kelp
