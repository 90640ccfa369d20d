#include "frame_counter.h"

#include <chrono>
#include <cstring>
#include <utility>

#include "kelp_player/types.h"

namespace {

int64_t steadyUs() {
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

void copyPlane(std::vector<uint8_t>& target, const uint8_t* source, int lineSize, int width, int height) {
    target.resize(static_cast<size_t>(width) * static_cast<size_t>(height));
    for (int row = 0; row < height; ++row) {
        std::memcpy(target.data() + static_cast<ptrdiff_t>(row) * width,
                    source + static_cast<ptrdiff_t>(row) * lineSize, static_cast<size_t>(width));
    }
}

}  // namespace

void FrameCounter::keepAt(std::vector<int64_t> timesMs) {
    std::lock_guard lock(mutex_);
    times_.assign(timesMs.begin(), timesMs.end());
}

int FrameCounter::frames() {
    std::lock_guard lock(mutex_);
    return frames_;
}

int FrameCounter::framesPerSecond() {
    std::lock_guard lock(mutex_);
    const int64_t from = steadyUs() - 1'000'000;
    while (!shownUs_.empty() && shownUs_.front() < from) {
        shownUs_.pop_front();
    }
    return static_cast<int>(shownUs_.size());
}

std::vector<Picture> FrameCounter::takeKept(bool atEnd) {
    std::lock_guard lock(mutex_);
    if (atEnd && !last_.planes[0].empty()) {
        for (; !times_.empty(); times_.pop_front()) {
            kept_.push_back(last_);
        }
    }
    return std::exchange(kept_, {});
}

void FrameCounter::onVideoSize(int width, int height, int) {
    std::lock_guard lock(mutex_);
    width_ = width;
    height_ = height;
}

bool FrameCounter::onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int rotate, int64_t) {
    std::lock_guard lock(mutex_);
    if (pts == lastPts_) {
        return true;  // a repaint
    }
    lastPts_ = pts;
    ++frames_;
    const int64_t now = steadyUs();
    shownUs_.push_back(now);
    while (shownUs_.front() < now - 1'000'000) {
        shownUs_.pop_front();
    }
    if (times_.empty() || pixFormat != kelp::PIX_FMT_YUV420P) {
        return true;
    }
    last_.width = width_;
    last_.height = height_;
    last_.rotate = rotate;
    copyPlane(last_.planes[0], data[0], linesize[0], width_, height_);
    for (int plane = 1; plane < 3; ++plane) {
        copyPlane(last_.planes[plane], data[plane], linesize[plane], width_ / 2, height_ / 2);
    }
    for (; !times_.empty() && pts >= times_.front(); times_.pop_front()) {
        kept_.push_back(last_);
    }
    return true;
}
