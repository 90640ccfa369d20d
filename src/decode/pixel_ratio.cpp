#include "decode/pixel_ratio.h"

#include "decode/video_frame_info.h"

namespace kelp {

namespace {

constexpr int kMost = 10;
constexpr int kMaxTerm = 1 << 16;  // products with sizes of pictures and windows fit 64 bits

bool isSeen(AVRational ratio) {
    return ratio.num > 0 && ratio.den > 0 && ratio.num <= int64_t{ratio.den} * kMost &&
           ratio.den <= int64_t{ratio.num} * kMost;
}

}  // namespace

void PixelRatio::label(AVRational own, VideoFrameInfo& frame) {
    if (first_.num < 0) {
        first_ = isSeen(own) ? own : AVRational{0, 1};
    }
    const bool isNew = isSeen(own) && av_cmp_q(own, first_) != 0;
    const AVRational ratio = isNew || !isSeen(stated_) ? own : stated_;
    if (isSeen(ratio)) {
        av_reduce(&frame.pixelWidth, &frame.pixelHeight, ratio.num, ratio.den, kMaxTerm);
    }
}

}  // namespace kelp
