#include "player_events.h"

// [embed] The player may be called from its callbacks
void PlayerEvents::onPrepared(bool hasVideo, bool hasAudio) {
    SourceInfo info;
    info.hasVideo = hasVideo;
    info.hasAudio = hasAudio;
    info.durationMs = player_->getDuration();
    info.width = static_cast<int>(player_->getPlayDetailInfo(kelp::INFO_WIDTH));
    info.height = static_cast<int>(player_->getPlayDetailInfo(kelp::INFO_HEIGHT));
    info.framesPerSecond = static_cast<int>(player_->getPlayDetailInfo(kelp::INFO_FPS));
    emit prepared(info);
}

void PlayerEvents::onStarted() {
    player_->setVolume(volume_);
    emit started();
}
// [embed end]

void PlayerEvents::onFailed(int errorType) {
    emit failed(errorType);
}

void PlayerEvents::onFirstVideoFrame(int ptsMs) {
    emit firstFrame(/*isVideo=*/true, ptsMs);
}

void PlayerEvents::onFirstAudioFrame(int ptsMs) {
    emit firstFrame(/*isVideo=*/false, ptsMs);
}

void PlayerEvents::onCompleted() {
    emit completed();
}

void PlayerEvents::onDurationUpdated(int durationMs) {
    emit durationUpdated(durationMs);
}

void PlayerEvents::onStalled() {
    emit stalled(0);
}

void PlayerEvents::onBuffering(int /*waitingMs*/, int percent) {
    emit stalled(percent);
}

void PlayerEvents::onStallEnded() {
    emit stallEnded();
}
