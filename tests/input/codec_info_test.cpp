#include "kelp_player/codec_info.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/codec_par.h>
#include <libavutil/mem.h>
}

namespace kelp {
namespace {

TEST(CodecInfo, KnowsNothingAtFirst) {
    const CodecInfo info;
    EXPECT_EQ(static_cast<int>(info.videoCodecType), -1);
    EXPECT_EQ(info.videoCodecType, VIDEO_CODEC_NONE);
    EXPECT_EQ(static_cast<int>(info.audioCodecType), -1);
    EXPECT_EQ(info.audioCodecType, AUDIO_CODEC_NONE);
    EXPECT_EQ(info.width, 0);
    EXPECT_EQ(info.height, 0);
    EXPECT_EQ(static_cast<int>(info.pixFormat), -1);
    EXPECT_EQ(info.pixFormat, PIX_FMT_NONE);
    EXPECT_EQ(info.frameRate, 0);
    EXPECT_EQ(info.channels, 0);
    EXPECT_EQ(info.sampleRate, 0);
    EXPECT_EQ(info.sampleFormat, -1);
    EXPECT_EQ(info.videoParameters, nullptr);
    EXPECT_EQ(info.audioParameters, nullptr);
}

// The leak check sees parameters that stay behind.
TEST(CodecInfo, FreesTheParametersThatAHostGaveIt) {
    CodecInfo both;
    both.videoParameters = avcodec_parameters_alloc();
    both.audioParameters = avcodec_parameters_alloc();
    both.videoParameters->extradata = static_cast<uint8_t*>(av_mallocz(100));
    both.videoParameters->extradata_size = 10;
    CodecInfo audioOnly;
    audioOnly.audioParameters = avcodec_parameters_alloc();
    ASSERT_NE(audioOnly.audioParameters, nullptr);
}

}  // namespace
}  // namespace kelp
