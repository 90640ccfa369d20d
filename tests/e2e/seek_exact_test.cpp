// After a seek the picture is the one that contains the target, and the sound goes on from there.

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "e2e/seeking.h"

namespace kelp::test {
namespace {

std::string testName(const testing::TestParamInfo<const char*>& info) {
    std::string name = info.param;
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
}

class Seek : public testing::TestWithParam<const char*> {};

// Far and near, back and forth, at a frame's first and last millisecond, and in the last second, which the demuxer
// doesn't go to by itself. All lie between two key frames, see the tests below for those beside one.
TEST_P(Seek, ShowsTheFrameThatContainsTheTarget) {
    Seeking seeking(GetParam());
    ASSERT_TRUE(seeking.start());
    const int first = seeking.firstPts();
    for (const int target : {10500, first + 3640, first + 15559, 7333, 13001, 600, 19510, 5555}) {
        seeking.seekTo(target);
        if (HasFatalFailure()) {
            return;
        }
    }
    EXPECT_EQ(seeking.counts().atDemuxer, 8);
    EXPECT_EQ(seeking.playback.count(Happened::Failed), 0);
}

// The frame that is on its way to the screen when a seek comes leaves the queue afterwards, and takes the first one
// from behind the seek with it: a key frame that is the target itself. It is one picture, never more.
TEST_P(Seek, ShowsAKeyFrameOrTheOneBehindIt) {
    Seeking seeking(GetParam());
    ASSERT_TRUE(seeking.start());
    for (const int key : {10000, 4000, 14000, 0}) {
        const int target = key + seeking.firstPts();
        const int events = seeking.playback.count(Happened::FirstVideoFrame);
        ASSERT_TRUE(seeking.player().seek(target));
        ASSERT_TRUE(seeking.playback.waitFor(Happened::FirstVideoFrame, kPatienceMs, events + 1));
        const int pts = seeking.playback.last(Happened::FirstVideoFrame).a;
        EXPECT_GE(pts, target);
        EXPECT_LE(pts, target + kNumberedFrameMs);
    }
}

// Nothing leaves the queue during a pause.
TEST_P(Seek, ShowsAKeyFrameItselfWhilePaused) {
    Seeking seeking(GetParam());
    ASSERT_TRUE(seeking.start());
    ASSERT_TRUE(seeking.pause());
    for (const int key : {10000, 4000, 14000, 0}) {
        seeking.seekTo(key + seeking.firstPts());
        if (HasFatalFailure()) {
            return;
        }
    }
}

TEST_P(Seek, LetsTheSoundGoOnFromTheTarget) {
    Recording recording(std::string("sound_") + GetParam());
    {
        Seeking seeking(GetParam());
        ASSERT_TRUE(seeking.start());
        ASSERT_TRUE(seeking.playUntil(700));
        seeking.seekTo(12345);
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_TRUE(seeking.playUntil(13300));
        seeking.player().stop();
    }
    const auto moments = recording.moments();
    ASSERT_FALSE(moments.empty());
    EXPECT_LT(moments.front().streamMs, 200);
    EXPECT_NEAR(static_cast<double>(recording.afterLastCut()), 12345, 100);
    // And it goes on.
    EXPECT_GT(moments.back().streamMs, 12600);
}

INSTANTIATE_TEST_SUITE_P(In, Seek, testing::Values("numbers.mp4", "numbers.mkv", "numbers.ts", "numbers.avi"),
                         testName);

}  // namespace
}  // namespace kelp::test
