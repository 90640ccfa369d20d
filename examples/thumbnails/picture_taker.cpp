#include "picture_taker.h"

#include "kelp_player/types.h"

bool PictureTaker::take(int index, int timeMs) {
    std::unique_lock lock(mutex_);
    wantedIndex_ = index;
    wantedMs_ = timeMs;
    changed_.wait(lock, [this] { return wantedIndex_ < 0 || ended_; });
    return wantedIndex_ < 0;
}

void PictureTaker::onEnd() {
    std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
}

// [sink]
void PictureTaker::onVideoSize(int width, int height, int fps) {
    std::lock_guard lock(mutex_);
    width_ = width;
    height_ = height;
    frameMs_ = fps > 0 ? 1000 / fps : frameMs_;
}

bool PictureTaker::onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int rotate, int64_t) {
    std::lock_guard lock(mutex_);
    // The player repaints a picture until the next one is due, and pictures from before the seek may still come.
    if (pixFormat != kelp::PIX_FMT_YUV420P || wantedIndex_ < 0 || pts + frameMs_ <= wantedMs_) {
        return false;
    }
    if (!sheet_) {
        sheet_ = std::make_unique<ContactSheet>(count_, width_, height_, rotate);
    }
    sheet_->draw(wantedIndex_, {width_, height_, rotate, data, linesize});
    wantedIndex_ = -1;
    changed_.notify_all();
    return true;
}
// [/sink]
