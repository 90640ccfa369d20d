#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>

#include "control/extern_sync_wrapper.h"
#include "support/fake_time.h"

// The host's clock between two of its readings, on a clock that the test moves.

namespace kelp::test {
namespace {

class StandingClock : public KelpSyncClock {
public:
    int64_t getNoSyncThreshold() override { return 1; }
    bool isForceSync() override { return true; }
    int64_t getSyncPts() override { return 7; }
};

void change(ExternSyncWrapper& wrapper, KelpSyncClock* clock, int32_t offsetMs) {
    wrapper.waitUntilUnread(wrapper.set(clock, offsetMs, [](bool) {}));
}

TEST(ExternSyncLine, IsReadInMicrosecondsWithoutSteps) {
    FakeTime::reset();
    ExternSyncWrapper wrapper;
    EXPECT_LT(wrapper.getSyncPtsUs(), std::numeric_limits<int64_t>::min() / 4);
    EXPECT_EQ(wrapper.getSyncSpeed(), std::nullopt);
    const std::unique_ptr<TarnSyncClock, void (*)(TarnSyncClock*)> clock(TarnSyncClock::create(50'000, 10'000),
                                                                         &TarnSyncClock::destroy);
    clock->setSpeed(2);
    change(wrapper, clock.get(), 1000);
    for (int i = 0; i < 100; ++i) {
        const int64_t us = wrapper.getSyncPtsUs();
        EXPECT_NEAR(us, wrapper.getSyncPts() * 1000, 5000);
        FakeTime::advanceUs(3300);
    }
    EXPECT_NEAR(wrapper.getSyncSpeed().value_or(0), 2, 0.1);
    // Nothing is left of a clock that was replaced.
    StandingClock other;
    change(wrapper, &other, 0);
    EXPECT_EQ(wrapper.getSyncPtsUs(), 7500);
    change(wrapper, nullptr, 0);
    EXPECT_LT(wrapper.getSyncPtsUs(), std::numeric_limits<int64_t>::min() / 4);
    FakeTime::reset();
}

}  // namespace
}  // namespace kelp::test
