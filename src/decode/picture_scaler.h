#pragma once

#include <cstdint>

#include "decode/padded_picture.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

struct SwsContext;

namespace kelp {

class VideoFrameInfo;

// Converts pictures into a frame's packed planes with libswscale. What that needs is kept for as long as the pictures
// are alike. One thread.
class PictureScaler {
public:
    // What pictures are alike in, and how they are converted.
    struct Conversion {
        AVPixelFormat format;
        int width;   // in pixels
        int height;  // likewise
        bool operator==(const Conversion&) const = default;
    };

    PictureScaler() = default;
    ~PictureScaler() { release(); }
    PictureScaler(const PictureScaler&) = delete;
    PictureScaler& operator=(const PictureScaler&) = delete;

    // `frame` has the picture's size and is laid out. False, with a line in the log, if there is no memory or the
    // library doesn't know the format.
    bool convert(const uint8_t* const* data, const int* linesize, const Conversion& conversion,
                 const VideoFrameInfo& frame);
    // Frees the library's context and the memory. It may go on afterwards.
    void release();

private:
    SwsContext* context_ = nullptr;
    Conversion conversion_{AV_PIX_FMT_NONE, 0, 0};  // that context_ was made for
    PaddedPicture paddedPicture_;                   // for sizes and formats that can't be converted in place
};

}  // namespace kelp
