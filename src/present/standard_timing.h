#pragma once

#include <cstdint>
#include <functional>

#include "present/picture_timing.h"

namespace kelp {

class RenderTiming;

// Holds each picture for its distance from the one before, and corrects that distance where it has drifted off its
// master. All times are milliseconds, but those of the interface.
class StandardTiming : public PictureTiming {
public:
    // `renderTiming` isn't owned and only asked if the source is live.
    StandardTiming(bool isLive, RenderTiming* renderTiming, std::function<int()> queueSize);

    void restart() override { frameTimer_ = 0; }
    void begin(const VideoFrameInfo& frame, int64_t nowUs) override;

    // How long to hold a picture after the one before, or -1 if it is too late. `delay` is the distance of the two.
    int64_t computeDelay(int64_t delay);

    // The very first picture is due at once.
    int64_t leftUs(int64_t nowUs) override;
    int64_t dueMs() const { return wrappingAdd(frameTimer_, delay_); }

    bool hasClockJumped(int64_t nowUs) override;

    void logIfLate(const VideoFrameInfo& frame, int64_t nowUs) override;

    // Moves the timer to where this picture was due. After a stall that is the last whole step before now, so that the
    // pictures that follow don't race to catch up.
    void step(const VideoFrameInfo& frame, int64_t durationMs, int64_t nowUs) override;

    bool isTooLate(const VideoFrameInfo& frame) override;

    // Far ahead of a master that insists.
    bool isHeld(const VideoFrameInfo& frame) override;

    void setDrawn(const VideoFrameInfo& frame, int64_t nowUs) override;

    int64_t frameTimer() const { return frameTimer_; }

private:
    const bool isLive_;
    RenderTiming* const renderTiming_;  // not owned
    int64_t frameTimer_ = 0;            // when the last picture was due; 0 before the first
    int64_t lastFramePts_ = 0;          // of the last picture that went through all steps
    int64_t delay_ = 0;                 // of the present picture, after frameTimer_; -1 if it is too late
    bool hadOutput_ = false;            // a picture was drawn; never cleared
};

}  // namespace kelp
