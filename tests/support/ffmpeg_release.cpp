#include "support/ffmpeg_release.h"

#include <cstdint>

extern "C" {
#include <libavcodec/codec_desc.h>
#include <libavutil/frame.h>
}

namespace kelp::test {

void setKeyFrame(AVFrame& frame, bool key) {
#ifdef AV_FRAME_FLAG_KEY
    frame.flags = key ? frame.flags | AV_FRAME_FLAG_KEY : frame.flags & ~AV_FRAME_FLAG_KEY;
#else
    frame.key_frame = key;
#endif
}

int codecId270() {
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get_by_name("lead");
    return descriptor ? descriptor->id : 270;
}

}  // namespace kelp::test
