#include "decode/frame_turns.h"

#include <cstdint>

#include "runtime/ffmpeg_compat.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace kelp {

int turnsToFill(const AVCodecContext& context) {
    const bool isSafe = context.codec_id == AV_CODEC_ID_H264 && context.field_order == AV_FIELD_PROGRESSIVE;
    return isSafe && (context.active_thread_type & FF_THREAD_FRAME) != 0 ? context.thread_count - 1 : 0;
}

void fillTurn(AVCodecContext& context) {
    uint8_t delimiter[] = {0, 0, 0, 1, 0x09, 0xF0};
    AVPacket packet;
    compat::initPacket(&packet);
    packet.data = delimiter;
    packet.size = sizeof delimiter;
    // So that the library passes it over, instead of missing a picture.
    context.skip_frame = AVDISCARD_NONREF;
    avcodec_send_packet(&context, &packet);
    context.skip_frame = AVDISCARD_DEFAULT;
}

}  // namespace kelp
