#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "kelp_player/frame_sink.h"

namespace kelp::test {

constexpr int kNumberedFrameMs = 40;

// The number in a picture of the numbered files, or -1 if it can't be read for certain.
int numberOf(const uint8_t* luma, int linesize, int width, int height);

// A picture of a numbered file as the player gave it out.
struct NumberedFrame {
    int number = -1;
    int64_t pts = 0;
    int64_t atUs = 0;  // on the steady clock
};

// Takes the player's pictures and reads their numbers. A repaint of the same picture is only counted.
class NumberSink final : public ExternFrameSink {
public:
    std::vector<NumberedFrame> frames();
    int frameCount();
    // The picture on the screen.
    NumberedFrame shown();
    int repaints();  // of that picture
    void clear();

    // Waits until `count` different pictures came; false after `timeoutMs`.
    bool waitForFrames(int count, int timeoutMs);
    // Waits until the same picture was painted `repaints` times again; false after `timeoutMs`.
    bool waitUntilStill(int repaints, int timeoutMs);

    void onVideoSize(int width, int height, int fps) override;
    bool onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int rotate, int64_t frameTag) override;

private:
    std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::vector<NumberedFrame> frames_;
    int repaints_ = 0;
    int width_ = 0;
    int height_ = 0;
};

// The stream's time, in milliseconds, that the tone of a numbered file tells, every 10 ms of a recording; windows that
// are silent, or where the pitch jumps, are left out.
struct SoundMoment {
    int64_t recordedMs = 0;  // place in the recording
    int64_t streamMs = 0;    // what is heard there
};
std::vector<SoundMoment> soundMoments(const std::string& recording);

}  // namespace kelp::test
