#include "input/codec_tables.h"

#include <gtest/gtest.h>

#include "support/ffmpeg_release.h"

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavcodec/codec_par.h>
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

namespace kelp {
namespace {

TEST(CodecTables, MapVideoCodecsBothWays) {
    const int ids[] = {14, 15, 16, 27, 173, 12, 7, test::codecId270()};
    for (int type = 0; type < 8; ++type) {
        EXPECT_EQ(videoCodecTypeFromId(ids[type]), type);
        EXPECT_EQ(codecIdFromType(static_cast<VideoCodecType>(type)), ids[type]);
    }
    EXPECT_EQ(codecIdFromType(VIDEO_CODEC_H264), AV_CODEC_ID_H264);
    EXPECT_EQ(codecIdFromType(VIDEO_CODEC_HEVC), AV_CODEC_ID_HEVC);
    EXPECT_EQ(codecIdFromType(VIDEO_CODEC_MSMPEG4V3), AV_CODEC_ID_MSMPEG4V3);
}

TEST(CodecTables, MapAudioCodecsBothWays) {
    const int ids[] = {86017, 86018, 86021, 65543};
    for (int type = 0; type < 4; ++type) {
        EXPECT_EQ(audioCodecTypeFromId(ids[type]), type);
        EXPECT_EQ(codecIdFromType(static_cast<AudioCodecType>(type)), ids[type]);
    }
    EXPECT_EQ(codecIdFromType(AUDIO_CODEC_PCM_ALAW), AV_CODEC_ID_PCM_ALAW);
}

TEST(CodecTables, KnowNoOtherCodec) {
    const int known = test::codecId270();
    for (const int id : {int{AV_CODEC_ID_NONE}, int{AV_CODEC_ID_VP9}, known - 1, known + 1, -1}) {
        EXPECT_EQ(videoCodecTypeFromId(id), VIDEO_CODEC_NONE) << id;
        EXPECT_EQ(audioCodecTypeFromId(id), AUDIO_CODEC_NONE) << id;
    }
    EXPECT_EQ(videoCodecTypeFromId(AV_CODEC_ID_AAC), VIDEO_CODEC_NONE);
    EXPECT_EQ(audioCodecTypeFromId(AV_CODEC_ID_H264), AUDIO_CODEC_NONE);
    EXPECT_EQ(codecIdFromType(VIDEO_CODEC_NONE), AV_CODEC_ID_NONE);
    EXPECT_EQ(codecIdFromType(static_cast<VideoCodecType>(8)), AV_CODEC_ID_NONE);
    EXPECT_EQ(codecIdFromType(AUDIO_CODEC_NONE), AV_CODEC_ID_NONE);
    EXPECT_EQ(codecIdFromType(static_cast<AudioCodecType>(4)), AV_CODEC_ID_NONE);
}

TEST(CodecTables, LeaveAnotherCodecToItsParameters) {
    AVCodecParameters parameters = {};
    parameters.codec_id = AV_CODEC_ID_VP9;
    EXPECT_EQ(codecIdFromType(VIDEO_CODEC_OTHER, &parameters), AV_CODEC_ID_VP9);
    EXPECT_EQ(codecIdFromType(AUDIO_CODEC_OTHER, &parameters), AV_CODEC_ID_VP9);
    EXPECT_EQ(codecIdFromType(VIDEO_CODEC_H264, &parameters), AV_CODEC_ID_H264);
    EXPECT_EQ(codecIdFromType(AUDIO_CODEC_MP3, &parameters), AV_CODEC_ID_MP3);
    EXPECT_EQ(codecIdFromType(VIDEO_CODEC_NONE, &parameters), AV_CODEC_ID_NONE);
    EXPECT_EQ(codecIdFromType(AUDIO_CODEC_OTHER, nullptr), AV_CODEC_ID_NONE);
}

TEST(CodecTables, MapPixelFormatsByNumber) {
    const int formats[] = {0, 1, 4, 62};
    for (int format = 0; format < 4; ++format) {
        EXPECT_EQ(pixFormatFromAv(formats[format]), format);
        EXPECT_EQ(avPixelFormatFromPixFormat(static_cast<PixFormat>(format)), formats[format]);
    }
    EXPECT_EQ(pixFormatFromAv(AV_PIX_FMT_YUV420P10LE), PIX_FMT_YUV420P10);
    EXPECT_EQ(pixFormatFromAv(AV_PIX_FMT_NONE), PIX_FMT_NONE);
    EXPECT_EQ(pixFormatFromAv(AV_PIX_FMT_YUVJ420P), PIX_FMT_NONE);
    EXPECT_EQ(avPixelFormatFromPixFormat(PIX_FMT_NONE), AV_PIX_FMT_NONE);
    EXPECT_EQ(avPixelFormatFromPixFormat(PIX_FMT_PACKET), AV_PIX_FMT_NONE);
}

TEST(CodecTables, MapSampleFormatsWithOnePlanarOne) {
    const AVSampleFormat formats[] = {AV_SAMPLE_FMT_U8, AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_S32, AV_SAMPLE_FMT_FLT,
                                      AV_SAMPLE_FMT_FLTP};
    for (int format = 0; format < 5; ++format) {
        EXPECT_EQ(sampleFormatFromAv(formats[format]), format);
        EXPECT_EQ(avSampleFormatFromSampleFormat(format), formats[format]);
    }
    for (const auto format : {AV_SAMPLE_FMT_NONE, AV_SAMPLE_FMT_S16P, AV_SAMPLE_FMT_DBL, AV_SAMPLE_FMT_S64}) {
        EXPECT_EQ(sampleFormatFromAv(format), -1);
    }
    EXPECT_EQ(avSampleFormatFromSampleFormat(-1), AV_SAMPLE_FMT_NONE);
    EXPECT_EQ(avSampleFormatFromSampleFormat(5), AV_SAMPLE_FMT_NONE);
}

}  // namespace
}  // namespace kelp
