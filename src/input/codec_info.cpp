#include "kelp_player/codec_info.h"

#include "runtime/ffmpeg_compat.h"

namespace kelp {

CodecInfo::CodecInfo() = default;

CodecInfo::~CodecInfo() {
    compat::freeParameters(&videoParameters);
    compat::freeParameters(&audioParameters);
}

}  // namespace kelp
