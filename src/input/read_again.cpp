#include "input/read_again.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavutil/avutil.h>
}

namespace kelp {

ReadAgain::Mark ReadAgain::markOf(const AVPacket& packet) {
    return {packet.pts, packet.dts, packet.pos, packet.size};
}

void ReadAgain::note(const AVPacket& packet) {
    last_ = markOf(packet);
}

bool ReadAgain::wasHandedOn(const AVPacket& packet) {
    if (!active_) {
        return false;
    }
    const Mark mark = markOf(packet);
    if (mark == *last_) {
        active_ = false;
        return true;
    }
    active_ = mark.dts == AV_NOPTS_VALUE || last_->dts == AV_NOPTS_VALUE || mark.dts <= last_->dts;
    return active_;
}

void ReadAgain::forget() {
    last_.reset();
    active_ = false;
}

}  // namespace kelp
