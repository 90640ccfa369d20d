#pragma once

#include "c/boundary.h"
#include "kelp_player/stall_observer.h"
#include "kelp_player/tarn_player.h"

// A player, and the host's events.
struct kelp_player final : private kelp::TarnPlayerObserver, private kelp::StallObserver {
    // Throws where the engine can't be started.
    explicit kelp_player(const kelp_player_events& events);
    kelp_player(const kelp_player&) = delete;
    kelp_player& operator=(const kelp_player&) = delete;
    ~kelp_player();

    kelp::TarnPlayerObserver* observer() { return this; }

    mutable kelp::c::LastError error;
    kelp::TarnPlayer* player = nullptr;

private:
    void onVideoSizeUpdated(int width, int height, int rotate) override;
    void onPrepared(bool hasVideo, bool hasAudio) override;
    void onStarted() override;
    void onFailed(int errorType) override;
    void onFirstVideoFrame(int ptsMs) override;
    void onFirstAudioFrame(int ptsMs) override;
    void onCompleted() override;
    void onDurationUpdated(int durationMs) override;
    void onStalled() override;
    void onBuffering(int waitingMs, int percent) override;
    void onStallEnded() override;

    template <typename... Parameters, typename... Arguments>
    void tell(void (*call)(void*, kelp_player*, Parameters...), Arguments... arguments) {
        kelp::c::tell(call, events_.user, this, arguments...);
    }

    const kelp_player_events events_;
};
