#pragma once

#include <SDL.h>

#include <atomic>
#include <mutex>
#include <string>

#include "frame_counter.h"
#include "kelp_player/recorder.h"
#include "kelp_player/stall_observer.h"
#include "kelp_player/tarn_player.h"
#include "options.h"
#include "player_log.h"
#include "progress_line.h"
#include "remote_control.h"

// The player program: one window, one source, and a loop on the main thread that serves the keys, the title and the
// progress line.
//
// What the player tells comes on its worker thread and is only noted there; the loop acts on it.
class PlayerApp final : private kelp::TarnPlayerObserver, private kelp::RecorderObserver, private kelp::StallObserver {
public:
    explicit PlayerApp(const Options& options);
    ~PlayerApp();
    PlayerApp(const PlayerApp&) = delete;
    PlayerApp& operator=(const PlayerApp&) = delete;

    // Plays the source to its end or until the user quits. The program's exit code.
    int run();

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

    void onPacketsLost(int packets) override;
    void onRecordingFailed(const std::string& path, const std::string& reason) override;

    bool createPlayer();
    bool startRecording();
    bool endRecording();
    void setLogLevel();
    bool openWindow();
    void loop();
    void handleEvents();
    void handleEvent(const SDL_Event& event);
    bool isWindowBeingSetUp();
    void toggleFullScreen();
    void seekToColumn(int x);
    void start();
    void showProgress();
    void updateTitle();
    // What the user is told of a stall; empty while there is none.
    std::string stallText() const;
    bool writeSnapshots(bool atEnd);
    void fail(const std::string& why);

    const Options options_;
    PlayerLog log_;
    FrameCounter counter_;
    ProgressLine progress_;
    RemoteControl control_;
    kelp::Recorder recorder_{this};
    kelp::TarnPlayer* player_ = nullptr;
    SDL_Window* window_ = nullptr;

    std::atomic<bool> prepared_{false};
    std::atomic<bool> hasVideo_{false};
    std::atomic<bool> failed_{false};
    std::atomic<bool> completed_{false};
    std::atomic<int> buffered_{-1};  // in percent, while playback stands; -1 while it doesn't

    std::mutex recordMutex_;
    std::string recordProblem_;  // guarded by recordMutex_

    bool playing_ = false;
    Uint32 playedAtTicks_ = 0;
    bool quit_ = false;
    int exitCode_ = 0;
    int snapshotNumber_ = 0;
    std::string title_;
};
