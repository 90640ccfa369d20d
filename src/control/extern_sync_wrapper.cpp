#include "control/extern_sync_wrapper.h"

#include <algorithm>
#include <chrono>
#include <limits>

#include "clock/wrapping_math.h"
#include "kelp_player/log.h"
#include "runtime/kelp_time.h"

namespace kelp {

constexpr const char* kTag = "ExternSyncWrapper";

constexpr std::chrono::milliseconds kLongestWait{1000};
constexpr int64_t kNoSyncThresholdMs = 10000;
// Further from every time of a stream than any threshold, and differences to it don't overflow.
constexpr int64_t kOutOfReachMs = std::numeric_limits<int64_t>::min() / 2;

class ExternSyncWrapper::Reading {
public:
    explicit Reading(ExternSyncWrapper& wrapper) : wrapper_(wrapper) {
        std::lock_guard lock(wrapper_.mutex_);
        clock = wrapper_.clock_;
        offsetMs = wrapper_.offsetMs_;
        wrapper_.beingRead_.push_back(clock);
    }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;
    ~Reading() {
        std::lock_guard lock(wrapper_.mutex_);
        wrapper_.beingRead_.erase(std::ranges::find(wrapper_.beingRead_, clock));
        wrapper_.readingEnded_.notify_all();
    }

    KelpSyncClock* clock = nullptr;
    int32_t offsetMs = 0;

private:
    ExternSyncWrapper& wrapper_;
};

int64_t ExternSyncWrapper::getNoSyncThreshold() {
    const Reading reading(*this);
    return reading.clock ? reading.clock->getNoSyncThreshold() : kNoSyncThresholdMs;
}

bool ExternSyncWrapper::isForceSync() {
    const Reading reading(*this);
    return reading.clock && reading.clock->isForceSync();
}

int64_t ExternSyncWrapper::getSyncPts() {
    const Reading reading(*this);
    return reading.clock ? wrappingSubtract(reading.clock->getSyncPts(), reading.offsetMs) : kOutOfReachMs;
}

int64_t ExternSyncWrapper::getSyncPtsUs() {
    const Reading reading(*this);
    if (!reading.clock) {
        return kOutOfReachMs;  // as far in microseconds
    }
    const int64_t readingMs = reading.clock->getSyncPts();
    const int64_t nowUs = KelpTime::getSteadyUs();
    std::lock_guard lock(mutex_);
    // Another clock may stand here by now.
    ClockLine other;
    ClockLine& line = clock_ == reading.clock ? line_ : other;
    line.add(readingMs, nowUs);
    return wrappingSubtract(line.timeUs(), int64_t{reading.offsetMs} * 1000);
}

std::optional<double> ExternSyncWrapper::getSyncSpeed() {
    std::lock_guard lock(mutex_);
    return line_.speed();
}

KelpSyncClock* ExternSyncWrapper::set(KelpSyncClock* clock, int32_t offsetMs, const std::function<void(bool)>& follow) {
    std::lock_guard setLock(setMutex_);
    if (!clock) {
        follow(false);
    }
    KelpSyncClock* replaced = clock;
    {
        std::lock_guard lock(mutex_);
        std::swap(clock_, replaced);
        offsetMs_ = offsetMs;
        line_.restart();
    }
    if (clock) {
        follow(true);
    }
    return replaced != clock ? replaced : nullptr;
}

void ExternSyncWrapper::waitUntilUnread(const KelpSyncClock* clock) {
    std::unique_lock lock(mutex_);
    const auto isUnread = [&] { return clock_ == clock || std::ranges::count(beingRead_, clock) == 0; };
    if (clock && !readingEnded_.wait_for(lock, kLongestWait, isUnread)) {
        lock.unlock();
        Log::Error(kTag, "%s, the host's clock is still being read after %d ms, it must not end yet\n",
                   "setExternSyncClock", static_cast<int>(kLongestWait.count()));
    }
}

}  // namespace kelp
