#include "control/extern_sync_wrapper.h"

namespace kelp {

ExternSyncWrapper::~ExternSyncWrapper() = default;

int64_t ExternSyncWrapper::getNoSyncThreshold() {
    return syncClock_.load()->getNoSyncThreshold();
}

bool ExternSyncWrapper::isForceSync() {
    return syncClock_.load()->isForceSync();
}

int64_t ExternSyncWrapper::getSyncPts() {
    return syncClock_.load()->getSyncPts() - offsetMs_.load();
}

void ExternSyncWrapper::setSyncObject(std::shared_ptr<SyncObject>) {
}

void ExternSyncWrapper::set(KelpSyncClock* clock, int32_t offsetMs) {
    syncClock_ = clock;
    offsetMs_ = offsetMs;
}

}  // namespace kelp
