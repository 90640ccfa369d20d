#pragma once

#include <kelp_player/stall_observer.h>

#include <atomic>
#include <string>

// What a host shows over the picture while a source over a network keeps it waiting.
// [sign]
class StallSign final : public kelp::StallObserver {
public:
    void onStalled() override { percent_ = 0; }
    void onBuffering(int /*waitingMs*/, int percent) override { percent_ = percent; }
    void onStallEnded() override { percent_ = kNone; }

    // For the main loop, as often as it draws: empty while playback goes on.
    std::string text() const {
        const int percent = percent_;
        return percent == kNone ? "" : "Waiting for data, " + std::to_string(percent) + "%";
    }

private:
    static constexpr int kNone = -1;
    std::atomic<int> percent_{kNone};
};
// [/sign]
