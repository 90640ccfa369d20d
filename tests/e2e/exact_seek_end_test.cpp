// With the option "seek" = "exact" a seek behind the end of a film shows its last picture, and one that the end of the
// film meets ends as well.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "e2e/exact_seeks.h"

namespace kelp::test {
namespace {

std::string endTestName(const testing::TestParamInfo<ExactFile>& info) {
    std::string name = info.param.name;
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
}

class ExactSeekToTheEnd : public testing::TestWithParam<ExactFile> {};

TEST_P(ExactSeekToTheEnd, ShowsTheLastPicture) {
    ExactSeeks exact(GetParam());
    ASSERT_TRUE(exact.start());
    const int durationMs = exact.player().getDuration();
    for (const bool isPaused : {false, true}) {
        isPaused ? exact.player().pause() : exact.player().resume();
        for (const int target : {durationMs + 5000, 500, durationMs, durationMs - 1}) {
            const int eventsBefore = exact.events();
            EXPECT_EQ(exact.seekTo(target), "");
            EXPECT_EQ(exact.events(), eventsBefore + 1) << "to " << target;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Of, ExactSeekToTheEnd,
                         testing::Values(ExactFile{"numbers.mp4", 25}, ExactFile{"numbers.ts", 25},
                                         ExactFile{"numbers_open_gop.mp4", 25}, ExactFile{"numbers_half.mp4", 25},
                                         ExactFile{"numbers_picture_short.mp4", 25},
                                         ExactFile{"numbers_sound_short.mp4", 25},
                                         ExactFile{"seek_open.ts", 30000.0 / 1001}, ExactFile{"seek_hevc.ts", 50},
                                         ExactFile{"seek_120.mp4", 120}, ExactFile{"seek_slides.mp4", 1}),
                         endTestName);

// The film ends a little before, while and a little after the second one is asked for.
TEST(ExactSeeks, EndWhereTheFilmEndsMeanwhile) {
    constexpr int kLeftMs = 120;
    ExactSeeks exact({"numbers.mp4", 25});
    ASSERT_TRUE(exact.start());
    for (int round = 0; round < 12; ++round) {
        ASSERT_EQ(exact.seekTo(exact.player().getDuration() - kLeftMs), "") << round;
        std::this_thread::sleep_for(std::chrono::milliseconds(round * 20));
        const int eventsBefore = exact.events();
        EXPECT_EQ(exact.seekTo(round % 2 == 0 ? 3300 : exact.player().getDuration() - 40), "") << round;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(exact.events(), eventsBefore + 1) << round;
    }
}

}  // namespace
}  // namespace kelp::test
