#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "input/stream_parser.h"

namespace kelp::test {

// Writes down what the parser tells, one line for each call, and answers with the queue sizes that the test sets.
//
// The lines: "video PTS" with " key" and " found" by the packet's flags, "end" and "flush" with " found", "audio PTS",
// "first video PTS" and "first audio PTS", "seek start MS", "seek completed", "sound read again",
// "file end VIDEO AUDIO", "completed", "failed"; with `recordPolls` also "vq", "aq", "vf" and "af" for each question
// after a queue size, with `recordLastTimes` "last times VIDEO AUDIO".
class RecordingObserver : public StreamParserObserver {
public:
    virtual ~RecordingObserver() = default;

    void onFirstPakcet(std::shared_ptr<MediaPacket> packet) override;
    int onAudioPakcet(std::shared_ptr<AudioPacket> packet) override;
    int onVideoPacket(std::shared_ptr<VideoPacket> packet) override;
    int onAudioPacketQueueSize() override;
    int onVideoPacketQueueSize() override;
    int onAudioFrameQueueSize() override;
    int onVideoFrameQueueSize() override;
    WaitingPackets waitingPackets() override { return {waitingMs_, waitingBytes_}; }
    bool isDecoding() override { return isDecoding_; }
    bool isPictureAwaited() override { return isPictureAwaited_; }
    void onSeekStart(int seekTimeMs) override;
    void onSeekCompleted() override;
    void onLoopChanged(int64_t lineMs) override;
    int64_t audibleTimeMs() override { return audibleMs; }
    int64_t shownTimeMs() override { return shownMs; }
    void onSoundReadAgain() override { record("sound read again"); }
    void onLastTimes(int64_t maxVideoPtsMs, int64_t maxAudioPtsMs) override;
    void onFileEnd(int64_t maxVideoPtsMs, int64_t maxAudioPtsMs) override;
    void onPlaybackCompleted() override;
    void onPlayFailed() override;

    std::vector<std::string> events();
    void clearEvents();
    int count(const std::string& event);
    // Waits in real time, up to ten seconds, until `event` was written down `times` times. Whether it was.
    bool waitFor(const std::string& event, int times = 1);

    // The packets in the order in which they came, end and flush packets included.
    std::vector<std::shared_ptr<VideoPacket>> videoPackets();
    std::vector<std::shared_ptr<AudioPacket>> audioPackets();

    std::atomic<int> videoPackets_{0};  // the queue sizes
    std::atomic<int> audioPackets_{0};
    std::atomic<int> videoFrames_{0};
    std::atomic<int> audioFrames_{0};
    std::atomic<int64_t> waitingMs_{0};
    std::atomic<int64_t> waitingBytes_{0};
    std::atomic<bool> isDecoding_{false};
    std::atomic<bool> isPictureAwaited_{false};

    std::atomic<int64_t> audibleMs{-1};
    std::atomic<int64_t> shownMs{-1};

    bool recordPolls = false;
    bool recordLastTimes = false;
    bool keepPackets = true;
    // Runs on the parser's thread after each line was written down.
    std::function<void(const std::string& event)> onEvent;

private:
    void record(const std::string& event);
    int poll(const char* name, const std::atomic<int>& size);

    std::mutex mutex_;
    std::condition_variable recorded_;
    std::vector<std::string> events_;
    std::vector<std::shared_ptr<VideoPacket>> keptVideo_;
    std::vector<std::shared_ptr<AudioPacket>> keptAudio_;
};

}  // namespace kelp::test
