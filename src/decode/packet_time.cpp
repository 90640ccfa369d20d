#include "decode/packet_time.h"

#include <cmath>

#include "clock/wrapping_math.h"
#include "input/media_packet.h"
#include "runtime/ffmpeg_compat.h"

extern "C" {
#include <libavcodec/packet.h>
}

namespace kelp {

double msPerTick(const MediaPacket& packet) {
    if (packet.timeBaseDen <= 0) {
        return 1.0;
    }
    return static_cast<double>(packet.timeBaseNum) * 1000.0 / static_cast<double>(packet.timeBaseDen);
}

int64_t scaleTicks(int64_t ticks, double msPerTick) {
    return truncated<int64_t>(static_cast<double>(ticks) * msPerTick);
}

int fractionUs(int64_t ticks, double msPerTick) {
    const double ms = static_cast<double>(ticks) * msPerTick;
    return static_cast<int>(std::lround((ms - std::trunc(ms)) * 1000));
}

void lendPacket(const MediaPacket& source, AVPacket* target) {
    compat::initPacket(target);
    const double scale = msPerTick(source);
    target->data = source.data;
    target->size = source.size;
    target->pos = source.pos;
    target->flags = source.flags;
    if (source.sideData) {
        target->side_data = source.sideData->side_data;
        target->side_data_elems = source.sideData->side_data_elems;
    }
    target->pts = scaleTicks(source.pts, scale);
    target->dts = scaleTicks(source.dts, scale);
    target->duration = scaleTicks(source.duration, scale);
}

}  // namespace kelp
