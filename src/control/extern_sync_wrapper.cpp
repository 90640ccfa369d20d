#include "control/extern_sync_wrapper.h"

#include <chrono>
#include <limits>
#include <thread>

#include "clock/wrapping_math.h"

namespace kelp {

namespace {

constexpr auto kLongestWait = std::chrono::seconds(1);
constexpr int64_t kNoSyncThresholdMs = 10000;
// Further from every time of a stream than any threshold, and differences to it don't overflow.
constexpr int64_t kOutOfReachMs = std::numeric_limits<int64_t>::min() / 2;

}  // namespace

ExternSyncWrapper::~ExternSyncWrapper() = default;

template <class Result, class Read>
Result ExternSyncWrapper::ask(Result without, Read read) {
    // In this order, as `set` stores first and counts then: either it waits for this reader, or the reader finds what
    // it has stored.
    ++readers_;
    KelpSyncClock* const clock = syncClock_.load();
    const Result result = clock ? read(clock) : without;
    --readers_;
    return result;
}

int64_t ExternSyncWrapper::getNoSyncThreshold() {
    return ask(kNoSyncThresholdMs, [](KelpSyncClock* clock) { return clock->getNoSyncThreshold(); });
}

bool ExternSyncWrapper::isForceSync() {
    return ask(false, [](KelpSyncClock* clock) { return clock->isForceSync(); });
}

int64_t ExternSyncWrapper::getSyncPts() {
    return ask(kOutOfReachMs,
               [this](KelpSyncClock* clock) { return wrappingSubtract(clock->getSyncPts(), offsetMs_.load()); });
}

void ExternSyncWrapper::setSyncObject(std::shared_ptr<SyncObject>) {
}

void ExternSyncWrapper::set(KelpSyncClock* clock, int32_t offsetMs) {
    const bool replaced = syncClock_.exchange(clock) != clock;
    offsetMs_ = offsetMs;
    // Not for ever: the host may hold a lock here that its clock waits for.
    const auto end = std::chrono::steady_clock::now() + kLongestWait;
    while (replaced && readers_.load() != 0 && std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
    }
}

}  // namespace kelp
