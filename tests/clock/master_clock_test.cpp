#include "clock/master_clock.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <thread>

#include "support/fake_time.h"

namespace kelp {
namespace {

using test::FakeTime;

class MasterClockTest : public testing::Test {
protected:
    void SetUp() override { FakeTime::reset(1'700'000'000'000); }
};

TEST_F(MasterClockTest, ReadsZeroWhenNewAndRunsWithTheWallClock) {
    MasterClock clock;
    EXPECT_EQ(clock.getSyncPts(), 0);
    FakeTime::advanceMs(1000);
    EXPECT_EQ(clock.getSyncPts(), 1000);
    FakeTime::advanceMs(-400);
    EXPECT_EQ(clock.getSyncPts(), 600);
}

TEST_F(MasterClockTest, RunsOnFromARestoredTime) {
    MasterClock clock;
    FakeTime::advanceMs(7777);
    clock.save(500);
    EXPECT_EQ(clock.getSyncPts(), 7777);
    clock.restore();
    EXPECT_EQ(clock.getSyncPts(), 500);
    FakeTime::advanceMs(100);
    EXPECT_EQ(clock.getSyncPts(), 600);
}

TEST_F(MasterClockTest, SkipsTheTimeBetweenSaveAndRestore) {
    MasterClock clock;
    FakeTime::advanceMs(3000);
    clock.save(-1);
    FakeTime::advanceMs(1000);
    EXPECT_EQ(clock.getSyncPts(), 4000);
    clock.restore();
    EXPECT_EQ(clock.getSyncPts(), 3000);
    FakeTime::advanceMs(20);
    EXPECT_EQ(clock.getSyncPts(), 3020);
}

TEST_F(MasterClockTest, RunsOnFromATimeThatItIsSetTo) {
    MasterClock clock;
    FakeTime::advanceMs(3000);
    clock.rebase(500);
    FakeTime::advanceMs(20);
    EXPECT_EQ(clock.getSyncPts(), 520);
}

TEST_F(MasterClockTest, SavesZeroAsATime) {
    MasterClock clock;
    FakeTime::advanceMs(3000);
    clock.save(0);
    clock.restore();
    EXPECT_EQ(clock.getSyncPts(), 0);
}

TEST_F(MasterClockTest, SavesThePresentReadingForAnyNegativeTime) {
    MasterClock clock;
    FakeTime::advanceMs(3000);
    clock.save(-500);
    FakeTime::advanceMs(1000);
    clock.restore();
    EXPECT_EQ(clock.getSyncPts(), 3000);
}

TEST_F(MasterClockTest, RestoresTheSameTimeTwice) {
    MasterClock clock;
    clock.save(250);
    clock.restore();
    FakeTime::advanceMs(90);
    clock.restore();
    EXPECT_EQ(clock.getSyncPts(), 250);
}

TEST_F(MasterClockTest, RestoresZeroWithoutASave) {
    MasterClock clock;
    FakeTime::advanceMs(5000);
    clock.restore();
    EXPECT_EQ(clock.getSyncPts(), 0);
}

TEST_F(MasterClockTest, TakesATimeOfAnySize) {
    MasterClock clock;
    clock.save(std::numeric_limits<int64_t>::max());
    clock.restore();
    EXPECT_EQ(clock.getSyncPts(), std::numeric_limits<int64_t>::max());
    FakeTime::advanceMs(1);
    EXPECT_EQ(clock.getSyncPts(), std::numeric_limits<int64_t>::min());
}

TEST_F(MasterClockTest, AnswersAsASyncObjectAndDropsAMaster) {
    const auto master = std::make_shared<MasterClock>();
    master->save(5000);
    master->restore();
    const std::shared_ptr<SyncObject> clock = std::make_shared<MasterClock>();
    clock->setSyncObject(master);
    EXPECT_EQ(master.use_count(), 1);
    EXPECT_EQ(clock->getSyncPts(), 0);
    EXPECT_EQ(clock->getNoSyncThreshold(), 10000);
    EXPECT_FALSE(clock->isForceSync());
}

TEST_F(MasterClockTest, LetsADerivedClockReplaceSaveAndRestore) {
    struct Recorder : MasterClock {
        void save(int64_t pts) override { saved = pts; }
        void restore() override { ++restored; }
        int64_t saved = 0;
        int restored = 0;
    };
    Recorder recorder;
    MasterClock& clock = recorder;
    clock.save(40);
    clock.restore();
    EXPECT_EQ(recorder.saved, 40);
    EXPECT_EQ(recorder.restored, 1);
}

TEST_F(MasterClockTest, IsMovedOnOneThreadWhileOthersRead) {
    MasterClock clock;
    std::thread mover([&] {
        for (int i = 0; i < 2000; ++i) {
            clock.save(i % 2 == 0 ? 0 : 100000);
            clock.restore();
        }
    });
    for (int i = 0; i < 2000; ++i) {
        const int64_t reading = clock.getSyncPts();
        ASSERT_TRUE(reading == 0 || reading == 100000) << reading;
    }
    mover.join();
    EXPECT_EQ(clock.getSyncPts(), 100000);
}

}  // namespace
}  // namespace kelp
