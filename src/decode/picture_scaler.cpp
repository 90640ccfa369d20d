#include "decode/picture_scaler.h"

#include <utility>

#include "decode/video_frame_info.h"
#include "kelp_player/log.h"

extern "C" {
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

namespace kelp {

namespace {

constexpr char kTag[] = "FFVideoDecoder";
// A row of this many pixels is whole vectors for the conversion, in the chroma planes too.
constexpr int kVectorPixels = 32;
constexpr uintptr_t kVectorAlignment = 16;
constexpr int kExactFlags = SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT | SWS_FULL_CHR_H_INP;

// Whether the conversion's writes stay within the frame's packed rows. Equal formats are copied row by row; all else
// is written by whole vectors, some of them to aligned addresses only.
bool canConvertInPlace(const PictureScaler::Conversion& conversion, const VideoFrameInfo& frame) {
    if (frame.width % 2 != 0 || frame.height % 2 != 0) {
        return false;
    }
    if (conversion.format == AV_PIX_FMT_YUV420P && !conversion.colors) {
        return true;
    }
    return frame.width % kVectorPixels == 0 && reinterpret_cast<uintptr_t>(frame.data[0]) % kVectorAlignment == 0;
}

SwsContext* makeContext(const PictureScaler::Conversion& conversion) {
    const auto& [format, width, height, colors] = conversion;
    if (!colors) {
        return sws_getCachedContext(nullptr, width, height, format, width, height, AV_PIX_FMT_YUV420P, SWS_BICUBIC,
                                    nullptr, nullptr, nullptr);
    }
    SwsContext* context = sws_alloc_context();
    if (!context) {
        return nullptr;
    }
    // The ranges are known before it begins: what it chooses to do depends on them.
    for (const auto& [name, value] : {std::pair<const char*, int64_t>{"srcw", width},
                                      {"srch", height},
                                      {"src_format", format},
                                      {"dstw", width},
                                      {"dsth", height},
                                      {"dst_format", AV_PIX_FMT_YUV420P},
                                      {"src_range", colors->fullRange},
                                      {"dst_range", 0},
                                      {"sws_flags", kExactFlags}}) {
        av_opt_set_int(context, name, value, 0);
    }
    constexpr int kOne = 1 << 16;
    if (sws_init_context(context, nullptr, nullptr) < 0 ||
        sws_setColorspaceDetails(context, sws_getCoefficients(colors->from), colors->fullRange,
                                 sws_getCoefficients(colors->to), 0, 0, kOne, kOne) < 0) {
        sws_freeContext(context);
        return nullptr;
    }
    return context;
}

}  // namespace

bool PictureScaler::convert(const uint8_t* const* data, const int* linesize, const Conversion& conversion,
                            const VideoFrameInfo& frame) {
    // The library isn't asked whether its context still fits: it puts other names in the place of some formats, as of
    // those whose name tells a full range, and compares with these.
    if (conversion != conversion_) {
        sws_freeContext(std::exchange(swsContext_, nullptr));
        conversion_ = conversion;
    }
    if (!swsContext_) {
        swsContext_ = makeContext(conversion);
    }
    if (!swsContext_) {
        Log::Error(kTag, "%s, get swscale context failed\n", "DeliverVideoFrame");
        return false;
    }
    if (canConvertInPlace(conversion, frame)) {
        sws_scale(swsContext_, data, linesize, 0, frame.height, frame.data, frame.linesize);
        return true;
    }
    if (!paddedPicture_.resize(frame.width, frame.height)) {
        Log::Error(kTag, "%s, no memory for a picture of %dx%d\n", "DeliverVideoFrame", frame.width, frame.height);
        return false;
    }
    sws_scale(swsContext_, data, linesize, 0, frame.height, paddedPicture_.data(), paddedPicture_.linesize());
    paddedPicture_.copyTo(frame);
    return true;
}

void PictureScaler::release() {
    sws_freeContext(std::exchange(swsContext_, nullptr));
    paddedPicture_.release();
}

}  // namespace kelp
