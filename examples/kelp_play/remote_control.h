#pragma once

#include <SDL.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "keys.h"
#include "options.h"

namespace kelp {
class TarnPlayer;
class TarnSyncClock;
}  // namespace kelp

// What the user does to the playback: pause, volume, speed, position; and the host's clock that this takes where sound
// isn't the master.
//
// The commands come from the program's loop, `prepared`, `started` and `firstFrame` from the player's worker thread.
class RemoteControl {
public:
    explicit RemoteControl(Master master) : master_(master) {}
    ~RemoteControl();
    RemoteControl(const RemoteControl&) = delete;
    RemoteControl& operator=(const RemoteControl&) = delete;

    // Sets the master of `player`, which must be gone before this object goes.
    void attach(kelp::TarnPlayer* player);

    void prepared(bool hasVideo, bool hasAudio);
    void started();
    void firstFrame(bool video, int ptsMs);

    void carryOut(const KeyCommand& command);
    void seekTo(int64_t ms);
    // Plays the film again and again, or no more.
    void toggleLoop();
    // The beginning of a part, its end, behind which it is played again and again, and then no more.
    void markPart();

    // What isn't as usual, for the progress line.
    std::string status() const;

private:
    void togglePause();
    void step(int pictures);
    void changeVolume(float step);
    void toggleMute();
    void toggleFit();
    void useNextDevice();
    void setSpeed(double speed);
    void seekBy(int64_t ms);
    void useClock(int64_t nowMs, bool paused);

    const Master master_;
    kelp::TarnPlayer* player_ = nullptr;

    std::mutex clockMutex_;                 // guards clock_, and paused_ together with whether it runs
    kelp::TarnSyncClock* clock_ = nullptr;  // the host's clock, if the player follows one
    std::atomic<bool> paused_{false};
    std::atomic<bool> hasVideo_{false};
    std::atomic<bool> hasAudio_{false};
    std::atomic<float> volume_{1.0F};

    double speed_ = 1.0;
    std::string device_ = "default";
    int64_t seekTargetMs_ = 0;  // of the last seek
    Uint32 seekTicks_ = 0;      // when that was
    bool hasSought_ = false;
    bool hasStepped_ = false;  // in this pause
    bool isLooped_ = false;
    std::optional<int> partFromMs_;  // where the part that is to be looped begins
    bool isFilled_ = false;          // the window, whatever the picture's ratio
};
