#include "decode/black_background.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

extern "C" {
#include <libavutil/avconfig.h>
#include <libavutil/bswap.h>
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

namespace kelp {

namespace {

constexpr size_t kPaletteEntries = 256;

// How a sample lies in memory.
struct Byte {
    static float load(const uint8_t* from) { return *from; }
    static void store(uint8_t* to, float value) { *to = static_cast<uint8_t>(value + 0.5F); }
};

template <bool kSwapped>
struct Word {
    static float load(const uint8_t* from) {
        uint16_t word;
        std::memcpy(&word, from, sizeof(word));
        return kSwapped ? av_bswap16(word) : word;
    }
    static void store(uint8_t* to, float value) {
        auto word = static_cast<uint16_t>(value + 0.5F);
        word = kSwapped ? av_bswap16(word) : word;
        std::memcpy(to, &word, sizeof(word));
    }
};

template <bool kSwapped>
struct Float {
    static float load(const uint8_t* from) {
        uint32_t bits;
        std::memcpy(&bits, from, sizeof(bits));
        bits = kSwapped ? av_bswap32(bits) : bits;
        float value;
        std::memcpy(&value, &bits, sizeof(value));
        return value;
    }
    static void store(uint8_t* to, float value) {
        uint32_t bits;
        std::memcpy(&bits, &value, sizeof(bits));
        bits = kSwapped ? av_bswap32(bits) : bits;
        std::memcpy(to, &bits, sizeof(bits));
    }
};

// One component of the picture; `black` is its sample for black, `opaque` what alpha is at most. Chroma goes by the
// first alpha of those that it stands for.
struct Component {
    const AVComponentDescriptor& samples;
    const AVComponentDescriptor& alpha;
    int shiftX, shiftY;  // of chroma
    float black;
    float opaque;
};

template <class Sample>
void blend(const AVFrame& picture, AVFrame& result, const Component& component) {
    const auto& [samples, alpha, shiftX, shiftY, black, opaque] = component;
    const int width = AV_CEIL_RSHIFT(picture.width, shiftX);
    const int height = AV_CEIL_RSHIFT(picture.height, shiftY);
    const float part = 1 / opaque;
    const ptrdiff_t alphaStep = ptrdiff_t{alpha.step} << shiftX;
    for (int y = 0; y < height; ++y) {
        const uint8_t* from =
            picture.data[samples.plane] + ptrdiff_t{y} * picture.linesize[samples.plane] + samples.offset;
        const uint8_t* over =
            picture.data[alpha.plane] + (ptrdiff_t{y} << shiftY) * picture.linesize[alpha.plane] + alpha.offset;
        uint8_t* to = result.data[samples.plane] + ptrdiff_t{y} * result.linesize[samples.plane] + samples.offset;
        for (int x = 0; x < width; ++x) {
            Sample::store(to, black + (Sample::load(from) - black) * Sample::load(over) * part);
            from += samples.step;
            to += samples.step;
            over += alphaStep;
        }
    }
}

template <class Sample>
void blendAll(const AVFrame& picture, AVFrame& result, const AVPixFmtDescriptor& format, bool fullRange) {
    const bool isRgb = (format.flags & AV_PIX_FMT_FLAG_RGB) != 0;
    const int alpha = format.nb_components - 1;
    const int depth = format.comp[alpha].depth;
    const float opaque = format.flags & AV_PIX_FMT_FLAG_FLOAT ? 1 : static_cast<float>((1 << depth) - 1);
    for (int i = 0; i < alpha; ++i) {
        const bool isChroma = !isRgb && i > 0;
        const int black = isChroma ? 1 << (depth - 1) : isRgb || fullRange ? 0 : 16 << (depth - 8);
        blend<Sample>(picture, result,
                      {format.comp[i], format.comp[alpha], isChroma ? format.log2_chroma_w : 0,
                       isChroma ? format.log2_chroma_h : 0, static_cast<float>(black), opaque});
    }
}

// An entry has alpha, red, green and blue, from the highest byte.
uint32_t onBlack(uint32_t entry) {
    const uint32_t alpha = entry >> 24;
    uint32_t result = 0xFF000000;
    for (const int shift : {16, 8, 0}) {
        result |= ((entry >> shift & 0xFF) * alpha + 127) / 255 << shift;
    }
    return result;
}

}  // namespace

void BlackBackground::FreeFrame::operator()(AVFrame* frame) const {
    av_frame_free(&frame);
}

bool BlackBackground::resize(const AVFrame& picture) {
    if (result_ && result_->format == picture.format && result_->width == picture.width &&
        result_->height == picture.height) {
        return true;
    }
    result_.reset(av_frame_alloc());
    if (!result_) {
        return false;
    }
    result_->format = picture.format;
    result_->width = picture.width;
    result_->height = picture.height;
    if (av_frame_get_buffer(result_.get(), 0) < 0) {
        result_.reset();
    }
    return result_ != nullptr;
}

const AVFrame* BlackBackground::put(const AVFrame& picture, bool fullRange) {
    if (!resize(picture)) {
        return nullptr;
    }
    const AVPixFmtDescriptor& format = *av_pix_fmt_desc_get(static_cast<AVPixelFormat>(picture.format));
    const bool isSwapped = ((format.flags & AV_PIX_FMT_FLAG_BE) != 0) != (AV_HAVE_BIGENDIAN != 0);
    if (format.flags & AV_PIX_FMT_FLAG_PAL) {
        av_frame_copy(result_.get(), &picture);
        auto* entries = reinterpret_cast<uint32_t*>(result_->data[1]);
        std::transform(entries, entries + kPaletteEntries, entries, onBlack);
    } else if (format.flags & AV_PIX_FMT_FLAG_FLOAT) {
        (isSwapped ? blendAll<Float<true>> : blendAll<Float<false>>)(picture, *result_, format, fullRange);
    } else if (format.comp[0].depth <= 8) {
        blendAll<Byte>(picture, *result_, format, fullRange);
    } else {
        (isSwapped ? blendAll<Word<true>> : blendAll<Word<false>>)(picture, *result_, format, fullRange);
    }
    return result_.get();
}

}  // namespace kelp
