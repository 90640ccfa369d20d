#pragma once

#include "kelp_player/log.h"

extern "C" {
#include <libavutil/log.h>
}

namespace kelp::test {

// Lets every line of the log be made, and shows none.
inline void quiet() {
    static const bool done = [] {
        av_log_set_level(AV_LOG_QUIET);
        Log::SetLogCallback([](const char*) {});
        Log::SetLevel(4);
        return true;
    }();
    (void)done;
}

}  // namespace kelp::test
