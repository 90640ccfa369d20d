#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "clock/sync_object.h"
#include "kelp_player/sync_clock.h"

namespace kelp {

// Lets a clock of the host act as the master of the play threads, which read it at every frame.
//
// It reaches them only after `set` has stored a clock. A second `set` changes the one object in place while they read
// it: a reader that comes between sees the new clock with the old offset once.
class ExternSyncWrapper : public SyncObject {
public:
    ExternSyncWrapper() = default;
    ExternSyncWrapper(const ExternSyncWrapper&) = delete;
    ExternSyncWrapper& operator=(const ExternSyncWrapper&) = delete;
    ~ExternSyncWrapper() override;

    int64_t getNoSyncThreshold() override;
    bool isForceSync() override;
    // The host's reading less the offset.
    int64_t getSyncPts() override;
    // Nothing: this clock follows nobody.
    void setSyncObject(std::shared_ptr<SyncObject> syncObject) override;

    // `clock` isn't owned and must outlive playback. `offsetMs`: by how much it runs ahead of the stream's zero.
    void set(KelpSyncClock* clock, int32_t offsetMs);

private:
    std::atomic<KelpSyncClock*> syncClock_{nullptr};
    std::atomic<int32_t> offsetMs_{0};
};

}  // namespace kelp
