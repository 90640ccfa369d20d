#pragma once

#include <cstdint>

#include "clock/master_clock.h"
#include "clock/speed_clock.h"

namespace kelp {

// An internal clock that runs at the player's speed, and stands from a `save`, a pause, to the next `restore`.
class ExactClock : public MasterClock {
public:
    explicit ExactClock(double speed);

    int64_t getSyncPts() override { return getSyncPtsUs() / 1000; }
    int64_t getSyncPtsUs() override;
    void save(int64_t pts) override;
    void restore() override;
    void rebase(int64_t pts) override;
    void setSpeed(double speed) override;

private:
    SpeedClock time_;
};

}  // namespace kelp
