#include "input/seek_reach.h"

#include <gtest/gtest.h>

namespace kelp {
namespace {

using Verdict = SeekReach::Verdict;

SeekReach reachOf(int64_t targetMs, bool hasVideo = true, bool hasSound = true) {
    SeekReach reach;
    reach.begin(targetMs, hasVideo, hasSound);
    return reach;
}

TEST(SeekReach, IsOpenUntilAKeyFrameAndSoundAreThere) {
    SeekReach reach;
    EXPECT_FALSE(reach.isOpen());
    reach = reachOf(1000);
    EXPECT_TRUE(reach.isOpen());
    EXPECT_EQ(reach.takePicture(false, 900, 900), Verdict::Open);
    EXPECT_EQ(reach.takePicture(true, 1000, 940), Verdict::Open);
    EXPECT_EQ(reach.takePicture(false, 1200, 1000), Verdict::Open);
    EXPECT_EQ(reach.takeSound(900, 20), Verdict::Reached);
    reach.end();
    EXPECT_FALSE(reach.isOpen());

    reach = reachOf(1000);
    EXPECT_EQ(reach.takeSound(900, 20), Verdict::Open);
    EXPECT_EQ(reach.takePicture(true, 400, 400), Verdict::Reached);
    EXPECT_EQ(reachOf(1000, true, false).takePicture(true, 400, 400), Verdict::Reached);
    EXPECT_EQ(reachOf(1000, false, true).takeSound(400, 20), Verdict::Reached);
    EXPECT_TRUE(reachOf(1000, true, false).isOpen());
    EXPECT_TRUE(reachOf(1000, false, true).isOpen());
    EXPECT_FALSE(reachOf(1000, false, false).isOpen());
}

TEST(SeekReach, IsTooLateBehindTheTarget) {
    EXPECT_EQ(reachOf(1000).takePicture(true, 1001, 900), Verdict::TooLate);
    EXPECT_EQ(reachOf(1000).takeSound(1050, 20), Verdict::Open) << "that is within a block";
    EXPECT_EQ(reachOf(1000).takeSound(1051, 20), Verdict::TooLate);
    EXPECT_EQ(reachOf(1000).takeSound(1051, 72), Verdict::Open);
    EXPECT_EQ(reachOf(1000).takeEnd(), Verdict::TooLate) << "without a key frame";
    EXPECT_EQ(reachOf(1000, false, true).takeEnd(), Verdict::Reached);
}

TEST(SeekReach, GoesBackTwiceAsFarEachTime) {
    SeekReach reach = reachOf(60'000);
    for (const int64_t back : {1000, 2000, 4000, 8000}) {
        EXPECT_EQ(reach.backMs(), back);
        EXPECT_EQ(reach.takeSound(50'000, 20), Verdict::Open);
        EXPECT_EQ(reach.takePicture(true, 60'001, 60'001), Verdict::TooLate);
        reach.again();
        EXPECT_TRUE(reach.isOpen());
    }
    EXPECT_EQ(reach.takePicture(true, 60'000, 60'000), Verdict::Open);
    EXPECT_EQ(reach.takeSound(50'000, 20), Verdict::Reached);
}

TEST(SeekReach, FindsThatTheSoundBeginsLaterOrIsOver) {
    SeekReach reach = reachOf(1000);
    EXPECT_EQ(reach.takePicture(true, 500, 500), Verdict::Open);
    EXPECT_EQ(reach.takeSound(5000, 20), Verdict::TooLate);
    reach.again();
    EXPECT_EQ(reach.takePicture(true, 0, 0), Verdict::Open);
    EXPECT_EQ(reach.takeSound(5000, 20), Verdict::Reached) << "there was none in between";

    reach = reachOf(1000);
    EXPECT_EQ(reach.takePicture(true, 500, 500), Verdict::Open);
    EXPECT_EQ(reach.takePicture(false, 2100, 2000), Verdict::Open);
    EXPECT_EQ(reach.takePicture(false, 2100, 2001), Verdict::Reached);
}

TEST(SeekReach, LooksAtNoMoreThanItHasRoomFor) {
    SeekReach reach = reachOf(1000);
    for (const char* const at : {"the first place", "one farther back"}) {
        int packets = 1;
        while (reach.takePicture(false, 500, 500) == Verdict::Open) {
            ++packets;
        }
        EXPECT_EQ(packets, 2001) << at;
        reach.again();
    }
}

}  // namespace
}  // namespace kelp
