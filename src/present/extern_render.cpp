#include "present/extern_render.h"

#include <utility>

#include "kelp_player/frame_sink.h"

namespace kelp {

bool ExternRender::init(WindowType type, void* window, int /*width*/, int /*height*/, int fps) {
    std::lock_guard lock(mutex_);
    if (type != WINDOW_TYPE_EXTERN) {
        return false;
    }
    sink_ = static_cast<ExternFrameSink*>(window);
    fps_ = fps;
    return true;
}

bool ExternRender::updateWindowSize(int /*width*/, int /*height*/) {
    std::lock_guard lock(mutex_);
    return true;
}

bool ExternRender::fillFrame(std::shared_ptr<VideoFrameInfo> frame) {
    std::lock_guard lock(mutex_);
    frame_ = std::move(frame);
    if (frame_ && (frame_->width != lastWidth_ || frame_->height != lastHeight_)) {
        lastWidth_ = frame_->width;
        lastHeight_ = frame_->height;
        if (sink_) {
            sink_->onVideoSize(lastWidth_, lastHeight_, fps_);
        }
    }
    return true;
}

bool ExternRender::refresh() {
    std::lock_guard lock(mutex_);
    return frame_ && sink_ &&
           sink_->onVideoFrame(frame_->pixFormat, frame_->filmMs(), frame_->data, frame_->linesize, frame_->rotate,
                               frame_->frameTag);
}

void ExternRender::close() {
    std::lock_guard lock(mutex_);
    frame_.reset();
    sink_ = nullptr;
}

}  // namespace kelp
