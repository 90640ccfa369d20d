#include "kelp_player/codec_info.h"

#include "runtime/ffmpeg_compat.h"

namespace kelp {

CodecInfo::CodecInfo() = default;

CodecInfo::~CodecInfo() {
    if (videoParameters) {
        compat::freeParameters(&videoParameters);
    }
    if (audioParameters) {
        compat::freeParameters(&audioParameters);
    }
}

}  // namespace kelp
