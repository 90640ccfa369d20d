#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <ostream>
#include <string>

#include "decode/picture_converter.h"
#include "decode/picture_files.h"
#include "runtime/playback_options.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

// Every format of a picture in its right colours, compared with what the ffmpeg command makes of it, and with the
// colours that it was made from as a window shows them.
namespace kelp {
namespace {

using test::barColor;
using test::kBars;
using test::PackedFrame;
using test::PictureFile;
using test::planesOf;
using test::shownColor;

struct PictureFormat {
    const char* format;
    AVColorRange range = AVCOL_RANGE_MPEG;
    AVColorSpace space = AVCOL_SPC_BT709;
    int width = 256;
    int height = 32;
    int shownTolerance = 4;

    AVPixelFormat id() const { return av_get_pix_fmt(format); }
    friend std::ostream& operator<<(std::ostream& out, const PictureFormat& row) { return out << row.format; }
};

constexpr auto kFull = AVCOL_RANGE_JPEG;
constexpr auto kLimited = AVCOL_RANGE_MPEG;
constexpr auto kUnknownRange = AVCOL_RANGE_UNSPECIFIED;
constexpr auto kBt709 = AVCOL_SPC_BT709;
constexpr auto kBt601 = AVCOL_SPC_BT470BG;
constexpr auto kUnknownSpace = AVCOL_SPC_UNSPECIFIED;

std::string matrixOf(AVColorSpace space) {
    switch (space) {
        case AVCOL_SPC_BT709:
            return "bt709";
        case AVCOL_SPC_SMPTE240M:
            return "smpte240m";
        default:
            return "bt601";
    }
}

class PictureFormats : public testing::TestWithParam<PictureFormat> {};

TEST_P(PictureFormats, ComeOutInTheirColors) {
    const auto& row = GetParam();
    const auto* descriptor = av_pix_fmt_desc_get(row.id());
    ASSERT_TRUE(descriptor);
    const bool isRgb = (descriptor->flags & AV_PIX_FMT_FLAG_RGB) != 0;
    const bool isGray = !isRgb && descriptor->nb_components < 3;
    const bool isFull = row.range == kFull || std::string(row.format).starts_with("yuvj") || isGray;
    const std::string range = isFull ? "pc" : "tv";
    const std::string in = "color_matrix=" + matrixOf(row.space) + ":";
    const PictureFile file(row.id(), row.width, row.height, isRgb ? "" : "out_" + in + "out_range=" + range);
    const auto picture = file.read();
    picture->color_range = row.range;
    picture->colorspace = isRgb ? AVCOL_SPC_RGB : row.space;

    PackedFrame frame(row.width, row.height);
    const auto converter = PictureConverter::create({.allCodecs = true});
    converter->label(*picture, *frame);
    ASSERT_TRUE(converter->convert(*picture, *frame));
    EXPECT_TRUE(frame.isTailUntouched());

    EXPECT_NE(frame->colorRange, 2);
    const std::string target = isRgb                              ? (row.height > 576 ? "bt709" : "bt601")
                               : row.space == AVCOL_SPC_SMPTE240M ? "bt709"
                                                                  : matrixOf(row.space);
    const auto expected =
        file.filtered("scale=in_" + in + (isRgb ? "" : "in_range=" + range + ":") + "out_color_matrix=" + target +
                      ":out_range=tv:flags=bicubic+accurate_rnd+full_chroma_int+full_chroma_inp");
    EXPECT_LE(test::largestDifference(planesOf(*frame), expected), 1);

    for (int bar = 0; bar < kBars; ++bar) {
        auto color = barColor(bar);
        if (isGray) {
            color.red = color.green = color.blue =
                static_cast<int>(0.5 + 0.299 * color.red + 0.587 * color.green + 0.114 * color.blue);
        }
        const auto shown = shownColor(*frame, bar);
        const int off = std::max(
            {std::abs(shown.red - color.red), std::abs(shown.green - color.green), std::abs(shown.blue - color.blue)});
        EXPECT_LE(off, row.shownTolerance)
            << "bar " << bar << ": " << shown.red << " " << shown.green << " " << shown.blue << ", not " << color.red
            << " " << color.green << " " << color.blue;
    }
}

INSTANTIATE_TEST_SUITE_P(
    , PictureFormats,
    testing::Values(
        // 4:2:0, 8 bits
        PictureFormat{"yuv420p"}, PictureFormat{"yuv420p", kLimited, kBt601},
        PictureFormat{"yuv420p", kUnknownRange, kUnknownSpace}, PictureFormat{"yuv420p", kFull},
        PictureFormat{"yuv420p", kFull, kBt601}, PictureFormat{"yuvj420p", kFull},
        PictureFormat{"yuvj420p", kFull, kBt601}, PictureFormat{"yuvj420p", kUnknownRange, kUnknownSpace},
        PictureFormat{"yuv420p", kLimited, AVCOL_SPC_SMPTE170M},
        PictureFormat{"yuv420p", kLimited, AVCOL_SPC_SMPTE240M}, PictureFormat{"nv12"}, PictureFormat{"nv12", kFull},
        PictureFormat{"nv21"}, PictureFormat{"nv21", kFull},
        // other chroma
        PictureFormat{"yuv422p"}, PictureFormat{"yuv422p", kFull}, PictureFormat{"yuvj422p", kFull, kBt601},
        PictureFormat{"yuv444p"}, PictureFormat{"yuv444p", kFull}, PictureFormat{"yuvj444p", kFull, kBt601},
        PictureFormat{"yuv440p"}, PictureFormat{"yuvj440p", kFull, kBt601}, PictureFormat{"yuv411p"},
        PictureFormat{"yuvj411p", kFull, kBt601}, PictureFormat{"yuv410p"}, PictureFormat{"yuv410p", kFull},
        PictureFormat{"yuyv422"}, PictureFormat{"uyvy422", kFull}, PictureFormat{"nv24"},
        // more bits
        PictureFormat{"yuv420p9le"}, PictureFormat{"yuv420p10le"}, PictureFormat{"yuv420p10le", kFull},
        PictureFormat{"yuv420p10be", kLimited, kBt601}, PictureFormat{"yuv420p12le"},
        PictureFormat{"yuv420p16le", kFull}, PictureFormat{"yuv420p16be"}, PictureFormat{"p010le"},
        PictureFormat{"p010le", kFull}, PictureFormat{"p016le"}, PictureFormat{"yuv422p10le"},
        PictureFormat{"yuv422p10be", kFull}, PictureFormat{"yuv422p12le"}, PictureFormat{"yuv422p16le"},
        PictureFormat{"yuv440p10le"}, PictureFormat{"yuv444p10le"}, PictureFormat{"yuv444p10be", kFull},
        PictureFormat{"yuv444p12le", kFull}, PictureFormat{"yuv444p14le"}, PictureFormat{"yuv444p16be"},
        PictureFormat{"p210le"}, PictureFormat{"p410le"},
        // gray, always of BT.601 and full range to the command
        PictureFormat{"gray", kUnknownRange, kBt601}, PictureFormat{"gray", kFull, kBt601},
        PictureFormat{"gray10le", kFull, kBt601}, PictureFormat{"gray12le", kFull, kBt601},
        PictureFormat{"gray16be", kFull, kBt601},
        // RGB
        PictureFormat{"rgb24", kFull}, PictureFormat{"bgr24", kUnknownRange}, PictureFormat{"rgba", kFull},
        PictureFormat{"bgra"}, PictureFormat{"argb"}, PictureFormat{"abgr"}, PictureFormat{"rgb0"},
        PictureFormat{"bgr0"}, PictureFormat{"gbrp", kFull}, PictureFormat{"gbrap"}, PictureFormat{"gbrp10le"},
        PictureFormat{"gbrp12be"}, PictureFormat{"gbrp16le"}, PictureFormat{"gbrap12le"}, PictureFormat{"rgb48le"},
        PictureFormat{"rgb48be"}, PictureFormat{"rgba64le"}, PictureFormat{"rgba64be"}, PictureFormat{"gbrpf32le"},
        PictureFormat{"x2rgb10le"}, PictureFormat{"rgb565le", kFull, kBt709, 256, 32, 9},
        PictureFormat{"rgb555le", kFull, kBt709, 256, 32, 9}, PictureFormat{"rgb24", kFull, kBt709, 256, 720},
        PictureFormat{"gbrp", kFull, kBt709, 64, 578},
        // odd sizes
        PictureFormat{"yuv420p", kFull, kBt709, 251, 33}, PictureFormat{"yuv422p10le", kLimited, kBt601, 251, 31},
        PictureFormat{"rgb24", kFull, kBt709, 129, 17}, PictureFormat{"yuv444p", kFull, kBt709, 97, 19},
        PictureFormat{"gray", kFull, kBt601, 99, 21}, PictureFormat{"nv12", kFull, kBt709, 131, 15}),
    [](const testing::TestParamInfo<PictureFormat>& row) {
        return std::to_string(row.index) + "_" + row.param.format;
    });

// Whatever else the library for conversions knows, made by it from one colour.
class OtherPictureFormats : public testing::Test {
protected:
    const test::Rgb color_ = barColor(5);

    // A picture in that colour, or of anything where the library can't make it; whether it could.
    bool fill(AVFrame& picture) const {
        const auto format = static_cast<AVPixelFormat>(picture.format);
        if (!sws_isSupportedOutput(format) || format == AV_PIX_FMT_PAL8) {
            return false;
        }
        const auto color = test::makePicture(0, picture.width, picture.height, AV_PIX_FMT_RGB24);
        for (int i = 0; i < picture.height * color->linesize[0]; ++i) {
            const int part = i % color->linesize[0] % 3;
            color->data[0][i] = static_cast<uint8_t>(part == 0 ? color_.red : part == 1 ? color_.green : color_.blue);
        }
        SwsContext* scaler =
            sws_getContext(picture.width, picture.height, AV_PIX_FMT_RGB24, picture.width, picture.height, format,
                           SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr, nullptr, nullptr);
        const int* bt601 = sws_getCoefficients(SWS_CS_ITU601);
        sws_setColorspaceDetails(scaler, bt601, 1, bt601, picture.color_range == kFull, 0, 1 << 16, 1 << 16);
        sws_scale(scaler, color->data, color->linesize, 0, picture.height, picture.data, picture.linesize);
        sws_freeContext(scaler);
        return true;
    }

    static int fewestBits(const AVPixFmtDescriptor& format) {
        int fewest = 8;
        for (int i = 0; i < format.nb_components; ++i) {
            fewest = std::min(fewest, format.comp[i].depth);
        }
        return fewest;
    }
};

TEST_F(OtherPictureFormats, ComeOutInTheirColorsToo) {
    const auto converter = PictureConverter::create({.allCodecs = true});
    int checked = 0;
    for (const AVPixFmtDescriptor* format = nullptr; (format = av_pix_fmt_desc_next(format));) {
        const AVPixelFormat id = av_pix_fmt_desc_get_id(format);
        if ((format->flags & AV_PIX_FMT_FLAG_HWACCEL) != 0 || !sws_isSupportedInput(id)) {
            continue;
        }
        SCOPED_TRACE(format->name);
        const bool isRgb = (format->flags & AV_PIX_FMT_FLAG_RGB) != 0;
        const bool isGray = !isRgb && format->nb_components < 3;
        const auto picture = test::makePicture(0, 256, 32, id);
        picture->color_range = isGray || std::string(format->name).starts_with("yuvj") ? kFull : kLimited;
        picture->colorspace = isRgb ? AVCOL_SPC_RGB : kBt601;
        const bool isKnown = fill(*picture);
        PackedFrame frame(picture->width, picture->height);
        converter->label(*picture, *frame);
        EXPECT_TRUE(converter->convert(*picture, *frame));
        EXPECT_TRUE(frame.isTailUntouched());
        const int bits = fewestBits(*format);
        if (!isKnown || bits == 1) {
            continue;  // what the command has for it is dithered
        }
        ++checked;
        auto color = color_;
        if (isGray) {
            color.red = color.green = color.blue =
                static_cast<int>(0.5 + 0.299 * color.red + 0.587 * color.green + 0.114 * color.blue);
        }
        const auto shown = shownColor(*frame, 3);
        const int tolerance = 6 + (bits < 8 ? 256 >> bits : 0);
        EXPECT_NEAR(shown.red, color.red, tolerance);
        EXPECT_NEAR(shown.green, color.green, tolerance);
        EXPECT_NEAR(shown.blue, color.blue, tolerance);
    }
    EXPECT_GT(checked, 100);
}

}  // namespace
}  // namespace kelp
