#include "decode/padded_picture.h"

#include <utility>

#include "decode/video_frame_info.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
}

namespace kelp {

// Twice the widest vector, so that the chroma rows come out as whole vectors too.
constexpr int kWidthStep = 128;
constexpr int kPlanes = 3;

void PaddedPicture::FreeFrame::operator()(AVFrame* frame) const {
    av_frame_free(&frame);
}

bool PaddedPicture::resize(int width, int height) {
    if (picture_ && width == width_ && height == height_) {
        return true;
    }
    release();
    std::unique_ptr<AVFrame, FreeFrame> picture(av_frame_alloc());
    if (!picture) {
        return false;
    }
    picture->format = AV_PIX_FMT_YUV420P;
    picture->width = (width / kWidthStep + 1) * kWidthStep;
    picture->height = height + (height & 1);
    if (av_frame_get_buffer(picture.get(), 0) < 0) {
        return false;
    }
    picture_ = std::move(picture);
    width_ = width;
    height_ = height;
    return true;
}

uint8_t* const* PaddedPicture::data() const {
    return picture_->data;
}

const int* PaddedPicture::linesize() const {
    return picture_->linesize;
}

void PaddedPicture::copyTo(const VideoFrameInfo& target) const {
    copyPlanes(picture_->data, picture_->linesize, target);
}

void copyPlanes(const uint8_t* const* data, const int* linesize, const VideoFrameInfo& target) {
    for (int plane = 0; plane < kPlanes; ++plane) {
        const int rows = plane == 0 ? target.height : target.height >> 1;
        av_image_copy_plane(target.data[plane], target.linesize[plane], data[plane], linesize[plane],
                            target.linesize[plane], rows);
    }
}

}  // namespace kelp
