#pragma once

#include "decode/video_frame_info.h"

namespace kelp {

// The clockwise quarters of a turn, 0 to 3, that are nearest to this angle, in degrees.
int quarterTurns(int rotate);

// Whether a picture that is turned by this angle lies on its side, or nearly.
inline bool isOnItsSide(int rotate) {
    return quarterTurns(rotate) % 2 != 0;
}

// Where a picture is seen on an output, if it keeps its ratio: as large as can be, centred, upright edges on whole
// pixels. Its ratio is that of its size, of its pixels, and of its rotation. All in pixels of the output.
struct FittedRectangle {
    // The whole output for a picture without a size.
    static FittedRectangle of(const VideoFrameInfo& frame, int outputWidth, int outputHeight);

    // The rectangle that becomes this one when it is turned about its centre, for a picture on its side.
    FittedRectangle beforeTurning() const;

    int x;
    int y;
    int width;
    int height;
    bool operator==(const FittedRectangle&) const = default;
};

}  // namespace kelp
