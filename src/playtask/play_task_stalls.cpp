#include <algorithm>
#include <limits>
#include <memory>
#include <optional>

#include "clock/wrapping_math.h"
#include "kelp_player/log.h"
#include "playtask/play_task.h"

// Standing still: the host's pause, and want of data. Either holds picture, sound and clock; the source is told of the
// pause alone.

namespace kelp {

bool PlayTask::pause() {
    Log::Debug(kTag, "%s\n", "pause");
    std::lock_guard lock(pauseMutex_);
    resume_ = Resume::None;
    return setPaused(true);
}

bool PlayTask::resume() {
    Log::Debug(kTag, "%s\n", "resume");
    std::unique_lock lock(pauseMutex_);
    const bool hasStepped = hasStepped_.exchange(false);
    lock.unlock();
    if (hasStepped && seekBehindSteps()) {
        return true;
    }
    lock.lock();
    return resumeStages();
}

bool PlayTask::resumeStages() {
    resume_ = Resume::None;
    return setPaused(false);
}

bool PlayTask::setPaused(bool paused) {
    isPaused_ = paused;
    if (isStalled_) {
        pauseSource(paused);
        return true;
    }
    holdClock(paused);
    pauseSource(paused);
    holdPlayThreads(paused);
    return true;
}

void PlayTask::setStalled(bool stalled) {
    {
        std::lock_guard lock(pauseMutex_);
        isStalled_ = stalled;
        if (!isPaused_) {
            holdClock(stalled);
            holdPlayThreads(stalled);
        }
    }
    Log::Debug(kTag, "stalled:%d\n", stalled);
    raise(stalled ? EVENT_STALLED : EVENT_STALL_ENDED, 0, 0, 0);
}

void PlayTask::holdClock(bool held) {
    const auto clock = masterClock_.load();
    if (!clock) {
        return;
    }
    if (held) {
        clock->save(-1);
    } else {
        clock->restore();
    }
}

void PlayTask::pauseSource(bool paused) {
    if (streamParser_) {
        streamParser_->pause(paused);
    }
}

void PlayTask::startStallWatch(const StreamInfo& streamInfo) {
    isShowing_ = false;
    if (playOptions_.rebufferMs <= 0 || !streamInfo.is_remote) {
        return;
    }
    stallWatch_ = std::make_unique<StallWatch>(
        playOptions_.rebufferMs,
        StallWatch::Calls{[this] { return dataLevel(); }, [this](bool stalled) { setStalled(stalled); },
                          [this](int64_t waitingMs, int percent) {
                              constexpr int64_t kMostMs = std::numeric_limits<int>::max();
                              raise(EVENT_BUFFERING, static_cast<int>(std::min(waitingMs, kMostMs)), percent, 0);
                          }});
    stallWatch_->start();
}

DataLevel PlayTask::dataLevel() {
    const auto waiting = [](const auto& decode, const auto& play) -> std::optional<int64_t> {
        if (!play) {
            return std::nullopt;
        }
        return wrappingAdd(play->level().durationMs(), decode ? decode->level().durationMs() : 0);
    };
    DataLevel level;
    level.waitingMs = Rebuffer::together(waiting(videoDecodeThread_.load(), videoPlayThread_.load()),
                                         waiting(audioDecodeThread_.load(), audioPlayThread_.load()));
    level.isMoreAwaited = streamParser_->isReading();
    {
        std::lock_guard lock(pauseMutex_);
        level.isPlaying = isShowing_ && !isPaused_;
    }
    // A host's clock would run on.
    std::lock_guard lock(settingMutex_);
    level.isPlaying = level.isPlaying && !(hasHostClock_ && getSyncMasterMode() == SYNC_MASTER_CLOCK);
    return level;
}

}  // namespace kelp
