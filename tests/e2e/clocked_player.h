#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kelp_player/frame_sink.h"
#include "kelp_player/sync_clock.h"
#include "kelp_player/tarn_player.h"

namespace kelp::test {

// A managed player that shows its pictures to nobody and remembers the time of the one on its screen. It ends with the
// object.
class ClockedPlayer final : private TarnPlayerObserver, private ExternFrameSink {
public:
    // Follows `clock`, or its own for null, with the stream's zero at `offsetMs` on it, and plays as soon as it can.
    // `prepare` sets it up before the load.
    ClockedPlayer(const std::string& path, TarnSyncClock* clock, int offsetMs = 0,
                  const std::function<void(TarnPlayer&)>& prepare = {});
    ~ClockedPlayer();
    ClockedPlayer(const ClockedPlayer&) = delete;
    ClockedPlayer& operator=(const ClockedPlayer&) = delete;

    TarnPlayer& player() { return *player_; }

    // Whether there is a picture on the screen, and its time on the stream.
    bool shows() const { return shown_; }
    int64_t shownPts() const { return pts_; }
    int pictures() const { return pictures_; }
    // What the player has told of its last start or seek.
    int firstPictureMs() const { return firstPictureMs_; }
    bool failed() const { return failed_; }

private:
    void onVideoSizeUpdated(int, int, int) override {}
    void onPrepared(bool, bool) override {}
    void onStarted() override {}
    void onFailed(int) override { failed_ = true; }
    void onFirstVideoFrame(int ptsMs) override { firstPictureMs_ = ptsMs; }
    void onFirstAudioFrame(int) override {}
    void onCompleted() override {}
    void onDurationUpdated(int) override {}

    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int rotate, int64_t frameTag) override;

    TarnPlayer* const player_;
    std::atomic<int64_t> pts_{0};
    std::atomic<int> pictures_{0};
    std::atomic<int> firstPictureMs_{-1};
    std::atomic<bool> shown_{false};
    std::atomic<bool> failed_{false};
};

// The clock that players of a test follow.
struct ClockEnd {
    void operator()(TarnSyncClock* clock) const { TarnSyncClock::destroy(clock); }
};

// Lets several players of this process have a sound device each, which nobody hears: SDL's dummy is only one. To be
// called before the first player is made.
void openManySoundDevices();

// The value below which `percent` of `values` lie; they are put in order. 0 for none.
int64_t percentile(std::vector<int64_t>& values, int percent);

}  // namespace kelp::test
