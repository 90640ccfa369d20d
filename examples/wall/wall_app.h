#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kelp_player/sync_clock.h"
#include "keys.h"
#include "options.h"
#include "progress_line.h"
#include "tile.h"
#include "tile_screen.h"

// The video wall: several players on one clock, a window, and keys that act on all of them.
class WallApp {
public:
    explicit WallApp(const Options& options);
    ~WallApp();
    WallApp(const WallApp&) = delete;
    WallApp& operator=(const WallApp&) = delete;

    // Plays until all films have ended or the user quits. The program's exit code.
    int run();

private:
    void loop();
    void handleEvents();
    void carryOut(const KeyCommand& command);
    void startClock();
    void togglePause();
    void setSpeed(double speed);
    void changeVolume(float step);
    void seekTo(int64_t ms);
    int64_t longestMs() const;
    void showProgress();
    void tellFailures();

    const Options options_;
    kelp::TarnSyncClock* clock_;  // outlives the tiles
    std::vector<std::unique_ptr<Tile>> tiles_;
    std::vector<bool> told_;  // of a tile's failure
    TileScreen screen_;
    ProgressLine progress_;
    bool running_ = false;  // the clock was started
    bool paused_ = false;
    bool quit_ = false;
    double speed_ = 1.0;
    float volume_ = 1.0F;
};
