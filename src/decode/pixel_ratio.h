#pragma once

extern "C" {
#include <libavutil/rational.h>
}

namespace kelp {

class VideoFrameInfo;

// How wide a stream's pixels are seen, by their height: what its container says, or without a word of it the pictures
// do. A container knows the pictures of the beginning: when these say something new, that counts.
//
// One thread.
class PixelRatio {
public:
    // `stated`: for the stream as a whole. Ratios of 0, and those that no picture has, say nothing.
    explicit PixelRatio(AVRational stated = {0, 1}) : stated_(stated) {}

    // Writes the ratio into the frame of a picture that says `own`.
    void label(AVRational own, VideoFrameInfo& frame);

private:
    AVRational stated_;
    AVRational first_{-1, 1};  // of the first picture; below 0 before it
};

}  // namespace kelp
