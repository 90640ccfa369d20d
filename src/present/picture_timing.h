#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "clock/sync_object.h"
#include "clock/wrapping_math.h"
#include "decode/video_frame_info.h"
#include "present/running_clock.h"
#include "runtime/atomic_shared_ptr.h"
#include "runtime/kelp_time.h"

namespace kelp {

// When a picture is due, and whether it comes too late or too early to be shown at all. Knows no thread and no window:
// its owner does the waiting and tells it the time, that of `nowUs`. Each form of it has rules of its
// own; one is chosen when playback begins.
//
// Three groups: what may come from any thread; the time of the picture on the screen, set by the owner and read by any
// thread; and the steps of one picture, the owner's alone and in the order in which they stand here.
class PictureTiming {
public:
    // `queueSize` counts the pictures that are there, the present one among them; it is asked for a late picture alone.
    explicit PictureTiming(std::function<int()> queueSize) : queueSize_(std::move(queueSize)) {}
    virtual ~PictureTiming() = default;

    // The time that this form goes by, in microseconds: the wall clock's, if nothing else is said. RunningClock goes by
    // that one anyway.
    virtual int64_t nowUs() const { return KelpTime::getTimeUs(); }

    virtual void follow(std::shared_ptr<SyncObject> master) { master_.store(std::move(master)); }
    std::shared_ptr<SyncObject> master() const { return master_.load(); }
    virtual void setPaused(bool paused) { paused_ = paused; }
    virtual void setSpeed(double /*speed*/) {}

    // Counts what came from other threads and moves the time at which the present picture is due: a rest until then is
    // to end.
    unsigned int changes() const { return changes_; }

    RunningClock& clock() { return clock_; }
    virtual int64_t positionMs() { return clock_.read(); }
    virtual int64_t positionUs() { return wrappingMultiply(clock_.read(), 1000); }
    // Where playback is by what is followed, in milliseconds: a picture whose time has passed by then is too late to be
    // shown. Nothing if that isn't known, or pictures go by their own time. Any thread.
    virtual std::optional<int64_t> timeToShowMs() { return std::nullopt; }
    // Before a picture is drawn for it, or without one.
    virtual void setTime(int64_t pts, int64_t nowUs) { clock_.set(pts, nowUs / 1000); }

    // The next picture starts the timing anew.
    virtual void restart() = 0;

    virtual void begin(const VideoFrameInfo& frame, int64_t nowUs) = 0;

    // How long the picture is to wait from `nowUs` on; 0 or less if it is due.
    virtual int64_t leftUs(int64_t nowUs) = 0;

    // By how much the picture on the screen ran ahead of the master when the last one began; 0 without one.
    int64_t aheadOfMasterMs() const { return aheadOfMasterMs_; }

    // After a part of the wait: whether the wall clock was set, so that the wait means nothing.
    virtual bool hasClockJumped(int64_t /*nowUs*/) { return false; }

    // The wait has ended, or was broken off.
    virtual void logIfLate(const VideoFrameInfo& /*frame*/, int64_t /*nowUs*/) {}
    virtual void step(const VideoFrameInfo& frame, int64_t durationMs, int64_t nowUs) = 0;

    // Not to be shown. The last one in the queue is never too late, nor is one that went past the decoder.
    virtual bool isTooLate(const VideoFrameInfo& frame) = 0;

    // Not to be shown yet: to be offered again.
    virtual bool isHeld(const VideoFrameInfo& /*frame*/) { return false; }

    // Something was drawn for the picture.
    virtual void setDrawn(const VideoFrameInfo& frame, int64_t nowUs) = 0;

protected:
    // The distance from which on the two clocks mean nothing to each other, by the master, but within what can be
    // reckoned with.
    static int64_t noSyncUs(SyncObject& master) {
        return std::clamp<int64_t>(master.getNoSyncThreshold(), kNoSyncMs, 1'000'000'000'000) * 1000;
    }

    static constexpr int64_t kNoSyncMs = 10'000;  // at the least

    const std::function<int()> queueSize_;
    AtomicSharedPtr<SyncObject> master_;  // the clock to follow, or none
    std::atomic<bool> paused_{false};
    std::atomic<unsigned int> changes_{0};
    RunningClock clock_;
    int64_t aheadOfMasterMs_ = 0;  // the owner's
};

}  // namespace kelp
