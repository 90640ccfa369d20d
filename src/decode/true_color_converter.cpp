#include "decode/true_color_converter.h"

#include <algorithm>

#include "decode/picture_colors.h"
#include "decode/video_frame_info.h"
#include "kelp_player/log.h"
#include "runtime/ffmpeg_compat.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

namespace kelp {

namespace {

// Short floats, which no decoder makes, are taken for opaque: the background knows none.
bool isTransparent(AVPixelFormat format) {
    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
    const bool isShortFloat =
        descriptor && (descriptor->flags & AV_PIX_FMT_FLAG_FLOAT) && descriptor->comp[0].depth < 32;
    return descriptor && !isShortFloat && (descriptor->flags & (AV_PIX_FMT_FLAG_ALPHA | AV_PIX_FMT_FLAG_PAL));
}

void turnUpsideDown(const VideoFrameInfo& frame) {
    for (int plane = 0; plane < 3; ++plane) {
        const int64_t rowBytes = frame.linesize[plane];
        const int rows = plane == 0 ? frame.height : frame.height / 2;
        uint8_t* const first = frame.data[plane];
        for (int top = 0, bottom = rows - 1; top < bottom; ++top, --bottom) {
            std::swap_ranges(first + top * rowBytes, first + (top + 1) * rowBytes, first + bottom * rowBytes);
        }
    }
}

}  // namespace

void TrueColorConverter::setParameters(const AVCodecParameters& parameters) {
    statedPeakNits_ = PictureColors::peakNits(compat::contentLight(&parameters), compat::masteringDisplay(&parameters));
}

// The rotation of the matrix is where it puts the picture's rows, so that a mirrored one has its columns reversed.
void TrueColorConverter::setDisplayMatrix(const int32_t* matrix) {
    isMirrored_ = int64_t{matrix[0]} * matrix[4] < int64_t{matrix[1]} * matrix[3];
}

void TrueColorConverter::label(const AVFrame& picture, VideoFrameInfo& frame) const {
    const PictureColors colors(picture);
    frame.colorRange = colors.range;
    frame.colorSpace = colors.space;
}

bool TrueColorConverter::keeps(const AVFrame& picture) const {
    return !isMirrored_ && PictureColors(picture).isKept();
}

bool TrueColorConverter::convert(const AVFrame& picture, const VideoFrameInfo& frame) {
    const bool filled = fill(picture, frame);
    if (filled && isMirrored_) {
        turnUpsideDown(frame);
    }
    return filled;
}

bool TrueColorConverter::fill(const AVFrame& picture, const VideoFrameInfo& frame) {
    const PictureColors colors(picture, statedPeakNits_);
    if (picture.format == AV_PIX_FMT_YUV420P && colors.isKept()) {
        return PictureConverter::convert(picture, frame);
    }
    if (colors.wide && toneMapper_.map(picture, *colors.wide, colors.scaled.fullRange, frame)) {
        return true;
    }
    const AVFrame* opaque = isTransparent(colors.format) ? background_.put(picture, colors.scaled.fullRange) : &picture;
    if (!opaque) {
        Log::Error("FFVideoDecoder", "%s, no memory for a picture of %dx%d\n", "DeliverVideoFrame", picture.width,
                   picture.height);
        return false;
    }
    return scaler_.convert(opaque->data, opaque->linesize,
                           {colors.format, picture.width, picture.height, colors.scaled}, frame);
}

void TrueColorConverter::release() {
    PictureConverter::release();
    toneMapper_.release();
    background_.release();
    isMirrored_ = false;
    statedPeakNits_ = 0;
}

}  // namespace kelp
