#include "input/annexb.h"

#include <gtest/gtest.h>

#include <vector>

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace kelp {
namespace {

bool check(int codecId, std::vector<uint8_t> extraData) {
    return isLengthPrefixed(codecId, extraData.data(), static_cast<int>(extraData.size()));
}

std::vector<uint8_t> bytes(std::vector<uint8_t> first, size_t size) {
    first.resize(size, 0x42);
    return first;
}

TEST(IsLengthPrefixed, IsFalseForH264WithoutExtraData) {
    EXPECT_FALSE(isLengthPrefixed(AV_CODEC_ID_H264, nullptr, 0));
    EXPECT_FALSE(isLengthPrefixed(AV_CODEC_ID_H264, nullptr, 10));
    EXPECT_FALSE(check(AV_CODEC_ID_H264, {}));
}

TEST(IsLengthPrefixed, IsTrueForH264WithTooLittleForAStartCode) {
    EXPECT_TRUE(check(AV_CODEC_ID_H264, {0}));
    EXPECT_TRUE(check(AV_CODEC_ID_H264, {0, 0}));
}

TEST(IsLengthPrefixed, LooksForTheThreeByteStartCode) {
    EXPECT_FALSE(check(AV_CODEC_ID_H264, {0, 0, 1}));
    EXPECT_FALSE(check(AV_CODEC_ID_H264, {0, 0, 1, 0x67}));
    EXPECT_TRUE(check(AV_CODEC_ID_H264, {1, 0x64, 0}));
    EXPECT_TRUE(check(AV_CODEC_ID_H264, {0, 0, 0}));
    EXPECT_TRUE(check(AV_CODEC_ID_H264, {0, 1, 1}));
}

TEST(IsLengthPrefixed, LooksForTheFourByteStartCode) {
    EXPECT_FALSE(check(AV_CODEC_ID_H264, {0, 0, 0, 1}));
    EXPECT_FALSE(check(AV_CODEC_ID_H264, {0, 0, 0, 1, 0x67}));
    EXPECT_TRUE(check(AV_CODEC_ID_H264, {0, 0, 0, 2}));
}

TEST(IsLengthPrefixed, WantsAWholeRecordForHevc) {
    EXPECT_FALSE(check(AV_CODEC_ID_HEVC, {}));
    EXPECT_FALSE(check(AV_CODEC_ID_HEVC, bytes({1}, 22)));
    EXPECT_TRUE(check(AV_CODEC_ID_HEVC, bytes({1}, 23)));
    EXPECT_FALSE(check(AV_CODEC_ID_HEVC, bytes({0, 0, 1}, 23)));
    EXPECT_FALSE(check(AV_CODEC_ID_HEVC, bytes({0, 0, 0, 1}, 40)));
}

TEST(IsLengthPrefixed, IsFalseForEveryOtherCodec) {
    EXPECT_FALSE(check(AV_CODEC_ID_MPEG4, bytes({1}, 40)));
    EXPECT_FALSE(check(AV_CODEC_ID_AAC, bytes({1}, 40)));
}

}  // namespace
}  // namespace kelp
