#include "clock/master_clock.h"

#include "clock/wrapping_math.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

constexpr int64_t kNoSyncThresholdMs = 10000;

}  // namespace

MasterClock::MasterClock() : ptsOffset_(-KelpTime::getTimeMs()) {
}

int64_t MasterClock::getNoSyncThreshold() {
    return kNoSyncThresholdMs;
}

bool MasterClock::isForceSync() {
    return false;
}

int64_t MasterClock::getSyncPts() {
    return wrappingAdd(KelpTime::getTimeMs(), ptsOffset_.load(std::memory_order_relaxed));
}

void MasterClock::setSyncObject(std::shared_ptr<SyncObject>) {
}

void MasterClock::save(int64_t pts) {
    savedPts_.store(pts < 0 ? getSyncPts() : pts, std::memory_order_relaxed);
}

void MasterClock::restore() {
    ptsOffset_.store(wrappingSubtract(savedPts_.load(std::memory_order_relaxed), KelpTime::getTimeMs()),
                     std::memory_order_relaxed);
}

}  // namespace kelp
