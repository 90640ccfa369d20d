#include "present/sound_wait.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

namespace kelp {
namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::Le;

// Times in milliseconds. A picture could be seen every 40, and comes to its turn when the one before was shown.
class SoundWaitTest : public testing::Test {
protected:
    // How long the next picture waits whose sound is heard `lateMs` behind when it could be seen, and `otherMs` at
    // least for another reason, before its turn.
    int64_t show(std::optional<int64_t> lateMs, int64_t otherMs = 0) {
        readyMs_ += 40;
        const std::optional<int64_t> heardUs = lateMs ? std::optional((readyMs_ + *lateMs) * 1000) : std::nullopt;
        nowMs_ = std::max(nowMs_, readyMs_ + otherMs);
        wait_.begin(readyMs_ * 1000, heardUs, nowMs_ * 1000);
        const int64_t leftUs = wait_.leftUs(heardUs, nowMs_ * 1000);
        nowMs_ += std::max<int64_t>(0, leftUs) / 1000;
        delayMs_ = wait_.end(nowMs_ * 1000) / 1000;
        return nowMs_ - readyMs_;
    }
    std::vector<int64_t> show(const std::vector<int64_t>& late) {
        std::vector<int64_t> waited;
        for (const int64_t lateMs : late) {
            waited.push_back(show(lateMs));
        }
        return waited;
    }
    // For some seconds.
    std::vector<int64_t> showAlways(const std::vector<int64_t>& lateInTurn) {
        std::vector<int64_t> late;
        while (late.size() < 100) {
            late.insert(late.end(), lateInTurn.begin(), lateInTurn.end());
        }
        return show(late);
    }

    SoundWait wait_;
    int64_t readyMs_ = 0;
    int64_t nowMs_ = 0;
    int64_t delayMs_ = 0;  // that the wait for sound has made
};

TEST_F(SoundWaitTest, LastsUntilTheSoundIsHeard) {
    EXPECT_THAT(show({60, 60, 20, 20}), ElementsAre(60, 60, 20, 20));
    EXPECT_EQ(delayMs_, 20);
    EXPECT_EQ(show(-30), 0) << "the sound waits for the picture";
    EXPECT_EQ(delayMs_, 0);
}

// What is shown 5 ms too early isn't seen, and no two neighbours differ by more.
TEST_F(SoundWaitTest, IsEvenWithSoundThatIsAboutAsLateAsItMayBe) {
    EXPECT_THAT(showAlways({95, 105}), Each(AllOf(Ge(95), Le(100))));
    EXPECT_THAT(showAlways({105, 120}), Each(100));
    EXPECT_EQ(delayMs_, 100);
}

TEST_F(SoundWaitTest, IsNoneWithSoundThatHasBeenAboutAsLateSinceTheStart) {
    EXPECT_THAT(showAlways({105, 95}), Each(0));
    EXPECT_EQ(delayMs_, 0);
}

TEST_F(SoundWaitTest, EndsWhereTheSoundIsTooLateForSomeTime) {
    show({60, 60});
    EXPECT_THAT(show({300, 300, 60}), ElementsAre(100, 100, 60)) << "but for no longer than it may last";
    EXPECT_THAT(show({121, 121, 121, 121, 121, 121, 121}), Each(100));
    EXPECT_THAT(show({121, 300, 121, 3000}), ElementsAre(60, 20, 0, 0)) << "behind the one before";
    EXPECT_EQ(delayMs_, 0);
}

TEST_F(SoundWaitTest, BeginsWhereTheSoundIsEarlyEnoughForSomeTime) {
    EXPECT_THAT(showAlways({130}), Each(0));
    EXPECT_THAT(show({90, 90, 90, 90, 90, 90, 90, 90, 90}), ElementsAre(0, 0, 0, 0, 0, 0, 0, 90, 90));
}

TEST_F(SoundWaitTest, IsDecidedAnewByTheFirstSound) {
    EXPECT_THAT(showAlways({130}), Each(0));
    EXPECT_EQ(show(std::nullopt), 0);
    EXPECT_EQ(show(90), 90);
    EXPECT_EQ(show(std::nullopt), 50) << "the one before was shown then";
    EXPECT_EQ(show(130), 10);
    EXPECT_EQ(show(130), 0);
}

// Each of them is shown when its sound is heard, but could have been seen later or earlier.
TEST_F(SoundWaitTest, CountsWhatHasWaitedBehindOtherPicturesAsWell) {
    EXPECT_THAT(showAlways({90}), Each(90));
    EXPECT_EQ(delayMs_, 90);
    EXPECT_EQ(show(10), 50);
    EXPECT_EQ(delayMs_, 50);
    EXPECT_EQ(show(10), 10);
    EXPECT_EQ(delayMs_, 10);
}

TEST_F(SoundWaitTest, CountsNoOtherWait) {
    EXPECT_EQ(show(std::nullopt, 70), 70);
    EXPECT_EQ(delayMs_, 0);
    EXPECT_EQ(show(-20, 50), 50);
    EXPECT_EQ(delayMs_, 0);
    EXPECT_EQ(show(80, 60), 80) << "of which it waits 20 for its sound";
    EXPECT_EQ(delayMs_, 20);
}

TEST_F(SoundWaitTest, CountsNothingFromBeforeAPauseOrWhatElseIsForgotten) {
    EXPECT_THAT(showAlways({90}), Each(90));
    wait_.forget();
    EXPECT_EQ(show(90, 60), 90);
    EXPECT_EQ(delayMs_, 30);
}

}  // namespace
}  // namespace kelp
