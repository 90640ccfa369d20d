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

TEST(ParameterCounts, StandBehindAllElseThatASetMayTell) {
    constexpr int kWithChroma[] = {44, 83, 86, 100, 110, 118, 122, 128, 134, 138, 139, 244};
    for (int profile = 0; profile < 256; ++profile) {
        const bool tellsChroma = std::ranges::count(kWithChroma, profile) > 0;
        for (const uint32_t chroma : tellsChroma ? std::vector<uint32_t>{1, 2, 3} : std::vector<uint32_t>{0}) {
            const auto isBounded = [&](uint32_t pictures) {
                const Bytes set = wholeH264Set(pictures, static_cast<uint8_t>(profile), chroma);
                return areCountsBounded(AV_CODEC_ID_H264, set);
            };
            EXPECT_TRUE(isBounded(255)) << profile << " " << chroma;
            EXPECT_FALSE(isBounded(256)) << profile << " " << chroma;
        }
    }
    EXPECT_FALSE(areCountsBounded(AV_CODEC_ID_H264, wholeH264Set(1, 100, 4)));
    for (uint32_t moreLayers = 0; moreLayers < 7; ++moreLayers) {
        for (const bool isOrderedByLayer : {false, true}) {
            const auto isBounded = [&](uint32_t references) {
                return areCountsBounded(AV_CODEC_ID_HEVC, wholeHevcSet(references, moreLayers, isOrderedByLayer));
            };
            EXPECT_TRUE(isBounded(16)) << moreLayers << isOrderedByLayer;
            EXPECT_FALSE(isBounded(17)) << moreLayers << isOrderedByLayer;
        }
    }
    EXPECT_TRUE(areCountsBounded(AV_CODEC_ID_HEVC, wholeHevcSet(16, 0, false, 64)));
    EXPECT_FALSE(areCountsBounded(AV_CODEC_ID_HEVC, wholeHevcSet(16, 0, false, 65)));
    EXPECT_TRUE(areCountsBounded(AV_CODEC_ID_VVC, wholeVvcSet(599)));
    EXPECT_FALSE(areCountsBounded(AV_CODEC_ID_VVC, wholeVvcSet(600)));
    EXPECT_TRUE(areCountsBounded(AV_CODEC_ID_VVC, cutVvcSet() + Bytes{0x20}));
    EXPECT_FALSE(areCountsBounded(AV_CODEC_ID_VVC, cutVvcSet() + Bytes{0, 0}));
}

TEST(ParameterCounts, AreFoundBehindOtherUnitsOfAv1) {
    const auto isBounded = [](const Bytes& units) { return areCountsBounded(AV_CODEC_ID_AV1, units); };
    const Bytes bad = av1Sequence(1);
    const Bytes badAlone(bad.begin() + 2, bad.end() - 4);
    EXPECT_FALSE(isBounded(Bytes{0x12, 0} + bad));
    EXPECT_FALSE(isBounded(Bytes{0x2A, 0x83, 0, 1, 2, 3} + bad)) << "a size of two bytes";
    EXPECT_FALSE(isBounded(Bytes{0x2E, 0x08, 1, 9} + bad)) << "of a layer";
    EXPECT_FALSE(isBounded(Bytes{0x08} + badAlone)) << "the last one has no size";
    EXPECT_FALSE(isBounded(Bytes{0x0C, 0x08} + badAlone));
    EXPECT_FALSE(isBounded({0x0A, 0}));
    EXPECT_TRUE(isBounded({0x0A, 1, 0x1C})) << "of a still picture";
    EXPECT_TRUE(isBounded({0x0A, 1, 0x02})) << "without times";
    EXPECT_FALSE(isBounded(Bytes{0x12} + Bytes(7, 0x80) + Bytes{0} + bad));
    EXPECT_TRUE(isBounded(Bytes{0x12} + Bytes(8, 0x80) + Bytes{0} + bad)) << "too long a size";
    EXPECT_TRUE(isBounded({0x12, 0})) << "there is none";
    // The lowest bit means nothing, and the highest that it is a record.
    EXPECT_FALSE(isBounded(Bytes{0x13, 0} + bad));
    EXPECT_TRUE(isBounded(Bytes{0x11, 0} + bad)) << "what has no size is the last";
    EXPECT_FALSE(isBounded(Bytes{0x0B} + Bytes(bad.begin() + 1, bad.end())));
    EXPECT_TRUE(isBounded(Bytes{0x8A} + Bytes(bad.begin() + 1, bad.end())));
    // What isn't there isn't read.
    EXPECT_TRUE(isBounded({0x12, 2, 0}));
    EXPECT_TRUE(isBounded({0x0A}));
    EXPECT_TRUE(isBounded({0x0E}));
    EXPECT_TRUE(isBounded({0x0A, 0x80}));
    EXPECT_TRUE(isBounded({0x0A, 2, 0x01}));
    EXPECT_TRUE(isBounded(Bytes{0x0A} + Bytes(9, 0x80) + Bytes(1, 0)));
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
