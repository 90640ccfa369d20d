// Steps from picture to picture in a pause, by what is drawn in them.

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "e2e/media.h"
#include "e2e/numbered.h"
#include "e2e/packet_facts.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "e2e/seeking.h"
#include "e2e/sound.h"
#include "kelp_player/log.h"

namespace kelp::test {
namespace {

// A numbered file that is paused, and its pictures.
class Stepping {
public:
    explicit Stepping(std::string file, const char* preset = "recommended")
        : file_(std::move(file)), times_(pictureTimes(mediaPath(file_))) {
        Log::SetLevel(0);
        player().setOption("preset", preset);
        player().setAVSyncMode(SYNC_MASTER_AUDIO);
        player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    }

    KelpPlayer& player() { return playback.player(); }

    // Plays, pauses and goes to `ms`.
    bool pauseAt(int ms) {
        if (!playback.open(mediaPath(file_), kPatienceMs) || !player().play() ||
            !playback.waitFor(Happened::FirstVideoFrame, kPatienceMs) || !sink.waitForFrames(1, kPatienceMs)) {
            return false;
        }
        player().setOption("seek", "exact");
        const int before = playback.count(Happened::FirstVideoFrame);
        return player().pause() && player().seek(ms) &&
               playback.waitFor(Happened::FirstVideoFrame, kPatienceMs, before + 1) &&
               waitUntil([&] { return sink.shown().number == indexAt(ms); });
    }

    // Whether the picture of that index is shown, by its time, its number and the position, and stays.
    bool comesTo(int index) {
        const int64_t pts = times_.at(static_cast<size_t>(index));
        return waitUntil([&] {
            const auto shown = sink.shown();
            return shown.pts == pts && shown.number == index && player().getCurrentTime() == pts;
        });
    }

    std::string shown() {
        const auto shown = sink.shown();
        return "number " + std::to_string(shown.number) + " at " + std::to_string(shown.pts) + ", position " +
               std::to_string(player().getCurrentTime());
    }

    int count() const { return static_cast<int>(times_.size()); }

private:
    // Before the first player, with which SDL chooses its driver.
    struct SoundGoesToAFile {
        SoundGoesToAFile() {
            if (!getenv("SDL_DISKAUDIOFILE")) {
                forgetSound();
            }
        }
    };
    SoundGoesToAFile soundGoesToAFile_;

public:
    NumberSink sink;
    Playback playback;

private:
    int indexAt(int64_t ms) const {
        return static_cast<int>(std::upper_bound(times_.begin(), times_.end(), ms) - times_.begin()) - 1;
    }

    const std::string file_;
    const std::vector<int64_t> times_;
};

class Steps : public testing::TestWithParam<const char*> {};

TEST_P(Steps, ShowEachPictureBackAndForthAcrossKeyFrames) {
    Stepping stepping(GetParam());
    ASSERT_TRUE(stepping.pauseAt(5000));
    int at = stepping.sink.shown().number;
    for (const int direction : {-1, 1}) {
        for (int i = 0; i < 100; ++i) {
            ASSERT_TRUE(stepping.player().stepFrame(direction));
            at += direction;
            ASSERT_TRUE(stepping.comesTo(at)) << at << ", but " << stepping.shown();
        }
    }
    for (const int pictures : {-5, 7, -30, 31, -3}) {
        ASSERT_TRUE(stepping.player().stepFrame(pictures));
        at += pictures;
        ASSERT_TRUE(stepping.comesTo(at)) << at << ", but " << stepping.shown();
    }
}

// As by a key that is held down: many are asked for while one is on its way.
TEST_P(Steps, AHundredBackAndAHundredForwardEndWhereTheyBegan) {
    Stepping stepping(GetParam());
    ASSERT_TRUE(stepping.pauseAt(5000));
    const int begin = stepping.sink.shown().number;
    for (const auto& [direction, end] : {std::pair{-1, begin - 100}, {1, begin}}) {
        for (int i = 0; i < 100; ++i) {
            ASSERT_TRUE(stepping.player().stepFrame(direction));
        }
        ASSERT_TRUE(stepping.comesTo(end)) << end << ", but " << stepping.shown();
    }
}

std::string testName(const testing::TestParamInfo<const char*>& info) {
    std::string name = info.param;
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(In, Steps, testing::Values("numbers.mp4", "numbers_open_gop.mp4", "numbers.ts"), testName);

TEST(StepsAtTheEnds, StayAtTheFirstAndAtTheLastPicture) {
    Stepping stepping("numbers.mp4");
    ASSERT_TRUE(stepping.pauseAt(80));
    for (const auto& [pictures, index] : {std::pair{-7, 0}, {-1, 0}, {1, 1}, {-1, 0}}) {
        ASSERT_TRUE(stepping.player().stepFrame(pictures));
        ASSERT_TRUE(stepping.comesTo(index)) << index << ", but " << stepping.shown();
    }
    const int last = stepping.count() - 1;
    for (const auto& [pictures, index] : {std::pair{100'000, last}, {1, last}, {-1, last - 1}, {2, last}}) {
        ASSERT_TRUE(stepping.player().stepFrame(pictures));
        ASSERT_TRUE(stepping.comesTo(index)) << index << ", but " << stepping.shown();
    }
}

class StepsBeforeAResume : public testing::TestWithParam<const char*> {};

TEST_P(StepsBeforeAResume, AreNotToldAndPlayOnFromTheirPicture) {
    const Recording sound("steps");
    Stepping stepping("numbers.mp4", GetParam());
    ASSERT_TRUE(stepping.pauseAt(5000));
    const int events = stepping.playback.count(Happened::FirstVideoFrame);
    int at = stepping.sink.shown().number;
    for (const int pictures : {3, -40}) {
        ASSERT_TRUE(stepping.player().stepFrame(pictures));
        at += pictures;
        ASSERT_TRUE(stepping.comesTo(at)) << at << ", but " << stepping.shown();
    }
    stepping.sink.clear();
    ASSERT_TRUE(stepping.player().resume());
    ASSERT_TRUE(stepping.sink.waitForFrames(15, kPatienceMs));
    ASSERT_TRUE(waitUntil([&] { return stepping.player().getCurrentTime() > (at + 20) * kNumberedFrameMs; }));
    const auto frames = stepping.sink.frames();
    EXPECT_GE(frames.front().number, at);
    for (size_t i = 1; i < frames.size(); ++i) {
        EXPECT_GT(frames[i].number, frames[i - 1].number);
    }
    stepping.player().stop();
    const auto moments = sound.moments();
    const auto resumed =
        std::ranges::find_if(moments, [](const SoundMoment& moment) { return moment.streamMs > 2000; });
    ASSERT_NE(resumed, moments.end());
    EXPECT_GE(resumed->streamMs, at * kNumberedFrameMs - 40);
    EXPECT_LE(resumed->streamMs, at * kNumberedFrameMs + 250);
    EXPECT_EQ(stepping.playback.count(Happened::FirstVideoFrame), events);
}

INSTANTIATE_TEST_SUITE_P(With, StepsBeforeAResume, testing::Values("standard", "recommended"), testName);

TEST(StepsAndSeeks, ASeekTakesThePlaceOfSteps) {
    Stepping stepping("numbers.mp4");
    ASSERT_TRUE(stepping.pauseAt(5000));
    for (int i = 0; i < 20; ++i) {
        stepping.player().stepFrame(-9);
        const int target = 1000 + 700 * i;
        ASSERT_TRUE(stepping.player().seek(target));
        ASSERT_TRUE(stepping.player().stepFrame(2));
        const int index = target / kNumberedFrameMs + 2;
        ASSERT_TRUE(stepping.comesTo(index)) << index << ", but " << stepping.shown();
    }
}

TEST(StepsAndStates, NeedAPause) {
    Stepping stepping("numbers.mp4");
    EXPECT_FALSE(stepping.player().stepFrame(1));
    ASSERT_TRUE(stepping.pauseAt(1000));
    EXPECT_TRUE(stepping.player().stepFrame(1));
    stepping.player().resume();
    EXPECT_FALSE(stepping.player().stepFrame(1));
    stepping.player().stop();
    EXPECT_FALSE(stepping.player().stepFrame(-1));
}

}  // namespace
}  // namespace kelp::test
