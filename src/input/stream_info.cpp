#include "input/stream_info.h"

namespace kelp {

std::string StreamInfo::toString() {
    return "{ start_time:" + std::to_string(start_time) + ", has_video:" + std::to_string(has_video) +
           ", has_audio:" + std::to_string(has_audio) + ", seekable:" + std::to_string(seekable) + ",  }";
}

}  // namespace kelp
