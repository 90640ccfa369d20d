#include "present/snapshot.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <system_error>

#include "kelp_player/log.h"
#include "present/fitted_rectangle.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

namespace kelp {

namespace {

constexpr char kTag[] = "Snapshot";
constexpr int kRgbBytes = 3;
constexpr int kCompression = 3;  // of 9; more takes twice the time for a few percent

struct Free {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};
using Frame = std::unique_ptr<AVFrame, Free>;
using Packet = std::unique_ptr<AVPacket, Free>;

Frame makeFrame(AVPixelFormat format, int64_t width, int64_t height) {
    Frame frame(av_frame_alloc());
    if (frame && av_image_check_size2(width, height, INT64_MAX, format, 0, nullptr) >= 0) {
        frame->format = format;
        frame->width = static_cast<int>(width);
        frame->height = static_cast<int>(height);
        return av_frame_get_buffer(frame.get(), 0) >= 0 ? std::move(frame) : nullptr;
    }
    return nullptr;
}

// A chroma plane of an odd size is rounded up, where one in a block is rounded down: its last row and column stand for
// those that are missing.
void copyChroma(const VideoFrameInfo& picture, int plane, AVFrame& copy) {
    constexpr int kNoColor = 128;
    const bool isWhole = picture.decoderMemory[0] != nullptr;
    const int width = (copy.width + 1) / 2;
    const int height = (copy.height + 1) / 2;
    const int given = isWhole ? width : copy.width / 2;
    const int rows = isWhole ? height : copy.height / 2;
    for (int y = 0; y < height; ++y) {
        uint8_t* const row = copy.data[plane] + ptrdiff_t{y} * copy.linesize[plane];
        if (given == 0 || rows == 0) {
            std::memset(row, kNoColor, static_cast<size_t>(width));
            continue;
        }
        const uint8_t* const from = picture.data[plane] + ptrdiff_t{std::min(y, rows - 1)} * picture.linesize[plane];
        std::copy_n(from, given, row);
        std::fill(row + given, row + width, from[given - 1]);
    }
}

// With room behind the rows, which the conversion library may read.
Frame copyOf(const VideoFrameInfo& picture) {
    Frame copy = makeFrame(AV_PIX_FMT_YUV420P, picture.width, picture.height);
    if (copy) {
        av_image_copy_plane(copy->data[0], copy->linesize[0], picture.data[0], picture.linesize[0], picture.width,
                            picture.height);
        copyChroma(picture, 1, *copy);
        copyChroma(picture, 2, *copy);
    }
    return copy;
}

// `length` in square pixels if its own are `along` long and `across` wide; not shorter.
int64_t stretched(int64_t length, int along, int across) {
    return along > across ? (length * along + across / 2) / across : length;
}

Frame toRgb(const VideoFrameInfo& picture) {
    constexpr int32_t kFullRange = 2;
    constexpr int32_t kBt709 = 1;
    constexpr int kLinesOfBt601 = 576;
    constexpr int kFlags = SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT | SWS_FULL_CHR_H_INP;
    constexpr int kOne = 1 << 16;
    const Frame source = copyOf(picture);
    Frame rgb = makeFrame(AV_PIX_FMT_RGB24, stretched(picture.width, picture.pixelWidth, picture.pixelHeight),
                          stretched(picture.height, picture.pixelHeight, picture.pixelWidth));
    if (!source || !rgb) {
        return nullptr;
    }
    const std::unique_ptr<SwsContext, Free> context(sws_getContext(source->width, source->height, AV_PIX_FMT_YUV420P,
                                                                   rgb->width, rgb->height, AV_PIX_FMT_RGB24, kFlags,
                                                                   nullptr, nullptr, nullptr));
    const bool isBt709 = picture.colorSpace == kBt709 || (picture.colorSpace == 0 && picture.height > kLinesOfBt601);
    if (!context ||
        sws_setColorspaceDetails(context.get(), sws_getCoefficients(isBt709 ? SWS_CS_ITU709 : SWS_CS_ITU601),
                                 picture.colorRange == kFullRange, sws_getCoefficients(SWS_CS_DEFAULT),
                                 /*dstRange=*/1, /*brightness=*/0, kOne, kOne) < 0) {
        return nullptr;
    }
    sws_scale(context.get(), source->data, source->linesize, 0, source->height, rgb->data, rgb->linesize);
    return rgb;
}

Frame turnClockwise(const AVFrame& rgb) {
    Frame turned = makeFrame(AV_PIX_FMT_RGB24, rgb.height, rgb.width);
    for (int y = 0; turned && y < rgb.height; ++y) {
        const uint8_t* from = rgb.data[0] + ptrdiff_t{y} * rgb.linesize[0];
        uint8_t* to = turned->data[0] + ptrdiff_t{rgb.height - 1 - y} * kRgbBytes;
        for (int x = 0; x < rgb.width; ++x, from += kRgbBytes, to += turned->linesize[0]) {
            std::copy_n(from, kRgbBytes, to);
        }
    }
    return turned;
}

Packet encode(const AVFrame& rgb) {
    const AVCodec* const encoder = avcodec_find_encoder(AV_CODEC_ID_PNG);
    const std::unique_ptr<AVCodecContext, Free> context(encoder ? avcodec_alloc_context3(encoder) : nullptr);
    Packet packet(av_packet_alloc());
    if (!context || !packet) {
        return nullptr;
    }
    context->width = rgb.width;
    context->height = rgb.height;
    context->pix_fmt = AV_PIX_FMT_RGB24;
    context->time_base = {1, 1};
    context->thread_count = 1;
    context->compression_level = kCompression;
    const bool done = avcodec_open2(context.get(), encoder, nullptr) >= 0 &&
                      avcodec_send_frame(context.get(), &rgb) >= 0 && avcodec_send_frame(context.get(), nullptr) >= 0 &&
                      avcodec_receive_packet(context.get(), packet.get()) >= 0;
    return done ? std::move(packet) : nullptr;
}

bool writeFile(const AVPacket& packet, const std::string& path) {
    std::FILE* const file = std::fopen(path.c_str(), "wb");
    if (!file) {
        return false;
    }
    const auto size = static_cast<size_t>(packet.size);
    const bool isWritten = std::fwrite(packet.data, 1, size, file) == size;
    const int why = errno;
    if (std::fclose(file) == 0 && isWritten) {
        return true;
    }
    errno = isWritten ? errno : why;
    return false;
}

}  // namespace

bool writeSnapshot(const VideoFrameInfo& picture, const std::string& path) {
    Frame rgb = toRgb(picture);
    for (int i = quarterTurns(picture.rotate); rgb && i > 0; --i) {
        rgb = turnClockwise(*rgb);
    }
    const Packet png = rgb ? encode(*rgb) : nullptr;
    if (!png) {
        Log::Error(kTag, "writeSnapshot, a picture of %dx%d can't be encoded\n", picture.width, picture.height);
        return false;
    }
    if (!writeFile(*png, path)) {
        Log::Error(kTag, "writeSnapshot, %s can't be written: %s\n", path.c_str(),
                   std::generic_category().message(errno).c_str());
        return false;
    }
    return true;
}

}  // namespace kelp
