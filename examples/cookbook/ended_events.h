#pragma once

#include <kelp_player/tarn_player.h>

#include <atomic>

// Notes how a playback ends, and nothing else.
struct Events final : kelp::TarnPlayerObserver {
    std::atomic<bool> ended{false};
    std::atomic<bool> failed{false};

    void onCompleted() override { ended = true; }
    void onFailed(int) override { ended = failed = true; }
    void onVideoSizeUpdated(int, int, int) override {}
    void onPrepared(bool, bool) override {}
    void onStarted() override {}
    void onFirstVideoFrame(int) override {}
    void onFirstAudioFrame(int) override {}
    void onDurationUpdated(int) override {}
};
