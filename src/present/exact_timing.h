#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "clock/speed_clock.h"
#include "present/picture_timing.h"

namespace kelp {

class RenderTiming;

// Makes each picture due when its master comes to the picture's time, at the speed at which the master runs: how far
// apart the pictures are has no part in it, so nothing adds up. Without a master, or with one that is too far away to
// mean anything, they are due by a time of their own, which runs on from the first picture at the player's speed.
//
// The first picture after the start or a seek is due at once, unless its master insists. In a pause the picture on the
// screen stays. All times are microseconds where nothing else is said, `nowUs` the steady clock's.
class ExactTiming : public PictureTiming {
public:
    // `renderTiming` isn't owned and only asked if the source is live.
    ExactTiming(bool isLive, RenderTiming* renderTiming, std::function<int()> queueSize);

    int64_t nowUs() const override;
    void follow(std::shared_ptr<SyncObject> master) override;
    void setPaused(bool paused) override;
    void setSpeed(double speed) override;

    int64_t positionMs() override { return positionUs() / 1000; }
    int64_t positionUs() override;
    std::optional<int64_t> timeToShowMs() override;
    void setTime(int64_t pts, int64_t nowUs) override;

    void restart() override;
    void begin(const VideoFrameInfo& frame, int64_t nowUs) override;
    int64_t leftUs(int64_t nowUs) override;
    void step(const VideoFrameInfo& frame, int64_t durationMs, int64_t nowUs) override;
    bool isTooLate(const VideoFrameInfo& frame) override;
    bool isHeld(const VideoFrameInfo& /*frame*/) override { return isHeld_; }
    void setDrawn(const VideoFrameInfo& frame, int64_t nowUs) override;

private:
    // How long until the master comes to the picture; nothing if it isn't to be followed.
    std::optional<int64_t> leftByMaster(int64_t nowUs);
    int64_t leftByOwnTime(int64_t nowUs);
    // By the player's speed.
    int64_t wallUs(int64_t streamUs) const;
    // The own time runs behind the first picture, but not in a pause. lineMutex_ is held.
    void moveLine(int64_t nowUs);

    const bool isLive_;
    RenderTiming* const renderTiming_;  // not owned
    std::mutex lineMutex_;              // a change of the next two, with what it makes of the line; a leaf but for its
    bool isStarted_ = false;            // a picture was drawn since the start or the last seek
    SpeedClock line_;                   // the time of what is shown
    SpeedClock due_;                    // the master's, from its last reading on; means nothing before a second picture
    std::atomic<bool> isDueKnown_{false};
    std::atomic<int64_t> dueReadUs_{0};  // when that was

    // The owner's.
    int64_t ptsUs_ = 0;      // of the present picture
    int64_t lastPtsUs_ = 0;  // of the last that was drawn or left out
    int64_t periodUs_ = 0;   // between these two, of the film
    int64_t longestUs_ = 0;  // until when a master that doesn't insist may hold the present one
    int64_t lateUs_ = 0;     // by how much the present one has missed its time; 0 if it was in time, or didn't wait
    int64_t tooLateUs_ = 0;  // by so much the next one should stand there
    bool isFirst_ = true;    // none was drawn since the start or the last seek
    bool isAgain_ = false;   // it is on the screen already
    bool isFollowing_ = false;
    bool isHeld_ = false;
    bool hadOutput_ = false;  // a picture was drawn; never cleared
};

}  // namespace kelp
