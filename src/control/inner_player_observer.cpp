#include "control/inner_player_observer.h"

#include "kelp_player/log.h"

namespace kelp {

namespace {

constexpr const char* kTag = "TarnPlayer";

// A time on the host's clock; far ends wrap round.
int onHostsClock(int offsetMs, int ptsMs) {
    return static_cast<int>(static_cast<uint32_t>(offsetMs) + static_cast<uint32_t>(ptsMs));
}

}  // namespace

InnerPlayerObserver::InnerPlayerObserver(TarnPlayer* owner) : owner_(owner), mutex_(&owner->mutex_) {
}

void InnerPlayerObserver::set(TarnPlayerObserver* observer, int offsetMs) {
    observer_ = observer;
    offsetMs_ = offsetMs;
}

bool InnerPlayerObserver::isOutdated() const {
    return owner_->loadsAhead_ > 0;
}

TarnPlayerObserver* InnerPlayerObserver::hostToTell() const {
    return isOutdated() ? nullptr : observer_.load();
}

void InnerPlayerObserver::onVideoSizeUpdated(std::shared_ptr<KelpPlayer> /*player*/, int width, int height,
                                             int rotate) {
    Log::Info(kTag, "%s, width:%d, height:%d, rotate:%d\n", "onVideoSizeUpdated", width, height, rotate);
    if (TarnPlayerObserver* host = hostToTell()) {
        host->onVideoSizeUpdated(width, height, rotate);
    }
}

void InnerPlayerObserver::onPrepared(std::shared_ptr<KelpPlayer> /*player*/, bool hasVideo, bool hasAudio) {
    Log::Info(kTag, "%s, hasVideo:%d, hasAudio:%d\n", "onPrepared", hasVideo, hasAudio);
    hasVideo_ = hasVideo;
    hasAudio_ = hasAudio;
    std::unique_lock lock(*mutex_);
    if (isOutdated()) {
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
    if (owner_->state_ == PLAYER_STATE_STARTED && startRequested) {
        pauseIfRequested();
        return true;
    }
    if (owner_->state_ != PLAYER_STATE_PREPARED || !owner_->startRequest_.exchange(false)) {
        return true;
    }
    owner_->state_ = PLAYER_STATE_STARTED;
    if (!owner_->player_->play()) {
        owner_->state_ = PLAYER_STATE_ERROR;
        return false;
    }
    owner_->postStarted();
    const int offsetMs = offsetMs_;
    if (offsetMs < 0) {
        owner_->player_->seek(static_cast<int>(0U - static_cast<uint32_t>(offsetMs)));
    }
    pauseIfRequested();
    return true;
}

void InnerPlayerObserver::pauseIfRequested() {
    if (owner_->pauseRequest_.exchange(false)) {
        owner_->state_ = owner_->player_->pause() ? PLAYER_STATE_PAUSED : PLAYER_STATE_ERROR;
    }
}

void InnerPlayerObserver::onFailed(std::shared_ptr<KelpPlayer> /*player*/, int errorType, int extraData) {
    std::unique_lock lock(*mutex_);
    const PlayerStates oldState = owner_->state_;
    Log::Info(kTag, "%s, errorType:%d, extraData:%d, current state:%d\n", "onFailed", errorType, extraData, oldState);
    if (isOutdated()) {
        return;
    }
    owner_->state_ = PLAYER_STATE_ERROR;
    const unsigned int generation = owner_->sourceGeneration_;
    if (errorType == ERROR_TYPE_STREAM && owner_->retryIntervalMs_ > 0) {
        armRetry(oldState);  // still under the lock: a stop that comes now finds the timer
        return;
    }
    lock.unlock();
    if (errorType == ERROR_TYPE_VIDEO_DECODE && extraData != 0) {
        owner_->enableHwDecoder(false, HW_DECODE_NONE);
        owner_->restartWithOldState(oldState, generation);
        return;
    }
    if (TarnPlayerObserver* host = observer_) {
        host->onFailed(errorType);
    }
}

void InnerPlayerObserver::armRetry(PlayerStates oldState) {
    // The timer's function waits for the lock that is held here, and finds the id then.
    const auto timerId = std::make_shared<unsigned int>(0);
    *timerId = owner_->player_->addTimer(
        static_cast<unsigned int>(owner_->retryIntervalMs_), /*oneShot=*/true,
        [this, oldState, generation = owner_->sourceGeneration_, timerId] { retry(oldState, generation, timerId); });
    owner_->retryTimerId_ = *timerId;
    Log::Info(kTag, "%s, add retry timer, retryTimerId_:%u\n", "onFailed", owner_->retryTimerId_);
}

void InnerPlayerObserver::retry(PlayerStates oldState, unsigned int generation,
                                const std::shared_ptr<unsigned int>& timerId) {
    {
        std::lock_guard lock(*mutex_);
        if (generation != owner_->sourceGeneration_) {
            // The host has gone on to another source, which may have armed a timer of its own.
            if (owner_->retryTimerId_ == *timerId) {
                owner_->retryTimerId_ = 0;
            }
            return;
        }
        owner_->player_->removeTimer(owner_->retryTimerId_);
        owner_->retryTimerId_ = 0;
    }
    owner_->restartWithOldState(oldState, generation);
}

void InnerPlayerObserver::onFirstPacket(std::shared_ptr<KelpPlayer> /*player*/, int ptsMs) {
    Log::Info(kTag, "%s, ptsMs:%d\n", "onFirstPacket", ptsMs);
}

void InnerPlayerObserver::onFirstVideoFrame(std::shared_ptr<KelpPlayer> /*player*/, int ptsMs) {
    Log::Info(kTag, "%s, ptsMs:%d\n", "onFirstVideoFrame", ptsMs);
    if (TarnPlayerObserver* host = hostToTell()) {
        host->onFirstVideoFrame(onHostsClock(offsetMs_, ptsMs));
    }
}

void InnerPlayerObserver::onFirstAudioFrame(std::shared_ptr<KelpPlayer> /*player*/, int ptsMs) {
    Log::Info(kTag, "%s, ptsMs:%d\n", "onFirstAudioFrame", ptsMs);
    if (TarnPlayerObserver* host = hostToTell()) {
        host->onFirstAudioFrame(onHostsClock(offsetMs_, ptsMs));
    }
}

void InnerPlayerObserver::onCompleted(std::shared_ptr<KelpPlayer> /*player*/) {
    Log::Info(kTag, "%s\n", "onCompleted");
    TarnPlayerObserver* host = nullptr;
    {
        std::lock_guard lock(*mutex_);
        if (isOutdated()) {
            return;
        }
        owner_->state_ = PLAYER_STATE_COMPLETED;
        host = observer_;
    }
    if (host) {
        host->onCompleted();
    }
}

void InnerPlayerObserver::onDurationUpdated(std::shared_ptr<KelpPlayer> /*player*/, int durationMs) {
    Log::Info(kTag, "%s, durationMs:%d\n", "onDurationUpdated", durationMs);
    if (TarnPlayerObserver* host = hostToTell()) {
        host->onDurationUpdated(onHostsClock(offsetMs_, durationMs));
    }
}

}  // namespace kelp
