#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "clock/clock_line.h"
#include "clock/sync_object.h"
#include "kelp_player/sync_clock.h"

namespace kelp {

// Lets a clock of the host act as the master of the play threads, which read it at every frame.
//
// The one object serves all clocks of a player. Without a clock, a play thread that still holds it, for the rest of a
// frame or because a master keeps whom it followed, finds a clock that is too far away to follow.
class ExternSyncWrapper : public SyncObject {
public:
    int64_t getNoSyncThreshold() override;
    bool isForceSync() override;
    // The host's reading less the offset.
    int64_t getSyncPts() override;
    // Without the steps of the host's clock, and by the speed that its readings show.
    int64_t getSyncPtsUs() override;
    std::optional<double> getSyncSpeed() override;
    void setSyncObject(std::shared_ptr<SyncObject>) override {}

    // Reads `clock`, or none, from now on; `offsetMs`: by how much it runs ahead of the stream's zero. It isn't owned.
    // `follow` has the player follow this object, true, when the clock stands, and no more, false, before it goes: one
    // change at a time, so that the player follows it exactly while it has a clock. Returns the clock that was replaced
    // by another one, to be waited for.
    KelpSyncClock* set(KelpSyncClock* clock, int32_t offsetMs, const std::function<void(bool)>& follow);

    // Waits until nobody reads `clock` any more, unless it was set again. For a second at most, as an answer may wait
    // for a lock that the caller holds; an Error line says so then.
    void waitUntilUnread(const KelpSyncClock* clock);

private:
    // One call to the clock that is set at its beginning.
    class Reading;

    std::mutex setMutex_;                          // held through a change; before all others
    std::mutex mutex_;                             // never held while a clock is called; a leaf
    KelpSyncClock* clock_ = nullptr;               // guarded by mutex_, like all below
    int32_t offsetMs_ = 0;                         // of clock_
    ClockLine line_;                               // of clock_, without the offset
    std::vector<const KelpSyncClock*> beingRead_;  // once for each call that is under way
    std::condition_variable readingEnded_;
};

}  // namespace kelp
