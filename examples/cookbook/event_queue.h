#pragma once

#include <deque>
#include <functional>
#include <mutex>
#include <utility>

#include "kelp_player/tarn_player.h"

// [queue]
// Carries the player's events from its worker thread to the host's main loop.
class EventQueue {
public:
    void post(std::function<void()> task) {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }

    // Runs what has come by now; called by the main loop, every few milliseconds.
    void runAll() {
        std::deque<std::function<void()>> tasks;
        {
            std::lock_guard lock(mutex_);
            tasks.swap(tasks_);
        }
        for (const auto& task : tasks) {
            task();
        }
    }

private:
    std::mutex mutex_;
    std::deque<std::function<void()>> tasks_;  // guarded by mutex_
};
// [/queue]

// What the host's main thread does when something happens.
class Host {
public:
    virtual ~Host() = default;
    virtual void showSize(int width, int height, int rotate) = 0;
    virtual void showReady(bool hasVideo, bool hasAudio) = 0;
    virtual void showFailure(int errorType) = 0;
    virtual void showEnd() = 0;
};

// Calls `host` on the main thread, through `queue`.
class QueuedEvents final : public kelp::TarnPlayerObserver {
public:
    QueuedEvents(EventQueue& queue, Host& host) : queue_(queue), host_(host) {}

    void onVideoSizeUpdated(int width, int height, int rotate) override;
    void onPrepared(bool hasVideo, bool hasAudio) override;
    void onStarted() override;
    void onFailed(int errorType) override;
    void onFirstVideoFrame(int ptsMs) override;
    void onFirstAudioFrame(int ptsMs) override;
    void onCompleted() override;
    void onDurationUpdated(int durationMs) override;

private:
    EventQueue& queue_;
    Host& host_;
};
