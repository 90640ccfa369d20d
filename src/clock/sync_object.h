#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "clock/wrapping_math.h"

namespace kelp {

// A clock that a stream can follow. Readings are milliseconds on the stream's time line.
//
// The reading operations are called on the play threads, at every frame; `setSyncObject` comes from the control side.
class SyncObject {
public:
    virtual ~SyncObject() = default;

    // How far, in milliseconds, a follower may be away from this clock before it stops trying to follow.
    virtual int64_t getNoSyncThreshold() = 0;

    // This clock insists: a follower that runs ahead waits for it.
    virtual bool isForceSync() = 0;

    // The clock's present time.
    virtual int64_t getSyncPts() = 0;

    // The same in microseconds, for followers that are exact: without steps, if the clock is exact as well.
    virtual int64_t getSyncPtsUs() { return wrappingMultiply(getSyncPts(), 1000); }

    // How fast it runs, 1 being the wall clock's pace; nothing if that is the speed which the player is set to.
    virtual std::optional<double> getSyncSpeed() { return std::nullopt; }

    // Gives this object a master to follow, or none; a clock that follows nobody ignores it.
    virtual void setSyncObject(std::shared_ptr<SyncObject> syncObject) = 0;
};

}  // namespace kelp
