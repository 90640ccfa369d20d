#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "kelp_player/frame_sink.h"
#include "kelp_player/tarn_player.h"

namespace kelp::test {

// Counts the pictures that it is given, repaints of one picture included, and keeps nothing of them.
class CountingSink final : public ExternFrameSink {
public:
    int count();
    // Waits until `count` pictures came in all; false after `timeoutMs`.
    bool waitFor(int count, int timeoutMs);

    void onVideoSize(int /*width*/, int /*height*/, int /*fps*/) override {}
    bool onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int rotate, int64_t frameTag) override;

private:
    std::mutex mutex_;  // guards count_
    std::condition_variable changed_;
    int count_ = 0;
};

// A managed player, with a frame sink, and a host that remembers what it is told. It destroys the player when it goes.
class ManagedPlayback final : private TarnPlayerObserver {
public:
    // One call of the host: "prepared 1 1", "started", "failed 2", "picture 40" ...
    struct Told {
        std::string text;
        int64_t atUs;  // on the steady clock
    };

    ManagedPlayback();
    ~ManagedPlayback();
    ManagedPlayback(const ManagedPlayback&) = delete;
    ManagedPlayback& operator=(const ManagedPlayback&) = delete;

    TarnPlayer& player() { return *player_; }
    CountingSink& sink() { return sink_; }

    // Sets the source and prepares it.
    bool open(const std::string& url, int offsetMs = 0);
    bool setSource(const std::string& url, int offsetMs = 0);

    // Ends the player; nothing is called on it afterwards. What is told from there on counts as late.
    void destroy();
    int toldLate() const { return toldLate_; }

    // Told so far, by the first word or all.
    std::vector<std::string> told();
    int count(const std::string& word);
    // Forgets what was told, with the memory that took.
    void forget();
    // When the last one with this word came, in microseconds of the steady clock; 0 if none did.
    int64_t lastUs(const std::string& word);
    // Waits until `word` was told `times` times in all; false after `timeoutMs`.
    bool waitFor(const std::string& word, int times = 1, int timeoutMs = 60000);

    // Waits until the worker has done all that is queued by now. Not from a callback.
    void waitForWorker();

    // The state's number, by the line with which a second source is refused. The log is taken for a moment: no other
    // capture may run.
    int state();

    // Done within every callback, with its first word. Set before the source.
    std::function<void(const std::string& word)> inCallback;

private:
    void onVideoSizeUpdated(int width, int height, int rotate) override;
    void onPrepared(bool hasVideo, bool hasAudio) override;
    void onStarted() override;
    void onFailed(int errorType) override;
    void onFirstVideoFrame(int ptsMs) override;
    void onFirstAudioFrame(int ptsMs) override;
    void onCompleted() override;
    void onDurationUpdated(int durationMs) override;

    void note(const std::string& word, const std::string& numbers = "");
    int countLocked(const std::string& word) const;

    std::mutex mutex_;  // guards told_
    std::condition_variable changed_;
    std::vector<Told> told_;
    std::atomic<bool> destroyed_{false};
    std::atomic<int> toldLate_{0};
    CountingSink sink_;
    TarnPlayer* player_;
};

}  // namespace kelp::test
