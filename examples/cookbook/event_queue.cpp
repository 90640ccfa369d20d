#include "event_queue.h"

// [events]
void QueuedEvents::onVideoSizeUpdated(int width, int height, int rotate) {
    queue_.post([this, width, height, rotate] { host_.showSize(width, height, rotate); });
}

void QueuedEvents::onPrepared(bool hasVideo, bool hasAudio) {
    queue_.post([this, hasVideo, hasAudio] { host_.showReady(hasVideo, hasAudio); });
}

void QueuedEvents::onFailed(int errorType) {
    queue_.post([this, errorType] { host_.showFailure(errorType); });
}

void QueuedEvents::onCompleted() {
    queue_.post([this] { host_.showEnd(); });
}
// [/events]

void QueuedEvents::onStarted() {
}

void QueuedEvents::onFirstVideoFrame(int) {
}

void QueuedEvents::onFirstAudioFrame(int) {
}

void QueuedEvents::onDurationUpdated(int) {
}
