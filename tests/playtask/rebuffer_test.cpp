#include "playtask/rebuffer.h"

#include <gtest/gtest.h>

namespace kelp {
namespace {

using Step = Rebuffer::Step;

DataLevel waiting(int64_t ms) {
    return {.waitingMs = ms, .isMoreAwaited = true, .isPlaying = true};
}

// One that stands.
Rebuffer dry(int64_t enoughMs = 1000) {
    Rebuffer rebuffer(enoughMs);
    EXPECT_EQ(rebuffer.look(waiting(0)), Step::None);
    EXPECT_EQ(rebuffer.look(waiting(0)), Step::Stand);
    return rebuffer;
}

TEST(Rebuffer, StandsWhenLittleWaitsAtTwoLooksInARow) {
    Rebuffer rebuffer(1000);
    EXPECT_EQ(rebuffer.look(waiting(101)), Step::None);
    EXPECT_EQ(rebuffer.look(waiting(100)), Step::None);
    EXPECT_EQ(rebuffer.look(waiting(101)), Step::None);
    EXPECT_EQ(rebuffer.look(waiting(100)), Step::None);
    EXPECT_FALSE(rebuffer.isStanding());
    EXPECT_EQ(rebuffer.look(waiting(60)), Step::Stand);
    EXPECT_TRUE(rebuffer.isStanding());
}

TEST(Rebuffer, GoesOnWhenEnoughWaitsAndNoEarlier) {
    Rebuffer rebuffer = dry();
    EXPECT_EQ(rebuffer.look(waiting(999)), Step::None);
    EXPECT_EQ(rebuffer.look(waiting(1000)), Step::GoOn);
    EXPECT_FALSE(rebuffer.isStanding());
    EXPECT_EQ(rebuffer.look(waiting(1000)), Step::None);
}

TEST(Rebuffer, TellsHowMuchOfEnoughWaits) {
    Rebuffer rebuffer = dry(2000);
    for (const auto& [ms, percent] : {std::pair{0, 0}, {500, 25}, {1990, 99}, {200, 10}, {5000, 100}}) {
        rebuffer.look(waiting(ms));
        EXPECT_EQ(rebuffer.percent(), percent) << ms;
    }
}

TEST(Rebuffer, GoesOnWhenNoMoreIsToCome) {
    Rebuffer rebuffer = dry();
    EXPECT_EQ(rebuffer.look({.waitingMs = 10, .isMoreAwaited = false, .isPlaying = true}), Step::GoOn);
    // What is left is played to its end.
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(rebuffer.look({.waitingMs = 0, .isMoreAwaited = false, .isPlaying = true}), Step::None);
    }
}

TEST(Rebuffer, DoesNotStandWhereNothingPlays) {
    Rebuffer rebuffer(1000);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(rebuffer.look({.waitingMs = 0, .isMoreAwaited = true, .isPlaying = false}), Step::None);
    }
}

// A host's pause doesn't end it, nor a seek, which empties the queues.
TEST(Rebuffer, GoesOnInAPauseOrASeekAsElsewhere) {
    Rebuffer rebuffer = dry();
    EXPECT_EQ(rebuffer.look({.waitingMs = 0, .isMoreAwaited = true, .isPlaying = false}), Step::None);
    EXPECT_TRUE(rebuffer.isStanding());
    EXPECT_EQ(rebuffer.look({.waitingMs = 1000, .isMoreAwaited = true, .isPlaying = false}), Step::GoOn);
}

TEST(Rebuffer, EndsOnce) {
    Rebuffer rebuffer = dry();
    EXPECT_EQ(rebuffer.end(), Step::GoOn);
    EXPECT_EQ(rebuffer.end(), Step::None);
}

TEST(Rebuffer, DoesNotStandAgainWithWhatItHasWaitedFor) {
    Rebuffer rebuffer = dry(50);
    EXPECT_EQ(rebuffer.look(waiting(50)), Step::GoOn);
    EXPECT_EQ(rebuffer.look(waiting(50)), Step::None);
    EXPECT_EQ(rebuffer.look(waiting(50)), Step::None);
    EXPECT_EQ(rebuffer.look(waiting(25)), Step::None);
    EXPECT_EQ(rebuffer.look(waiting(25)), Step::Stand);
}

TEST(Rebuffer, RestsLongerWhileMuchWaits) {
    Rebuffer rebuffer(1000);
    rebuffer.look(waiting(2001));
    EXPECT_EQ(rebuffer.restMs(), 200);
    rebuffer.look(waiting(2000));
    EXPECT_EQ(rebuffer.restMs(), 20);
}

TEST(Rebuffer, TakesTheShorterOfTwoStreams) {
    EXPECT_EQ(Rebuffer::together(700, 300), 300);
    EXPECT_EQ(Rebuffer::together(0, 1000), 0);
    EXPECT_EQ(Rebuffer::together(500, std::nullopt), 500);
    EXPECT_EQ(Rebuffer::together(std::nullopt, 400), 400);
    EXPECT_EQ(Rebuffer::together(std::nullopt, std::nullopt), 0);
}

TEST(Rebuffer, DoesNotWaitForASparseStream) {
    EXPECT_EQ(Rebuffer::together(0, 1500), 500);
    EXPECT_EQ(Rebuffer::together(8000, 0), 7000);
}

}  // namespace
}  // namespace kelp
