#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kelp_player/stall_observer.h"

namespace kelp::test {

// Remembers what a player tells of its stalls.
class Stalls final : public StallObserver {
public:
    static constexpr int kAtMostMs = 20000;

    void onStalled() override { note("stalled"); }
    void onBuffering(int waitingMs, int percent) override {
        EXPECT_GE(waitingMs, 0);
        EXPECT_GE(percent, 0);
        EXPECT_LE(percent, 100);
        waitingMs_ = waitingMs;
    }
    void onStallEnded() override { note("ended"); }

    bool waitFor(const std::string& what) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(kAtMostMs),
                                 [&] { return !told_.empty() && told_.back() == what; });
    }
    // How many were told, ends included, and what was said last to wait.
    std::pair<size_t, int> now() {
        std::lock_guard lock(mutex_);
        return {told_.size(), waitingMs_};
    }
    // Whether each was told once, with its end.
    bool arePaired() {
        std::lock_guard lock(mutex_);
        for (size_t i = 0; i < told_.size(); ++i) {
            if (told_[i] != (i % 2 == 0 ? "stalled" : "ended")) {
                return false;
            }
        }
        return told_.size() % 2 == 0;
    }

private:
    void note(const char* what) {
        std::lock_guard lock(mutex_);
        told_.emplace_back(what);
        changed_.notify_all();
    }

    std::mutex mutex_;  // guards told_
    std::condition_variable changed_;
    std::vector<std::string> told_;
    std::atomic<int> waitingMs_{0};
};

}  // namespace kelp::test
