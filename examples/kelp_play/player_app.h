#pragma once

#include <SDL.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "frame_counter.h"
#include "kelp_player/kelp_player.h"
#include "options.h"
#include "progress_line.h"

// The player program: one window, one source, and a loop on the main thread that serves the keys, the title and the
// progress line.
//
// What the player tells comes on its worker thread and is only noted there; the loop acts on it.
class PlayerApp final : private kelp::KelpPlayerObserver {
public:
    explicit PlayerApp(const Options& options);
    ~PlayerApp();
    PlayerApp(const PlayerApp&) = delete;
    PlayerApp& operator=(const PlayerApp&) = delete;

    // Plays the source to its end or until the user quits. The program's exit code.
    int run();

private:
    void onVideoSizeUpdated(std::shared_ptr<kelp::KelpPlayer> player, int width, int height, int rotate) override;
    void onPrepared(std::shared_ptr<kelp::KelpPlayer> player, bool hasVideo, bool hasAudio) override;
    void onFailed(std::shared_ptr<kelp::KelpPlayer> player, int errorType, int extraData) override;
    void onFirstPacket(std::shared_ptr<kelp::KelpPlayer> player, int ptsMs) override;
    void onFirstVideoFrame(std::shared_ptr<kelp::KelpPlayer> player, int ptsMs) override;
    void onFirstAudioFrame(std::shared_ptr<kelp::KelpPlayer> player, int ptsMs) override;
    void onCompleted(std::shared_ptr<kelp::KelpPlayer> player) override;
    void onDurationUpdated(std::shared_ptr<kelp::KelpPlayer> player, int durationMs) override;

    void catchLog();
    void chooseDrivers();
    bool openWindow();
    void loop();
    void handleEvents();
    bool isWindowBeingSetUp();
    void handleKey(SDL_Keycode key);
    void start();
    void changeVolume(float step);
    void updateTitle();
    bool writeSnapshots(bool atEnd);
    void fail(const std::string& why);

    const Options options_;
    FrameCounter counter_;
    ProgressLine progress_;
    std::shared_ptr<kelp::KelpPlayer> player_;
    SDL_Window* window_ = nullptr;
    bool headless_;

    std::atomic<bool> prepared_{false};
    std::atomic<bool> hasVideo_{false};
    std::atomic<bool> failed_{false};
    std::atomic<bool> completed_{false};
    std::mutex reasonMutex_;
    std::string reason_;  // the engine's last error line; guarded by reasonMutex_

    bool playing_ = false;
    Uint32 playedAtTicks_ = 0;
    bool paused_ = false;
    bool quit_ = false;
    int exitCode_ = 0;
    float volume_ = 1.0F;
    int snapshotNumber_ = 0;
    std::string title_;
};
