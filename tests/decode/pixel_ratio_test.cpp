#include "decode/pixel_ratio.h"

#include <gmock/gmock.h>

#include "decode/video_frame_info.h"

namespace kelp {
namespace {

using testing::Pair;

std::pair<int, int> labelled(PixelRatio& ratio, AVRational own) {
    VideoFrameInfo frame;
    ratio.label(own, frame);
    return {frame.pixelWidth, frame.pixelHeight};
}

TEST(PixelRatio, IsSquareWhereNobodySaysOtherwise) {
    PixelRatio ratio;
    EXPECT_THAT(labelled(ratio, {0, 1}), Pair(1, 1));
    EXPECT_THAT(labelled(ratio, {0, 0}), Pair(1, 1));
}

TEST(PixelRatio, IsThatOfThePicturesWhereTheContainerIsSilent) {
    PixelRatio ratio;
    EXPECT_THAT(labelled(ratio, {128, 90}), Pair(64, 45));
    EXPECT_THAT(labelled(ratio, {16, 15}), Pair(16, 15)) << "it changes on the way";
    EXPECT_THAT(labelled(ratio, {0, 1}), Pair(1, 1));
}

TEST(PixelRatio, IsThatOfTheContainerUntilThePicturesSaySomethingNew) {
    PixelRatio ratio({4, 3});
    EXPECT_THAT(labelled(ratio, {1, 1}), Pair(4, 3));
    EXPECT_THAT(labelled(ratio, {0, 1}), Pair(4, 3));
    EXPECT_THAT(labelled(ratio, {2, 1}), Pair(2, 1));
    EXPECT_THAT(labelled(ratio, {2, 2}), Pair(4, 3)) << "as at the beginning";

    PixelRatio alone({4, 3});
    EXPECT_THAT(labelled(alone, {0, 1}), Pair(4, 3));
    EXPECT_THAT(labelled(alone, {16, 11}), Pair(16, 11));
}

TEST(PixelRatio, TakesNothingThatNoPictureHas) {
    for (const AVRational wrong : {AVRational{-4, 3}, {4, -3}, {1, 11}, {11, 1}, {INT32_MAX, 1}, {4, 0}, {-4, -3}}) {
        PixelRatio own;
        EXPECT_THAT(labelled(own, wrong), Pair(1, 1)) << wrong.num << ":" << wrong.den;
        PixelRatio stated(wrong);
        EXPECT_THAT(labelled(stated, {4, 3}), Pair(4, 3)) << wrong.num << ":" << wrong.den;
    }
    PixelRatio fine;
    EXPECT_THAT(labelled(fine, {INT32_MAX, INT32_MAX - 2}), Pair(1, 1)) << "as near as small numbers get";
}

}  // namespace
}  // namespace kelp
