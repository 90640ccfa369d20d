#include "support/ffmpeg_release.h"

extern "C" {
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

}  // namespace kelp::test
