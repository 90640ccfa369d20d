// Loops of several players: in step by one clock of the host's, and each by its own.

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "e2e/clocked_player.h"
#include "e2e/media.h"
#include "e2e/seeking.h"

namespace kelp::test {
namespace {

constexpr int kLoopStartMs = 600;
constexpr int kLoopEndMs = 2200;
constexpr int kLoopMs = kLoopEndMs - kLoopStartMs;
constexpr int64_t kPictureMs = 40;
// What the median of a turn is off by at most, on a machine that does much else at the same time. Who doesn't follow
// the clock is anywhere in the turn, and this near by one chance in thirteen.
constexpr int64_t kInStepMs = 40;

class LoopsOfSeveral : public testing::Test {
protected:
    static void SetUpTestSuite() { openManySoundDevices(); }

    ClockedPlayer& add(const char* name, TarnSyncClock* clock, int offsetMs = 0) {
        const auto loop = [](TarnPlayer& player) {
            player.setOption("preset", "recommended");
            player.setLoop(kLoopStartMs, kLoopEndMs);
        };
        players_.push_back(std::make_unique<ClockedPlayer>(mediaPath(name), clock, offsetMs, loop));
        return *players_.back();
    }

    bool waitForPictures() {
        return waitUntil([&] { return std::ranges::all_of(players_, [](const auto& one) { return one->shows(); }); });
    }

    // How far the player is behind what belongs to the clock's time, by the shorter way round.
    int64_t lagMs(const ClockedPlayer& player) const {
        const int64_t lag = clock_->getCurrentClock() - player.shownPts() + kLoopMs / 2;
        return (lag % kLoopMs + kLoopMs) % kLoopMs - kLoopMs / 2;
    }

    // Whether each of them is where the clock is for the better part of a turn.
    bool areInStepForATurn() const {
        std::vector<std::vector<int64_t>> lags(players_.size());
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLoopMs);
        while (std::chrono::steady_clock::now() < end) {
            for (size_t i = 0; i < lags.size(); ++i) {
                lags[i].push_back(lagMs(*players_[i]));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return std::ranges::all_of(lags, [](std::vector<int64_t>& lag) {
            const int64_t median = percentile(lag, 50);
            return median >= -kInStepMs && median <= kPictureMs + kInStepMs;
        });
    }

    // This turn, or soon.
    bool comeIntoStep() const {
        return waitUntil([this] { return areInStepForATurn(); });
    }

    // Outlives the players, and is followed from however far.
    const std::unique_ptr<TarnSyncClock, ClockEnd> clock_{TarnSyncClock::create(0, 3'600'000)};
    std::vector<std::unique_ptr<ClockedPlayer>> players_;
};

TEST_F(LoopsOfSeveral, AreInStepByOneClockThatGoesOn) {
    clock_->pause();
    for (const char* name : {"wall0.mp4", "wall1.mp4", "wall2.ts"}) {
        add(name, clock_.get());
    }
    ASSERT_TRUE(waitForPictures());
    clock_->resume();
    ASSERT_TRUE(waitUntil([&] { return clock_->getCurrentClock() >= kLoopEndMs + 2 * kLoopMs; }));
    EXPECT_TRUE(comeIntoStep());
    // One that joins has its turn begin where theirs do.
    const int64_t turns = (clock_->getCurrentClock() - kLoopStartMs) / kLoopMs;
    add("wall3.avi", clock_.get(), static_cast<int>(turns) * kLoopMs);
    ASSERT_TRUE(waitForPictures());
    EXPECT_TRUE(comeIntoStep());
    players_.pop_back();
    // A seek begins anew, at the film's time.
    clock_->reset(1000);
    for (const auto& player : players_) {
        EXPECT_TRUE(player->player().seek(1000));
    }
    ASSERT_TRUE(waitUntil([&] { return clock_->getCurrentClock() >= kLoopEndMs + kLoopMs; }));
    EXPECT_TRUE(comeIntoStep());
}

TEST_F(LoopsOfSeveral, GoOnByTheirOwnClocks) {
    struct Turns {
        int64_t lastPts = 0;
        int count = 0;
    };
    std::vector<Turns> turns(2);
    add("wall0.mp4", nullptr);
    add("wall1.mp4", nullptr);
    EXPECT_TRUE(waitUntil([&] {
        for (size_t i = 0; i < turns.size(); ++i) {
            const int64_t pts = players_[i]->shownPts();
            turns[i].count += pts < turns[i].lastPts ? 1 : 0;
            turns[i].lastPts = pts;
        }
        return std::ranges::all_of(turns, [](const Turns& one) { return one.count >= 3; });
    }));
    for (const auto& player : players_) {
        EXPECT_LT(player->shownPts(), kLoopEndMs);
        EXPECT_FALSE(player->failed());
    }
}

}  // namespace
}  // namespace kelp::test
