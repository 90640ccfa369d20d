#include "control/current_source.h"
#include "control/inner_player_observer.h"
#include "control/retry_pace.h"
#include "kelp_player/log.h"

// How a source that failed comes back. A stream is opened again after a time; a hardware decoder gives way to software
// at once. Both bring the player into the state that it was in, and the host hears of neither. Each step is planned for
// the source of that moment, and is void when the host has acted since.

namespace kelp {

constexpr const char* kTag = "TarnPlayer";

void InnerPlayerObserver::onFailed(std::shared_ptr<KelpPlayer>, int errorType, int extraData) {
    std::unique_lock lock(owner_->mutex_);
    const PlayerStates oldState = owner_->state_;
    Log::Info(kTag, "%s, errorType:%d, extraData:%d, current state:%d\n", "onFailed", errorType, extraData, oldState);
    if (owner_->source_->areEventsOld()) {
        return;
    }
    owner_->state_ = PLAYER_STATE_ERROR;
    const unsigned int plan = owner_->source_->plan();
    if (errorType == ERROR_TYPE_STREAM && owner_->retryIntervalMs_ > 0) {
        owner_->armRetry(oldState);  // still under the lock: a stop that comes now finds the timer
        return;
    }
    lock.unlock();
    if (errorType == ERROR_TYPE_VIDEO_DECODE && extraData != 0) {
        owner_->enableHwDecoder(false, HW_DECODE_NONE);
        owner_->restartWithOldState(oldState, plan);
        return;
    }
    if (TarnPlayerObserver* host = observer_) {
        host->onFailed(errorType);
    }
}

void TarnPlayer::armRetry(PlayerStates oldState) {
    const auto timers = source_->lockTimers();
    const unsigned int number = source_->newRetry();
    const unsigned int timerId =
        player_->addTimer(retryPace_->nextMs(static_cast<unsigned int>(retryIntervalMs_)), /*oneShot=*/true,
                          [this, oldState, plan = source_->plan(), number] { retry(oldState, plan, number); });
    source_->armTimer(timerId);
    Log::Info(kTag, "%s, add retry timer, retryTimerId_:%u\n", "onFailed", timerId);
}

void TarnPlayer::retry(PlayerStates oldState, unsigned int plan, unsigned int number) {
    {
        std::lock_guard lock(mutex_);
        const auto timers = source_->lockTimers();
        if (!source_->isPlanned(plan)) {
            source_->forgetTimerOf(number);
            return;
        }
        player_->removeTimer(source_->takeTimer());
    }
    restartWithOldState(oldState, plan);
}

void TarnPlayer::restartWithOldState(PlayerStates state, unsigned int plan) {
    Log::Debug(kTag, "%s, state:%d\n", "restartWithOldState", state);
    std::lock_guard lock(mutex_);
    player_->runInWorker([this, state, plan] { restart(state, plan); });
}

void TarnPlayer::restart(PlayerStates state, unsigned int plan) {
    if (state != PLAYER_STATE_PREPARING && state != PLAYER_STATE_STARTED && state != PLAYER_STATE_PAUSED) {
        return;
    }
    // The engine takes one stop at a time, and the host's may come at this moment.
    std::lock_guard lock(mutex_);
    if (!source_->isPlanned(plan)) {
        return;
    }
    source_->restarted();
    state_ = PLAYER_STATE_STOPPED;
    source_->setLoaded(false);
    retryPace_->keepsPicture() ? player_->stopForRestart() : player_->stop();
    state_ = PLAYER_STATE_PREPARING;
    load(0);
    if (state == PLAYER_STATE_STARTED || state == PLAYER_STATE_PAUSED) {
        startRequest_ = true;
    }
    if (state == PLAYER_STATE_PAUSED) {
        pauseRequest_ = true;
    }
}

}  // namespace kelp
