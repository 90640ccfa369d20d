#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "decode/video_frame_info.h"
#include "decode/video_test_support.h"
#include "support/temp_files.h"

namespace kelp::test {

// A picture in a file of the ffmpeg command's raw form, and what the command makes of it.
class PictureFile {
public:
    // Flat bars side by side, in the colours of barColor, of `width` by `height` pixels in `format`. `filters` of the
    // command, if any, see the bars in 16 bits of RGB before that; `scale` has options for the scale filter.
    PictureFile(AVPixelFormat format, int width, int height, const std::string& scale = "",
                const std::string& filters = "");

    // The picture with memory of its own and no label.
    VideoFramePtr read() const;
    // What comes out of `filters`, cut to a frame's planes: planar 4:2:0 of 8 bits.
    std::vector<uint8_t> filtered(const std::string& filters) const;

private:
    TempFolder folder_;
    AVPixelFormat format_;
    int width_;
    int height_;
};

struct Rgb {
    int red, green, blue;
};
constexpr int kBars = 8;
Rgb barColor(int bar);

// What a window shows of the frame in the middle of a bar, by the frame's label: by the rule of SDL's.
Rgb shownColor(const VideoFrameInfo& frame, int bar);

// An empty frame for a picture of that size, with memory behind it that must stay untouched.
class PackedFrame {
public:
    PackedFrame(int width, int height);
    VideoFrameInfo& operator*() { return frame_; }
    VideoFrameInfo* operator->() { return &frame_; }
    bool isTailUntouched() const;

private:
    std::vector<uint8_t> block_;
    VideoFrameInfo frame_;
};

// The largest difference between two bytes of the same place; 256 if there are more bytes in one.
int largestDifference(const std::vector<uint8_t>& left, const std::vector<uint8_t>& right);

}  // namespace kelp::test
