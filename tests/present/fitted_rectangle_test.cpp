#include "present/fitted_rectangle.h"

#include <gmock/gmock.h>

#include <array>
#include <cstdlib>

namespace kelp {

static void PrintTo(const FittedRectangle& rectangle, std::ostream* out) {
    *out << rectangle.x << "," << rectangle.y << " " << rectangle.width << "x" << rectangle.height;
}

namespace {

struct Picture {
    int width, height;
    int pixelWidth = 1;
    int pixelHeight = 1;
    int rotate = 0;
};

FittedRectangle fitted(const Picture& picture, int width, int height) {
    VideoFrameInfo frame;
    frame.width = picture.width;
    frame.height = picture.height;
    frame.pixelWidth = picture.pixelWidth;
    frame.pixelHeight = picture.pixelHeight;
    frame.rotate = picture.rotate;
    return FittedRectangle::of(frame, width, height);
}

// Wide film, television, old television, a telephone held upright; in a window that is wide, square, and high.
struct Row {
    Picture picture;
    std::array<FittedRectangle, 3> in;  // 800x450, 600x600, 300x600
};

constexpr Row kRows[] = {
    {{2350, 1000}, {{{0, 55, 800, 340}, {0, 172, 600, 255}, {0, 236, 300, 128}}}},
    {{1920, 1080}, {{{0, 0, 800, 450}, {0, 131, 600, 338}, {0, 215, 300, 169}}}},
    {{640, 480}, {{{100, 0, 600, 450}, {0, 75, 600, 450}, {0, 187, 300, 225}}}},
    {{1080, 1920}, {{{273, 0, 253, 450}, {131, 0, 338, 600}, {0, 33, 300, 533}}}},
    // Of a DVD: both are shown in another ratio than their 5:4.
    {{720, 576, 64, 45}, {{{0, 0, 800, 450}, {0, 131, 600, 338}, {0, 215, 300, 169}}}},
    {{720, 576, 16, 15}, {{{100, 0, 600, 450}, {0, 75, 600, 450}, {0, 187, 300, 225}}}},
    {{1440, 1080, 3, 4}, {{{175, 0, 450, 450}, {0, 0, 600, 600}, {0, 150, 300, 300}}}},
    // On the side: as seen. The sides differ by an even number, so that the rectangle before turning is one of pixels.
    {{1920, 1080, 1, 1, 90}, {{{274, 0, 252, 450}, {131, 0, 338, 600}, {0, 34, 300, 532}}}},
    {{1920, 1080, 1, 1, 180}, {{{0, 0, 800, 450}, {0, 131, 600, 338}, {0, 215, 300, 169}}}},
    {{1080, 1920, 1, 1, 270}, {{{0, 0, 800, 450}, {0, 131, 600, 338}, {0, 216, 300, 168}}}},
    {{720, 576, 64, 45, 90}, {{{274, 0, 252, 450}, {131, 0, 338, 600}, {0, 34, 300, 532}}}},
    {{720, 576, 64, 45, 180}, {{{0, 0, 800, 450}, {0, 131, 600, 338}, {0, 215, 300, 169}}}},
    {{720, 576, 64, 45, 270}, {{{274, 0, 252, 450}, {131, 0, 338, 600}, {0, 34, 300, 532}}}},
};

TEST(FittedRectangle, IsAsLargeAsCanBeInTheMiddle) {
    for (const auto& [picture, in] : kRows) {
        SCOPED_TRACE(testing::Message() << picture.width << "x" << picture.height << " pixels " << picture.pixelWidth
                                        << ":" << picture.pixelHeight << " turned " << picture.rotate);
        EXPECT_EQ(fitted(picture, 800, 450), in[0]);
        EXPECT_EQ(fitted(picture, 600, 600), in[1]);
        EXPECT_EQ(fitted(picture, 300, 600), in[2]);
    }
}

TEST(FittedRectangle, IsNeverFartherFromTheRatioThanAPixel) {
    for (const auto& [picture, in] : kRows) {
        for (int width = 4; width < 90; ++width) {
            for (int height = 4; height < 60; ++height) {
                const auto at = fitted(picture, width, height);
                const bool isTurned = picture.rotate % 180 != 0;
                const double seenWidth = 1.0 * picture.width * picture.pixelWidth;
                const double seenHeight = 1.0 * picture.height * picture.pixelHeight;
                const double ratio = isTurned ? seenHeight / seenWidth : seenWidth / seenHeight;
                const double slack = isTurned ? 1.51 : 0.51;
                EXPECT_TRUE(at.width == width || at.height == height) << width << "x" << height;
                EXPECT_TRUE(std::abs(at.width - at.height * ratio) <= slack ||
                            std::abs(at.height - at.width / ratio) <= slack)
                    << width << "x" << height << testing::PrintToString(at);
                EXPECT_LE(std::abs((width - at.width) - 2 * at.x), 1);
                EXPECT_LE(std::abs((height - at.height) - 2 * at.y), 1);
            }
        }
    }
}

TEST(FittedRectangle, HasTheSamePlaceBeforeTurning) {
    for (const int width : {64, 65, 799, 800}) {
        const auto seen = fitted({1920, 1080, 1, 1, 90}, width, 450);
        const auto before = seen.beforeTurning();
        EXPECT_EQ(before.width, seen.height);
        EXPECT_EQ(before.height, seen.width);
        EXPECT_EQ(2 * before.x + before.width, 2 * seen.x + seen.width) << "the centre";
        EXPECT_EQ(2 * before.y + before.height, 2 * seen.y + seen.height);
    }
}

TEST(FittedRectangle, CoversTheOutputWithWhatHasNoSize) {
    EXPECT_EQ(fitted({0, 0}, 64, 48), (FittedRectangle{0, 0, 64, 48}));
    EXPECT_EQ(fitted({16, 0}, 64, 48), (FittedRectangle{0, 0, 64, 48}));
    EXPECT_EQ(fitted({16, 8}, 0, 48), (FittedRectangle{0, 0, 0, 48}));
    EXPECT_EQ(fitted({16, 8}, 64, 0), (FittedRectangle{0, 0, 64, 0}));
}

TEST(FittedRectangle, LeavesAtLeastAPixelOfAnyPicture) {
    EXPECT_EQ(fitted({10000, 1}, 64, 48), (FittedRectangle{0, 23, 64, 1}));
    EXPECT_EQ(fitted({1, 10000, 1, 65536}, 65536, 65536).width, 1);
    EXPECT_EQ(fitted({65535, 65535, 65536, 65535}, 65536, 65536).width, 65536);
}

TEST(FittedRectangle, TakesTheNearestQuarterOfATurn) {
    for (const auto& [rotate, quarters] : {std::pair{0, 0},
                                           {44, 0},
                                           {45, 1},
                                           {90, 1},
                                           {134, 1},
                                           {135, 2},
                                           {180, 2},
                                           {270, 3},
                                           {315, 0},
                                           {360, 0},
                                           {450, 1},
                                           {-90, 3},
                                           {-180, 2},
                                           {-270, 1},
                                           {-30, 0}}) {
        EXPECT_EQ(quarterTurns(rotate), quarters) << rotate;
        EXPECT_EQ(isOnItsSide(rotate), quarters % 2 == 1) << rotate;
    }
}

}  // namespace
}  // namespace kelp
