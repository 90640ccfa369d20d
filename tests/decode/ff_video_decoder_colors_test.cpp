#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <ostream>

#include "decode/decoded_frame.h"
#include "decode/ff_video_decoder_fixture.h"

// Pictures whose planes and labels agree, as the option for all codecs has them.
namespace kelp {
namespace {

using test::addDisplayMatrix;
using test::makePicture;
using test::Mirror;
using test::planesOf;
using test::videoFakes;
using test::VideoFramePtr;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

struct Label {
    int range;
    int space;
    friend bool operator==(const Label&, const Label&) = default;
    friend std::ostream& operator<<(std::ostream& out, const Label& label) {
        return out << label.range << " " << label.space;
    }
};

class FFVideoDecoderColors : public test::FFVideoDecoderFixture {
protected:
    const VideoFrameInfo& lastFrame() { return *observer_->frames.back(); }

    // What comes of a flat gray picture of `format`, all of whose bytes are `sample`.
    Label labelOf(AVPixelFormat format, AVColorRange range, AVColorSpace space, int height = 48, uint8_t sample = 128) {
        show(flat(format, range, space, height, sample));
        return {lastFrame().colorRange, lastFrame().colorSpace};
    }
    static VideoFramePtr flat(AVPixelFormat format, AVColorRange range, AVColorSpace space, int height = 48,
                              uint8_t sample = 128) {
        auto picture = makePicture(0, 64, height, format);
        picture->color_range = range;
        picture->colorspace = space;
        for (int i = 0; i < AV_NUM_DATA_POINTERS && picture->buf[i]; ++i) {
            std::fill_n(picture->buf[i]->data, picture->buf[i]->size, sample);
        }
        return picture;
    }
};

TEST_F(FFVideoDecoderColors, AreLabelledAsThePlanesAre) {
    decoder_->setOptions({.allCodecs = true});
    openScripted();
    const auto limited = AVCOL_RANGE_MPEG;
    const auto full = AVCOL_RANGE_JPEG;
    const auto unknown = AVCOL_RANGE_UNSPECIFIED;
    EXPECT_EQ(labelOf(AV_PIX_FMT_YUV420P, limited, AVCOL_SPC_BT709), (Label{1, 1}));
    EXPECT_EQ(labelOf(AV_PIX_FMT_YUV420P, limited, AVCOL_SPC_BT470BG), (Label{1, 2}));
    EXPECT_EQ(labelOf(AV_PIX_FMT_YUV420P, limited, AVCOL_SPC_SMPTE170M, 1080), (Label{1, 2}));
    EXPECT_EQ(labelOf(AV_PIX_FMT_YUV420P, unknown, AVCOL_SPC_UNSPECIFIED), (Label{0, 0}));
    EXPECT_EQ(labelOf(AV_PIX_FMT_YUV422P10LE, unknown, AVCOL_SPC_UNSPECIFIED), (Label{0, 0}));
    EXPECT_EQ(labelOf(AV_PIX_FMT_YUV420P, full, AVCOL_SPC_BT709), (Label{1, 1}));
    EXPECT_EQ(labelOf(AV_PIX_FMT_YUVJ420P, full, AVCOL_SPC_UNSPECIFIED), (Label{1, 0}));
    EXPECT_EQ(labelOf(AV_PIX_FMT_YUV420P, limited, AVCOL_SPC_SMPTE240M), (Label{1, 1}));
    EXPECT_EQ(labelOf(AV_PIX_FMT_YUV420P, limited, AVCOL_SPC_BT2020_NCL), (Label{1, 1}));
    EXPECT_EQ(labelOf(AV_PIX_FMT_GRAY8, unknown, AVCOL_SPC_UNSPECIFIED), (Label{1, 0}));
    EXPECT_EQ(labelOf(AV_PIX_FMT_RGB24, unknown, AVCOL_SPC_RGB, 576), (Label{1, 2}));
    EXPECT_EQ(labelOf(AV_PIX_FMT_RGB24, full, AVCOL_SPC_UNSPECIFIED, 578), (Label{1, 1}));
    EXPECT_EQ(labelOf(AV_PIX_FMT_XYZ12LE, full, AVCOL_SPC_UNSPECIFIED, 576), (Label{1, 2}));
    EXPECT_EQ(labelOf(AV_PIX_FMT_XYZ12BE, full, AVCOL_SPC_UNSPECIFIED, 576), (Label{1, 2}));
    EXPECT_EQ(observer_->tailsWrittenTo, 0);
}

TEST_F(FFVideoDecoderColors, BecomeOfLimitedRangeWhereverTheyWereFull) {
    decoder_->setOptions({.allCodecs = true});
    openScripted();
    for (const auto format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUV444P, AV_PIX_FMT_GRAY8}) {
        labelOf(format, AVCOL_RANGE_JPEG, AVCOL_SPC_BT709, 48, 255);
        EXPECT_EQ(lastFrame().data[0][0], 235) << format;
        labelOf(format, AVCOL_RANGE_MPEG, AVCOL_SPC_BT709, 48, 255);
        EXPECT_EQ(lastFrame().data[0][0], format == AV_PIX_FMT_YUVJ420P ? 235 : 255) << format;
    }
}

TEST_F(FFVideoDecoderColors, OfGrayAreOfFullRangeUnlessTheySayOtherwise) {
    decoder_->setOptions({.allCodecs = true});
    openScripted();
    for (const auto format : {AV_PIX_FMT_GRAY8, AV_PIX_FMT_GRAY16LE}) {
        for (const auto& [range, expected] :
             {std::pair{AVCOL_RANGE_MPEG, 200}, {AVCOL_RANGE_JPEG, 188}, {AVCOL_RANGE_UNSPECIFIED, 188}}) {
            labelOf(format, range, AVCOL_SPC_UNSPECIFIED, 48, 200);
            EXPECT_NEAR(lastFrame().data[0][0], expected, 1) << format << " " << range;
            EXPECT_EQ(lastFrame().data[1][0], 128) << format << " " << range;
        }
    }
}

// Which sample of a plane of so many rows and columns is shown at a place, when the frame is turned.
uint8_t shownAt(const VideoFrameInfo& frame, int row, int column) {
    const int stride = frame.linesize[0];
    const int right = frame.width - 1;
    const int bottom = frame.height - 1;
    switch (frame.rotate) {
        case 0:
            return frame.data[0][row * stride + column];
        case 90:
            return frame.data[0][(bottom - column) * stride + row];
        case 180:
            return frame.data[0][(bottom - row) * stride + right - column];
        default:
            return frame.data[0][column * stride + right - row];
    }
}

TEST_F(FFVideoDecoderColors, GoWithPicturesThatAreMirrored) {
    decoder_->setOptions({.allCodecs = true, .sharedPictures = true});
    openScripted();
    for (const double turned : {0.0, 90.0, 180.0, 270.0}) {
        for (const auto mirror : {Mirror::No, Mirror::LeftToRight, Mirror::TopToBottom}) {
            auto turnedAlone = makePicture(0);
            addDisplayMatrix(turnedAlone.get(), turned);
            show(std::move(turnedAlone));
            const VideoFrameInfo& expected = lastFrame();
            auto mirrored = makePicture(0);
            addDisplayMatrix(mirrored.get(), turned, mirror);
            show(std::move(mirrored));
            const bool isUpright = expected.rotate % 180 == 0;
            const int rows = isUpright ? expected.height : expected.width;
            const int columns = isUpright ? expected.width : expected.height;
            for (const auto& [row, column] : {std::pair{0, 0}, {1, 5}, {rows - 1, columns - 2}}) {
                EXPECT_EQ(shownAt(lastFrame(), row, column),
                          shownAt(expected, mirror == Mirror::TopToBottom ? rows - 1 - row : row,
                                  mirror == Mirror::LeftToRight ? columns - 1 - column : column))
                    << turned << " " << static_cast<int>(mirror) << " " << row << " " << column;
            }
        }
    }
}

TEST_F(FFVideoDecoderColors, CostAnOrdinaryPictureNoMoreThanBefore) {
    decoder_->setOptions({.allCodecs = true});
    openScripted();
    for (int i = 0; i < 3; ++i) {
        auto picture = makePicture(40 * i);
        picture->color_range = i == 0 ? AVCOL_RANGE_UNSPECIFIED : AVCOL_RANGE_MPEG;
        picture->colorspace = i == 2 ? AVCOL_SPC_BT709 : AVCOL_SPC_UNSPECIFIED;
        const std::vector<uint8_t> luma(picture->data[0], picture->data[0] + 64);
        show(std::move(picture));
        EXPECT_EQ(std::vector<uint8_t>(lastFrame().data[0], lastFrame().data[0] + 64), luma);
    }
    // The plain copy of the library's, made once.
    EXPECT_THAT(videoFakes().conversions, SizeIs(1));
}

TEST_F(FFVideoDecoderColors, KeepNothingOfTheConversionOverAClose) {
    for (const bool allCodecs : {true, false}) {
        decoder_->setOptions({.allCodecs = allCodecs});
        videoFakes().conversions.clear();
        for (const size_t made : {1U, 2U}) {
            openScripted();
            show(makePicture(0));
            show(makePicture(40));
            EXPECT_THAT(videoFakes().conversions, SizeIs(made)) << allCodecs;
            decoder_->close();
        }
    }
}

TEST_F(FFVideoDecoderColors, ShareWhatNeedsNoConversion) {
    decoder_->setOptions({.allCodecs = true, .sharedPictures = true});
    openScripted();
    const auto isShared = [&](AVColorRange range, AVColorSpace space,
                              AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED) {
        auto picture = flat(AV_PIX_FMT_YUV420P, range, space);
        picture->color_trc = transfer;
        show(std::move(picture));
        return lastFrame().decoderMemory[0] != nullptr;
    };
    EXPECT_TRUE(isShared(AVCOL_RANGE_UNSPECIFIED, AVCOL_SPC_UNSPECIFIED));
    EXPECT_TRUE(isShared(AVCOL_RANGE_MPEG, AVCOL_SPC_BT709));
    EXPECT_TRUE(isShared(AVCOL_RANGE_MPEG, AVCOL_SPC_SMPTE170M));
    EXPECT_FALSE(isShared(AVCOL_RANGE_JPEG, AVCOL_SPC_BT709));
    EXPECT_FALSE(isShared(AVCOL_RANGE_MPEG, AVCOL_SPC_SMPTE240M));
    EXPECT_FALSE(isShared(AVCOL_RANGE_MPEG, AVCOL_SPC_BT2020_NCL));
    EXPECT_FALSE(isShared(AVCOL_RANGE_MPEG, AVCOL_SPC_BT709, AVCOL_TRC_ARIB_STD_B67));
}

TEST_F(FFVideoDecoderColors, FollowPicturesThatChangeInSizeAndFormat) {
    decoder_->setOptions({.allCodecs = true});
    openScripted();
    const std::vector<std::pair<int, int>> sizes{{64, 48}, {1, 1}, {33, 17}, {2, 1}, {1, 2}, {640, 361}, {64, 48}};
    for (const auto format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_RGBA, AV_PIX_FMT_YUVJ422P, AV_PIX_FMT_GRAY10LE,
                              AV_PIX_FMT_PAL8, AV_PIX_FMT_YUV410P, AV_PIX_FMT_YUVA420P, AV_PIX_FMT_MONOBLACK,
                              AV_PIX_FMT_NV12, AV_PIX_FMT_YUV444P16BE, AV_PIX_FMT_BAYER_RGGB8}) {
        for (const auto& [width, height] : sizes) {
            const size_t before = observer_->frames.size();
            show(makePicture(0, width, height, format));
            ASSERT_THAT(observer_->frames, SizeIs(before + 1)) << format << " " << width << "x" << height;
            EXPECT_EQ(lastFrame().width, width);
            EXPECT_EQ(lastFrame().height, height);
        }
    }
    EXPECT_EQ(observer_->tailsWrittenTo, 0);
}

TEST_F(FFVideoDecoderColors, StayWithTheStandardLabelWithoutTheOption) {
    openScripted();
    EXPECT_EQ(labelOf(AV_PIX_FMT_YUVJ420P, AVCOL_RANGE_JPEG, AVCOL_SPC_BT709), (Label{2, 1}));
    EXPECT_EQ(labelOf(AV_PIX_FMT_YUV420P10LE, AVCOL_RANGE_MPEG, AVCOL_SPC_BT2020_NCL), (Label{1, 0}));
    EXPECT_EQ(labelOf(AV_PIX_FMT_RGB24, AVCOL_RANGE_UNSPECIFIED, AVCOL_SPC_RGB), (Label{0, 0}));
}

struct ColorStream {
    const char* name;
    const char* options;
    const char* extension;
    int space;

    friend std::ostream& operator<<(std::ostream& out, const ColorStream& row) { return out << row.name; }
};

class FFVideoDecoderColorStream : public FFVideoDecoderColors, public testing::WithParamInterface<ColorStream> {};

TEST_P(FFVideoDecoderColorStream, ComesOutInLimitedRangeAsTheCommandHasIt) {
    constexpr size_t kFrames = 6;
    const auto& row = GetParam();
    const auto stream = test::makeVideoStream(row.options, row.extension, 128, 96, kFrames);
    decoder_->setOptions({.allCodecs = true});
    decoder_->enableHardware(false, HW_DECODE_NONE);
    ASSERT_TRUE(open(stream.codecType, stream.parameters.get(), false, stream.pixFormat));
    for (const auto& packet : stream.packets) {
        decoder_->insertPacket(packet.get());
    }
    decoder_->insertPacket(test::makeEndPacket(true).get());
    ASSERT_THAT(observer_->frames, SizeIs(kFrames));
    for (size_t i = 0; i < kFrames; ++i) {
        const auto& frame = *observer_->frames[i];
        EXPECT_NE(frame.colorRange, 2);
        EXPECT_EQ(frame.colorSpace, row.space);
        const auto planes = planesOf(frame);
        const auto expected = stream.expected(i);
        ASSERT_EQ(planes.size(), expected.size());
        int largest = 0;
        for (size_t at = 0; at < planes.size(); ++at) {
            largest = std::max(largest, std::abs(planes[at] - expected[at]));
        }
        EXPECT_LE(largest, 1) << "picture " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(
    , FFVideoDecoderColorStream,
    testing::Values(ColorStream{"Mjpeg", "-c:v mjpeg", "avi", 2},
                    ColorStream{"MjpegIn422", "-c:v mjpeg -pix_fmt yuvj422p", "avi", 2},
                    ColorStream{"H264OfFullRange",
                                "-vf scale=out_color_matrix=bt709:out_range=pc -c:v libx264 -pix_fmt yuv420p "
                                "-color_range pc -colorspace bt709",
                                "mp4", 1},
                    ColorStream{"H264In444", "-c:v libx264 -pix_fmt yuv444p", "mp4", 0},
                    ColorStream{"HevcTenBitsOfFullRange",
                                "-vf scale=out_color_matrix=bt709:out_range=pc -c:v libx265 -x265-params "
                                "log-level=error -pix_fmt yuv420p10le -color_range pc -colorspace bt709",
                                "mp4", 1}),
    [](const testing::TestParamInfo<ColorStream>& row) { return row.param.name; });

}  // namespace
}  // namespace kelp
