#include "decode/packet_time.h"

#include <cmath>

#include "clock/wrapping_math.h"
#include "input/loop_turn.h"
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

namespace {

int64_t onLine(const MediaPacket& packet, int64_t ms) {
    return packet.turn ? wrappingAdd(ms, packet.turn->shiftMs) : ms;
}

}  // namespace

int64_t lineTimeMs(const MediaPacket& packet) {
    return onLine(packet, scaleTicks(packet.pts, msPerTick(packet)));
}

int64_t lineDecodingMs(const MediaPacket& packet) {
    return onLine(packet, scaleTicks(packet.dts, msPerTick(packet)));
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
    target->pts = lineTimeMs(source);
    target->dts = lineDecodingMs(source);
    target->duration = scaleTicks(source.duration, scale);
}

}  // namespace kelp
