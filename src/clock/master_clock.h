#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "clock/sync_object.h"
#include "runtime/kelp_time.h"

namespace kelp {

// The player's internal clock: the wall clock plus an offset that can be moved. A new one reads 0.
//
// Read on the play threads, moved by the control side and by a play thread's first frame. There is no lock: a reader
// that comes between sees the old offset or the new one.
class MasterClock : public SyncObject {
public:
    int64_t getNoSyncThreshold() override { return 10000; }
    bool isForceSync() override { return false; }
    int64_t getSyncPts() override;
    void setSyncObject(std::shared_ptr<SyncObject>) override {}

    // Keeps `pts`, in milliseconds, or the present reading if it is negative. The clock itself runs on.
    virtual void save(int64_t pts);

    // The clock reads the kept time from now on.
    virtual void restore();

    // The clock reads `pts` from now on.
    virtual void rebase(int64_t pts);

    // The player's speed; this clock keeps to the wall clock's.
    virtual void setSpeed(double /*speed*/) {}

private:
    std::atomic<int64_t> savedPts_{0};                        // milliseconds
    std::atomic<int64_t> ptsOffset_{-KelpTime::getTimeMs()};  // milliseconds, added to the wall clock
};

}  // namespace kelp
