#include "player_app.h"

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "kelp_player/log.h"
#include "machine.h"
#include "snapshot_file.h"
#include "source_problem.h"
#include "statistics_text.h"
#include "window.h"

namespace {

constexpr int kLoopMs = 20;
constexpr Uint32 kWindowSetUpMs = 3000;  // then events are served again, whatever came of the window

volatile std::sig_atomic_t g_interrupted = 0;

void onInterrupt(int) {
    g_interrupted = 1;
}

}  // namespace

PlayerApp::PlayerApp(const Options& options) : options_(options), control_(options.master) {
}

PlayerApp::~PlayerApp() {
    if (player_ != nullptr) {
        player_->stop();
        kelp::TarnPlayer::destroy(player_);
    }
    if (window_ != nullptr) {
        SDL_DestroyWindow(window_);
    }
}

int PlayerApp::run() {
    // A file that isn't there may still come where the user wants it tried again.
    const std::string problem = options_.retryMs > 0 ? std::string() : problemOfPath(options_.file);
    if (!problem.empty()) {
        fail(problem);
        return exitCode_;
    }
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    log_.install(/*shown=*/!options_.logLevel.empty() && options_.logLevel != "none");
    const bool windows = chooseDrivers("kelp_play", !options_.headless);
    if (!createPlayer() || !startRecording() || (windows && !openWindow())) {
        return exitCode_;
    }
    // Behind the window in the player's list: its first picture tells that the window is ready.
    player_->addWindow(static_cast<kelp::ExternFrameSink*>(&counter_), kelp::WINDOW_TYPE_EXTERN, 0, 0);
    if (!player_->setDataSource(options_.file.c_str(), 0, this) || !player_->prepareAsync()) {
        fail("can't be loaded");
        return exitCode_;
    }
    loop();
    player_->stop();
    if (!endRecording() && exitCode_ == 0) {
        exitCode_ = 1;
    }
    if (exitCode_ == 0 && options_.snapshots > 0 && !writeSnapshots(completed_)) {
        exitCode_ = 1;
    }
    return exitCode_;
}

bool PlayerApp::createPlayer() {
    // The player itself doesn't tell when SDL fails it.
    if (SDL_Init(SDL_INIT_AUDIO | SDL_INIT_VIDEO) != 0) {
        fail(std::string("the player can't be started: ") + SDL_GetError());
        return false;
    }
    player_ = kelp::TarnPlayer::create();
    if (player_ == nullptr) {
        fail("the player can't be started");
        return false;
    }
    player_->setOption("preset", "recommended");
    player_->setStallObserver(this);
    setLogLevel();
    control_.attach(player_);
    if (options_.loop) {
        control_.toggleLoop();
    }
    if (!options_.hardware) {
        player_->enableHwDecoder(false, kelp::HW_DECODE_NONE);
    }
    if (options_.retryMs > 0) {
        player_->setOption("retry_when_failed", std::to_string(options_.retryMs).c_str());
    }
    if (!options_.subtitleFile.empty()) {
        player_->setOption("subtitle_file", options_.subtitleFile.c_str());
    }
    for (const auto& [key, value] : options_.playerOptions) {
        player_->setOption(key.c_str(), value.c_str());
    }
    return true;
}

bool PlayerApp::startRecording() {
    if (options_.recordFile.empty()) {
        return true;
    }
    player_->setPacketSink(&recorder_);
    if (!recorder_.start(options_.recordFile)) {
        fail(options_.recordFile + ": a record is an .mp4, .mov, .mkv or .ts file");
        return false;
    }
    return true;
}

// Whether all was recorded.
bool PlayerApp::endRecording() {
    recorder_.stop();
    player_->setPacketSink(nullptr);
    std::lock_guard lock(recordMutex_);
    if (!recordProblem_.empty()) {
        std::fprintf(stderr, "kelp_play: %s\n", recordProblem_.c_str());
    }
    return recordProblem_.empty();
}

// By default the libraries' own lines would break up the progress line. The engine's errors are kept for a message in
// any case.
void PlayerApp::setLogLevel() {
    player_->setOption("log_level", options_.logLevel.empty() ? "none" : options_.logLevel.c_str());
    if (kelp::Log::GetLevel() < 1) {
        kelp::Log::SetLevel(1);
    }
}

bool PlayerApp::openWindow() {
    window_ = createWindow("kelp_play", 1280, 720);
    if (window_ == nullptr) {
        fail(std::string("no window: ") + SDL_GetError());
        return false;
    }
    return player_->addWindow(window_, kelp::WINDOW_TYPE_SDL, 1280, 720);
}

void PlayerApp::loop() {
    while (!quit_) {
        handleEvents();
        if (g_interrupted != 0) {
            quit_ = true;
        } else if (failed_) {
            const std::string why = log_.reason();
            fail(why.empty() ? "can't be played" : why);
        } else if (prepared_ && !playing_) {
            start();
        }
        if (playing_ && exitCode_ == 0) {
            showProgress();
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
        handleEvent(event);
    }
}

// With the first drawing the player makes its renderer, and SDL may make the native window anew for it: it isn't to be
// touched meanwhile.
bool PlayerApp::isWindowBeingSetUp() {
    return playing_ && window_ != nullptr && hasVideo_ && counter_.frames() == 0 &&
           SDL_GetTicks() - playedAtTicks_ < kWindowSetUpMs;
}

void PlayerApp::handleEvent(const SDL_Event& event) {
    if (event.type == SDL_QUIT) {
        quit_ = true;
    } else if (event.type == SDL_KEYDOWN) {
        const KeyCommand command = commandOf(event.key.keysym);
        if (command.command == Command::Quit) {
            quit_ = true;
        } else if (command.command == Command::ShowStatistics) {
            progress_.finish();
            std::fputs(textOf(player_->getStatistics()).c_str(), stdout);
        } else if (command.command == Command::SaveSnapshot) {
            const std::string file = saveSnapshot(*player_, options_.file);
            progress_.finish();
            std::printf("%s\n", file.empty() ? "no picture was saved" : file.c_str());
        } else if (command.command == Command::FullScreen) {
            toggleFullScreen();
        } else if (playing_) {
            control_.carryOut(command);
        }
    } else if (event.type == SDL_MOUSEBUTTONDOWN && event.button.button == SDL_BUTTON_LEFT) {
        seekToColumn(event.button.x);
    } else if (event.type == SDL_MOUSEMOTION && (event.motion.state & SDL_BUTTON_LMASK) != 0) {
        seekToColumn(event.motion.x);
    } else if (event.type == SDL_WINDOWEVENT && event.window.event == SDL_WINDOWEVENT_SIZE_CHANGED) {
        player_->addWindow(window_, kelp::WINDOW_TYPE_SDL, event.window.data1, event.window.data2);
    }
}

// Its new size comes as an event.
void PlayerApp::toggleFullScreen() {
    const bool isFull = (SDL_GetWindowFlags(window_) & SDL_WINDOW_FULLSCREEN_DESKTOP) != 0;
    SDL_SetWindowFullscreen(window_, isFull ? 0 : SDL_WINDOW_FULLSCREEN_DESKTOP);
}

// The window's width stands for the time line.
void PlayerApp::seekToColumn(int x) {
    int width = 0;
    SDL_GetWindowSize(window_, &width, nullptr);
    if (playing_ && width > 0) {
        control_.seekTo(static_cast<int64_t>(player_->getDuration()) * x / width);
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
    if (!player_->start()) {
        fail("has no stream that can be played");
    }
}

void PlayerApp::showProgress() {
    char figures[64];
    std::snprintf(figures, sizeof figures, "%2d fps  %d frames", counter_.framesPerSecond(), counter_.frames());
    progress_.show(player_->getCurrentTime(), player_->getDuration(), figures, control_.status() + stallText());
    updateTitle();
}

std::string PlayerApp::stallText() const {
    const int percent = buffered_;
    return percent < 0 ? "" : "  waits for data, " + std::to_string(percent) + "%";
}

void PlayerApp::updateTitle() {
    if (window_ == nullptr || isWindowBeingSetUp()) {
        return;
    }
    const std::string title = std::filesystem::path(options_.file).filename().string() + "  " +
                              clockText(player_->getCurrentTime()) + " / " + clockText(player_->getDuration()) +
                              stallText();
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

void PlayerApp::onStalled() {
    buffered_ = 0;
}
void PlayerApp::onBuffering(int, int percent) {
    buffered_ = percent;
}
void PlayerApp::onStallEnded() {
    buffered_ = -1;
}

void PlayerApp::onPacketsLost(int packets) {
    std::lock_guard lock(recordMutex_);
    recordProblem_ =
        options_.recordFile + ": the disk is too slow, " + std::to_string(packets) + " packets are missing";
}
void PlayerApp::onRecordingFailed(const std::string& path, const std::string& reason) {
    std::lock_guard lock(recordMutex_);
    recordProblem_ = path + ": " + reason;
}

void PlayerApp::onVideoSizeUpdated(int, int, int) {
}
void PlayerApp::onPrepared(bool hasVideo, bool hasAudio) {
    control_.prepared(hasVideo, hasAudio);
    hasVideo_ = hasVideo;
    prepared_ = true;
}
void PlayerApp::onStarted() {
    control_.started();
}
void PlayerApp::onFailed(int) {
    failed_ = true;
}
void PlayerApp::onFirstVideoFrame(int ptsMs) {
    control_.firstFrame(/*video=*/true, ptsMs);
}
void PlayerApp::onFirstAudioFrame(int ptsMs) {
    control_.firstFrame(/*video=*/false, ptsMs);
}
void PlayerApp::onCompleted() {
    completed_ = true;
}
void PlayerApp::onDurationUpdated(int) {
}
