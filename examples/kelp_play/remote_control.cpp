#include "remote_control.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "device_menu.h"
#include "kelp_player/sync_clock.h"
#include "kelp_player/tarn_player.h"
#include "speeds.h"
#include "track_menu.h"

namespace {

constexpr float kVolumeStep = 0.1F;
constexpr float kVolumeMax = 2.0F;
constexpr int64_t kBeforeEndMs = 3000;
constexpr Uint32 kSameSeekTicks = 500;  // a step so soon after another one goes on from where that one goes
constexpr int64_t kNoSyncThresholdMs = 10000;

}  // namespace

RemoteControl::~RemoteControl() {
    kelp::TarnSyncClock::destroy(clock_);
}

void RemoteControl::attach(kelp::TarnPlayer* player) {
    player_ = player;
    switch (master_) {
        case Master::Audio:
            player_->setAVSyncMode(kelp::SYNC_MASTER_AUDIO);
            break;
        case Master::Video:
            player_->setAVSyncMode(kelp::SYNC_MASTER_VIDEO);
            break;
        case Master::Clock:
            player_->setAVSyncMode(kelp::SYNC_MASTER_CLOCK);
            break;
        case Master::Host:
            useClock(0, /*paused=*/true);
            break;
    }
}

// The clock stands until there is something to be seen or heard.
void RemoteControl::useClock(int64_t nowMs, bool paused) {
    std::lock_guard lock(clockMutex_);
    clock_ = kelp::TarnSyncClock::create(nowMs, kNoSyncThresholdMs);
    if (clock_ == nullptr) {
        return;
    }
    if (paused) {
        clock_->pause();
    }
    player_->setAVSyncMode(kelp::SYNC_MASTER_CLOCK);
    player_->setSyncClock(clock_);
}

void RemoteControl::prepared(bool hasVideo, bool hasAudio) {
    hasVideo_ = hasVideo;
    hasAudio_ = hasAudio;
    std::lock_guard lock(clockMutex_);
    if (clock_ != nullptr) {
        clock_->pause();
        clock_->reset(0);
    }
}

// [volume]
// From onStarted, also after a failure, when everything but the volume is still in force.
void RemoteControl::started() {
    player_->setVolume(volume_);
}

void RemoteControl::changeVolume(float step) {
    volume_ = std::clamp(volume_ + step, 0.0F, kVolumeMax);
    player_->setVolume(volume_);
}

void RemoteControl::toggleMute() {
    player_->setMute(!player_->isMuted());
}
// [/volume]

void RemoteControl::firstFrame(bool video, int ptsMs) {
    std::lock_guard lock(clockMutex_);
    if (clock_ == nullptr || video != hasVideo_) {
        return;
    }
    clock_->reset(ptsMs);
    if (!paused_) {
        clock_->resume();
    }
}

void RemoteControl::carryOut(const KeyCommand& command) {
    switch (command.command) {
        case Command::Pause:
            togglePause();
            break;
        case Command::Louder:
            changeVolume(kVolumeStep);
            break;
        case Command::Softer:
            changeVolume(-kVolumeStep);
            break;
        case Command::Mute:
            toggleMute();
            break;
        case Command::NormalSpeed:
            setSpeed(1.0);
            break;
        case Command::NextDevice:
            useNextDevice();
            break;
        case Command::Faster:
            setSpeed(fasterThan(speed_));
            break;
        case Command::Slower:
            setSpeed(slowerThan(speed_));
            break;
        case Command::SeekBy:
            seekBy(command.ms);
            break;
        case Command::SeekToStart:
            seekTo(0);
            break;
        case Command::SeekToEnd:
            seekTo(player_->getDuration() - kBeforeEndMs);
            break;
        case Command::NextPicture:
            step(1);
            break;
        case Command::PreviousPicture:
            step(-1);
            break;
        case Command::Loop:
            toggleLoop();
            break;
        case Command::LoopPart:
            markPart();
            break;
        case Command::Fit:
            toggleFit();
            break;
        case Command::NextSound:
            selectNext(*player_, kelp::TRACK_KIND_AUDIO);
            break;
        case Command::NextVideo:
            selectNext(*player_, kelp::TRACK_KIND_VIDEO);
            break;
        case Command::NextSubtitles:
            selectNext(*player_, kelp::TRACK_KIND_SUBTITLE);
            break;
        default:
            break;
    }
}

void RemoteControl::togglePause() {
    std::lock_guard lock(clockMutex_);
    const bool pause = !paused_;
    if (std::exchange(hasStepped_, false) && clock_ != nullptr) {
        clock_->reset(player_->getCurrentTime());
    }
    if (!(pause ? player_->pause() : player_->resume())) {
        return;
    }
    paused_ = pause;
    if (clock_ != nullptr) {
        pause ? clock_->pause() : clock_->resume();
    }
}

// [step]
void RemoteControl::step(int pictures) {
    if (!paused_) {
        togglePause();
    }
    hasStepped_ = player_->stepFrame(pictures) || hasStepped_;
}
// [/step]

// [loop]
void RemoteControl::toggleLoop() {
    if (isLooped_) {
        player_->clearLoop();
    }
    isLooped_ = !isLooped_ && player_->setLoop();
}
// [/loop]

void RemoteControl::markPart() {
    const int nowMs = player_->getCurrentTime();
    if (isLooped_) {
        toggleLoop();
    } else if (!partFromMs_) {
        partFromMs_ = nowMs;
    } else if (const auto [startMs, endMs] = std::minmax({*std::exchange(partFromMs_, std::nullopt), nowMs});
               startMs < endMs) {
        isLooped_ = player_->setLoop(startMs, endMs);
    }
}

// [fit]
void RemoteControl::toggleFit() {
    isFilled_ = !isFilled_;
    player_->setOption("fit", isFilled_ ? "fill" : "keep");
}
// [/fit]

// One that can't be opened is told by the log alone, and the next key press goes on from it.
void RemoteControl::useNextDevice() {
    device_ = deviceAfter(device_);
    player_->setOption("audio_device", device_.c_str());
}

// Pictures follow the sound, if there is any and it is the master. Anything else takes a clock that runs faster.
void RemoteControl::setSpeed(double speed) {
    speed_ = speed;
    if (clock_ == nullptr && (master_ != Master::Audio || !hasAudio_)) {
        useClock(player_->getCurrentTime(), paused_);
    }
    player_->setSpeed(static_cast<float>(speed));
    if (clock_ != nullptr) {
        clock_->setSpeed(speed);
    }
}

void RemoteControl::seekBy(int64_t ms) {
    const bool goesOn = hasSought_ && SDL_GetTicks() - seekTicks_ < kSameSeekTicks;
    seekTo((goesOn ? seekTargetMs_ : player_->getCurrentTime()) + ms);
}

void RemoteControl::seekTo(int64_t ms) {
    const int64_t target = std::clamp<int64_t>(ms, 0, std::max(player_->getDuration(), 0));
    if (!player_->seek(static_cast<int>(target))) {
        return;  // a live source
    }
    hasSought_ = true;
    seekTargetMs_ = target;
    seekTicks_ = SDL_GetTicks();
    std::lock_guard lock(clockMutex_);
    if (clock_ != nullptr) {
        clock_->reset(target);
    }
}

std::string RemoteControl::status() const {
    std::string text;
    char figure[32];
    if (speed_ != 1.0) {
        std::snprintf(figure, sizeof figure, "  x%.2f", speed_);
        text += figure;
    }
    if (const int percent = static_cast<int>(std::lround(volume_ * 100)); percent != 100) {
        std::snprintf(figure, sizeof figure, "  volume %d%%", percent);
        text += figure;
    }
    if (player_->isMuted()) {
        text += "  muted";
    }
    if (isLooped_) {
        text += "  again and again";
    }
    if (partFromMs_) {
        std::snprintf(figure, sizeof figure, "  from %.1f s", *partFromMs_ / 1000.0);
        text += figure;
    }
    if (isFilled_) {
        text += "  window filled";
    }
    if (device_ != "default") {
        text += "  to " + device_;
    }
    return paused_ ? text + "  paused" : text;
}
