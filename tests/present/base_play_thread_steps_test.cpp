// Steps of a paused play thread: what the loop makes of them.

#include <gmock/gmock.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "present/base_play_thread.h"
#include "support/fake_time.h"

namespace kelp {
namespace {

using test::FakeTime;
using testing::ElementsAre;

constexpr auto kStepPatience = std::chrono::seconds(20);

// Writes down what it is asked for: "out 40", "step 40", "seek 39", "finish 0".
class SteppedPlayThread : public BasePlayThread {
public:
    SteppedPlayThread() : BasePlayThread("SteppedThread", /*keepFrames=*/0) {}
    ~SteppedPlayThread() override {
        FakeTime::setManual(false);
        stop();
    }

    void fill(std::initializer_list<int64_t> times) {
        for (const int64_t pts : times) {
            auto frame = std::make_shared<DecodedFrame>();
            frame->pts = pts;
            frame->duration = 40;
            fillFrame(std::move(frame));
        }
    }

    // Waits in real time; forgets what came up to there.
    bool waitFor(const std::string& event) {
        std::unique_lock lock(mutex_);
        const auto has = [&] { return std::ranges::find(events_, event) != events_.end(); };
        if (!changed_.wait_for(lock, kStepPatience, has)) {
            return false;
        }
        events_.erase(events_.begin(), std::ranges::find(events_, event) + 1);
        return true;
    }
    // Since then, without the offers of what is shown already.
    std::vector<std::string> steps() {
        std::lock_guard lock(mutex_);
        std::vector<std::string> found;
        std::ranges::copy_if(events_, std::back_inserter(found),
                             [](const std::string& event) { return !event.starts_with("out"); });
        return found;
    }

    std::atomic<bool> isSeeking{false};

private:
    bool onOutput(std::shared_ptr<DecodedFrame> frame) override {
        note("out " + std::to_string(frame->pts));
        return true;
    }
    void onOutput() override {}
    void onSeekStart(int) override {}
    void onSeekFinish(int ptsMs) override { note("finish " + std::to_string(ptsMs)); }
    void onStep(const std::shared_ptr<DecodedFrame>& frame) override { note("step " + std::to_string(frame->pts)); }
    void onStepSeek(int seekTimeMs) override { note("seek " + std::to_string(seekTimeMs)); }
    bool isSeekUnderWay() const override { return isSeeking; }
    void onExit() override {}

    void note(const std::string& event) {
        std::lock_guard lock(mutex_);
        events_.push_back(event);
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
};

class BasePlayThreadStepsTest : public testing::Test {
protected:
    void SetUp() override {
        FakeTime::reset();
        FakeTime::setManual(true);
        thread.pause(true);
        thread.fill({40, 80, 120});
        ASSERT_TRUE(thread.start());
        // The first offer, and its rest behind it.
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
        FakeTime::advanceMs(50);
        ASSERT_TRUE(thread.waitFor("out 40"));
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
    }
    void TearDown() override { FakeTime::setManual(false); }

    SteppedPlayThread thread;
};

TEST_F(BasePlayThreadStepsTest, ShowTheNextFrameAtOnce) {
    const int64_t beforeMs = FakeTime::nowMs();
    thread.step(1);
    EXPECT_TRUE(thread.waitFor("step 80"));
    EXPECT_EQ(FakeTime::nowMs(), beforeMs);
    EXPECT_EQ(thread.getFrameQueueSize(), 2);
}

TEST_F(BasePlayThreadStepsTest, GoBackAmongTheFramesThatWerePassed) {
    thread.step(2);
    EXPECT_TRUE(thread.waitFor("step 120"));
    thread.step(-2);
    EXPECT_TRUE(thread.waitFor("step 40"));
    EXPECT_EQ(thread.getFrameQueueSize(), 3);
    EXPECT_THAT(thread.steps(), ElementsAre());
}

TEST_F(BasePlayThreadStepsTest, WaitForAFrame) {
    thread.step(3);
    EXPECT_TRUE(thread.waitFor("step 120"));
    thread.fill({160});
    EXPECT_TRUE(thread.waitFor("step 160"));
}

TEST_F(BasePlayThreadStepsTest, AreOverBehindTheLastFrame) {
    thread.step(9);
    EXPECT_TRUE(thread.waitFor("step 120"));
    thread.endFrames();
    thread.step(-1);
    EXPECT_TRUE(thread.waitFor("step 80"));
}

TEST_F(BasePlayThreadStepsTest, GoOnBehindASeekOfTheirOwn) {
    thread.step(-2);
    ASSERT_TRUE(thread.waitFor("seek 39"));
    EXPECT_TRUE(thread.isStepAwaited(39));
    thread.setSeekRule(SeekRule::Exact);
    thread.seek(39, /*needFlush=*/true);
    thread.fill({-80, -40, 0, 40});
    ASSERT_TRUE(thread.waitFor("finish 0"));
    EXPECT_TRUE(thread.waitFor("step -40"));
    thread.step(1);
    EXPECT_TRUE(thread.waitFor("step 0"));
}

TEST_F(BasePlayThreadStepsTest, WaitForTheEndOfASeek) {
    thread.isSeeking = true;
    thread.step(1);
    thread.setSeekRule(SeekRule::Exact);
    thread.seek(500, /*needFlush=*/true);
    thread.fill({480, 520, 560});
    ASSERT_TRUE(thread.waitFor("finish 480"));
    EXPECT_THAT(thread.steps(), ElementsAre());
    thread.isSeeking = false;
    thread.step(1);
    EXPECT_TRUE(thread.waitFor("step 560"));
}

TEST_F(BasePlayThreadStepsTest, AreDroppedByAResume) {
    thread.isSeeking = true;
    thread.step(1);
    thread.pause(false);
    ASSERT_TRUE(thread.waitFor("out 120"));
    thread.isSeeking = false;
    thread.fill({160});
    ASSERT_TRUE(thread.waitFor("out 160"));
    thread.pause(true);
    thread.fill({200});
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_THAT(thread.steps(), ElementsAre());
}

}  // namespace
}  // namespace kelp
