#include "decode/video_frame_info.h"

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

}  // namespace kelp
