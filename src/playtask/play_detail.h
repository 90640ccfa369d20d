#pragma once

#include <atomic>
#include <cstdint>

namespace kelp {

// What is known of a playback at one moment.
struct PlayDetailInfo {
    int width = 0;         // of the picture, in pixels
    int height = 0;        // of the picture, in pixels
    int rotate = 0;        // clockwise, in degrees; 0 until the first decoded picture
    int fps = 0;           // whole pictures per second
    int64_t duration = 0;  // in milliseconds
};

// The picture's part of that. Written by the load, then by the decode thread, and forgotten when both have ended; any
// thread reads.
class PlayDetail {
public:
    // As the source states it.
    void state(int width, int height, int fps) {
        width_ = width;
        height_ = height;
        fps_ = fps;
    }

    // As a picture shows it. Whether that is another size or rotation.
    bool change(int width, int height, int rotate) {
        if (width == width_ && height == height_ && rotate == rotate_) {
            return false;
        }
        width_ = width;
        height_ = height;
        rotate_ = rotate;
        return true;
    }

    void forget() { width_ = height_ = rotate_ = fps_ = 0; }

    PlayDetailInfo read(int64_t durationMs) const { return {width_, height_, rotate_, fps_, durationMs}; }

private:
    std::atomic<int> width_{0};
    std::atomic<int> height_{0};
    std::atomic<int> rotate_{0};
    std::atomic<int> fps_{0};
};

}  // namespace kelp
