#include "decode/picture_colors.h"

#include <algorithm>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/mastering_display_metadata.h>
#include <libavutil/pixdesc.h>
}

namespace kelp {

namespace {

constexpr int kMaxSdLines = 576;  // SDL's limit too
constexpr int32_t kLimited = 1;
constexpr int32_t kBt709 = 1;
constexpr int32_t kBt601 = 2;
constexpr int kDefaultPeakNits = 1000;
constexpr int kMinPeakNits = 203;  // white on paper
constexpr int kMaxPeakNits = 10000;

enum class Kind { kRgb, kGray, kYuv };

Kind kindOf(AVPixelFormat format) {
    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
    if (!descriptor || (descriptor->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL)) ||
        format == AV_PIX_FMT_XYZ12LE || format == AV_PIX_FMT_XYZ12BE) {
        return Kind::kRgb;
    }
    return descriptor->nb_components < 3 ? Kind::kGray : Kind::kYuv;
}

// Some formats have an older name that tells a full range.
AVPixelFormat withoutRange(AVPixelFormat format) {
    switch (format) {
        case AV_PIX_FMT_YUVJ420P:
            return AV_PIX_FMT_YUV420P;
        case AV_PIX_FMT_YUVJ422P:
            return AV_PIX_FMT_YUV422P;
        case AV_PIX_FMT_YUVJ444P:
            return AV_PIX_FMT_YUV444P;
        case AV_PIX_FMT_YUVJ440P:
            return AV_PIX_FMT_YUV440P;
        case AV_PIX_FMT_YUVJ411P:
            return AV_PIX_FMT_YUV411P;
        default:
            return format;
    }
}

bool isBeyondBt709(AVColorSpace space) {
    return space == AVCOL_SPC_YCGCO || space >= AVCOL_SPC_BT2020_NCL;
}

template <class Metadata>
const Metadata* sideData(const AVFrame& picture, AVFrameSideDataType type) {
    const AVFrameSideData* data = av_frame_get_side_data(&picture, type);
    return data ? reinterpret_cast<const Metadata*>(data->data) : nullptr;
}

int peakNitsOf(const AVFrame& picture, int statedPeakNits) {
    const int ownNits = PictureColors::peakNits(
        sideData<AVContentLightMetadata>(picture, AV_FRAME_DATA_CONTENT_LIGHT_LEVEL),
        sideData<AVMasteringDisplayMetadata>(picture, AV_FRAME_DATA_MASTERING_DISPLAY_METADATA));
    const int nits = ownNits > 0 ? ownNits : statedPeakNits;
    return nits > 0 ? std::max(nits, kMinPeakNits) : kDefaultPeakNits;
}

std::optional<PictureColors::Wide> wideOf(const AVFrame& picture, Kind kind, int statedPeakNits) {
    const bool isBright = picture.color_trc == AVCOL_TRC_SMPTE2084 || picture.color_trc == AVCOL_TRC_ARIB_STD_B67;
    const bool isOtherMatrix = kind == Kind::kYuv && isBeyondBt709(picture.colorspace);
    if (kind == Kind::kGray || !(isBright || isOtherMatrix || picture.color_primaries == AVCOL_PRI_BT2020)) {
        return std::nullopt;
    }
    PictureColors::Wide wide{picture.colorspace, isBright ? picture.color_trc : AVCOL_TRC_BT709,
                             picture.color_primaries, isBright ? peakNitsOf(picture, statedPeakNits) : 0};
    if (kind == Kind::kRgb) {
        wide.matrix = AVCOL_SPC_RGB;
    } else if (wide.matrix == AVCOL_SPC_UNSPECIFIED || wide.matrix == AVCOL_SPC_RGB) {
        wide.matrix = AVCOL_SPC_BT2020_NCL;
    }
    if (wide.primaries == AVCOL_PRI_UNSPECIFIED) {
        wide.primaries = wide.matrix == AVCOL_SPC_YCGCO && !isBright ? AVCOL_PRI_BT709 : AVCOL_PRI_BT2020;
    }
    return wide;
}

}  // namespace

PictureColors::PictureColors(const AVFrame& picture, int statedPeakNits)
    : format(withoutRange(static_cast<AVPixelFormat>(picture.format))) {
    const Kind kind = kindOf(format);
    // Gray pictures are as a rule stills, whose range is the full one, as it is to the library if nothing is stated.
    const bool fullRange = format != picture.format || picture.color_range == AVCOL_RANGE_JPEG ||
                           (kind == Kind::kGray && picture.color_range != AVCOL_RANGE_MPEG);
    wide = wideOf(picture, kind, statedPeakNits);
    range = kind == Kind::kRgb || fullRange || wide || picture.color_range == AVCOL_RANGE_MPEG ? kLimited : 0;
    AVColorSpace from = picture.colorspace;
    AVColorSpace to = AVCOL_SPC_BT709;
    if (kind == Kind::kRgb && !wide) {
        to = picture.height > kMaxSdLines ? AVCOL_SPC_BT709 : AVCOL_SPC_BT470BG;
        from = to;
        space = to == AVCOL_SPC_BT709 ? kBt709 : kBt601;
    } else if (wide || from == AVCOL_SPC_BT709 || from == AVCOL_SPC_SMPTE240M) {
        space = kBt709;
    } else {
        // The matrix of old American television is BT.601's, to a step.
        const bool isBt601 = from == AVCOL_SPC_BT470BG || from == AVCOL_SPC_SMPTE170M || from == AVCOL_SPC_FCC;
        from = to = AVCOL_SPC_BT470BG;
        space = isBt601 ? kBt601 : 0;
    }
    scaled = {from, to, fullRange};
}

int PictureColors::peakNits(const AVContentLightMetadata* content, const AVMasteringDisplayMetadata* screen) {
    if (content && content->MaxCLL > 0) {
        return static_cast<int>(std::min<unsigned>(content->MaxCLL, kMaxPeakNits));
    }
    const bool isScreenKnown = screen && screen->has_luminance && screen->max_luminance.den > 0;
    return isScreenKnown ? static_cast<int>(std::clamp(av_q2d(screen->max_luminance), 0.0, double{kMaxPeakNits})) : 0;
}

}  // namespace kelp
