#include "present/sound_clock.h"

#include <gtest/gtest.h>

namespace kelp {
namespace {

constexpr int64_t kNowUs = 50'000'000;

HeardSound heardUpTo(double frames, int64_t dryFromUs = 0) {
    HeardSound heard;
    heard.frames = frames;
    heard.dryFromUs = dryFromUs;
    return heard;
}

TEST(SoundClock, HasNoTimeAtFirst) {
    const SoundClock clock;
    EXPECT_FALSE(clock.hasTime());
    EXPECT_EQ(clock.read(heardUpTo(0), kNowUs), 0);
}

TEST(SoundClock, RunsAtTheSpeedThatEachPieceWasGiven) {
    SoundClock clock;
    clock.add(1000, 0, 20'000, heardUpTo(0));       // twice as fast as
    clock.add(1000, 20'000, 30'000, heardUpTo(0));  // this one
    EXPECT_EQ(clock.read(heardUpTo(0), kNowUs), 0);
    EXPECT_EQ(clock.read(heardUpTo(500), kNowUs), 10'000);
    EXPECT_EQ(clock.read(heardUpTo(1000), kNowUs), 20'000);
    EXPECT_EQ(clock.read(heardUpTo(1500), kNowUs), 25'000);
}

TEST(SoundClock, KeepsNoMoreThanIsOnItsWay) {
    SoundClock clock;
    for (int i = 0; i < 1000; ++i) {
        clock.add(100, i * 1000, (i + 1) * 1000, heardUpTo(i * 100 - 250));
        ASSERT_EQ(clock.read(heardUpTo(i * 100 - 240), kNowUs), i == 0 || i * 100 < 240 ? 0 : i * 1000 - 2400) << i;
    }
}

TEST(SoundClock, RunsOnBehindTheLastSoundAtTheSpeed) {
    SoundClock clock;
    clock.setSpeed(2, heardUpTo(0), kNowUs);
    clock.add(1000, 0, 20'000, heardUpTo(0));
    EXPECT_EQ(clock.read(heardUpTo(1000, kNowUs), kNowUs + 10'000), 40'000);
    EXPECT_EQ(clock.position(heardUpTo(1000, kNowUs)), 20'000) << "of what there is";
    // Another speed counts from then on.
    clock.setSpeed(0.5, heardUpTo(1000, kNowUs), kNowUs + 10'000);
    EXPECT_EQ(clock.read(heardUpTo(1000, kNowUs), kNowUs + 20'000), 45'000);
}

TEST(SoundClock, TellsTheTruthAgainWhenSoundComesAfterAGap) {
    SoundClock clock;
    clock.add(1000, 0, 20'000, heardUpTo(0));
    EXPECT_EQ(clock.read(heardUpTo(1000, kNowUs), kNowUs + 5'000), 25'000);
    clock.add(1000, 20'000, 40'000, heardUpTo(1000));
    EXPECT_EQ(clock.read(heardUpTo(1000, kNowUs), kNowUs + 6'000), 20'000);
}

TEST(SoundClock, StandsAtASeeksTargetUntilSoundIsHeard) {
    SoundClock clock;
    clock.add(1000, 0, 20'000, heardUpTo(0));
    clock.stand(7'000'000, kNowUs + 200'000);
    EXPECT_EQ(clock.read(heardUpTo(500), kNowUs + 100'000), 7'000'000);
    clock.add(1000, 7'000'000, 7'020'000, heardUpTo(1000));
    EXPECT_EQ(clock.read(heardUpTo(1000), kNowUs + 300'000), 7'000'000);
    EXPECT_EQ(clock.read(heardUpTo(1500), kNowUs + 310'000), 7'010'000);
}

TEST(SoundClock, RunsOnFromASeeksTargetIfNoSoundComes) {
    SoundClock clock;
    clock.stand(7'000'000, kNowUs + 200'000);
    EXPECT_TRUE(clock.hasTime());
    EXPECT_EQ(clock.read(heardUpTo(0), kNowUs + 200'000), 7'000'000);
    EXPECT_EQ(clock.read(heardUpTo(0), kNowUs + 230'000), 7'030'000);
    EXPECT_EQ(clock.position(heardUpTo(0)), 7'000'000);
}

TEST(SoundClock, StandsInAPauseButForWhatIsOnItsWayToTheEar) {
    SoundClock clock;
    clock.add(1000, 0, 20'000, heardUpTo(0));
    clock.pause(true, heardUpTo(500), kNowUs);
    EXPECT_EQ(clock.read(heardUpTo(600), kNowUs + 2'000), 12'000);
    EXPECT_EQ(clock.read(heardUpTo(600), kNowUs + 900'000), 12'000);
    clock.pause(false, heardUpTo(600), kNowUs + 1'000'000);
    EXPECT_EQ(clock.read(heardUpTo(600), kNowUs + 1'000'000), 12'000);
}

TEST(SoundClock, AClockThatRunsOnStandsInAPauseAndGoesOnFromThere) {
    SoundClock clock;
    clock.add(1000, 0, 20'000, heardUpTo(0));
    const HeardSound all = heardUpTo(1000, kNowUs);
    clock.pause(true, all, kNowUs + 10'000);
    EXPECT_EQ(clock.read(all, kNowUs + 500'000), 30'000);
    clock.pause(false, all, kNowUs + 600'000);
    EXPECT_EQ(clock.read(all, kNowUs + 610'000), 40'000);
}

}  // namespace
}  // namespace kelp
