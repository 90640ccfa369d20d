#include "player_app.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "common/sound_device.h"
#include "common/source_problem.h"
#include "kelp_player/log.h"

namespace {

constexpr int kLoopMs = 20;
constexpr Uint32 kWindowSetUpMs = 3000;  // then events are served again, whatever came of the window
constexpr float kVolumeStep = 0.1F;
constexpr float kVolumeMax = 2.0F;

volatile std::sig_atomic_t g_interrupted = 0;

void onInterrupt(int) {
    g_interrupted = 1;
}

}  // namespace

PlayerApp::PlayerApp(const Options& options) : options_(options), headless_(options.headless) {
}

PlayerApp::~PlayerApp() {
    if (player_) {
        player_->stop();
        player_->release();
    }
    if (window_ != nullptr) {
        SDL_DestroyWindow(window_);
    }
    kelp::Log::SetLogCallback(nullptr);
}

int PlayerApp::run() {
    const std::string problem = problemOfPath(options_.file);
    if (!problem.empty()) {
        fail(problem);
        return exitCode_;
    }
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    catchLog();
    chooseDrivers();
    player_ = std::make_shared<kelp::KelpPlayer>();
    if (!player_->init(this)) {
        fail("the player can't be started");
        return exitCode_;
    }
    // The libraries' own lines would break up the progress line; the engine's errors are kept for a message.
    player_->setOption("log_level", "none");
    kelp::Log::SetLevel(1);
    player_->setAVSyncMode(kelp::SYNC_MASTER_AUDIO);
    if (!openWindow()) {
        return exitCode_;
    }
    player_->addWindow(kelp::WINDOW_TYPE_EXTERN, static_cast<kelp::ExternFrameSink*>(&counter_), 0, 0);
    if (!player_->loadFileAsync(options_.file.c_str(), 0)) {
        fail("can't be loaded");
        return exitCode_;
    }
    loop();
    player_->stop();
    if (exitCode_ == 0 && options_.snapshots > 0 && !writeSnapshots(completed_)) {
        exitCode_ = 1;
    }
    return exitCode_;
}

// The engine's error lines are the reason that a failure event doesn't carry.
void PlayerApp::catchLog() {
    kelp::Log::SetLogCallback([this](const char* line) {
        std::string text = messageOf(line);
        std::lock_guard lock(reasonMutex_);
        reason_ = std::move(text);
    });
}

// A machine without a screen or a sound device still plays: without a window, or in silence at the right pace.
void PlayerApp::chooseDrivers() {
    if (!headless_ && SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) {
        headless_ = true;
    }
    if (headless_) {
        setenv("SDL_VIDEODRIVER", "dummy", 1);
    }
    if (!chooseSoundDriver()) {
        std::fprintf(stderr, "kelp_play: no sound device, playing in silence\n");
    }
}

bool PlayerApp::openWindow() {
    if (headless_) {
        return true;
    }
    window_ =
        SDL_CreateWindow("kelp_play", SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED, 1280, 720, SDL_WINDOW_RESIZABLE);
    if (window_ == nullptr) {
        fail(std::string("no window: ") + SDL_GetError());
        return false;
    }
    return player_->addWindow(kelp::WINDOW_TYPE_SDL, window_, 1280, 720);
}

void PlayerApp::loop() {
    while (!quit_) {
        handleEvents();
        if (g_interrupted != 0) {
            quit_ = true;
        } else if (failed_) {
            std::string why;
            {
                std::lock_guard lock(reasonMutex_);
                why = reason_;
            }
            fail(why.empty() ? "can't be played" : reasonIn(why));
        } else if (prepared_ && !playing_) {
            start();
        }
        if (playing_ && exitCode_ == 0) {
            progress_.show(player_->getCurrentTime(), player_->getDuration(), counter_.framesPerSecond(),
                           counter_.frames(), paused_);
            updateTitle();
            if (!writeSnapshots(false)) {
                exitCode_ = 1;
                quit_ = true;
            }
        }
        if (completed_) {
            quit_ = true;
        }
    }
    progress_.finish();
}

void PlayerApp::handleEvents() {
    // Polled: a waiting thread is woken by SDL through its window, which another thread may be working on.
    SDL_Delay(kLoopMs);
    if (isWindowBeingSetUp()) {
        return;
    }
    for (SDL_Event event; SDL_PollEvent(&event) != 0;) {
        if (event.type == SDL_QUIT) {
            quit_ = true;
        } else if (event.type == SDL_KEYDOWN) {
            handleKey(event.key.keysym.sym);
        }
    }
}

// With the first drawing the player makes its renderer, and SDL may make the native window anew for it: it isn't to be
// touched meanwhile. The counter stands behind the window in the player's list, so its first picture tells the end.
bool PlayerApp::isWindowBeingSetUp() {
    return playing_ && window_ != nullptr && hasVideo_ && counter_.frames() == 0 &&
           SDL_GetTicks() - playedAtTicks_ < kWindowSetUpMs;
}

void PlayerApp::handleKey(SDL_Keycode key) {
    switch (key) {
        case SDLK_q:
        case SDLK_ESCAPE:
            quit_ = true;
            break;
        case SDLK_SPACE:
            if (playing_) {
                paused_ = !paused_;
                paused_ ? player_->pause() : player_->resume();
            }
            break;
        case SDLK_0:
            changeVolume(kVolumeStep);
            break;
        case SDLK_9:
            changeVolume(-kVolumeStep);
            break;
        default:
            break;
    }
}

void PlayerApp::start() {
    playing_ = true;
    playedAtTicks_ = SDL_GetTicks();
    if (options_.snapshots > 0) {
        std::vector<int64_t> times;
        const int64_t duration = player_->getDuration();
        for (int i = 0; i < options_.snapshots; ++i) {
            times.push_back(duration * (2 * i + 1) / (2 * options_.snapshots));
        }
        counter_.keepAt(std::move(times));
        std::error_code error;
        std::filesystem::create_directories(options_.snapshotFolder, error);
    }
    if (!player_->play()) {
        fail("has no stream that can be played");
        return;
    }
    player_->setVolume(volume_);
}

void PlayerApp::changeVolume(float step) {
    volume_ = std::clamp(volume_ + step, 0.0F, kVolumeMax);
    player_->setVolume(volume_);
}

void PlayerApp::updateTitle() {
    if (window_ == nullptr || isWindowBeingSetUp()) {
        return;
    }
    const std::string title = std::filesystem::path(options_.file).filename().string() + "  " +
                              clockText(player_->getCurrentTime()) + " / " + clockText(player_->getDuration());
    if (title != title_) {
        title_ = title;
        SDL_SetWindowTitle(window_, title.c_str());
    }
}

bool PlayerApp::writeSnapshots(bool atEnd) {
    for (const Picture& picture : counter_.takeKept(atEnd)) {
        char name[32];
        std::snprintf(name, sizeof name, "snapshot-%03d.png", ++snapshotNumber_);
        std::string error;
        if (!writePng(picture, (std::filesystem::path(options_.snapshotFolder) / name).string(), error)) {
            progress_.finish();
            std::fprintf(stderr, "kelp_play: %s\n", error.c_str());
            return false;
        }
    }
    return true;
}

void PlayerApp::fail(const std::string& why) {
    progress_.finish();
    std::fprintf(stderr, "kelp_play: %s: %s\n", options_.file.c_str(), why.c_str());
    exitCode_ = 1;
    quit_ = true;
}

void PlayerApp::onVideoSizeUpdated(std::shared_ptr<kelp::KelpPlayer>, int, int, int) {
}
void PlayerApp::onPrepared(std::shared_ptr<kelp::KelpPlayer>, bool hasVideo, bool) {
    hasVideo_ = hasVideo;
    prepared_ = true;
}
void PlayerApp::onFailed(std::shared_ptr<kelp::KelpPlayer>, int, int) {
    failed_ = true;
}
void PlayerApp::onFirstPacket(std::shared_ptr<kelp::KelpPlayer>, int) {
}
void PlayerApp::onFirstVideoFrame(std::shared_ptr<kelp::KelpPlayer>, int) {
}
void PlayerApp::onFirstAudioFrame(std::shared_ptr<kelp::KelpPlayer>, int) {
}
void PlayerApp::onCompleted(std::shared_ptr<kelp::KelpPlayer>) {
    completed_ = true;
}
void PlayerApp::onDurationUpdated(std::shared_ptr<kelp::KelpPlayer>, int) {
}
