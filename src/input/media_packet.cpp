#include "input/media_packet.h"

#include "input/tick_math.h"

namespace kelp {

MediaPacket::~MediaPacket() {
    delete[] data;
}

// Not through a stream: its numbers follow the locale that the host set.
std::string MediaPacket::toString() {
    std::string text = "{ size:" + std::to_string(size) + ", pos:" + std::to_string(pos) +
                       ", dts:" + std::to_string(dts) + ", pts:" + std::to_string(pts) +
                       ", duration:" + std::to_string(duration) + ", ";
    if (timeBaseDen != 0) {
        text += "dts_ms:" + std::to_string(ticksToMs(dts, timeBaseNum, timeBaseDen)) +
                ", pts_ms:" + std::to_string(ticksToMs(pts, timeBaseNum, timeBaseDen)) +
                ", duration_ms:" + std::to_string(ticksToMs(duration, timeBaseNum, timeBaseDen)) + ", ";
    }
    text += "time_base:(" + std::to_string(timeBaseNum) + ":" + std::to_string(timeBaseDen) +
            "), flags:" + std::to_string(flags) + " }";
    return text;
}

}  // namespace kelp
