#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "clock/sync_object.h"
#include "kelp_player/sync_clock.h"

namespace kelp {

// Lets a clock of the host act as the master of the play threads, which read it at every frame.
//
// A second `set` changes the one object in place while they read it: a reader that comes between sees the new clock
// with the old offset once. After a `set` without a clock, a play thread that still holds the wrapper, for the rest of
// a frame or because a master keeps whom it followed, finds a clock that is too far away to follow.
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

    // `clock` isn't owned. `offsetMs`: by how much it runs ahead of the stream's zero. Waits until nobody reads the
    // clock before, so that the host may end that one as soon as this returns; for a second at most, as a reading may
    // wait for a lock that the caller holds.
    void set(KelpSyncClock* clock, int32_t offsetMs);

private:
    // What `read` makes of the host's clock, or `without` if there is none.
    template <class Result, class Read>
    Result ask(Result without, Read read);

    std::atomic<KelpSyncClock*> syncClock_{nullptr};
    std::atomic<int32_t> offsetMs_{0};
    std::atomic<int> readers_{0};  // threads that may be using a clock they found in syncClock_
};

}  // namespace kelp
