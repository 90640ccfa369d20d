#include "output/parameter_counts.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "output/media_reader.h"
#include "output/written_sets.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

namespace kelp::test {
namespace {

TEST(ParameterCounts, EndWhereDecodersEndThem) {
    EXPECT_TRUE(areCountsBounded(AV_CODEC_ID_H264, h264Set(255)));
    EXPECT_FALSE(areCountsBounded(AV_CODEC_ID_H264, h264Set(256)));
    EXPECT_FALSE(areCountsBounded(AV_CODEC_ID_H264, h264Set(0x7FFFFFFE)));
    EXPECT_TRUE(areCountsBounded(AV_CODEC_ID_HEVC, hevcSet(1, 16)));
    EXPECT_FALSE(areCountsBounded(AV_CODEC_ID_HEVC, hevcSet(1, 17)));
    EXPECT_FALSE(areCountsBounded(AV_CODEC_ID_HEVC, hevcSet(65, 1)));
    EXPECT_FALSE(areCountsBounded(AV_CODEC_ID_HEVC, hevcSet(64, 1))) << "there are no 64 of them";
    EXPECT_FALSE(areCountsBounded(AV_CODEC_ID_HEVC, hevcSet(1, 0xFFFFFFFE)));
    EXPECT_TRUE(areCountsBounded(AV_CODEC_ID_VVC, vvcSet(599)));
    EXPECT_FALSE(areCountsBounded(AV_CODEC_ID_VVC, vvcSet(600)));
    EXPECT_FALSE(areCountsBounded(AV_CODEC_ID_VVC, vvcSet(0xFFFFFFFE)));
    EXPECT_TRUE(areCountsBounded(AV_CODEC_ID_AV1, av1Sequence(0)));
    for (int missing = 1; missing < 60; ++missing) {
        EXPECT_FALSE(areCountsBounded(AV_CODEC_ID_AV1, av1Sequence(missing))) << missing;
    }
}

TEST(ParameterCounts, AreLookedForInEverySet) {
    const Bytes good = hevcSet(1, 3);
    const Bytes bad = hevcSet(2, 3);
    EXPECT_TRUE(areCountsBounded(AV_CODEC_ID_HEVC, good + hevcFrame() + good));
    EXPECT_FALSE(areCountsBounded(AV_CODEC_ID_HEVC, good + hevcFrame() + bad));
    EXPECT_FALSE(areCountsBounded(AV_CODEC_ID_HEVC, bad + hevcFrame() + good));
    EXPECT_TRUE(areCountsBounded(AV_CODEC_ID_MPEG4, bad));
    EXPECT_TRUE(areCountsBounded(AV_CODEC_ID_HEVC, Bytes{1} + bad)) << "a record";
    EXPECT_TRUE(areCountsBounded(AV_CODEC_ID_AV1, Bytes{0x81} + av1Sequence(1))) << "a record";
    EXPECT_TRUE(areCountsBounded(AV_CODEC_ID_HEVC, {}));
}

TEST(ParameterCounts, AreThoseOfEncoders) {
    const std::string x265 = "-c:v libx265 -preset ultrafast -f hevc -x265-params pools=1:log-level=none";
    const std::pair<AVCodecID, std::string> encodings[] = {
        {AV_CODEC_ID_H264, "-c:v libx264 -preset ultrafast -f h264"},
        {AV_CODEC_ID_H264, "-c:v libx264 -preset veryslow -pix_fmt yuv444p -f h264"},
        {AV_CODEC_ID_H264,
         "-c:v libx264 -x264-params cqm=jvt:interlaced=1:nal-hrd=cbr:bitrate=900:vbv-maxrate=900:"
         "vbv-bufsize=900 -f h264"},
        {AV_CODEC_ID_HEVC, x265},
        {AV_CODEC_ID_HEVC, x265 + ":scaling-list=default:hrd=1:bitrate=900:vbv-maxrate=900:vbv-bufsize=900"},
        {AV_CODEC_ID_HEVC, x265 + ":temporal-layers=3:b-pyramid=1:bframes=4"},
        {AV_CODEC_ID_HEVC, x265 + ":lossless=1 -pix_fmt yuv444p10le"},
    };
    for (const auto& [codec, arguments] : encodings) {
        const auto video = encodeVideo(arguments, 2);
        ASSERT_FALSE(video.frames.empty());
        const Bytes frame(video.frames[0].bytes.begin(), video.frames[0].bytes.end());
        EXPECT_TRUE(areCountsBounded(codec, frame)) << arguments;
        for (size_t size = 0; size < 80; ++size) {
            areCountsBounded(codec, std::span(frame).first(size));  // reads nothing behind it
        }
    }
}

// What libavformat writes of a stream with this configuration.
void describe(AVCodecID codec, const Bytes& configuration) {
    AVFormatContext* context = nullptr;
    avformat_alloc_output_context2(&context, nullptr, "matroska", nullptr);
    AVStream* const stream = avformat_new_stream(context, nullptr);
    stream->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
    stream->codecpar->codec_id = codec;
    stream->codecpar->width = stream->codecpar->height = 16;
    stream->codecpar->extradata =
        static_cast<uint8_t*>(av_mallocz(configuration.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    std::ranges::copy(configuration, stream->codecpar->extradata);
    stream->codecpar->extradata_size = static_cast<int>(configuration.size());
    avio_open_dyn_buf(&context->pb);
    [[maybe_unused]] const int result = avformat_write_header(context, nullptr);
    uint8_t* written = nullptr;
    avio_close_dyn_buf(context->pb, &written);
    av_free(written);
    avformat_free_context(context);
}

// It would count for minutes, or for ever, in any that is let through and not bounded.
TEST(ParameterCounts, KeepFromLibavformatWhatItWouldCountTo) {
    av_log_set_level(AV_LOG_QUIET);
    std::mt19937 random(5);
    const std::pair<AVCodecID, Bytes> sets[] = {
        {AV_CODEC_ID_H264, h264Set(2) + h264Frame()},
        {AV_CODEC_ID_HEVC, hevcSet(1, 3) + hevcFrame()},
        {AV_CODEC_ID_AV1, av1Sequence(0)},
    };
    for (const auto& [codec, good] : sets) {
        int passed = 0;
        for (int run = 0; run < 20'000; ++run) {
            Bytes bytes = good;
            for (unsigned int changes = random() % 4 + 1; changes > 0; --changes) {
                uint8_t& byte = bytes[4 + random() % (bytes.size() - 4)];
                byte = static_cast<uint8_t>(random() % 2 == 0 ? byte ^ 1U << random() % 8 : random());
            }
            bytes.resize(random() % 3 == 0 ? 5 + random() % (bytes.size() - 4) : bytes.size());
            if (areCountsBounded(codec, bytes)) {
                ++passed;
                describe(codec, bytes);
            }
        }
        EXPECT_GT(passed, 1000) << codec;
        EXPECT_LT(passed, 20'000) << codec;
    }
    av_log_set_level(AV_LOG_INFO);
}

}  // namespace
}  // namespace kelp::test
