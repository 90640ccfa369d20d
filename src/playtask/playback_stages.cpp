#include "playtask/playback_stages.h"

#include <algorithm>
#include <utility>

namespace kelp {
namespace {

int packetsBefore(const auto& decode) {
    return decode ? decode->getQueuePacketSize() : 0;
}

int framesBefore(const auto& play) {
    return play ? play->getFrameQueueSize() : 0;
}

}  // namespace

std::shared_ptr<VideoPlayThread> PlaybackStages::pictureThread() {
    const auto videoPlay = videoPlayThread_.load();
    return videoPlay ? videoPlay : coverPlayThread_.load();
}

int64_t PlaybackStages::lineTimeMs() {
    const auto videoPlay = videoPlayThread_.load();
    const auto audioPlay = audioPlayThread_.load();
    if (!videoPlay) {
        return audioPlay ? audioPlay->getCurrentTime() : 0;
    }
    const int64_t pictureMs = videoPlay->getCurrentTime();
    // The sound goes on behind the last picture. One that comes all the same has the say again when it isn't behind
    // what was told; the time told last alone is kept, so that a sound that goes back brings this to an end as well.
    if (!audioPlay || hasStepped_ || (pictureMs >= soundToldMs_ && !videoPlay->isDry())) {
        return pictureMs;
    }
    const int64_t soundMs = std::max<int64_t>(pictureMs, audioPlay->getCurrentTime());
    soundToldMs_ = soundMs;
    return soundMs;
}

int64_t PlaybackStages::heardMs() {
    const auto audioPlay = audioPlayThread_.load();
    return audioPlay && audioPlay->hasTime() ? audioPlay->getCurrentTime() : -1;
}

int64_t PlaybackStages::seenMs() {
    const auto videoPlay = videoPlayThread_.load();
    return videoPlay && videoPlay->hasTime() ? videoPlay->getCurrentTime() : -1;
}

void PlaybackStages::holdPlayThreads(bool held) {
    if (const auto pictures = pictureThread()) {
        pictures->pause(held);
    }
    if (const auto audioPlay = audioPlayThread_.load()) {
        audioPlay->pause(held);
    }
}

int PlaybackStages::onAudioPakcet(std::shared_ptr<AudioPacket> packet) {
    const auto audioDecode = audioDecodeThread_.load();
    return audioDecode ? audioDecode->fillPacket(std::move(packet)) : 0;
}

int PlaybackStages::onAudioPacketQueueSize() {
    return packetsBefore(audioDecodeThread_.load());
}

int PlaybackStages::onVideoPacketQueueSize() {
    return packetsBefore(videoDecodeThread_.load());
}

int PlaybackStages::onAudioFrameQueueSize() {
    return framesBefore(audioPlayThread_.load());
}

int PlaybackStages::onVideoFrameQueueSize() {
    return framesBefore(videoPlayThread_.load());
}

bool PlaybackStages::isDecoding() {
    const auto videoDecode = videoDecodeThread_.load();
    const auto audioDecode = audioDecodeThread_.load();
    return (videoDecode && videoDecode->isDecoding()) || (audioDecode && audioDecode->isDecoding());
}

WaitingPackets PlaybackStages::waitingPackets() {
    WaitingPackets waiting;
    const auto add = [&](const auto& decode) {
        if (decode) {
            waiting.longestMs = std::max(waiting.longestMs, decode->level().durationMs());
            waiting.bytes += decode->level().bytes();
        }
    };
    add(videoDecodeThread_.load());
    add(audioDecodeThread_.load());
    return waiting;
}

void PlaybackStages::onPacketTaken() {
    if (streamParser_) {
        streamParser_->packetTaken();
    }
}

void PlaybackStages::onVideoFramesTaken(int /*left*/) {
    if (const auto videoDecode = videoDecodeThread_.load()) {
        videoDecode->framesTaken();
    }
}

void PlaybackStages::onAudioFramesTaken(int left) {
    if (const auto audioDecode = audioDecodeThread_.load()) {
        audioDecode->framesTaken(left);
    }
}

int PlaybackStages::onSpeedUpSamples() {
    const auto audioPlay = audioPlayThread_.load();
    // The decoder's correction is the opposite of the output's lead.
    return audioPlay ? static_cast<int>(0u - static_cast<unsigned int>(audioPlay->getUnSyncSamples())) : 0;
}

void PlaybackStages::onSoundReadAgain() {
    if (const auto audioDecode = audioDecodeThread_.load()) {
        audioDecode->readAgain();
    }
}

void PlaybackStages::onAudioDecodeTrack() {
    if (const auto audioPlay = audioPlayThread_.load()) {
        audioPlay->splice();
    }
}

void PlaybackStages::onLastTimes(int64_t maxVideoPtsMs, int64_t maxAudioPtsMs) {
    if (const auto videoPlay = videoPlayThread_.load()) {
        videoPlay->setMaxPtsMs(maxVideoPtsMs);
    }
    if (const auto audioPlay = audioPlayThread_.load()) {
        audioPlay->setMaxPtsMs(maxAudioPtsMs);
    }
}

void PlaybackStages::onVideoDecodeEnd() {
    if (const auto videoPlay = videoPlayThread_.load()) {
        videoPlay->endFrames();
    }
}

void PlaybackStages::onAudioDecodeEnd() {
    if (const auto audioPlay = audioPlayThread_.load()) {
        audioPlay->endFrames();
    }
}

}  // namespace kelp
