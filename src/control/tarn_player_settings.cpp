#include <cstdlib>
#include <string_view>
#include <utility>

#include "control/current_source.h"
#include "control/retry_pace.h"
#include "kelp_player/tarn_player.h"

// What a host may set and have done in any state: it goes to the engine as it is.

namespace kelp {

void TarnPlayer::setMute(bool muted) {
    std::lock_guard lock(mutex_);
    player_->setMute(muted);
}

bool TarnPlayer::isMuted() {
    return player_->isMuted();
}

std::vector<std::string> TarnPlayer::getAudioDevices() {
    return KelpPlayer::getAudioDevices();
}

void TarnPlayer::setSpeed(float speed) {
    std::lock_guard lock(mutex_);
    player_->setSpeed(speed);
}

bool TarnPlayer::addWindow(void* handle, WindowType type, int width, int height) {
    std::lock_guard lock(mutex_);
    return player_->addWindow(type, handle, width, height);
}

bool TarnPlayer::removeWindow(void* handle) {
    std::lock_guard lock(mutex_);
    return player_->removeWindow(handle);
}

bool TarnPlayer::pauseWindow(void* handle, bool pause) {
    std::lock_guard lock(mutex_);
    return player_->pauseWindow(handle, pause);
}

void TarnPlayer::enableHwDecoder(bool enable, HwDecodeMode mode) {
    std::lock_guard lock(mutex_);
    hwDecoderEnabled_ = enable;
    hwDecodeMode_ = mode;
    player_->enableHwDecoder(enable, mode);
}

void TarnPlayer::setAVSyncMode(SyncMasterMode mode) {
    std::lock_guard lock(mutex_);
    syncMasterMode_ = mode;
    player_->setAVSyncMode(mode);
}

// These three aren't under the mutex, which a stop holds while it waits for a call of a sink.
void TarnPlayer::setPacketSink(ExternPacketSink* sink) {
    player_->setPacketSink(sink);
}

void TarnPlayer::setStallObserver(StallObserver* observer) {
    player_->setStallObserver(observer);
}

void TarnPlayer::setSubtitleSink(ExternSubtitleSink* sink) {
    player_->setSubtitleSink(sink);
}

void TarnPlayer::setOption(const char* key, const char* value) {
    if (!key || !value) {
        return;
    }
    std::lock_guard lock(mutex_);
    if (std::string_view(key) == "retry_when_failed") {
        retryIntervalMs_ = std::atoll(value);
    } else {
        retryPace_->setOption(key, value);
        player_->setOption(key, value);
    }
}

void TarnPlayer::runInWorker(std::function<void()> function) {
    player_->runInWorker(std::move(function));
}

unsigned int TarnPlayer::addTimer(unsigned int intervalMs, bool oneShot, std::function<void()> function) {
    const auto timers = source_->lockTimers();
    const unsigned int timerId = player_->addTimer(intervalMs, oneShot, std::move(function));
    source_->giveToHost(timerId);
    return timerId;
}

void TarnPlayer::removeTimer(unsigned int timerId) {
    player_->removeTimer(timerId);
}

}  // namespace kelp
