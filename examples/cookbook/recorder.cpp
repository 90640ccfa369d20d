#include "recorder.h"

#include <memory>

#include "kelp_player/codec_info.h"
#include "kelp_player/stream_muxer.h"

// [record]
bool record(const std::string& destination, int width, int height, std::vector<EncodedFrame>& frames) {
    const auto info = std::make_shared<kelp::CodecInfo>();
    info->videoCodecType = kelp::VIDEO_CODEC_H264;
    info->pixFormat = kelp::PIX_FMT_YUV420P;
    info->width = width;
    info->height = height;

    kelp::StreamMuxer muxer;
    muxer.setOption("timeout", "5000000");  // microseconds that an RTSP server may take
    if (!muxer.open(destination, info, 90000)) {
        return false;
    }
    bool written = true;
    for (auto& frame : frames) {
        written = muxer.outputFrame(frame.bytes.data(), static_cast<unsigned int>(frame.bytes.size()), frame.timeUs,
                                    frame.isKeyFrame) &&
                  written;
    }
    muxer.stop();  // without it an MP4 file can't be played
    muxer.close();
    return written;
}
// [/record]
