#include "decode/video_frame_info.h"

#include <algorithm>
#include <iterator>
#include <utility>

extern "C" {
#include <libavutil/buffer.h>
}

namespace kelp {

void ReleaseDecoderMemory::operator()(AVBufferRef* reference) const {
    av_buffer_unref(&reference);
}

void VideoFrameInfo::layOutIn(unsigned char* block) {
    data[0] = block;
    data[1] = data[0] + width * height;
    data[2] = data[1] + (width >> 1) * (height >> 1);
    linesize[0] = width;
    linesize[1] = linesize[2] = width >> 1;
}

uint64_t VideoFrameInfo::bytes() const {
    uint64_t sum = DecodedFrame::bytes();
    for (const DecoderMemory& memory : decoderMemory) {
        sum += memory ? memory->size : 0;
    }
    return sum;
}

std::shared_ptr<const VideoFrameInfo> VideoFrameInfo::share(std::shared_ptr<VideoFrameInfo> frame) {
    auto shared = std::make_shared<VideoFrameInfo>();
    shared->pixFormat = frame->pixFormat;
    shared->colorRange = frame->colorRange;
    shared->colorSpace = frame->colorSpace;
    std::ranges::copy(frame->data, std::begin(shared->data));
    std::ranges::copy(frame->linesize, std::begin(shared->linesize));
    shared->width = frame->width;
    shared->height = frame->height;
    shared->pixelWidth = frame->pixelWidth;
    shared->pixelHeight = frame->pixelHeight;
    shared->rotate = frame->rotate;
    for (size_t plane = 0; plane < frame->decoderMemory.size(); ++plane) {
        if (frame->decoderMemory[plane]) {
            shared->decoderMemory[plane].reset(av_buffer_ref(frame->decoderMemory[plane].get()));
            if (!shared->decoderMemory[plane]) {
                return nullptr;
            }
        }
    }
    shared->buffer = frame->buffer;
    // Holds the frame, which alone gives its block back.
    shared->freeBuffer = [frame = std::move(frame)](const std::shared_ptr<FrameBuffer>&) {};
    return shared;
}

}  // namespace kelp
