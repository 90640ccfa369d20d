#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

#include "clock/playout_delay.h"
#include "present/picture_timing.h"
#include "present/sound_wait.h"
#include "runtime/kelp_time.h"

namespace kelp {

// For a live source that is to be seen as soon as can be. A picture is due as it comes, but for what evens out the
// jitter of those before it, which PlayoutDelay measures; one that follows a clock is due by that. Nothing adds up:
// each picture's time stands by itself, so what comes behind a standstill is as late as it was before.
//
// A picture that is late by its whole time is left out if others wait behind it, so a burst is caught up with as fast
// as it can be decoded; one is shown every 100 ms meanwhile.
//
// In the form that is to be in step with the sound, a picture that could be seen waits until its sound is heard, which
// a device and a change of tempo make later, if SoundWait has it so. The clock is that of pictures that don't wait for
// it, so the sound that follows it comes as early as it can.
class LowDelayTiming : public PictureTiming {
public:
    // `waiting` counts the pictures that are there, the present one among them, and the packets behind them.
    // `heardMs`: the time of what is heard, -1 for nothing; empty for pictures that wait for no sound.
    explicit LowDelayTiming(std::function<int()> waiting, std::function<int64_t()> heardMs = {})
        : PictureTiming(std::move(waiting)), heardMs_(std::move(heardMs)) {}

    int64_t nowUs() const override { return KelpTime::getSteadyUs(); }
    void setTime(int64_t pts, int64_t /*nowUs*/) override { clock_.set(pts, KelpTime::getTimeMs()); }

    void setPaused(bool paused) override;
    void restart() override {}
    void begin(const VideoFrameInfo& frame, int64_t nowUs) override;
    int64_t leftUs(int64_t nowUs) override;
    bool hasClockJumped(int64_t nowUs) override;
    void step(const VideoFrameInfo& frame, int64_t durationMs, int64_t nowUs) override;
    bool isTooLate(const VideoFrameInfo& frame) override;
    void setDrawn(const VideoFrameInfo& frame, int64_t nowUs) override;

private:
    // When the sound of the present picture is heard.
    std::optional<int64_t> heardUs(int64_t nowUs) const;

    const std::function<int64_t()> heardMs_;
    PlayoutDelay playout_;
    SoundWait sound_;
    std::atomic<bool> wasPaused_{false};  // since the last picture
    int64_t ptsMs_ = 0;                   // of the present picture
    int64_t dueUs_ = 0;                   // when it is, without a clock
    int64_t pictureUs_ = 0;               // from the one before to it
    int64_t lateUs_ = 0;                  // by which the wait for it ended
    int64_t nowUs_ = 0;                   // when that was
    int64_t drawnUs_ = 0;                 // when one was drawn last
};

}  // namespace kelp
