// With the option "seek" = "exact" a seek shows the picture whose time holds the target, in every kind of file. By what
// is drawn in it.

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>

#include "e2e/exact_seeks.h"
#include "e2e/media.h"

namespace kelp::test {
namespace {

std::string testName(const testing::TestParamInfo<ExactFile>& info) {
    std::string name = info.param.name;
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
}

class ExactSeek : public testing::TestWithParam<ExactFile> {};

// KELP_SEEKS: how many for each file.
TEST_P(ExactSeek, ShowsThePictureThatHoldsTheTarget) {
    const char* const wanted = getenv("KELP_SEEKS");
    const int seeks = wanted ? std::atoi(wanted) : 12;
    ExactSeeks exact(GetParam());
    ASSERT_TRUE(exact.start());
    std::mt19937 random(7);
    int wrong = 0;
    const int eventsBefore = exact.events();
    for (int i = 0; i < seeks; ++i) {
        // By turns of three: playing, paused, and both twice as fast.
        if (i % 12 == 0) {
            constexpr std::array kMasters = {SYNC_MASTER_AUDIO, SYNC_MASTER_VIDEO, SYNC_MASTER_CLOCK};
            exact.player().setAVSyncMode(kMasters[static_cast<size_t>(i / 12) % kMasters.size()]);
        }
        switch (i % 12) {
            case 0:
                if (i > 0) {
                    exact.player().resume();
                }
                exact.player().setSpeed(1.0F);
                break;
            case 3:
            case 9:
                exact.player().pause();
                break;
            case 6:
                exact.player().resume();
                exact.player().setSpeed(2.0F);
                break;
            default:
                break;
        }
        if (random() % 3 == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 80));
        }
        const std::string what = exact.seekTo(exact.target(random));
        EXPECT_EQ(what, "") << "seek " << i;
        wrong += what.empty() ? 0 : 1;
        ASSERT_LT(wrong, 20);
    }
    EXPECT_EQ(exact.events(), eventsBefore + seeks) << "one for each";
}

INSTANTIATE_TEST_SUITE_P(In, ExactSeek,
                         testing::Values(ExactFile{"numbers.mp4", 25}, ExactFile{"numbers.mkv", 25},
                                         ExactFile{"numbers.ts", 25}, ExactFile{"numbers.avi", 25},
                                         ExactFile{"numbers_open_gop.mp4", 25}, ExactFile{"numbers_one_key.mp4", 25},
                                         ExactFile{"numbers_sound_short.mp4", 25},
                                         ExactFile{"numbers_picture_short.mp4", 25}, ExactFile{"seek_slides.mp4", 1},
                                         ExactFile{"seek_slides_far.mkv", 1.0 / 7}, ExactFile{"seek_120.mp4", 120},
                                         ExactFile{"seek_uneven.mkv", 60}, ExactFile{"seek_uneven.mp4", 60},
                                         ExactFile{"seek_open.ts", 30000.0 / 1001},
                                         ExactFile{"seek_film.mkv", 24000.0 / 1001}, ExactFile{"seek_hevc.ts", 50},
                                         ExactFile{"seek_mjpeg.mov", 60000.0 / 1001}, ExactFile{"seek_vp9.webm", 25}),
                         testName);

// A slider that is dragged about, 100 times a second in each of two threads. KELP_SEEKS: how often in each; 500 of them
// are a thousand in five seconds.
TEST(ExactSeeks, EndAtTheLastOfMany) {
    const char* const wanted = getenv("KELP_SEEKS");
    const int seeks = wanted ? std::atoi(wanted) : 150;
    for (const bool isPaused : {false, true}) {
        ExactSeeks exact({"numbers.mp4", 25});
        ASSERT_TRUE(exact.start());
        if (isPaused) {
            exact.player().pause();
        }
        std::mt19937 random(11);
        const auto drag = [&exact, seeks](uint32_t seed) {
            std::mt19937 own(seed);
            for (int i = 0; i < seeks; ++i) {
                exact.player().seek(static_cast<int>(own() % 21'000));
                std::this_thread::sleep_for(std::chrono::milliseconds(own() % 20));
            }
        };
        std::thread other(drag, 5);
        drag(6);
        other.join();
        const int target = 1000 + static_cast<int>(random() % 18'000);
        const int framesBefore = exact.frames();
        ASSERT_TRUE(exact.player().seek(target));
        EXPECT_EQ(exact.expectLast(target, framesBefore), "");
    }
}

// Asked for before the first picture: that one doesn't end it.
TEST(ExactSeeks, GoBeyondTheFirstPicture) {
    for (int round = 0; round < 8; ++round) {
        ExactSeeks exact({"numbers.mp4", 25});
        ASSERT_TRUE(exact.open());
        ASSERT_TRUE(exact.player().play());
        std::this_thread::sleep_for(std::chrono::milliseconds(round * 3));
        ASSERT_TRUE(exact.player().seek(8500));
        EXPECT_EQ(exact.expectLast(8500, 0), "");
    }
}

}  // namespace
}  // namespace kelp::test
