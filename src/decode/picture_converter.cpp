#include "decode/picture_converter.h"

#include "decode/true_color_converter.h"
#include "decode/video_frame_info.h"
#include "runtime/playback_options.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace kelp {

namespace {

int32_t colorRangeOf(AVColorRange range) {
    switch (range) {
        case AVCOL_RANGE_MPEG:
            return 1;
        case AVCOL_RANGE_JPEG:
            return 2;
        default:
            return 0;
    }
}

int32_t colorSpaceOf(AVColorSpace space) {
    switch (space) {
        case AVCOL_SPC_BT709:
            return 1;
        case AVCOL_SPC_BT470BG:
            return 2;
        default:
            return 0;
    }
}

}  // namespace

std::unique_ptr<PictureConverter> PictureConverter::create(const PlaybackOptions& options) {
    if (options.allCodecs) {
        return std::make_unique<TrueColorConverter>();
    }
    return std::make_unique<PictureConverter>();
}

void PictureConverter::label(const AVFrame& picture, VideoFrameInfo& frame) const {
    frame.colorRange = colorRangeOf(picture.color_range);
    frame.colorSpace = colorSpaceOf(picture.colorspace);
}

bool PictureConverter::convert(const AVFrame& picture, const VideoFrameInfo& frame) {
    return scaler_.convert(picture.data, picture.linesize,
                           {static_cast<AVPixelFormat>(picture.format), picture.width, picture.height}, frame);
}

}  // namespace kelp
