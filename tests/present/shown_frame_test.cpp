#include "present/shown_frame.h"

#include <gmock/gmock.h>

namespace kelp {
namespace {

using testing::Each;

constexpr int kWidth = 4;
constexpr int kHeight = 2;
constexpr unsigned int kBytes = kWidth * kHeight * 3 / 2;

std::shared_ptr<VideoFrameInfo> pictureOf(unsigned char value) {
    auto frame = std::make_shared<VideoFrameInfo>();
    frame->pixFormat = PIX_FMT_YUV420P;
    frame->width = kWidth;
    frame->height = kHeight;
    frame->pts = 400;
    frame->buffer = std::make_shared<FrameBuffer>();
    frame->buffer->size = kBytes;
    frame->buffer->data = new unsigned char[kBytes];
    std::fill_n(frame->buffer->data, kBytes, value);
    frame->layOutIn(frame->buffer->data);
    return frame;
}

std::vector<int> lumaOf(const VideoFrameInfo& frame) {
    return {frame.data[0], frame.data[0] + kWidth * kHeight};
}

class ShownFrameTest : public testing::Test {
protected:
    void blank() {
        shown.requestBlank();
        shown.carryOutBlanks(std::unique_lock<std::mutex>());
    }

    ShownFrame shown;
};

TEST_F(ShownFrameTest, BlanksThePictureThatIsShown) {
    const auto picture = pictureOf(77);
    shown.set(picture);
    EXPECT_FALSE(picture->isBlanked);
    blank();
    EXPECT_THAT(lumaOf(*picture), Each(0));
    EXPECT_TRUE(picture->isBlanked);
    EXPECT_EQ(picture->pts, 399);
}

TEST_F(ShownFrameTest, LeavesToWhoHasLentAPictureWhatItWas) {
    const auto picture = pictureOf(77);
    shown.set(picture);
    const auto lent = shown.lend();
    blank();
    EXPECT_THAT(lumaOf(*lent), Each(77));
    EXPECT_THAT(lumaOf(*picture), Each(0));
}

TEST_F(ShownFrameTest, LeavesItAlsoIfThePictureIsShownAgainBehindAnother) {
    const auto picture = pictureOf(77);
    shown.set(picture);
    const auto lent = shown.lend();
    shown.set(pictureOf(88));
    shown.set(picture);
    blank();
    EXPECT_THAT(lumaOf(*lent), Each(77));
    EXPECT_THAT(lumaOf(*picture), Each(0));
}

TEST_F(ShownFrameTest, DropsARequestForAPictureThatHasGone) {
    const auto picture = pictureOf(77);
    shown.set(picture);
    shown.requestBlank();
    const auto next = pictureOf(88);
    shown.set(next);
    shown.carryOutBlanks(std::unique_lock<std::mutex>());
    EXPECT_THAT(lumaOf(*next), Each(88));
    EXPECT_THAT(lumaOf(*picture), Each(77));
}

TEST_F(ShownFrameTest, HasNothingToLendBeforeTheFirstPicture) {
    EXPECT_FALSE(shown.lend());
    blank();
}

}  // namespace
}  // namespace kelp
