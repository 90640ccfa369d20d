#include <new>

#include "c/boundary.h"
#include "kelp_player/codec_info.h"
#include "kelp_player/stream_muxer.h"
#include "kelp_player/types.h"
#include "runtime/ffmpeg_compat.h"

using namespace kelp::c;

static_assert(same(KELP_VIDEO_CODEC_NONE, kelp::VIDEO_CODEC_NONE));
static_assert(same(KELP_VIDEO_CODEC_MSMPEG4V1, kelp::VIDEO_CODEC_MSMPEG4V1));
static_assert(same(KELP_VIDEO_CODEC_MSMPEG4V2, kelp::VIDEO_CODEC_MSMPEG4V2));
static_assert(same(KELP_VIDEO_CODEC_MSMPEG4V3, kelp::VIDEO_CODEC_MSMPEG4V3));
static_assert(same(KELP_VIDEO_CODEC_H264, kelp::VIDEO_CODEC_H264));
static_assert(same(KELP_VIDEO_CODEC_HEVC, kelp::VIDEO_CODEC_HEVC));
static_assert(same(KELP_VIDEO_CODEC_MPEG4, kelp::VIDEO_CODEC_MPEG4));
static_assert(same(KELP_VIDEO_CODEC_MJPEG, kelp::VIDEO_CODEC_MJPEG));
static_assert(same(KELP_VIDEO_CODEC_270, kelp::VIDEO_CODEC_270));
static_assert(same(KELP_VIDEO_CODEC_OTHER, kelp::VIDEO_CODEC_OTHER));

// A muxer.
struct kelp_muxer {
    kelp::StreamMuxer muxer;
    mutable LastError error;
};

kelp_muxer* kelp_muxer_create(void) {
    return made<kelp_muxer>(__func__, [] { return std::make_unique<kelp_muxer>(); });
}

void kelp_muxer_destroy(kelp_muxer* muxer) {
    delete muxer;
}

const char* kelp_muxer_last_error(const kelp_muxer* muxer) {
    return errorText(muxer);
}

int kelp_muxer_set_option(kelp_muxer* muxer, const char* key, const char* value) {
    return carryOut(__func__, muxer, [&](kelp_muxer& handle) { handle.muxer.setOption(needed(key), needed(value)); });
}

int kelp_muxer_open(kelp_muxer* muxer, const char* path, const kelp_muxer_video* video, int64_t time_base) {
    return carryOut(__func__, muxer, [&](kelp_muxer& handle) {
        const kelp_muxer_video known = needed(video);
        require(known.codec >= KELP_VIDEO_CODEC_NONE && known.codec <= KELP_VIDEO_CODEC_OTHER,
                "there is no such codec");
        require(known.pix_format >= KELP_PIX_FMT_NONE && known.pix_format <= KELP_PIX_FMT_PACKET,
                "there is no such layout of a picture");
        const auto info = std::make_shared<kelp::CodecInfo>();
        info->videoCodecType = static_cast<kelp::VideoCodecType>(known.codec);
        info->width = known.width;
        info->height = known.height;
        info->pixFormat = static_cast<kelp::PixFormat>(known.pix_format);
        if (known.parameters) {
            info->videoParameters = kelp::compat::copyParameters(*known.parameters);
            if (!info->videoParameters) {
                throw std::bad_alloc();
            }
        }
        return handle.muxer.open(needed(path), info, time_base);
    });
}

int kelp_muxer_output_frame(kelp_muxer* muxer, const uint8_t* data, unsigned int data_size, int64_t pts_us,
                            int is_key_frame) {
    return carryOut(__func__, muxer, [&](kelp_muxer& handle) {
        // It is copied there, and not written to.
        return handle.muxer.outputFrame(const_cast<uint8_t*>(data), data_size, pts_us, is_key_frame != 0);
    });
}

int kelp_muxer_stop(kelp_muxer* muxer) {
    return carryOut(__func__, muxer, [](kelp_muxer& handle) { handle.muxer.stop(); });
}

int kelp_muxer_close(kelp_muxer* muxer) {
    return carryOut(__func__, muxer, [](kelp_muxer& handle) { handle.muxer.close(); });
}
