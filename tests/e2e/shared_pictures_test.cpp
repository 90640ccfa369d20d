// Pictures in the decoder's memory: those of the packed ones, at every moment.

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"

namespace kelp::test {
namespace {

// Every picture of the file by its time, as `pictures` hands them on. The video play thread follows no master, so that
// none is skipped.
std::map<int64_t, ShownFrame> picturesOf(const std::string& file, const char* pictures) {
    RecordingSink sink;
    Playback playback;
    playback.player().setOption("pictures", pictures);
    playback.player().setAVSyncMode(SYNC_MASTER_VIDEO);
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    EXPECT_TRUE(playback.open(mediaPath(file)));
    EXPECT_TRUE(playback.playToEnd());
    sink.waitForFrames(mediaFile(file).frames, 20000);  // the last ones may still be on their way
    playback.player().stop();
    std::map<int64_t, ShownFrame> shown;
    for (auto& frame : sink.frames()) {
        shown[frame.pts] = frame;
    }
    return shown;
}

struct Film {
    const char* name;
    bool isShared;  // of the kind that needs no conversion

    friend std::ostream& operator<<(std::ostream& out, const Film& row) { return out << row.name; }
};

class SharedPictures : public testing::TestWithParam<Film> {};

TEST_P(SharedPictures, AreThePackedOnesRowByRow) {
    const std::string file = GetParam().name;
    const auto packed = picturesOf(file, "packed");
    const auto shared = picturesOf(file, "shared");
    EXPECT_EQ(packed.size(), static_cast<size_t>(mediaFile(file).frames));
    EXPECT_EQ(shared.size(), packed.size());
    for (const auto& [pts, picture] : packed) {
        ASSERT_TRUE(shared.contains(pts)) << pts;
        const auto& same = shared.at(pts);
        EXPECT_EQ(same.hash, picture.hash) << pts;
        EXPECT_EQ(same.width, picture.width) << pts;
        EXPECT_EQ(same.height, picture.height) << pts;
        EXPECT_TRUE(picture.isPacked) << pts;
        EXPECT_EQ(same.isPacked, !GetParam().isShared) << pts;
    }
}

INSTANTIATE_TEST_SUITE_P(Of, SharedPictures,
                         testing::Values(Film{"small.mp4", true}, Film{"hevc_size_change.ts", true},
                                         Film{"odd_width.avi", true}, Film{"h264_422.mkv", false},
                                         Film{"mjpeg_alaw.mov", false}),
                         [](const auto& test) {
                             std::string name = test.param.name;
                             std::replace(name.begin(), name.end(), '.', '_');
                             return name;
                         });

TEST(SharedPicturesOption, HoldsFromTheNextPlaybackOn) {
    RecordingSink sink;
    Playback playback;
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    struct Round {
        bool isPacked;
        const char* then;  // set while it plays
    };
    for (const auto& [isPacked, then] :
         {Round{true, "shared"}, Round{false, "no such value"}, Round{false, "packed"}, Round{true, "packed"}}) {
        const auto before = static_cast<size_t>(sink.frameCount());
        ASSERT_TRUE(playback.open(mediaPath("small.mp4")));
        ASSERT_TRUE(playback.player().play());
        ASSERT_TRUE(sink.waitForFrames(static_cast<int>(before) + 3, 10000));
        playback.player().setOption("pictures", then);
        ASSERT_TRUE(sink.waitForFrames(static_cast<int>(before) + 10, 10000));
        playback.player().stop();
        const auto frames = sink.frames();
        for (size_t i = before; i < frames.size(); ++i) {
            EXPECT_EQ(frames[i].isPacked, isPacked) << i;
        }
    }
}

// A cleared screen is black in memory of its own: what the decoder reads on from stays whole.
TEST(SharedPicturesSeeking, ShowNothingButPicturesOfTheFilmAndBlack) {
    const auto film = picturesOf("small.mp4", "packed");
    ASSERT_FALSE(film.empty());
    const int pixels = film.begin()->second.width * film.begin()->second.height;
    std::vector<uint8_t> black(static_cast<size_t>(pixels), 0);
    black.resize(static_cast<size_t>(pixels * 3 / 2), 128);
    const uint64_t blackHash = hashBytes(black.data(), black.size());

    RecordingSink sink;
    Playback playback;
    auto& player = playback.player();
    player.setOption("pictures", "shared");
    player.addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(playback.open(mediaPath("small.mp4")));
        ASSERT_TRUE(player.play());
        for (int step = 0; step < 8; ++step) {
            ASSERT_TRUE(sink.waitForFrames(sink.frameCount() + 2, 10000));
            player.clearScreen();
            if (step % 2 == 1) {
                player.pause();
                std::this_thread::sleep_for(std::chrono::milliseconds(120));
                const int before = sink.frameCount();
                player.clearScreen();
                ASSERT_TRUE(sink.waitForFrames(before + 1, 10000));
                player.resume();
            }
            player.seek((step * 700 + round * 130) % 2000);
        }
        player.stop();
    }
    int blacks = 0;
    for (const auto& frame : sink.frames()) {
        if (frame.hash == blackHash) {
            ++blacks;
            EXPECT_TRUE(frame.isPacked) << frame.pts;
            continue;
        }
        EXPECT_FALSE(frame.isPacked) << frame.pts;
        ASSERT_TRUE(film.contains(frame.pts)) << frame.pts;
        EXPECT_EQ(frame.hash, film.at(frame.pts).hash) << frame.pts;
    }
    EXPECT_GT(blacks, 5);
}

}  // namespace
}  // namespace kelp::test
