#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "kelp_player/export.h"

namespace kelp {

// By how many percent the audio decoder may change the number of samples of a frame in order to follow a master clock,
// 0 to 99; 10 at the start. One value for the whole process, written by TarnSyncClock::setSpeed. It acts only where
// the tempo of the sound can't be changed otherwise. The library reads and writes it atomically; a host that writes it
// while players run should use std::atomic_ref.
extern KELP_PLAYER_API int SAMPLE_CORRECTION_PERCENT_MAX;

// A clock of the host that players follow. The host implements it and owns the object, which must live until it was
// taken back from every player, or the player is gone. A player that was stopped keeps it for its next playback.
//
// All operations are called at every frame, on the video thread and the sound thread of each player, and `getSyncPts`
// also on the thread that calls TarnPlayer::setOffsetToClockMs: they must answer at once and from any thread. A player
// waits for an answer that is under way, a second at most, before it gives the clock back.
class KELP_PLAYER_API KelpSyncClock {
public:
    virtual ~KelpSyncClock() = default;

    // How far, in milliseconds, a stream may be away from this clock before it stops trying to follow; see isForceSync
    // for one that is ahead. Players use the larger of this and 10000.
    virtual int64_t getNoSyncThreshold() = 0;

    // True for a clock that must be obeyed: picture and sound that run ahead of it wait for it, however far that is.
    virtual bool isForceSync() = 0;

    // The reading, in milliseconds on the time line of the host.
    virtual int64_t getSyncPts() = 0;
};

// A ready-made clock of the host: it runs at a speed, can be paused and set, and is always obeyed.
//
// Made by `create`, handed to players, and ended by `destroy` after it was taken back from every one of them. Any
// thread may call any operation; none blocks and none fails. A `reset` at the very moment of another thread's `pause`
// or `setSpeed` may be lost. The clock counts by the system's wall clock: setting the system's time moves it.
class KELP_PLAYER_API TarnSyncClock : public KelpSyncClock {
public:
    // Makes a clock that runs at speed 1 and reads `startPts` milliseconds. `noSyncThreshold`, in milliseconds, is
    // what getNoSyncThreshold answers. Null if there is no memory. The caller owns the clock.
    static TarnSyncClock* create(int64_t startPts, int64_t noSyncThreshold);

    // Ends a clock. Null is allowed.
    static void destroy(TarnSyncClock* clock);

    // The reading in milliseconds.
    int64_t getCurrentClock();

    // Stops the clock at its present reading, and lets it go on from there. A second call does nothing.
    void pause();
    void resume();

    // Sets the reading to `pts` milliseconds. A paused clock stays paused.
    void reset(int64_t pts);

    // Changes the rate from now on, 1.0 being that of the wall clock; the reading doesn't jump. 0 makes the clock stand
    // still, a negative speed makes it run backwards.
    //
    // It also widens SAMPLE_CORRECTION_PERCENT_MAX as far as sound at the normal rate needs to keep up: to 51 for speed
    // 2.0, to 99 for 0.5. Only a speed within 0.001 of 1.0 takes that back, to 10. The players' tempo is a setting of
    // its own: TarnPlayer::setSpeed.
    void setSpeed(double speed);

private:
    TarnSyncClock(int64_t startPts, int64_t noSyncThreshold);
    ~TarnSyncClock() override;

    int64_t getNoSyncThreshold() override;
    bool isForceSync() override;
    int64_t getSyncPts() override;

    std::atomic<int64_t> basePts_{0};  // the reading at the last reset; while paused, the reading
    int64_t ptsOffset_ = 0;            // basePts_ minus baseTimeMs_; guarded by mutex_
    int64_t baseTimeMs_ = 0;           // wall clock at the last reset or resume; guarded by mutex_
    std::mutex mutex_;
    std::atomic<int64_t> noSyncThreshold_{10000};
    std::atomic<double> speed_{1.0};
    std::atomic<bool> paused_{false};
};

}  // namespace kelp
