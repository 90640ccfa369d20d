#include "control/extern_sync_wrapper.h"

#include <gtest/gtest.h>

namespace kelp {
namespace {

class HostClock : public KelpSyncClock {
public:
    HostClock(int64_t pts, int64_t threshold, bool force) : pts_(pts), threshold_(threshold), force_(force) {}
    int64_t getNoSyncThreshold() override { return threshold_; }
    bool isForceSync() override { return force_; }
    int64_t getSyncPts() override { return pts_; }

private:
    int64_t pts_;
    int64_t threshold_;
    bool force_;
};

TEST(ExternSyncWrapper, ReadsTheHostsClockLessTheOffset) {
    HostClock clock(0x1'0000'0000, 12345, true);
    ExternSyncWrapper wrapper;
    wrapper.set(&clock, 1000);
    EXPECT_EQ(wrapper.getSyncPts(), 0x1'0000'0000 - 1000);
    EXPECT_EQ(wrapper.getNoSyncThreshold(), 12345);
    EXPECT_TRUE(wrapper.isForceSync());
    wrapper.set(&clock, -1000);
    EXPECT_EQ(wrapper.getSyncPts(), 0x1'0000'0000 + 1000);
}

TEST(ExternSyncWrapper, ChangesItsClockInPlace) {
    HostClock first(100, 1, true);
    HostClock second(200, 2, false);
    ExternSyncWrapper wrapper;
    wrapper.set(&first, 0);
    wrapper.set(&second, 5);
    EXPECT_EQ(wrapper.getSyncPts(), 195);
    EXPECT_EQ(wrapper.getNoSyncThreshold(), 2);
    EXPECT_FALSE(wrapper.isForceSync());
}

TEST(ExternSyncWrapper, FollowsNobody) {
    HostClock clock(100, 1, true);
    const auto other = std::make_shared<ExternSyncWrapper>();
    ExternSyncWrapper wrapper;
    wrapper.set(&clock, 0);
    wrapper.setSyncObject(other);
    EXPECT_EQ(other.use_count(), 1);
    EXPECT_EQ(wrapper.getSyncPts(), 100);
}

}  // namespace
}  // namespace kelp
