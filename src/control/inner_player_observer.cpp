#include "control/inner_player_observer.h"

#include <utility>

#include "control/current_source.h"
#include "control/retry_pace.h"
#include "kelp_player/log.h"

namespace kelp {

namespace {

constexpr const char* kTag = "TarnPlayer";

// A time on the host's clock; far ends wrap round.
int onHostsClock(int64_t offsetMs, int ptsMs) {
    return static_cast<int>(offsetMs + ptsMs);
}

}  // namespace

void InnerPlayerObserver::set(TarnPlayerObserver* observer, int offsetMs) {
    observer_ = observer;
    offsetMs_ = offsetMs;
}

TarnPlayerObserver* InnerPlayerObserver::hostToTell() const {
    return owner_->source_->areEventsOld() ? nullptr : observer_.load();
}

void InnerPlayerObserver::noteShown() {
    if (!owner_->source_->areEventsOld()) {
        owner_->retryPace_->shown();
    }
}

void InnerPlayerObserver::onVideoSizeUpdated(std::shared_ptr<KelpPlayer>, int width, int height, int rotate) {
    Log::Info(kTag, "%s, width:%d, height:%d, rotate:%d\n", "onVideoSizeUpdated", width, height, rotate);
    if (TarnPlayerObserver* host = hostToTell()) {
        host->onVideoSizeUpdated(width, height, rotate);
    }
}

void InnerPlayerObserver::onPrepared(std::shared_ptr<KelpPlayer>, bool hasVideo, bool hasAudio) {
    Log::Info(kTag, "%s, hasVideo:%d, hasAudio:%d\n", "onPrepared", hasVideo, hasAudio);
    hasVideo_ = hasVideo;
    hasAudio_ = hasAudio;
    std::unique_lock lock(owner_->mutex_);
    if (owner_->source_->areEventsOld()) {
        return;
    }
    if (owner_->state_ != PLAYER_STATE_PREPARING) {
        Log::Debug(kTag, "%s new state:%d\n", "onPrepared", owner_->state_);
        return;
    }
    owner_->state_ = PLAYER_STATE_PREPARED;
    const bool startRequested = owner_->startRequest_;
    lock.unlock();
    // The host may start the player in there.
    if (TarnPlayerObserver* host = observer_) {
        host->onPrepared(hasVideo, hasAudio);
    }
    lock.lock();
    if (!carryOutRequests(startRequested)) {
        lock.unlock();
        if (TarnPlayerObserver* host = observer_) {
            host->onFailed(0);
        }
    }
}

bool InnerPlayerObserver::carryOutRequests(bool startRequested) {
    // The host may have stopped the player, or started it itself, while it was told; a request that stands then is one
    // for another source.
    const bool startedByHost = owner_->state_ == PLAYER_STATE_STARTED && startRequested;
    if (!startedByHost) {
        if (owner_->state_ != PLAYER_STATE_PREPARED || !owner_->startRequest_) {
            return true;
        }
        if (!owner_->play(offsetMs_)) {
            return false;
        }
    }
    if (std::exchange(owner_->pauseRequest_, false)) {
        owner_->pauseNow();
    }
    return true;
}

void InnerPlayerObserver::onFirstPacket(std::shared_ptr<KelpPlayer>, int ptsMs) {
    Log::Info(kTag, "%s, ptsMs:%d\n", "onFirstPacket", ptsMs);
}

void InnerPlayerObserver::onFirstVideoFrame(std::shared_ptr<KelpPlayer>, int ptsMs) {
    Log::Info(kTag, "%s, ptsMs:%d\n", "onFirstVideoFrame", ptsMs);
    noteShown();
    if (TarnPlayerObserver* host = hostToTell()) {
        host->onFirstVideoFrame(onHostsClock(offsetMs_, ptsMs));
    }
}

void InnerPlayerObserver::onFirstAudioFrame(std::shared_ptr<KelpPlayer>, int ptsMs) {
    Log::Info(kTag, "%s, ptsMs:%d\n", "onFirstAudioFrame", ptsMs);
    noteShown();
    if (TarnPlayerObserver* host = hostToTell()) {
        host->onFirstAudioFrame(onHostsClock(offsetMs_, ptsMs));
    }
}

void InnerPlayerObserver::onCompleted(std::shared_ptr<KelpPlayer>) {
    Log::Info(kTag, "%s\n", "onCompleted");
    TarnPlayerObserver* host = nullptr;
    {
        std::lock_guard lock(owner_->mutex_);
        if (owner_->source_->areEventsOld()) {
            return;
        }
        owner_->state_ = PLAYER_STATE_COMPLETED;
        host = observer_;
    }
    if (host) {
        host->onCompleted();
    }
}

void InnerPlayerObserver::onDurationUpdated(std::shared_ptr<KelpPlayer>, int durationMs) {
    Log::Info(kTag, "%s, durationMs:%d\n", "onDurationUpdated", durationMs);
    if (TarnPlayerObserver* host = hostToTell()) {
        host->onDurationUpdated(onHostsClock(offsetMs_, durationMs));
    }
}

}  // namespace kelp
