// What pictures of a live source are paced by, over minutes of arrivals that go wrong in one way or another.

#include <gtest/gtest.h>

#include <algorithm>

#include "clock/live_arrivals.h"

namespace kelp::test {
namespace {

struct Range {
    double least = 1e9;
    double most = -1e9;
};

// The errors of the answers from `fromSeconds` to `toSeconds` after the first sending; of the arrivals themselves if
// `ofArrivals` is set.
Range errors(const std::vector<ArrivalEstimate>& estimates, double fromSeconds, double toSeconds,
             bool ofArrivals = false) {
    Range range;
    for (const auto& estimate : estimates) {
        if (estimate.atMs >= fromSeconds * 1000 && estimate.atMs < toSeconds * 1000) {
            const double error = ofArrivals ? estimate.arrivalMs : estimate.errorMs;
            range.least = std::min(range.least, error);
            range.most = std::max(range.most, error);
        }
    }
    return range;
}

std::vector<ArrivalEstimate> estimatesOf(const std::string& name) {
    return estimateArrivals(makeArrivals(arrivalFaults(name)));
}

void expectWithin(const Range& range, double least, double most) {
    EXPECT_GE(range.least, least);
    EXPECT_LE(range.most, most);
}

TEST(LiveTiming, SmoothsJitterOfThirtyMilliseconds) {
    const auto estimates = estimatesOf("jitter");
    expectWithin(errors(estimates, 0, 61, /*ofArrivals=*/true), -15, 15);
    EXPECT_LT(errors(estimates, 0, 61, /*ofArrivals=*/true).least, -14);
    // The first answers are the arrivals.
    expectWithin(errors(estimates, 0, 2), -15, 15);
    expectWithin(errors(estimates, 2, 10), -4, 4);
    expectWithin(errors(estimates, 10, 61), -2, 2);
}

TEST(LiveTiming, FollowsAClockThatDriftsByAHundredMillionths) {
    // The drift alone would be 6 ms by the end of the minute.
    const auto estimates = estimatesOf("drift");
    expectWithin(errors(estimates, 10, 61), -3, 2);
    expectWithin(errors(estimates, 45, 61), -1, 1);
}

TEST(LiveTiming, TakesALongerWayInOverTenSeconds) {
    const auto estimates = estimatesOf("step");
    expectWithin(errors(estimates, 10, 20), -2, 2);
    // At first it answers with the old way's times: pictures go out as they come.
    expectWithin(errors(estimates, 20.1, 21), -300, -250);
    expectWithin(errors(estimates, 25, 27), -120, -50);
    // Nothing is forgotten: the line tilts, and overshoots.
    expectWithin(errors(estimates, 30.1, 61), -4, 100);
    EXPECT_GT(errors(estimates, 45, 61).most, 80);
}

TEST(LiveTiming, JumpsToALongerWayAfterTenMinutesOfTheOldOne) {
    const auto estimates = estimatesOf("late_step");
    expectWithin(errors(estimates, 60, 600), -2, 2);
    // The line hardly moves until the alarm, after more than 150 packets.
    expectWithin(errors(estimates, 600.2, 606), -300, -250);
    expectWithin(errors(estimates, 608, 661), -15, 15);
}

TEST(LiveTiming, StartsOverWhereTimeStampsWrapAround) {
    const auto estimates = estimatesOf("wrap");
    expectWithin(errors(estimates, 10, 30), -4, 2);
    // As at the start.
    expectWithin(errors(estimates, 30, 33), -15, 15);
    expectWithin(errors(estimates, 40, 61), -3, 2);
}

TEST(LiveTiming, IsNotPulledOffByLostOrReorderedPackets) {
    const auto arrivals = makeArrivals(arrivalFaults("loss"));
    EXPECT_LT(arrivals.size(), 1400U);
    EXPECT_FALSE(std::is_sorted(arrivals.begin(), arrivals.end(),
                                [](const Arrival& a, const Arrival& b) { return a.timestamp < b.timestamp; }));
    const auto estimates = estimateArrivals(arrivals);
    EXPECT_GT(errors(estimates, 10, 61, /*ofArrivals=*/true).most, 80);
    expectWithin(errors(estimates, 10, 61), -2, 2);
}

TEST(LiveTiming, BearsItAllAtOnce) {
    const auto estimates = estimatesOf("all");
    expectWithin(errors(estimates, 10, 20), -3, 2);
    expectWithin(errors(estimates, 20.2, 30), -300, 0);
    // The wrap-around clears away what the longer way has done to the line.
    expectWithin(errors(estimates, 30.2, 33), -15, 15);
    expectWithin(errors(estimates, 40, 61), -3, 3);
}

}  // namespace
}  // namespace kelp::test
