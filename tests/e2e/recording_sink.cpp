#include "e2e/recording_sink.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

namespace kelp::test {

// FNV-1a over words, http://www.isthe.com/chongo/tech/comp/fnv/
uint64_t hashBytes(const uint8_t* bytes, size_t size, uint64_t seed) {
    constexpr uint64_t kPrime = 1099511628211ULL;
    uint64_t hash = seed;
    size_t i = 0;
    for (; i + 8 <= size; i += 8) {
        uint64_t word;
        std::memcpy(&word, bytes + i, 8);
        hash = (hash ^ word) * kPrime;
    }
    for (; i < size; ++i) {
        hash = (hash ^ bytes[i]) * kPrime;
    }
    return hash;
}

int64_t steadyUs() {
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

std::vector<ShownFrame> RecordingSink::frames() {
    std::lock_guard lock(mutex_);
    return frames_;
}

int RecordingSink::frameCount() {
    std::lock_guard lock(mutex_);
    return static_cast<int>(frames_.size());
}

int RecordingSink::repaints() {
    std::lock_guard lock(mutex_);
    return repaints_;
}

std::vector<std::array<int, 3>> RecordingSink::sizes() {
    std::lock_guard lock(mutex_);
    return sizes_;
}

bool RecordingSink::waitForFrames(int count, int timeoutMs) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return static_cast<int>(frames_.size()) >= count; });
}

bool RecordingSink::waitForPicture(int64_t pts, int timeoutMs) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        return std::any_of(frames_.begin(), frames_.end(), [&](const ShownFrame& frame) { return frame.pts == pts; });
    });
}

void RecordingSink::onVideoSize(int width, int height, int fps) {
    std::lock_guard lock(mutex_);
    width_ = width;
    height_ = height;
    sizes_.push_back({width, height, fps});
}

bool RecordingSink::onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int rotate,
                                 int64_t frameTag) {
    std::lock_guard lock(mutex_);
    if (!frames_.empty() && frames_.back().pts == pts) {
        ++repaints_;
        return true;
    }
    ShownFrame frame;
    frame.pts = pts;
    frame.atUs = steadyUs();
    frame.width = width_;
    frame.height = height_;
    frame.pixFormat = pixFormat;
    frame.rotate = rotate;
    frame.frameTag = frameTag;
    frame.isPacked = linesize[0] == width_ && data[1] == data[0] + width_ * height_;
    if (keep_ != Keep::Nothing) {
        for (int plane = 0; plane < 3; ++plane) {
            const int width = plane == 0 ? width_ : width_ / 2;
            const int height = plane == 0 ? height_ : height_ / 2;
            for (int row = 0; row < height; ++row) {
                const uint8_t* line = data[plane] + static_cast<ptrdiff_t>(row) * linesize[plane];
                frame.bytes.insert(frame.bytes.end(), line, line + width);
            }
        }
        frame.hash = hashBytes(frame.bytes.data(), frame.bytes.size());
        if (keep_ != Keep::Bytes) {
            frame.bytes = {};
        }
    }
    frames_.push_back(std::move(frame));
    changed_.notify_all();
    return true;
}

}  // namespace kelp::test
