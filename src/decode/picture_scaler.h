#pragma once

#include <cstdint>
#include <optional>

#include "decode/padded_picture.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

struct SwsContext;

namespace kelp {

class VideoFrameInfo;

// What samples mean before and after a conversion. RGB has no matrix: the other one counts. What comes out is of
// limited range.
struct ScalerColors {
    AVColorSpace from;
    AVColorSpace to;
    bool fullRange;  // of what goes in
    bool operator==(const ScalerColors&) const = default;
};

// Converts pictures with libswscale into a frame's packed planes. What that needs is kept for as long as the
// pictures are alike. One thread.
class PictureScaler {
public:
    // What pictures are alike in, and how they are converted.
    struct Conversion {
        AVPixelFormat format;
        int width;                                          // in pixels
        int height;                                         // likewise
        std::optional<ScalerColors> colors = std::nullopt;  // left to the library, and no more exact, if not set
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
    SwsContext* swsContext_ = nullptr;
    Conversion conversion_{AV_PIX_FMT_NONE, 0, 0};  // that swsContext_ was made for
    PaddedPicture paddedPicture_;                   // for sizes and formats that can't be converted in place
};

}  // namespace kelp
