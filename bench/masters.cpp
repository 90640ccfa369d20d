#include "masters.h"

namespace kelp::bench {

namespace {

constexpr int64_t kNoSyncThresholdMs = 10000;

}  // namespace

SyncMasterMode masterNamed(const std::string& name) {
    return name == "sound" ? SYNC_MASTER_AUDIO : name == "picture" ? SYNC_MASTER_VIDEO : SYNC_MASTER_CLOCK;
}

HostClock hostClockFor(const std::string& name, double speed) {
    if (name != "host") {
        return nullptr;
    }
    HostClock clock(TarnSyncClock::create(0, kNoSyncThresholdMs));
    clock->pause();
    clock->setSpeed(speed);
    return clock;
}

}  // namespace kelp::bench
