#include "input/stream_info.h"

#include <gtest/gtest.h>

namespace kelp {
namespace {

TEST(StreamInfo, PrintsItsDefaults) {
    EXPECT_EQ(StreamInfo().toString(), "{ start_time:0, has_video:0, has_audio:0, seekable:0,  }");
}

TEST(StreamInfo, PrintsNeitherDurationNorLive) {
    StreamInfo info;
    info.start_time = -1400;
    info.duration = 60000;
    info.has_video = true;
    info.has_audio = true;
    info.is_live = true;
    info.seekable = true;
    EXPECT_EQ(info.toString(), "{ start_time:-1400, has_video:1, has_audio:1, seekable:1,  }");
}

}  // namespace
}  // namespace kelp
