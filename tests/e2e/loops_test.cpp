// Loops, by what is drawn in the pictures and by the tone that tells the time.

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "e2e/media.h"
#include "e2e/numbered.h"
#include "e2e/packet_facts.h"
#include "e2e/playback.h"
#include "e2e/seeking.h"
#include "e2e/sound.h"

namespace kelp::test {
namespace {

// A numbered file, its pictures in the order in which they came, and its sound.
class Looping {
public:
    explicit Looping(std::string file, SyncMasterMode master = SYNC_MASTER_VIDEO)
        : file_(std::move(file)), times_(pictureTimes(mediaPath(file_))) {
        player().setOption("preset", "recommended");
        player().setAVSyncMode(master);
        player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    }

    KelpPlayer& player() { return playback.player(); }

    bool start() { return playback.open(mediaPath(file_), kPatienceMs) && player().play(); }

    // Whether the pictures that came so far are all from the first one to `end`, and then again and again all from
    // `begin` to `end`, each in its turn, with the times that they have in the film.
    testing::AssertionResult areInTurn(int begin, int end) {
        int expected = 0;
        for (const auto& frame : sink.frames()) {
            if (frame.number != expected || frame.pts != times_.at(static_cast<size_t>(expected))) {
                auto failure = testing::AssertionFailure()
                               << "not " << expected << " at " << times_.at(static_cast<size_t>(expected)) << ":";
                for (const auto& one : sink.frames()) {
                    failure << " " << one.number << " at " << one.pts << ",";
                }
                return failure;
            }
            expected = expected + 1 < end ? expected + 1 : begin;
        }
        return testing::AssertionSuccess();
    }

    int count() const { return static_cast<int>(times_.size()); }

private:
    struct SoundGoesToAFile {
        SoundGoesToAFile() {
            if (!getenv("SDL_DISKAUDIOFILE")) {
                forgetSound();
            }
        }
    };
    SoundGoesToAFile soundGoesToAFile_;  // before the first player, with which SDL chooses its driver

public:
    NumberSink sink;
    Playback playback;

private:
    const std::string file_;
    const std::vector<int64_t> times_;
};

class Loops : public testing::TestWithParam<const char*> {};

TEST_P(Loops, ShowEachPictureOfEachTurn) {
    Looping looping(GetParam());
    ASSERT_TRUE(looping.player().setLoop(600, 1000));
    ASSERT_TRUE(looping.start());
    ASSERT_TRUE(looping.sink.waitForFrames(25 + 3 * 10 + 3, kPatienceMs));
    const int position = looping.player().getCurrentTime();
    EXPECT_TRUE(position >= 600 && position < 1000) << position;
    looping.player().stop();
    EXPECT_TRUE(looping.areInTurn(15, 25));
    EXPECT_EQ(looping.playback.count(Happened::FirstVideoFrame), 1);
    EXPECT_EQ(looping.playback.count(Happened::FirstPacket), 1);
}

std::string testName(const testing::TestParamInfo<const char*>& info) {
    std::string name = info.param;
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(In, Loops, testing::Values("numbers.mp4", "numbers_open_gop.mp4", "numbers.ts"), testName);

TEST(LoopsOfAFilm, CompleteWhenTheyAreTakenBack) {
    Looping looping("numbers_half.mp4");
    ASSERT_TRUE(looping.player().setLoop());
    ASSERT_TRUE(looping.start());
    ASSERT_TRUE(looping.sink.waitForFrames(4 * looping.count() + 2, kPatienceMs));
    EXPECT_EQ(looping.playback.count(Happened::Completed), 0);
    EXPECT_TRUE(looping.areInTurn(0, looping.count()));
    looping.player().clearLoop();
    ASSERT_TRUE(looping.playback.waitFor(Happened::Completed, kPatienceMs));
    ASSERT_TRUE(waitUntil([&] { return looping.sink.shown().number == looping.count() - 1; }));
    EXPECT_EQ(looping.playback.count(Happened::Completed), 1);
}

TEST(LoopsThatAreSetWhileItPlays, BeginAtOnceWhereTheirEndIsPast) {
    Looping looping("numbers.mp4", SYNC_MASTER_AUDIO);
    ASSERT_TRUE(looping.start());
    ASSERT_TRUE(looping.sink.waitForFrames(30, kPatienceMs));
    looping.sink.clear();
    ASSERT_TRUE(looping.player().setLoop(400, 800));
    const auto isInLoop = [](const NumberedFrame& frame) { return frame.number >= 10 && frame.number < 20; };
    ASSERT_TRUE(waitUntil([&] { return isInLoop(looping.sink.shown()); }));
    looping.sink.clear();
    ASSERT_TRUE(looping.sink.waitForFrames(25, kPatienceMs));
    EXPECT_TRUE(std::ranges::all_of(looping.sink.frames(), isInLoop));
    EXPECT_EQ(looping.playback.count(Happened::FirstVideoFrame), 1);
    // And they end as they began.
    looping.player().clearLoop();
    ASSERT_TRUE(waitUntil([&] { return looping.sink.shown().number >= 25; }));
    EXPECT_EQ(looping.playback.count(Happened::FirstVideoFrame), 1);
}

class LoopsWithoutAPicture : public testing::TestWithParam<const char*> {};

TEST_P(LoopsWithoutAPicture, EndASeekWithTheOneThatStandsThere) {
    Looping looping("numbers_picture_short.mp4", SYNC_MASTER_AUDIO);
    looping.player().setOption("preset", GetParam());
    ASSERT_TRUE(looping.player().setLoop(8000, 9000));
    ASSERT_TRUE(looping.start());
    ASSERT_TRUE(looping.playback.waitFor(Happened::FirstVideoFrame, kPatienceMs));
    ASSERT_TRUE(looping.player().seek(8500));
    EXPECT_TRUE(looping.playback.waitFor(Happened::FirstVideoFrame, kPatienceMs, 2));
    EXPECT_TRUE(waitUntil([&] { return looping.sink.shown().number == looping.count() - 1; }));
    const int position = looping.player().getCurrentTime();
    EXPECT_TRUE(position >= 8000 && position < 9000) << position;
}

INSTANTIATE_TEST_SUITE_P(With, LoopsWithoutAPicture, testing::Values("standard", "recommended"));

TEST(LoopsAndSteps, LeadBackToTheTurnBefore) {
    Looping looping("numbers.mp4");
    ASSERT_TRUE(looping.player().setLoop(600, 1000));
    ASSERT_TRUE(looping.start());
    ASSERT_TRUE(looping.sink.waitForFrames(25 + 2 * 10 + 5, kPatienceMs));
    looping.player().pause();
    ASSERT_TRUE(looping.sink.waitUntilStill(3, kPatienceMs));
    int at = looping.sink.shown().number;
    for (const int step : {-1, 1}) {
        for (int i = 0; i < 25; ++i) {
            at += step;
            at = at < 15 ? 24 : at > 24 ? 15 : at;
            ASSERT_TRUE(looping.player().stepFrame(step));
            ASSERT_TRUE(waitUntil([&] {
                return looping.sink.shown().number == at && looping.player().getCurrentTime() == at * kNumberedFrameMs;
            })) << at
                << ", but " << looping.sink.shown().number << ", position " << looping.player().getCurrentTime();
        }
    }
    looping.sink.clear();
    ASSERT_TRUE(looping.player().resume());
    ASSERT_TRUE(looping.sink.waitForFrames(15, kPatienceMs));
    for (const auto& frame : looping.sink.frames()) {
        EXPECT_TRUE(frame.number >= 15 && frame.number < 25) << frame.number;
    }
}

TEST(SoundOfLoops, GoesOnFromEndToStart) {
    const Recording sound("loops");
    Looping looping("numbers.mp4", SYNC_MASTER_AUDIO);
    ASSERT_TRUE(looping.player().setLoop(1000, 2000));
    ASSERT_TRUE(looping.start());
    ASSERT_TRUE(looping.sink.waitForFrames(25, kPatienceMs));
    ASSERT_TRUE(looping.player().seek(1600));
    ASSERT_TRUE(waitUntil([&] { return looping.player().getStatistics().video.shown > 25 + 10 + 25 + 30; }));
    const bool isWhole = looping.player().getStatistics().audio.underruns == 0;
    looping.player().stop();
    int turns = 0;
    const auto moments = sound.moments();
    for (size_t i = 1; i < moments.size(); ++i) {
        const auto& before = moments[i - 1];
        const auto& after = moments[i];
        if (after.streamMs < before.streamMs - 500) {
            ++turns;
            if (isWhole) {
                EXPECT_NEAR(static_cast<double>(before.streamMs), 2000, 60);
                EXPECT_NEAR(static_cast<double>(after.streamMs), 1000, 60);
                EXPECT_LE(after.recordedMs - before.recordedMs, 500);
            }
        }
    }
    EXPECT_GE(turns, 2);
}

}  // namespace
}  // namespace kelp::test
