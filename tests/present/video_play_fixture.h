#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "clock/sync_object.h"
#include "present/fake_renders.h"
#include "present/video_frames.h"
#include "present/video_play_thread.h"
#include "support/fake_time.h"
#include "support/log_capture.h"

namespace kelp {

// Drives the steps of the play thread on the test's own thread.
class VideoPlayThreadPeer {
public:
    static bool output(VideoPlayThread& thread, std::shared_ptr<DecodedFrame> frame) {
        return thread.onOutput(std::move(frame));
    }
    static void idle(VideoPlayThread& thread) { thread.onOutput(); }
    static void seekStart(VideoPlayThread& thread, int seekTimeMs) { thread.onSeekStart(seekTimeMs); }
    static void seekFinish(VideoPlayThread& thread, int ptsMs) { thread.onSeekFinish(ptsMs); }
    static void exit(VideoPlayThread& thread) { thread.onExit(); }
    static int64_t computeDelay(VideoPlayThread& thread, int64_t delay) { return thread.computeDelay(delay); }
    static void draw(VideoPlayThread& thread, std::shared_ptr<VideoFrameInfo> frame) { thread.renderFrame(frame); }

    // The thread's own clock reads `pts` now.
    static void setClock(VideoPlayThread& thread, int64_t pts) { thread.setCurrentPts(pts, test::FakeTime::nowMs()); }
    static int64_t frameTimer(VideoPlayThread& thread) { return thread.frameTimer_; }
    static size_t windowCount(VideoPlayThread& thread) { return thread.windowInfos_.size(); }
    // Width and height that the list's entry at `index` counts as known to its renderer.
    static std::pair<int, int> windowSize(VideoPlayThread& thread, size_t index) {
        const auto& info = thread.windowInfos_.at(index);
        return {info.width, info.height};
    }
};

namespace test {

constexpr int64_t kStart = 1'000'000;  // the fake time at the start of each test

// A master whose reading the test sets; it stands still or runs with the fake time.
class FakeMaster : public SyncObject {
public:
    explicit FakeMaster(int64_t pts, bool running = false) : pts_(pts), running_(running) {}

    int64_t getNoSyncThreshold() override { return threshold; }
    bool isForceSync() override { return forcing; }
    int64_t getSyncPts() override { return pts_ + (running_ ? FakeTime::nowMs() - kStart : 0); }
    void setSyncObject(std::shared_ptr<SyncObject>) override {}

    void set(int64_t pts) { pts_ = pts; }

    std::atomic<int64_t> threshold{10000};
    std::atomic<bool> forcing{false};

private:
    std::atomic<int64_t> pts_;
    const bool running_;
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class RecordingObserver : public VideoPlayThreadObserver {
public:
    void onFirstVideoFrame(int64_t pts) override {
        std::lock_guard lock(mutex_);
        firstFrames_.push_back(pts);
    }
    std::vector<int64_t> firstFrames() {
        std::lock_guard lock(mutex_);
        return firstFrames_;
    }

private:
    std::mutex mutex_;
    std::vector<int64_t> firstFrames_;
};

#pragma GCC diagnostic pop

inline void* handle(uintptr_t number) {
    return reinterpret_cast<void*>(number);
}

// A play thread with one window, not started: the test is its thread.
class VideoPlayFixture : public testing::Test {
protected:
    VideoPlayFixture() {
        FakeTime::reset(kStart);
        thread.init(observer);
        thread.addWindow(WINDOW_TYPE_QT_WINID, handle(1), 640, 480);
    }

    bool output(const std::shared_ptr<DecodedFrame>& frame) { return VideoPlayThreadPeer::output(thread, frame); }
    bool output(int64_t pts) { return output(makePicture(pts)); }

    // Queues frames that nobody takes.
    void queue(int count) {
        for (int i = 0; i < count; ++i) {
            thread.fillFrame(makePicture(1'000'000 + i));
        }
    }

    std::shared_ptr<FakeMaster> follow(int64_t pts, bool running = false) {
        auto master = std::make_shared<FakeMaster>(pts, running);
        thread.setSyncObject(master);
        return master;
    }

    static int64_t elapsed() { return FakeTime::nowMs() - kStart; }

    // When each new picture came on the first window, from the start of the test.
    std::vector<Shown> pictures() { return sinceStart(renders.pictures()); }
    std::vector<Shown> refreshes() { return sinceStart(renders.refreshes()); }

    FakeRenders renders;
    std::shared_ptr<RecordingObserver> observer = std::make_shared<RecordingObserver>();
    VideoPlayThread thread{/*isLive=*/false, /*renderTiming=*/nullptr};

private:
    static std::vector<Shown> sinceStart(std::vector<Shown> shown) {
        for (auto& entry : shown) {
            entry.timeMs -= kStart;
        }
        return shown;
    }
};

}  // namespace test
}  // namespace kelp
