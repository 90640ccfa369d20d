#pragma once

#include <memory>
#include <string>

#include "kelp_player/sync_clock.h"
#include "kelp_player/types.h"

namespace kelp::bench {

// Whose clock a row follows, by the name that its table shows: "clock", "sound", "picture" or "host".
SyncMasterMode masterNamed(const std::string& name);

struct DestroyClock {
    void operator()(TarnSyncClock* clock) const { TarnSyncClock::destroy(clock); }
};
using HostClock = std::unique_ptr<TarnSyncClock, DestroyClock>;

// The clock of a row whose master is "host": paused, to run at `speed`. Null for the others.
HostClock hostClockFor(const std::string& name, double speed);

}  // namespace kelp::bench
