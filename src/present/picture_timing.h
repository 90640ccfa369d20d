#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "clock/sync_object.h"
#include "clock/wrapping_math.h"
#include "decode/video_frame_info.h"
#include "present/running_clock.h"
#include "runtime/atomic_shared_ptr.h"

namespace kelp {

class RenderTiming;

// When a picture is due, and whether it comes too late or too early to be shown at all. Knows no thread and no window:
// its owner does the waiting and tells it the time. All times are milliseconds.
//
// Three groups: what may come from any thread; the time of the picture on the screen, set by the owner and read by any
// thread; and the steps of one picture, the owner's alone and in the order in which they stand here.
class PictureTiming {
public:
    // `renderTiming` isn't owned and only asked if the source is live. `queueSize` counts the pictures that are there,
    // the present one among them; it is asked for a late picture alone.
    PictureTiming(bool isLive, RenderTiming* renderTiming, std::function<int()> queueSize);

    void follow(std::shared_ptr<SyncObject> master) { master_.store(std::move(master)); }
    std::shared_ptr<SyncObject> master() const { return master_.load(); }

    // A pause silences logs and keeps late pictures. The timer runs on.
    void setPaused(bool paused) { paused_ = paused; }

    RunningClock& clock() { return clock_; }

    // The next picture starts the timing anew.
    void restart() { frameTimer_ = 0; }

    void begin(int64_t pts, int64_t nowMs);

    // How long to hold a picture after the one before, or -1 if it is too late. `delay` is the distance of the two.
    int64_t computeDelay(int64_t delay);

    // The very first picture is due at once.
    bool isDue(int64_t nowMs) const { return !hadOutput_ || nowMs >= dueMs(); }
    int64_t dueMs() const { return wrappingAdd(frameTimer_, delay_); }

    // After a part of the wait: whether the wall clock was set, so that the wait means nothing.
    bool hasClockJumped(int64_t nowMs);

    void logIfLate(int64_t pts, int64_t nowMs);

    // Moves the timer to where this picture was due. After a stall that is the last whole step before now, so that the
    // pictures that follow don't race to catch up.
    void step(int64_t pts, int64_t durationMs, int64_t nowMs);

    // Not to be shown. The last one in the queue is never too late, nor is one that went past the decoder.
    bool isTooLate(const VideoFrameInfo& frame);

    // Not to be shown yet: far ahead of a master that insists.
    bool isHeld(int64_t pts);

    // Something was drawn for the picture.
    void setDrawn(int64_t pts, int64_t nowMs);

    int64_t frameTimer() const { return frameTimer_; }

private:
    const bool isLive_;
    RenderTiming* const renderTiming_;  // not owned
    const std::function<int()> queueSize_;
    AtomicSharedPtr<SyncObject> master_;  // the clock to follow, or none
    std::atomic<bool> paused_{false};
    RunningClock clock_;
    int64_t frameTimer_ = 0;  // when the last picture was due; 0 before the first
    int64_t lastPts_ = 0;     // of the last picture that went through all steps
    int64_t delay_ = 0;       // of the present picture, after frameTimer_; -1 if it is too late
    bool hadOutput_ = false;  // a picture was drawn; never cleared
};

}  // namespace kelp
