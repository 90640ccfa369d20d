#include "playtask/stall_watch.h"

#include <gmock/gmock.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "support/fake_time.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class StallWatchTest : public testing::Test {
protected:
    void SetUp() override {
        FakeTime::reset();
        FakeTime::setManual(true);
        watch_.start();
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
    }
    void TearDown() override {
        FakeTime::reset();
        watch_.stop();
    }

    // Plays on with so much waiting, for one look.
    void look(int waitingMs, int restMs = 20) {
        waitingMs_ = waitingMs;
        ASSERT_TRUE(FakeTime::runFor(restMs, 1));
    }
    std::vector<std::string> told() {
        std::lock_guard lock(mutex_);
        return told_;
    }
    void note(const std::string& what) {
        std::lock_guard lock(mutex_);
        told_.push_back(what);
    }

    std::atomic<int> waitingMs_{5000};
    std::mutex mutex_;
    std::vector<std::string> told_;  // guarded by mutex_
    StallWatch watch_{
        1000,
        {[this] { return DataLevel{.waitingMs = waitingMs_, .isMoreAwaited = true, .isPlaying = true}; },
         [this](bool held) { note(held ? "hold" : "go on"); },
         [this](int64_t ms, int percent) { note(std::to_string(ms) + " ms, " + std::to_string(percent) + "%"); }}};
};

TEST_F(StallWatchTest, HoldsPlaybackTellsWhatComesAndLetsItGoOn) {
    look(0, 200);
    look(0);
    EXPECT_THAT(told(), ElementsAre("hold", "0 ms, 0%"));
    look(0);
    look(400, 50);
    look(401, 50);
    look(990, 50);
    look(1100, 50);
    look(1000);
    EXPECT_THAT(told(), ElementsAre("hold", "0 ms, 0%", "400 ms, 40%", "990 ms, 99%", "go on"));
}

TEST_F(StallWatchTest, LooksSeldomWhileMuchWaits) {
    const int64_t before = FakeTime::sleepCount();
    ASSERT_TRUE(FakeTime::runFor(2000, 1));
    EXPECT_EQ(FakeTime::sleepCount() - before, 10);
}

TEST_F(StallWatchTest, EndsAStallThatAStopMeets) {
    look(0, 200);
    look(0);
    watch_.stop();
    EXPECT_THAT(told(), ElementsAre("hold", "0 ms, 0%", "go on"));
}

TEST_F(StallWatchTest, SaysNothingWhereNothingStands) {
    watch_.stop();
    EXPECT_THAT(told(), IsEmpty());
}

}  // namespace
}  // namespace kelp::test
