#include "e2e/clocked_player.h"

#include <algorithm>

#include "e2e/sound.h"

namespace kelp::test {

ClockedPlayer::ClockedPlayer(const std::string& path, TarnSyncClock* clock, int offsetMs,
                             const std::function<void(TarnPlayer&)>& prepare)
    : player_(TarnPlayer::create()) {
    player_->setOption("log_level", "none");
    player_->enableHwDecoder(false, HW_DECODE_NONE);
    player_->setSyncClock(clock);
    player_->addWindow(static_cast<ExternFrameSink*>(this), WINDOW_TYPE_EXTERN, 0, 0);
    if (prepare) {
        prepare(*player_);
    }
    player_->setDataSource(path.c_str(), offsetMs, this);
    player_->prepareAsync();
    player_->start();
}

ClockedPlayer::~ClockedPlayer() {
    player_->stop();
    TarnPlayer::destroy(player_);
}

bool ClockedPlayer::onVideoFrame(int, int64_t pts, uint8_t**, int*, int, int64_t) {
    if (!shown_ || pts_ != pts) {
        pts_ = pts;
        ++pictures_;
        shown_ = true;
    }
    return true;
}

void openManySoundDevices() {
    forgetSound();
}

int64_t percentile(std::vector<int64_t>& values, int percent) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    return values[(values.size() - 1) * static_cast<size_t>(percent) / 100];
}

}  // namespace kelp::test
