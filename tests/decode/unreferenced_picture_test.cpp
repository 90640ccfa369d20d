#include "decode/unreferenced_picture.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace kelp {
namespace {

using Bytes = std::vector<uint8_t>;

struct FreeContext {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};

bool isUnreferencedIn(AVCodecID codec, const Bytes& packet) {
    const std::unique_ptr<AVCodecContext, FreeContext> context(avcodec_alloc_context3(nullptr));
    context->codec_id = codec;
    return isUnreferenced(*context, packet.data(), static_cast<int>(packet.size()));
}

bool marks(AVCodecID codec, Bytes extradata = {}) {
    const std::unique_ptr<AVCodecContext, FreeContext> context(avcodec_alloc_context3(nullptr));
    context->codec_id = codec;
    context->extradata = extradata.data();
    context->extradata_size = static_cast<int>(extradata.size());
    const bool result = marksUnreferenced(*context);
    context->extradata = nullptr;
    context->extradata_size = 0;
    return result;
}

TEST(UnreferencedPicture, IsInH264WhereNoUnitIsReferredTo) {
    const auto is = [](const Bytes& packet) { return isUnreferencedIn(AV_CODEC_ID_H264, packet); };
    EXPECT_TRUE(is({0, 0, 0, 1, 0x01, 0x9E}));
    EXPECT_TRUE(is({0, 0, 0, 1, 0x09, 0xF0, 0, 0, 1, 0x06, 5, 0, 0, 1, 0x01, 0x9E, 0, 0, 1, 0x01, 0x40}));
    EXPECT_FALSE(is({0, 0, 0, 1, 0x41, 0x9A}));
    EXPECT_FALSE(is({0, 0, 0, 1, 0x65, 0x88}));
    // A field that others refer to behind one that they don't.
    EXPECT_FALSE(is({0, 0, 0, 1, 0x01, 0x9E, 0, 0, 1, 0x21, 0x9A}));
    // A parameter set is for all.
    EXPECT_FALSE(is({0, 0, 0, 1, 0x68, 0xEE, 0, 0, 1, 0x01, 0x9E}));
    // So is the end of a sequence, one byte long.
    EXPECT_FALSE(is({0, 0, 0, 1, 0x01, 0x9E, 0, 0, 1, 0x0A}));
    EXPECT_FALSE(is({0, 0, 0, 1, 0x06, 5}));
    EXPECT_FALSE(is({0, 0, 0, 2, 0x01, 0x9E}));
    EXPECT_FALSE(is({}));
}

TEST(UnreferencedPicture, IsInHevcWhereItsLayerDoesNotReferToIt) {
    const auto is = [](const Bytes& packet) { return isUnreferencedIn(AV_CODEC_ID_HEVC, packet); };
    for (int type = 0; type < 64; ++type) {
        const auto header = static_cast<uint8_t>(type << 1);
        EXPECT_EQ(is({0, 0, 0, 1, header, 1, 0x80}), type <= 14 && type % 2 == 0) << type;
        const bool isNeutral = type == 35 || (type >= 38 && type <= 40);
        EXPECT_EQ(is({0, 0, 0, 1, header, 1, 0x80, 0, 0, 1, 0x00, 1, 0x80}), isNeutral || (type <= 14 && type % 2 == 0))
            << type;
    }
}

TEST(UnreferencedPicture, IsInMpeg4WhereItIsPredictedFromBothSides) {
    const auto is = [](const Bytes& packet) { return isUnreferencedIn(AV_CODEC_ID_MPEG4, packet); };
    EXPECT_TRUE(is({0, 0, 1, 0xB6, 0x90}));
    EXPECT_FALSE(is({0, 0, 1, 0xB6, 0x10}));
    EXPECT_FALSE(is({0, 0, 1, 0xB6, 0x50}));
    // Two in one packet.
    EXPECT_FALSE(is({0, 0, 1, 0xB6, 0x50, 0, 0, 1, 0xB6, 0x90}));
    EXPECT_FALSE(is({0, 0, 1, 0x20, 0, 0, 0, 1, 0xB6, 0x90}));
}

TEST(UnreferencedPicture, IsMarkedByTheseCodecs) {
    EXPECT_TRUE(marks(AV_CODEC_ID_H264));
    EXPECT_TRUE(marks(AV_CODEC_ID_H264, {0, 0, 0, 1, 0x67, 0x64, 0, 0x1E}));
    // Lengths stand before its units, one of which might look like a start code.
    EXPECT_FALSE(marks(AV_CODEC_ID_H264, {1, 0x64, 0, 0x1E, 0xFF, 0xE1, 0, 0}));
    EXPECT_TRUE(marks(AV_CODEC_ID_MPEG4));
    EXPECT_FALSE(marks(AV_CODEC_ID_MJPEG));
    EXPECT_FALSE(marks(AV_CODEC_ID_MSMPEG4V3));
    EXPECT_FALSE(marks(AV_CODEC_ID_HEVC));
    EXPECT_TRUE(marks(AV_CODEC_ID_HEVC, {0, 0, 0, 1, 0x40, 0x01, 0x0C, 0x01, 0xFF, 0xFF}));
    EXPECT_FALSE(marks(AV_CODEC_ID_HEVC, {0, 0, 0, 1, 0x40, 0x01, 0x0C, 0x02, 0xFF, 0xFF}));
    EXPECT_FALSE(marks(AV_CODEC_ID_HEVC, {0, 0, 0, 1, 0x40, 0x01, 0x0C, 0x01}));
}

}  // namespace
}  // namespace kelp
