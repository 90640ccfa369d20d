#include "present/snapshot.h"

#include <gmock/gmock.h>

#include <array>
#include <cmath>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "decode/decoded_frame.h"
#include "present/video_frames.h"
#include "support/log_capture.h"
#include "support/temp_files.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace kelp {
namespace {

using test::makePicture;
using testing::ElementsAre;
using Rgb = std::array<int, 3>;

struct Png {
    int width = 0;
    int height = 0;
    std::vector<Rgb> pixels;
    Rgb at(int x, int y) const { return pixels.at(static_cast<size_t>(y) * static_cast<size_t>(width) + x); }
};

Png readPng(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    AVCodecContext* context = avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_PNG));
    Png png;
    if (!bytes.empty() && av_new_packet(packet, static_cast<int>(bytes.size())) == 0 &&
        avcodec_open2(context, nullptr, nullptr) == 0) {
        std::copy(bytes.begin(), bytes.end(), packet->data);
        if (avcodec_send_packet(context, packet) == 0 && avcodec_send_packet(context, nullptr) == 0 &&
            avcodec_receive_frame(context, frame) == 0) {
            EXPECT_EQ(frame->format, AV_PIX_FMT_RGB24);
            png.width = frame->width;
            png.height = frame->height;
            for (int y = 0; y < png.height; ++y) {
                for (int x = 0; x < png.width; ++x) {
                    const uint8_t* const pixel = frame->data[0] + y * frame->linesize[0] + x * 3;
                    png.pixels.push_back({pixel[0], pixel[1], pixel[2]});
                }
            }
        }
    }
    avcodec_free_context(&context);
    av_frame_free(&frame);
    av_packet_free(&packet);
    return png;
}

MATCHER_P2(IsNear, color, most, "") {
    *result_listener << testing::PrintToString(arg);
    return std::abs(arg[0] - color[0]) <= most && std::abs(arg[1] - color[1]) <= most &&
           std::abs(arg[2] - color[2]) <= most;
}

class SnapshotTest : public testing::Test {
protected:
    Png taken(const VideoFrameInfo& picture) {
        const std::string path = folder_.path("picture.png");
        EXPECT_TRUE(writeSnapshot(picture, path));
        return readPng(path);
    }

    test::TempFolder folder_;
};

Rgb colorOf(test::Yuv yuv, bool isFull, bool isBt709) {
    const double red = isBt709 ? 0.2126 : 0.299;
    const double blue = isBt709 ? 0.0722 : 0.114;
    const double y = isFull ? yuv.y / 255.0 : (yuv.y - 16) / 219.0;
    const double u = (yuv.u - 128) / (isFull ? 255.0 : 224.0);
    const double v = (yuv.v - 128) / (isFull ? 255.0 : 224.0);
    const double r = y + 2 * (1 - red) * v;
    const double b = y + 2 * (1 - blue) * u;
    const double g = (y - red * r - blue * b) / (1 - red - blue);
    const auto byte = [](double part) { return static_cast<int>(std::lround(std::clamp(part, 0.0, 1.0) * 255)); };
    return {byte(r), byte(g), byte(b)};
}

TEST_F(SnapshotTest, HasTheColorsThatRangeAndMatrixStandFor) {
    for (const test::Yuv yuv : {test::Yuv{.y = 180, .u = 128, .v = 128},
                                {.y = 100, .u = 90, .v = 180},
                                {.y = 140, .u = 150, .v = 80},
                                {.y = 16, .u = 128, .v = 128},
                                {.y = 235, .u = 128, .v = 128}}) {
        for (const int range : {0, 1, 2}) {
            for (const int space : {0, 1, 2}) {
                const auto picture = makePicture(0, 32, 16, yuv);
                picture->colorRange = range;
                picture->colorSpace = space;
                EXPECT_THAT(taken(*picture).at(9, 9), IsNear(colorOf(yuv, range == 2, space == 1), 2))
                    << "range " << range << " space " << space;
            }
        }
    }
    const test::Yuv yuv{.y = 100, .u = 90, .v = 180};
    EXPECT_THAT(taken(*makePicture(0, 16, 576, yuv)).at(9, 9), IsNear(colorOf(yuv, false, false), 2));
    EXPECT_THAT(taken(*makePicture(0, 16, 577, yuv)).at(9, 9), IsNear(colorOf(yuv, false, true), 2));
}

TEST_F(SnapshotTest, HasSquarePixels) {
    const auto sizeWith = [this](int pixelWidth, int pixelHeight) {
        const auto picture = makePicture(0, 72, 58);
        picture->pixelWidth = pixelWidth;
        picture->pixelHeight = pixelHeight;
        const Png png = taken(*picture);
        return std::pair(png.width, png.height);
    };
    EXPECT_EQ(sizeWith(1, 1), std::pair(72, 58));
    EXPECT_EQ(sizeWith(64, 45), std::pair(102, 58));
    EXPECT_EQ(sizeWith(16, 15), std::pair(77, 58));
    EXPECT_EQ(sizeWith(1, 2), std::pair(72, 116));
    EXPECT_EQ(sizeWith(8, 9), std::pair(72, 65));
}

TEST_F(SnapshotTest, IsTurnedAsThePictureIsSeen) {
    constexpr Rgb kLight{255, 255, 255};
    constexpr Rgb kDark{0, 0, 0};
    const auto picture = makePicture(0, 32, 16, {.y = 16, .u = 128, .v = 128});
    for (int y = 0; y < 8; ++y) {
        std::fill_n(picture->data[0] + y * 32, 16, uint8_t{235});  // the upper left quarter is white
    }
    const auto corners = [](const Png& png) {
        const int x = png.width - 2;
        const int y = png.height - 2;
        return std::vector<Rgb>{png.at(1, 1), png.at(x, 1), png.at(x, y), png.at(1, y)};
    };
    for (const auto& [rotate, white] : {std::pair{0, 0}, {90, 1}, {180, 2}, {270, 3}, {-90, 3}, {360, 0}, {80, 1}}) {
        picture->rotate = rotate;
        const Png png = taken(*picture);
        EXPECT_EQ(png.width, white % 2 == 0 ? 32 : 16) << rotate;
        EXPECT_EQ(png.height, white % 2 == 0 ? 16 : 32) << rotate;
        std::vector<Rgb> expected(4, kDark);
        expected[static_cast<size_t>(white)] = kLight;
        EXPECT_EQ(corners(png), expected) << rotate;
    }
}

// The chroma planes of their block are rounded down.
TEST_F(SnapshotTest, HasItsColorsUpToAnOddEdge) {
    const test::Yuv yuv{.y = 100, .u = 90, .v = 180};
    for (const auto& [width, height] : {std::pair{33, 16}, {32, 17}, {33, 17}, {3, 3}}) {
        const Png png = taken(*makePicture(0, width, height, yuv));
        ASSERT_EQ(png.width, width);
        ASSERT_EQ(png.height, height);
        EXPECT_THAT(png.pixels, testing::Each(IsNear(colorOf(yuv, false, false), 2))) << width << "x" << height;
    }
    // Without chroma at all.
    for (const auto& [width, height] : {std::pair{1, 1}, {1, 4}, {4, 1}}) {
        const Png png = taken(*makePicture(0, width, height, yuv));
        ASSERT_EQ(png.pixels.size(), static_cast<size_t>(width * height));
        EXPECT_THAT(png.pixels, testing::Each(IsNear(Rgb{98, 98, 98}, 2))) << width << "x" << height;
    }
}

TEST_F(SnapshotTest, FailsWithALineInTheLog) {
    test::LogCapture log;
    const auto picture = makePicture(0);
    EXPECT_FALSE(writeSnapshot(*picture, folder_.path("missing/picture.png")));
    EXPECT_THAT(log.lines(), ElementsAre("[Snapshot]: writeSnapshot, " + folder_.path("missing/picture.png") +
                                         " can't be written: No such file or directory\n"));
    EXPECT_FALSE(writeSnapshot(*picture, "/dev/full"));
    EXPECT_EQ(log.lines().back(), "[Snapshot]: writeSnapshot, /dev/full can't be written: No space left on device\n");
    picture->width = 0;
    EXPECT_FALSE(writeSnapshot(*picture, folder_.path("picture.png")));
    EXPECT_EQ(log.lines().back(), "[Snapshot]: writeSnapshot, a picture of 0x8 can't be encoded\n");
}

}  // namespace
}  // namespace kelp
