#include "input/recording_observer.h"

#include <algorithm>
#include <chrono>
#include <limits>

namespace kelp::test {

void RecordingObserver::onFirstPakcet(std::shared_ptr<MediaPacket> packet) {
    record((packet->mediaType == 0 ? "first video " : "first audio ") + std::to_string(packet->pts));
}

int RecordingObserver::onAudioPakcet(std::shared_ptr<AudioPacket> packet) {
    if (keepPackets) {
        std::lock_guard lock(mutex_);
        keptAudio_.push_back(packet);
    }
    record("audio " + std::to_string(packet->pts));
    return 0;
}

int RecordingObserver::onVideoPacket(std::shared_ptr<VideoPacket> packet) {
    if (keepPackets) {
        std::lock_guard lock(mutex_);
        keptVideo_.push_back(packet);
    }
    std::string event = packet->flush ? "flush" : packet->data ? "video " + std::to_string(packet->pts) : "end";
    if (packet->keyFrame) {
        event += " key";
    }
    if (packet->foundKeyFrame) {
        event += " found";
    }
    record(event);
    return 0;
}

int RecordingObserver::onAudioPacketQueueSize() {
    return poll("aq", audioPackets_);
}

int RecordingObserver::onVideoPacketQueueSize() {
    return poll("vq", videoPackets_);
}

int RecordingObserver::onAudioFrameQueueSize() {
    return poll("af", audioFrames_);
}

int RecordingObserver::onVideoFrameQueueSize() {
    return poll("vf", videoFrames_);
}

void RecordingObserver::onSeekStart(int seekTimeMs) {
    record("seek start " + std::to_string(seekTimeMs));
}

void RecordingObserver::onLoopChanged(int64_t lineMs) {
    constexpr int64_t kEver = std::numeric_limits<int64_t>::max();
    record("loop changed " + (lineMs == kEver ? std::string("ever") : std::to_string(lineMs)));
}

void RecordingObserver::onSeekCompleted() {
    record("seek completed");
}

void RecordingObserver::onLastTimes(int64_t maxVideoPtsMs, int64_t maxAudioPtsMs) {
    if (recordLastTimes) {
        record("last times " + std::to_string(maxVideoPtsMs) + " " + std::to_string(maxAudioPtsMs));
    }
}

void RecordingObserver::onFileEnd(int64_t maxVideoPtsMs, int64_t maxAudioPtsMs) {
    record("file end " + std::to_string(maxVideoPtsMs) + " " + std::to_string(maxAudioPtsMs));
}

void RecordingObserver::onPlaybackCompleted() {
    record("completed");
}

void RecordingObserver::onPlayFailed() {
    record("failed");
}

std::vector<std::string> RecordingObserver::events() {
    std::lock_guard lock(mutex_);
    return events_;
}

void RecordingObserver::clearEvents() {
    std::lock_guard lock(mutex_);
    events_.clear();
    keptVideo_.clear();
    keptAudio_.clear();
}

int RecordingObserver::count(const std::string& event) {
    std::lock_guard lock(mutex_);
    return static_cast<int>(std::count(events_.begin(), events_.end(), event));
}

bool RecordingObserver::waitFor(const std::string& event, int times) {
    std::unique_lock lock(mutex_);
    return recorded_.wait_for(lock, std::chrono::seconds(20),
                              [&] { return std::count(events_.begin(), events_.end(), event) >= times; });
}

std::vector<std::shared_ptr<VideoPacket>> RecordingObserver::videoPackets() {
    std::lock_guard lock(mutex_);
    return keptVideo_;
}

std::vector<std::shared_ptr<AudioPacket>> RecordingObserver::audioPackets() {
    std::lock_guard lock(mutex_);
    return keptAudio_;
}

void RecordingObserver::record(const std::string& event) {
    {
        std::lock_guard lock(mutex_);
        events_.push_back(event);
    }
    recorded_.notify_all();
    if (onEvent) {
        onEvent(event);
    }
}

int RecordingObserver::poll(const char* name, const std::atomic<int>& size) {
    if (recordPolls) {
        record(name);
    }
    return size;
}

}  // namespace kelp::test
