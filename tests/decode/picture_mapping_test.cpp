#include <gmock/gmock.h>

#include <algorithm>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "decode/picture_converter.h"
#include "decode/picture_files.h"
#include "runtime/ffmpeg_compat.h"
#include "runtime/playback_options.h"
#include "support/ffmpeg_release.h"
#include "support/log_capture.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libavutil/mastering_display_metadata.h>
#include <libavutil/pixdesc.h>
}

extern "C" {
void* __real_dlopen(const char* name, int flags);
void* __wrap_dlopen(const char* name, int flags);
}

// Pictures with colours or a brightness beyond BT.709, and transparent ones.
namespace kelp {
namespace {

using test::PackedFrame;
using test::PictureFile;
using test::planesOf;
using testing::ElementsAre;
using testing::IsEmpty;

bool hasFilterLibrary = true;
std::vector<std::string> loaded;

constexpr const char* kExact = "flags=bicubic+accurate_rnd+full_chroma_int+full_chroma_inp";

std::string tags(const AVFrame& picture) {
    return std::string("setparams=range=") + av_color_range_name(picture.color_range) +
           ":color_primaries=" + av_color_primaries_name(picture.color_primaries) +
           ":color_trc=" + av_color_transfer_name(picture.color_trc) +
           ":colorspace=" + av_color_space_name(picture.colorspace);
}

std::string mapping(const AVFrame& picture, int peakNits = 1000) {
    return tags(picture) +
           ",zscale=t=linear:npl=203:p=bt709,format=gbrpf32le,tonemap=mobius:desat=0:peak=" + std::to_string(peakNits) +
           "/203,zscale=t=bt709:m=bt709:r=limited:d=ordered";
}

class PictureMapping : public testing::Test {
protected:
    PictureMapping() {
        hasFilterLibrary = true;
        loaded.clear();
    }

    static void label(AVFrame& picture, AVColorTransferCharacteristic transfer,
                      AVColorSpace space = AVCOL_SPC_BT2020_NCL, AVColorPrimaries primaries = AVCOL_PRI_BT2020,
                      AVColorRange range = AVCOL_RANGE_MPEG) {
        picture.color_trc = transfer;
        picture.colorspace = space;
        picture.color_primaries = primaries;
        picture.color_range = range;
    }
    std::vector<uint8_t> convert(const AVFrame& picture) {
        PackedFrame frame(picture.width, picture.height);
        converter_->label(picture, *frame);
        EXPECT_TRUE(converter_->convert(picture, *frame));
        EXPECT_TRUE(frame.isTailUntouched());
        range_ = frame->colorRange;
        space_ = frame->colorSpace;
        return planesOf(*frame);
    }
    void expectBt709() const {
        EXPECT_EQ(range_, 1);
        EXPECT_EQ(space_, 1);
    }

    test::LogCapture log_;
    std::unique_ptr<PictureConverter> converter_ = PictureConverter::create({.allCodecs = true});
    int range_ = -1;
    int space_ = -1;
};

struct WidePicture {
    const char* name;
    AVPixelFormat format;
    AVColorTransferCharacteristic transfer;
    AVColorSpace space = AVCOL_SPC_BT2020_NCL;
    AVColorPrimaries primaries = AVCOL_PRI_BT2020;
    AVColorRange range = AVCOL_RANGE_MPEG;

    friend std::ostream& operator<<(std::ostream& out, const WidePicture& row) { return out << row.name; }
};

class WidePictures : public PictureMapping, public testing::WithParamInterface<WidePicture> {};

TEST_P(WidePictures, AreMappedToBt709) {
    const auto& row = GetParam();
    const PictureFile file(row.format, 192, 108);
    const auto picture = file.read();
    label(*picture, row.transfer, row.space, row.primaries, row.range);
    const auto bytes = convert(*picture);
    expectBt709();
    EXPECT_THAT(loaded, testing::SizeIs(1));
    EXPECT_THAT(log_.lines(), IsEmpty());
    const bool isBright = row.transfer == AVCOL_TRC_SMPTE2084 || row.transfer == AVCOL_TRC_ARIB_STD_B67;
    EXPECT_LE(test::largestDifference(
                  bytes, file.filtered(isBright ? mapping(*picture)
                                                : tags(*picture) + ",zscale=p=bt709:t=bt709:m=bt709:r=limited"
                                                                   ":d=ordered")),
              1);
}

INSTANTIATE_TEST_SUITE_P(
    , WidePictures,
    testing::Values(WidePicture{"Pq", AV_PIX_FMT_YUV420P10LE, AVCOL_TRC_SMPTE2084},
                    WidePicture{"PqFromHardware", AV_PIX_FMT_P010LE, AVCOL_TRC_SMPTE2084},
                    WidePicture{"PqIn422", AV_PIX_FMT_YUV422P10LE, AVCOL_TRC_SMPTE2084},
                    WidePicture{"PqIn444OfFullRange", AV_PIX_FMT_YUV444P12LE, AVCOL_TRC_SMPTE2084, AVCOL_SPC_BT2020_NCL,
                                AVCOL_PRI_BT2020, AVCOL_RANGE_JPEG},
                    WidePicture{"PqInIctcp", AV_PIX_FMT_YUV420P10LE, AVCOL_TRC_SMPTE2084, AVCOL_SPC_ICTCP},
                    WidePicture{"PqInP3", AV_PIX_FMT_YUV420P10LE, AVCOL_TRC_SMPTE2084, AVCOL_SPC_BT2020_NCL,
                                AVCOL_PRI_SMPTE432},
                    WidePicture{"PqInRgb", AV_PIX_FMT_GBRP12LE, AVCOL_TRC_SMPTE2084, AVCOL_SPC_RGB, AVCOL_PRI_BT2020,
                                AVCOL_RANGE_JPEG},
                    WidePicture{"Hlg", AV_PIX_FMT_YUV420P10LE, AVCOL_TRC_ARIB_STD_B67},
                    WidePicture{"HlgInEightBits", AV_PIX_FMT_YUV420P, AVCOL_TRC_ARIB_STD_B67},
                    WidePicture{"Bt2020", AV_PIX_FMT_YUV420P10LE, AVCOL_TRC_BT709},
                    WidePicture{"Bt2020InEightBits", AV_PIX_FMT_YUV420P, AVCOL_TRC_BT709},
                    WidePicture{"Ycgco", AV_PIX_FMT_YUV444P, AVCOL_TRC_BT709, AVCOL_SPC_YCGCO, AVCOL_PRI_BT709}),
    [](const testing::TestParamInfo<WidePicture>& row) { return row.param.name; });

TEST_F(PictureMapping, TakesWhatIsNotStatedForBt2020) {
    const PictureFile file(AV_PIX_FMT_YUV420P10LE, 96, 54);
    const auto picture = file.read();
    label(*picture, AVCOL_TRC_SMPTE2084);
    const auto expected = convert(*picture);
    label(*picture, AVCOL_TRC_SMPTE2084, AVCOL_SPC_UNSPECIFIED, AVCOL_PRI_UNSPECIFIED, AVCOL_RANGE_UNSPECIFIED);
    EXPECT_EQ(convert(*picture), expected);
    label(*picture, AVCOL_TRC_BT2020_10);
    const auto ordinary = convert(*picture);
    EXPECT_NE(ordinary, expected);
    label(*picture, AVCOL_TRC_UNSPECIFIED, AVCOL_SPC_BT2020_NCL, AVCOL_PRI_UNSPECIFIED);
    EXPECT_EQ(convert(*picture), ordinary);
    label(*picture, AVCOL_TRC_UNSPECIFIED, AVCOL_SPC_UNSPECIFIED, AVCOL_PRI_BT2020);
    EXPECT_EQ(convert(*picture), ordinary);
}

TEST_F(PictureMapping, GoesByTheBrightnessThatIsStated) {
    const PictureFile file(AV_PIX_FMT_YUV420P10LE, 96, 54);
    const auto picture = file.read();
    label(*picture, AVCOL_TRC_SMPTE2084);
    const auto expectPeak = [&](int nits) {
        EXPECT_LE(test::largestDifference(convert(*picture), file.filtered(mapping(*picture, nits))), 1) << nits;
    };
    auto* screen = av_mastering_display_metadata_create_side_data(picture.get());
    screen->has_luminance = 1;
    screen->max_luminance = {400, 1};
    expectPeak(400);
    auto* content = av_content_light_metadata_create_side_data(picture.get());
    expectPeak(400);
    content->MaxCLL = 4000;
    expectPeak(4000);
    content->MaxCLL = 65535;
    expectPeak(10000);
    content->MaxCLL = 51;
    expectPeak(203);
}

// Where the pictures themselves say nothing.
TEST_F(PictureMapping, GoesByTheBrightnessThatTheContainerStates) {
    const std::unique_ptr<AVFormatContext, decltype(&avformat_free_context)> container(avformat_alloc_context(),
                                                                                       avformat_free_context);
    AVStream* stream = avformat_new_stream(container.get(), nullptr);
    auto* screen = reinterpret_cast<AVMasteringDisplayMetadata*>(
        test::newSideData(stream, AV_PKT_DATA_MASTERING_DISPLAY_METADATA, sizeof(AVMasteringDisplayMetadata)));
    screen->has_luminance = 1;
    screen->max_luminance = {600, 1};
    const auto tell = [&] {
        AVCodecParameters* parameters = compat::copyParameters(stream);
        converter_->setParameters(*parameters);
        compat::freeParameters(&parameters);
    };
    const PictureFile file(AV_PIX_FMT_YUV420P10LE, 96, 54);
    const auto picture = file.read();
    label(*picture, AVCOL_TRC_SMPTE2084);
    const auto expectPeak = [&](int nits) {
        EXPECT_LE(test::largestDifference(convert(*picture), file.filtered(mapping(*picture, nits))), 1) << nits;
    };
    tell();
    expectPeak(600);
    reinterpret_cast<AVContentLightMetadata*>(
        test::newSideData(stream, AV_PKT_DATA_CONTENT_LIGHT_LEVEL, sizeof(AVContentLightMetadata)))
        ->MaxCLL = 4000;
    tell();
    expectPeak(4000);
    av_content_light_metadata_create_side_data(picture.get())->MaxCLL = 400;
    expectPeak(400);
    av_frame_remove_side_data(picture.get(), AV_FRAME_DATA_CONTENT_LIGHT_LEVEL);
    converter_->release();
    expectPeak(1000);
}

TEST_F(PictureMapping, TakesOddSizes) {
    for (const auto& [width, height] : std::vector<std::pair<int, int>>{{97, 54}, {96, 53}, {33, 17}, {1, 1}, {3, 2}}) {
        const PictureFile file(AV_PIX_FMT_YUV444P10LE, width, height);
        const auto picture = file.read();
        label(*picture, AVCOL_TRC_SMPTE2084);
        const auto bytes = convert(*picture);
        EXPECT_THAT(log_.lines(), IsEmpty());
        const auto larger = file.filtered(mapping(*picture) + ",format=yuv444p");
        const size_t pixels = static_cast<size_t>(width * height);
        EXPECT_LE(test::largestDifference({bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(pixels)},
                                          {larger.begin(), larger.begin() + static_cast<ptrdiff_t>(pixels)}),
                  1)
            << width << "x" << height;
    }
}

TEST_F(PictureMapping, LoadsNothingForOrdinaryPictures) {
    for (const auto format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUV420P10LE, AV_PIX_FMT_RGB24, AV_PIX_FMT_GRAY8}) {
        const auto picture = test::makePicture(0, 64, 48, format);
        label(*picture, AVCOL_TRC_BT709, AVCOL_SPC_BT709, AVCOL_PRI_BT709);
        convert(*picture);
    }
    EXPECT_THAT(loaded, IsEmpty());
}

TEST_F(PictureMapping, FallsBackToThePlainConversionAndSaysSoOnce) {
    hasFilterLibrary = false;
    const PictureFile file(AV_PIX_FMT_YUV420P10LE, 96, 54);
    const auto picture = file.read();
    label(*picture, AVCOL_TRC_SMPTE2084);
    log_.clear();
    std::vector<uint8_t> bytes;
    for (int i = 0; i < 3; ++i) {
        bytes = convert(*picture);
    }
    expectBt709();
    EXPECT_THAT(log_.lines(), ElementsAre("[ToneMapper]: map, can't map the colours of 96x54 yuv420p10le, they are "
                                          "converted plainly\n"));
    EXPECT_THAT(loaded, testing::SizeIs(1));
    EXPECT_LE(test::largestDifference(
                  bytes, file.filtered(std::string("scale=in_color_matrix=bt2020:in_range=tv:out_color_matrix=bt709:"
                                                   "out_range=tv:") +
                                       kExact)),
              1);
    // Another kind of pictures is tried again.
    hasFilterLibrary = true;
    label(*picture, AVCOL_TRC_ARIB_STD_B67);
    convert(*picture);
    EXPECT_THAT(log_.lines(), testing::SizeIs(1));
}

TEST_F(PictureMapping, FollowsPicturesThatChange) {
    const PictureFile wide(AV_PIX_FMT_YUV420P10LE, 96, 54);
    const PictureFile rgb(AV_PIX_FMT_RGB24, 64, 32);
    const PictureFile full(AV_PIX_FMT_YUVJ422P, 50, 20, "out_range=pc");
    const auto show = [&](const PictureFile& file, AVColorTransferCharacteristic transfer, AVColorSpace space,
                          AVColorPrimaries primaries) {
        const auto picture = file.read();
        label(*picture, transfer, space, primaries);
        return convert(*picture);
    };
    for (int round = 0; round < 2; ++round) {
        const auto pq = wide.read();
        label(*pq, AVCOL_TRC_SMPTE2084);
        EXPECT_LE(test::largestDifference(convert(*pq), wide.filtered(mapping(*pq))), 1);
        expectBt709();
        EXPECT_LE(
            test::largestDifference(show(rgb, AVCOL_TRC_UNSPECIFIED, AVCOL_SPC_RGB, AVCOL_PRI_UNSPECIFIED),
                                    rgb.filtered(std::string("scale=out_color_matrix=bt601:out_range=tv:") + kExact)),
            1);
        EXPECT_EQ(space_, 2);
        label(*pq, AVCOL_TRC_ARIB_STD_B67);
        EXPECT_LE(test::largestDifference(convert(*pq), wide.filtered(mapping(*pq))), 1);
        EXPECT_LE(test::largestDifference(show(full, AVCOL_TRC_UNSPECIFIED, AVCOL_SPC_BT470BG, AVCOL_PRI_UNSPECIFIED),
                                          full.filtered(std::string("scale=in_range=pc:out_range=tv:") + kExact)),
                  1);
        EXPECT_EQ(range_, 1);
        converter_->release();
    }
}

// Alpha from nothing at the top to all at the bottom.
struct TransparentPicture {
    AVPixelFormat format;
    AVColorRange range = AVCOL_RANGE_MPEG;
    int width = 256;
    int height = 64;

    friend std::ostream& operator<<(std::ostream& out, const TransparentPicture& row) {
        return out << av_get_pix_fmt_name(row.format);
    }
};

class TransparentPictures : public PictureMapping, public testing::WithParamInterface<TransparentPicture> {};

// By way of RGB of the picture's depth, or, of a picture with less chroma, as it is laid over a black one.
std::string reference(const TransparentPicture& row) {
    const auto& format = *av_pix_fmt_desc_get(row.format);
    const bool isRgb = (format.flags & AV_PIX_FMT_FLAG_RGB) != 0;
    if (format.log2_chroma_w > 0) {
        const std::string overlaid = format.comp[0].depth > 8   ? "yuv422p10"
                                     : format.log2_chroma_h > 0 ? "yuv420"
                                                                : "yuv422";
        return "null[over];color=c=black:s=" + std::to_string(row.width) + "x" + std::to_string(row.height) +
               "[black];[black][over]overlay=shortest=1:format=" + overlaid + ",scale=" + kExact;
    }
    const std::string bits = isRgb && format.comp[0].depth == 8 ? "" : "16le";
    const std::string range = row.range == AVCOL_RANGE_JPEG ? "pc" : "tv";
    return std::string(isRgb ? "" : "scale=in_range=" + range + ":" + kExact + ",") + "format=gbrap" + bits +
           ",premultiply=inplace=1,format=gbrp" + bits + ",scale=out_range=tv:" + kExact;
}

TEST_P(TransparentPictures, StandOnBlack) {
    const auto& row = GetParam();
    const bool isRgb = (av_pix_fmt_desc_get(row.format)->flags & AV_PIX_FMT_FLAG_RGB) != 0;
    const std::string range = row.range == AVCOL_RANGE_JPEG ? "pc" : "tv";
    const PictureFile file(row.format, row.width, row.height, isRgb ? "" : "out_range=" + range,
                           "format=gbrap16le,geq=r='r(X,Y)':g='g(X,Y)':b='b(X,Y)':a='65535*floor(8*Y/H)/7'");
    const auto picture = file.read();
    label(*picture, AVCOL_TRC_UNSPECIFIED, isRgb ? AVCOL_SPC_RGB : AVCOL_SPC_BT470BG, AVCOL_PRI_UNSPECIFIED, row.range);
    const auto bytes = convert(*picture);
    EXPECT_EQ(range_, 1);
    EXPECT_LE(test::largestDifference(bytes, file.filtered(reference(row))), 1);
    EXPECT_EQ(bytes[0], 16);
    EXPECT_NEAR(bytes[static_cast<size_t>(row.width * (row.height - 1))], 235, 1);
}

INSTANTIATE_TEST_SUITE_P(
    , TransparentPictures,
    testing::Values(TransparentPicture{AV_PIX_FMT_RGBA}, TransparentPicture{AV_PIX_FMT_BGRA},
                    TransparentPicture{AV_PIX_FMT_ARGB}, TransparentPicture{AV_PIX_FMT_ABGR},
                    TransparentPicture{AV_PIX_FMT_GBRAP}, TransparentPicture{AV_PIX_FMT_GBRAP12LE},
                    TransparentPicture{AV_PIX_FMT_GBRAP16BE}, TransparentPicture{AV_PIX_FMT_RGBA64LE},
                    TransparentPicture{AV_PIX_FMT_RGBA64BE}, TransparentPicture{AV_PIX_FMT_GBRAPF32LE},
                    TransparentPicture{AV_PIX_FMT_YUVA420P},
                    TransparentPicture{AV_PIX_FMT_YUVA444P12LE, AVCOL_RANGE_JPEG},
                    TransparentPicture{AV_PIX_FMT_YUVA422P}, TransparentPicture{AV_PIX_FMT_YUVA444P},
                    TransparentPicture{AV_PIX_FMT_YUVA422P10LE}, TransparentPicture{AV_PIX_FMT_YUVA444P10LE},
                    TransparentPicture{AV_PIX_FMT_YUVA444P12LE}, TransparentPicture{AV_PIX_FMT_YUVA444P16BE},
                    TransparentPicture{AV_PIX_FMT_YUVA444P10LE, AVCOL_RANGE_MPEG, 97, 33},
                    TransparentPicture{AV_PIX_FMT_BGRA, AVCOL_RANGE_MPEG, 97, 33}),
    [](const testing::TestParamInfo<TransparentPicture>& row) {
        return std::to_string(row.index) + "_" + av_get_pix_fmt_name(row.param.format);
    });

TEST_F(PictureMapping, PutsGrayAndPalettesOnBlackToo) {
    auto gray = test::makePicture(0, 64, 32, AV_PIX_FMT_YA8);
    for (int y = 0; y < 32; ++y) {
        for (int x = 0; x < 64; ++x) {
            gray->data[0][y * gray->linesize[0] + 2 * x] = 200;
            gray->data[0][y * gray->linesize[0] + 2 * x + 1] = static_cast<uint8_t>(y < 16 ? 0 : 255);
        }
    }
    auto bytes = convert(*gray);
    EXPECT_EQ(bytes[0], 16);
    EXPECT_NEAR(bytes[64 * 31], 16 + 200 * 219 / 255, 1);
    EXPECT_EQ(bytes[64 * 32], 128);

    // An entry of a palette is a number whose highest byte is alpha.
    const auto palette = test::makePicture(0, 64, 32, AV_PIX_FMT_PAL8);
    const auto same = test::makePicture(0, 64, 32, AV_PIX_FMT_BGRA);
    for (int i = 0; i < 256; ++i) {
        reinterpret_cast<uint32_t*>(palette->data[1])[i] = static_cast<uint32_t>(i) * 0x01330507U + 0x20406080U;
    }
    for (int y = 0; y < 32; ++y) {
        for (int x = 0; x < 64; ++x) {
            const auto entry =
                reinterpret_cast<uint32_t*>(palette->data[1])[palette->data[0][y * palette->linesize[0] + x]];
            for (int byte = 0; byte < 4; ++byte) {
                same->data[0][y * same->linesize[0] + 4 * x + byte] = static_cast<uint8_t>(entry >> 8 * byte);
            }
        }
    }
    bytes = convert(*palette);
    EXPECT_EQ(range_, 1);
    EXPECT_EQ(space_, 2);
    EXPECT_LE(test::largestDifference(bytes, convert(*same)), 1);
}

}  // namespace
}  // namespace kelp

void* __wrap_dlopen(const char* name, int flags) {
    if (std::string(name ? name : "").find("avfilter") == std::string::npos) {
        return __real_dlopen(name, flags);
    }
    kelp::loaded.push_back(name);
    return kelp::hasFilterLibrary ? __real_dlopen(name, flags) : nullptr;
}
