#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "kelp_player/frame_sink.h"
#include "picture_file.h"

// Counts the pictures that the player shows, and keeps copies of those that are to become files.
//
// The player calls it on its video thread; the program asks from its own.
class FrameCounter final : public kelp::ExternFrameSink {
public:
    // Keep the first picture at or after each of `timesMs`, which rise.
    void keepAt(std::vector<int64_t> timesMs);

    // Different pictures so far, and those of the last second.
    int frames();
    int framesPerSecond();

    // Takes out what was kept since the last call. With `atEnd` the last picture stands for the times that no
    // picture reached.
    std::vector<Picture> takeKept(bool atEnd);

    void onVideoSize(int width, int height, int fps) override;
    bool onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int rotate, int64_t frameTag) override;

private:
    std::mutex mutex_;  // guards all that follows
    int width_ = 0;
    int height_ = 0;
    int frames_ = 0;
    int64_t lastPts_ = INT64_MIN;
    std::deque<int64_t> shownUs_;  // when the pictures of the last second came
    std::deque<int64_t> times_;    // still to be kept
    std::vector<Picture> kept_;
    Picture last_;  // only held while times are left
};
