#include "clock/master_clock.h"

#include "clock/wrapping_math.h"

namespace kelp {

int64_t MasterClock::getSyncPts() {
    return wrappingAdd(KelpTime::getTimeMs(), ptsOffset_.load(std::memory_order_relaxed));
}

void MasterClock::save(int64_t pts) {
    savedPts_.store(pts < 0 ? getSyncPts() : pts, std::memory_order_relaxed);
}

void MasterClock::restore() {
    ptsOffset_.store(wrappingSubtract(savedPts_.load(std::memory_order_relaxed), KelpTime::getTimeMs()),
                     std::memory_order_relaxed);
}

void MasterClock::rebase(int64_t pts) {
    save(pts);
    restore();
}

}  // namespace kelp
