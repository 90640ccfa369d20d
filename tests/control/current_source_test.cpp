#include "control/current_source.h"

#include <gtest/gtest.h>

// What is still about the source of a managed player, step by step.

namespace kelp::test {
namespace {

TEST(CurrentSource, VoidsAPlanWhenTheHostActs) {
    CurrentSource source;
    const unsigned int first = source.plan();
    EXPECT_TRUE(source.isPlanned(first));
    source.hostActed();
    EXPECT_FALSE(source.isPlanned(first));
    const unsigned int second = source.plan();
    EXPECT_TRUE(source.isPlanned(second));
    source.hostActed();
    EXPECT_FALSE(source.isPlanned(first));
    EXPECT_FALSE(source.isPlanned(second));
}

TEST(CurrentSource, HasOldEventsUntilTheLastLoadsMarker) {
    CurrentSource source;
    EXPECT_FALSE(source.areEventsOld());
    source.loading();
    source.loading();
    source.eventsReached();
    EXPECT_TRUE(source.areEventsOld());
    source.eventsReached();
    EXPECT_FALSE(source.areEventsOld());
    // The marker of an idle worker may be there at once.
    source.eventsReached();
    EXPECT_FALSE(source.areEventsOld());
    source.loading();
    EXPECT_FALSE(source.areEventsOld());
}

TEST(CurrentSource, CountsEventsAndPlansApart) {
    CurrentSource source;
    const unsigned int plan = source.plan();
    source.loading();
    EXPECT_TRUE(source.isPlanned(plan)) << "a restart loads too";
    source.eventsReached();
    source.hostActed();
    EXPECT_FALSE(source.areEventsOld()) << "after a stop without a load events still count";
}

TEST(CurrentSource, KnowsWhetherTheEngineHasASource) {
    CurrentSource source;
    EXPECT_FALSE(source.isLoaded());
    source.setLoaded(true);
    EXPECT_TRUE(source.isLoaded());
    source.setLoaded(false);
    EXPECT_FALSE(source.isLoaded());
}

TEST(CurrentSource, TakesTheTimerOfTheRetryThatWasArmedLast) {
    CurrentSource source;
    EXPECT_EQ(source.takeTimer(), 0U);
    const unsigned int first = source.newRetry();
    source.armTimer(3);
    const unsigned int second = source.newRetry();
    source.armTimer(5);
    source.forgetTimerOf(first);
    EXPECT_EQ(source.takeTimer(), 5U);
    EXPECT_EQ(source.takeTimer(), 0U);
    source.armTimer(7);
    source.forgetTimerOf(second);
    EXPECT_EQ(source.takeTimer(), 0U);
}

TEST(CurrentSource, TakesNoTimerWhoseNumberIsTheHosts) {
    CurrentSource source;
    source.newRetry();
    source.armTimer(3);
    source.giveToHost(2);
    EXPECT_EQ(source.takeTimer(), 3U);
    source.armTimer(3);
    source.giveToHost(3);
    EXPECT_EQ(source.takeTimer(), 0U);
}

}  // namespace
}  // namespace kelp::test
