#include "support/ffmpeg_release.h"

extern "C" {
#include <libavcodec/codec_desc.h>
#include <libavcodec/version.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
}

namespace kelp::test {

void setKeyFrame(AVFrame& frame, bool key) {
#ifdef AV_FRAME_FLAG_KEY
    frame.flags = key ? frame.flags | AV_FRAME_FLAG_KEY : frame.flags & ~AV_FRAME_FLAG_KEY;
#else
    frame.key_frame = key;
#endif
}

uint8_t* newSideData(AVStream* stream, AVPacketSideDataType type, size_t size) {
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(60, 31, 100)
    AVPacketSideData* data = av_packet_side_data_new(&stream->codecpar->coded_side_data,
                                                     &stream->codecpar->nb_coded_side_data, type, size, 0);
    return data ? data->data : nullptr;
#else
    return av_stream_new_side_data(stream, type, size);
#endif
}

int codecId270() {
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get_by_name("lead");
    return descriptor ? descriptor->id : 270;
}

}  // namespace kelp::test
