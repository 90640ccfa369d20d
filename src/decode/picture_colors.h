#pragma once

#include <cstdint>
#include <optional>

#include "decode/picture_scaler.h"

struct AVContentLightMetadata;
struct AVFrame;
struct AVMasteringDisplayMetadata;

namespace kelp {

class VideoFrameInfo;

// What the samples of a picture mean, and what a frame's samples made from it are to mean.
//
// A frame sink isn't told of range or matrix, and a window knows no full range but that of BT.601. So every frame is of
// limited range; a stated matrix stays if it is that of BT.601 or BT.709, and an unstated one stays unstated, which a
// window takes for BT.601 up to 576 lines and for BT.709 above. What had no matrix gets the one of these that fits its
// height, and whatever goes beyond BT.709 becomes BT.709.
struct PictureColors {
    // Colours or a brightness beyond BT.709, as libzimg is to take them: the numbers are those of ITU-T H.273.
    struct Wide {
        int matrix;
        int transfer;  // 1, as of BT.709, for all pictures of ordinary brightness
        int primaries;
        int peakNits;  // of the brightest light; 0 for a picture of ordinary brightness
        bool operator==(const Wide&) const = default;
    };

    AVPixelFormat format;      // of the picture, by the name that tells no range
    ScalerColors scaled;       // for the conversion without mapping
    std::optional<Wide> wide;  // set if a mapping is needed
    int32_t range;             // of the frame, as VideoFrameInfo::colorRange
    int32_t space;             // likewise, as VideoFrameInfo::colorSpace

    // `statedPeakNits`: what the container says of the brightest light, for a picture that doesn't; 0 for nothing.
    explicit PictureColors(const AVFrame& picture, int statedPeakNits = 0);

    // The brightest light of pictures of which this is known, either of which may be null; 0 if it isn't stated.
    static int peakNits(const AVContentLightMetadata* content, const AVMasteringDisplayMetadata* screen);

    // Whether a planar 4:2:0 picture of 8 bits is as a frame's should be.
    bool isKept() const { return !wide && !scaled.fullRange && scaled.from == scaled.to; }
};

}  // namespace kelp
