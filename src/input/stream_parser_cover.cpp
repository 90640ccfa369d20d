// A cover: set aside when the input is opened, handed over once when it is read.

#include <cstring>
#include <memory>
#include <utility>

#include "input/stream_parser.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace kelp {

void StreamParser::setCoverAside() {
    if (!videoStream_ || (videoStream_->disposition & AV_DISPOSITION_ATTACHED_PIC) == 0) {
        return;
    }
    coverStream_ = std::exchange(videoStream_, nullptr);
    videoStreamIndex_ = -1;
    // The demuxer gives it out anew behind each seek otherwise.
    coverStream_->discard = AVDISCARD_ALL;
}

void StreamParser::sendCover() {
    if (!observer_ || !coverStream_ || coverStream_->attached_pic.size <= 0) {
        return;
    }
    const AVPacket& picture = coverStream_->attached_pic;
    auto packet = std::make_shared<VideoPacket>();
    packet->data = new unsigned char[static_cast<size_t>(picture.size)];
    packet->size = picture.size;
    std::memcpy(packet->data, picture.data, static_cast<size_t>(picture.size));
    packet->dts = packet->pts = packet->duration = 0;
    packet->flags = AV_PKT_FLAG_KEY;
    packet->keyFrame = true;
    observer_->onVideoPacket(std::move(packet));
    // A decoder gives a picture out when it is asked to go on, or to end.
    auto end = std::make_shared<VideoPacket>();
    end->foundKeyFrame = true;
    observer_->onVideoPacket(std::move(end));
}

}  // namespace kelp
