#include "playtask/wanted_loop.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

// The loop that is wanted, step by step.

namespace kelp {
namespace {

using Film = WantedLoop::Film;

constexpr int64_t kLatestMs = std::numeric_limits<int64_t>::max();

// Why it can't be played, or nothing.
std::string obstacle(const Loop& loop, const std::optional<Film>& film) {
    const char* const text = WantedLoop::obstacleTo(loop, film);
    return text ? text : "";
}

TEST(WantedLoop, HasALengthOfAtLeastAPicture) {
    const Film film{.canGoBack = true, .durationMs = 2000, .fps = 25};
    const std::string none = "its end isn't behind its start";
    const std::string isShort = "it is shorter than a picture";
    EXPECT_EQ(obstacle({500, 500}, std::nullopt), none);
    EXPECT_EQ(obstacle({500, 499}, film), none);
    EXPECT_EQ(obstacle({500, 501}, std::nullopt), "");
    EXPECT_EQ(obstacle({500, 539}, film), isShort);
    EXPECT_EQ(obstacle({500, 540}, film), "");
    EXPECT_EQ(obstacle({1999, Loop::kFilmEnd}, film), "");
    EXPECT_EQ(obstacle({500, 501}, Film{.canGoBack = true, .durationMs = 2000, .fps = 0}), "");
}

TEST(WantedLoop, IsOfAFilmThatCanGoBackAndReachesItsStart) {
    const std::string behind = "it begins at the film's end or behind it";
    EXPECT_EQ(obstacle({0, 1000}, Film{.canGoBack = false, .durationMs = 2000, .fps = 25}), "the source can't go back");
    const Film film{.canGoBack = true, .durationMs = 2000, .fps = 25};
    EXPECT_EQ(obstacle({2000, 3000}, film), behind);
    EXPECT_EQ(obstacle({1999, 3000}, film), "");
    EXPECT_EQ(obstacle({2000, 3000}, Film{.canGoBack = true, .durationMs = 0, .fps = 25}), "");
}

TEST(WantedLoop, TakesALoadFromItsEndOnToItsStart) {
    WantedLoop loop;
    EXPECT_EQ(loop.clampLoad(5000), 5000);
    loop.want(Loop{1000, 3000});
    EXPECT_EQ(loop.clampLoad(2999), 2999);
    EXPECT_EQ(loop.clampLoad(3000), 1000);
    EXPECT_EQ(loop.clampLoad(0), 0);
    loop.want(std::nullopt);
    EXPECT_EQ(loop.clampLoad(5000), 5000);
}

TEST(WantedLoop, TakesSeeksToItsStartFromItsPlaybackToTheStop) {
    WantedLoop loop;
    loop.want(Loop{1000, 3000});
    EXPECT_EQ(loop.clampSeek(3000, false), 3000);
    EXPECT_TRUE(loop.play());
    EXPECT_EQ(loop.clampSeek(2999, false), 2999);
    EXPECT_EQ(loop.clampSeek(3000, false), 1000);
    EXPECT_EQ(loop.clampSeek(3000, true), 3000);
    // Another one holds from when it is played.
    loop.want(Loop{0, 2000});
    EXPECT_EQ(loop.clampSeek(2500, false), 2500);
    loop.play();
    EXPECT_EQ(loop.clampSeek(2500, false), 0);
    loop.stop();
    EXPECT_EQ(loop.clampSeek(2500, false), 2500);
    EXPECT_EQ(loop.clampLoad(2500), 0);
}

TEST(WantedLoop, HasWhatIsNotOfItReadAnewOnce) {
    WantedLoop loop;
    EXPECT_FALSE(loop.isAnyUnlooped());
    EXPECT_FALSE(loop.takeUnlooped(0));
    loop.noteUnlooped(2000);
    loop.noteUnlooped(1000);
    EXPECT_TRUE(loop.isAnyUnlooped());
    EXPECT_TRUE(loop.takeUnlooped(1999));
    EXPECT_FALSE(loop.isAnyUnlooped());
    EXPECT_FALSE(loop.takeUnlooped(0));
    // What was played meanwhile needs it no more.
    loop.noteUnlooped(2000);
    EXPECT_FALSE(loop.takeUnlooped(2000));
    EXPECT_FALSE(loop.isAnyUnlooped());
}

TEST(WantedLoop, ForgetsWhatWasReadAtASeekAndAtAStop) {
    WantedLoop loop;
    loop.noteUnlooped(kLatestMs);
    loop.dropUnlooped();
    EXPECT_FALSE(loop.isAnyUnlooped());
    loop.noteUnlooped(kLatestMs);
    loop.stop();
    EXPECT_FALSE(loop.isAnyUnlooped());
}

}  // namespace
}  // namespace kelp
