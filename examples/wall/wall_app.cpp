#include "wall_app.h"

#include <SDL.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

#include "kelp_player/log.h"
#include "machine.h"
#include "source_problem.h"
#include "speeds.h"

namespace {

constexpr int kLoopMs = 10;
constexpr int64_t kNoSyncThresholdMs = 10000;
constexpr int64_t kBeforeEndMs = 3000;
constexpr float kVolumeStep = 0.1F;
constexpr float kVolumeMax = 2.0F;

volatile std::sig_atomic_t g_interrupted = 0;

void onInterrupt(int) {
    g_interrupted = 1;
}

}  // namespace

WallApp::WallApp(const Options& options)
    : options_(options), clock_(kelp::TarnSyncClock::create(0, kNoSyncThresholdMs)) {
}

WallApp::~WallApp() {
    tiles_.clear();
    kelp::TarnSyncClock::destroy(clock_);
    kelp::Log::SetLogCallback(nullptr);
}

int WallApp::run() {
    for (const std::string& file : options_.files) {
        if (const std::string problem = problemOfPath(file); !problem.empty()) {
            std::fprintf(stderr, "wall: %s: %s\n", file.c_str(), problem.c_str());
            return 1;
        }
    }
    kelp::Log::SetLogCallback([](const char*) {});  // the progress line is enough
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    const bool windows =
        chooseDrivers("wall", !options_.headless, /*soundDevices=*/static_cast<int>(options_.files.size()));
    std::string error;
    if (SDL_Init(SDL_INIT_AUDIO | SDL_INIT_VIDEO) != 0) {
        std::fprintf(stderr, "wall: %s\n", SDL_GetError());
        return 1;
    }
    if (windows && !screen_.open(options_.files.size(), error)) {
        std::fprintf(stderr, "wall: no window: %s\n", error.c_str());
        return 1;
    }
    // The clock stands until every film is ready.
    clock_->pause();
    for (size_t i = 0; i < options_.files.size(); ++i) {
        const bool heard = static_cast<int>(i) + 1 == options_.soundTile;
        tiles_.push_back(std::make_unique<Tile>(options_.files[i], options_.settings, clock_, heard, screen_.isOpen()));
    }
    told_.resize(tiles_.size());
    loop();
    const bool failed = std::any_of(tiles_.begin(), tiles_.end(), [](const auto& tile) { return tile->hasFailed(); });
    return failed ? 1 : 0;
}

void WallApp::loop() {
    while (!quit_ && g_interrupted == 0) {
        SDL_Delay(kLoopMs);
        handleEvents();
        startClock();
        tellFailures();
        if (screen_.isOpen()) {
            screen_.draw(tiles_);
        }
        showProgress();
        quit_ = quit_ || std::all_of(tiles_.begin(), tiles_.end(), [](const auto& tile) { return tile->hasEnded(); });
    }
    progress_.finish();
}

void WallApp::handleEvents() {
    for (SDL_Event event; SDL_PollEvent(&event) != 0;) {
        if (event.type == SDL_QUIT) {
            quit_ = true;
        } else if (event.type == SDL_KEYDOWN) {
            carryOut(commandOf(event.key.keysym));
        }
    }
}

void WallApp::carryOut(const KeyCommand& command) {
    if (command.command == Command::Quit) {
        quit_ = true;
        return;
    }
    if (!running_) {
        return;
    }
    switch (command.command) {
        case Command::Pause:
            togglePause();
            break;
        case Command::Louder:
            changeVolume(kVolumeStep);
            break;
        case Command::Softer:
            changeVolume(-kVolumeStep);
            break;
        case Command::Mute:
            for (const auto& tile : tiles_) {
                tile->player().setMute(!tile->player().isMuted());
            }
            break;
        case Command::NormalSpeed:
            setSpeed(1.0);
            break;
        case Command::Faster:
            setSpeed(fasterThan(speed_));
            break;
        case Command::Slower:
            setSpeed(slowerThan(speed_));
            break;
        case Command::SeekBy:
            seekTo(clock_->getCurrentClock() + command.ms);
            break;
        case Command::SeekToStart:
            seekTo(0);
            break;
        case Command::SeekToEnd:
            seekTo(longestMs() - kBeforeEndMs);
            break;
        default:
            break;
    }
}

void WallApp::startClock() {
    if (!running_ && std::all_of(tiles_.begin(), tiles_.end(), [](const auto& tile) { return tile->hasBegun(); })) {
        running_ = true;
        clock_->resume();
    }
}

// The clock holds the players, but lets pictures run ahead by up to half a second: they are paused themselves as well.
void WallApp::togglePause() {
    paused_ = !paused_;
    if (paused_) {
        clock_->pause();
    }
    for (const auto& tile : tiles_) {
        paused_ ? tile->player().pause() : tile->player().resume();
    }
    if (!paused_) {
        clock_->resume();
    }
}

// The clock leads; the players' own speed is that of their sound.
void WallApp::setSpeed(double speed) {
    speed_ = speed;
    clock_->setSpeed(speed);
    for (const auto& tile : tiles_) {
        tile->player().setSpeed(static_cast<float>(speed));
    }
}

void WallApp::changeVolume(float step) {
    const auto heard = static_cast<size_t>(options_.soundTile);
    if (heard < 1 || heard > tiles_.size()) {
        return;
    }
    volume_ = std::clamp(volume_ + step, 0.0F, kVolumeMax);
    tiles_[heard - 1]->setVolume(volume_);
}

void WallApp::seekTo(int64_t ms) {
    const int64_t target = std::clamp<int64_t>(ms, 0, longestMs());
    clock_->reset(target);
    for (const auto& tile : tiles_) {
        tile->seek(target);
    }
}

int64_t WallApp::longestMs() const {
    int64_t longest = 0;
    for (const auto& tile : tiles_) {
        longest = std::max<int64_t>(longest, tile->player().getPlayDetailInfo(kelp::INFO_DURATION));
    }
    return longest;
}

void WallApp::showProgress() {
    int pictures = 0;
    int64_t least = INT64_MAX;
    int64_t most = INT64_MIN;
    for (const auto& tile : tiles_) {
        pictures += tile->pictures();
        if (tile->hasPicture() && !tile->hasEnded()) {
            least = std::min(least, tile->shownMs());
            most = std::max(most, tile->shownMs());
        }
    }
    char speed[16] = "";
    if (speed_ != 1.0) {
        std::snprintf(speed, sizeof speed, "  x%.2f", speed_);
    }
    const int64_t now = clock_->getCurrentClock();
    std::string figures = std::to_string(pictures) + " pictures";
    if (most >= least) {
        figures += ", " + std::to_string(most - least) + " ms apart";
    }
    progress_.show(now, longestMs(), figures, std::string(speed) + (paused_ ? "  paused" : ""));
    screen_.setTitle("wall  " + clockText(now) + " / " + clockText(longestMs()));
}

void WallApp::tellFailures() {
    for (size_t i = 0; i < tiles_.size(); ++i) {
        if (tiles_[i]->hasFailed() && !told_[i]) {
            told_[i] = true;
            std::fprintf(stderr, "wall: %s: can't be played\n", tiles_[i]->file().c_str());
        }
    }
}
