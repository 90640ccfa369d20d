#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kelp_player/log.h"
#include "present/base_play_thread.h"
#include "support/fake_time.h"

namespace kelp::test {

inline std::shared_ptr<DecodedFrame> makePlayFrame(int64_t pts, int64_t duration = 40) {
    auto frame = std::make_shared<DecodedFrame>();
    frame->frameTag = 0;
    frame->pts = pts;
    frame->duration = duration;
    return frame;
}

// Writes down what the loop asks for, as texts: "out 40", "idle", "start 1000", "finish 1000", "exit". The hooks run
// on the play thread, after the text was written.
class RecordingPlayThread : public BasePlayThread {
public:
    static constexpr std::chrono::seconds kPatience{20};  // of the real time

    explicit RecordingPlayThread(int keepFrames = 0, Idle idleMode = Idle::Served)
        : BasePlayThread("RecordingThread", keepFrames, idleMode) {}
    ~RecordingPlayThread() override {
        if (isStarted()) {
            FakeTime::setManual(false);
            stop();
        }
    }

    std::function<bool(int64_t)> output = [](int64_t) { return true; };
    std::function<void(int)> seekStart = [](int) {};
    std::function<void(int)> seekFinish = [](int) {};
    std::function<void()> idle = [] {};
    std::function<void(int)> taken = [](int) {};  // on the thread that took them
    std::atomic<int64_t> otherMs{-1};             // where the other stream has come to

    void fill(std::initializer_list<int64_t> times) {
        for (const int64_t pts : times) {
            fillFrame(makePlayFrame(pts));
        }
    }

    std::vector<std::string> events(bool withIdle = false) {
        std::lock_guard lock(mutex_);
        std::vector<std::string> found;
        for (const auto& event : events_) {
            if (withIdle || event != "idle") {
                found.push_back(event);
            }
        }
        return found;
    }

    // Waits in real time.
    bool waitFor(const std::string& event, int count = 1) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kPatience,
                                 [&] { return std::count(events_.begin(), events_.end(), event) >= count; });
    }

    bool started() const { return isStarted(); }

private:
    bool onOutput(std::shared_ptr<DecodedFrame> frame) override {
        note("out " + std::to_string(frame->pts));
        return output(frame->pts);
    }
    void onOutput() override {
        note("idle");
        idle();
    }
    void onSeekStart(int seekTimeMs) override {
        note("start " + std::to_string(seekTimeMs));
        seekStart(seekTimeMs);
    }
    void onSeekFinish(int ptsMs) override {
        note("finish " + std::to_string(ptsMs));
        seekFinish(ptsMs);
    }
    int64_t otherTimeMs() override { return otherMs; }
    void onExit() override { note("exit"); }
    void onFramesTaken(int left) override { taken(left); }

    void note(const std::string& event) {
        std::lock_guard lock(mutex_);
        events_.push_back(event);
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
};

class BasePlayThreadTest : public testing::Test {
protected:
    void SetUp() override {
        FakeTime::reset();
        Log::SetLevel(1);
    }
    void TearDown() override {
        Log::SetLevel(logLevel_);
        FakeTime::reset();
    }

private:
    const int logLevel_ = Log::GetLevel();
};

}  // namespace kelp::test
