#include <gmock/gmock.h>

#include <algorithm>
#include <future>
#include <limits>

#include "playtask/play_task_peer.h"
#include "playtask/small_media.h"
#include "support/fake_time.h"
#include "support/log_capture.h"

// Loops: what is refused, and what a playback makes of one.

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kFilmEnd = std::numeric_limits<int>::max();

class PlayTaskLoop : public testing::Test {
protected:
    void SetUp() override { FakeTime::reset(); }
    void TearDown() override { FakeTime::reset(); }

    void load(const std::string& name, int timeMs = 0) {
        ASSERT_TRUE(under.task->loadFileAsync(smallMedia(name), timeMs));
        ASSERT_TRUE(under.waitFor(EVENT_PREPARED));
    }

    TaskUnderTest under;
};

TEST_F(PlayTaskLoop, IsTakenAtAnyTimeIfItHasALength) {
    LogCapture log(2);
    EXPECT_TRUE(under.task->setLoop(0, kFilmEnd));
    EXPECT_TRUE(under.task->setLoop(-5, 1));
    EXPECT_FALSE(under.task->setLoop(500, 500));
    EXPECT_FALSE(under.task->setLoop(500, 499));
    EXPECT_FALSE(under.task->setLoop(0, -1));
    under.task->clearLoop();
    const std::string line = "[PlayTask]: setLoop, its end isn't behind its start\n";
    EXPECT_THAT(linesOf(log), ElementsAre(line, line, line));
}

TEST_F(PlayTaskLoop, HasToFitTheFilmThatIsLoaded) {
    load("av.mp4");
    LogCapture log(2);
    EXPECT_TRUE(under.task->setLoop(0, kFilmEnd));
    EXPECT_TRUE(under.task->setLoop(1000, 1040));
    EXPECT_FALSE(under.task->setLoop(1000, 1039));
    EXPECT_FALSE(under.task->setLoop(2100, kFilmEnd));
    EXPECT_THAT(linesOf(log), ElementsAre("[PlayTask]: setLoop, it is shorter than a picture\n",
                                          "[PlayTask]: setLoop, it begins at the film's end or behind it\n"));
}

TEST_F(PlayTaskLoop, IsLeftOutByAPlaybackThatItDoesntFit) {
    ASSERT_TRUE(under.task->setLoop(5000, 6000));
    load("av.mp4");
    LogCapture log(2);
    ASSERT_TRUE(under.task->play());
    EXPECT_EQ(log.count("[PlayTask]: setLoop, it begins at the film's end or behind it\n"), 1);
    ASSERT_TRUE(under.task->seek(1900));
}

TEST_F(PlayTaskLoop, ComesWithAPlaybackThatRuns) {
    load("video.mp4");
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME));
    ASSERT_TRUE(under.task->setLoop(0, kFilmEnd));
    EXPECT_TRUE(under.waitUntil([&] { return under.peer.parser()->loop().isBent(); })) << "it has gone round";
}

// A time stands there once for each turn.
TEST_F(PlayTaskLoop, LooksForNoSeekInTheQueuesOnceItHasGoneRound) {
    load("video.mp4");
    ASSERT_TRUE(under.task->setLoop(0, kFilmEnd));
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitUntil([&] { return under.peer.parser()->loop().isBent(); }));
    LogCapture log(4);
    ASSERT_TRUE(under.task->seek(500));
    const auto lines = log.lines();
    EXPECT_TRUE(
        std::ranges::none_of(lines, [](const auto& line) { return line.find("checkBuffer") != std::string::npos; }));
}

TEST_F(PlayTaskLoop, TakesSeeksBehindItToItsStart) {
    load("long.mp4");
    ASSERT_TRUE(under.task->setLoop(1000, 3000));
    ASSERT_TRUE(under.task->play());
    LogCapture log;
    ASSERT_TRUE(under.task->seek(3000));
    int asked = 0;
    for (const auto& line : linesOf(log)) {
        asked += line.ends_with("checkBuffer, seekTimeMs:1000\n") || line.ends_with("seek to 1000 ms\n") ? 1 : 0;
        EXPECT_FALSE(line.ends_with("checkBuffer, seekTimeMs:3000\n") || line.ends_with("seek to 3000 ms\n")) << line;
    }
    EXPECT_GE(asked, 1);
}

TEST_F(PlayTaskLoop, LoadsFromItsStartBehindItsEnd) {
    ASSERT_TRUE(under.task->setLoop(1000, 3000));
    load("long.mp4", 5000);
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_PACKET));
    EXPECT_LE(under.eventsOf(EVENT_FIRST_PACKET).front().a, 1000);
}

TEST_F(PlayTaskLoop, NeedsNoSeekOfItsOwnBehindTheHosts) {
    load("video.mp4");
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME));
    under.drainWorker();
    LogCapture log;
    std::promise<void> isSought;
    under.worker->task([sought = isSought.get_future().share()] { sought.wait(); });
    under.fromParser().onLoopChanged(std::numeric_limits<int64_t>::max());
    under.fromParser().onSeekStart(100);
    isSought.set_value();
    under.drainWorker();
    for (const auto& line : linesOf(log)) {
        EXPECT_FALSE(line.ends_with(" ms\n") && line.starts_with("[StreamParser]: seek to ")) << line;
    }
}

TEST_F(PlayTaskLoop, TellsTheFirstFramesThatAreOwed) {
    load("video.mp4");
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME));
    LogCapture log;
    under.fromParser().onLoopChanged(std::numeric_limits<int64_t>::max());
    ASSERT_TRUE(under.waitUntil([&] {
        return std::ranges::any_of(linesOf(log),
                                   [](const auto& line) { return line.starts_with("[StreamParser]: seek to "); });
    }));
    for (int i = 0; i < 2; ++i) {
        under.fromVideoPlay().onFirstVideoFrame(0);
        under.fromAudioPlay().onFirstAudioFrame(0);
        EXPECT_EQ(under.eventsOf(EVENT_FIRST_VIDEO_FRAME).size(), 1U);
        EXPECT_EQ(under.eventsOf(EVENT_FIRST_AUDIO_FRAME).size(), 1U);
    }
}

TEST_F(PlayTaskLoop, TellsNoEndAndLastsOverAStop) {
    ASSERT_TRUE(under.task->setLoop(0, kFilmEnd));
    for (int playback = 0; playback < 2; ++playback) {
        ASSERT_TRUE(under.task->loadFileAsync(smallMedia("video.mp4"), 0));
        ASSERT_TRUE(under.waitFor(EVENT_PREPARED, static_cast<size_t>(playback) + 1));
        ASSERT_TRUE(under.task->play());
        const auto& line = under.peer.parser()->loop();
        ASSERT_TRUE(under.waitUntil([&] { return line.isBent(); })) << "it has gone round";
        under.task->stop();
        EXPECT_FALSE(line.isBent());
    }
    EXPECT_THAT(under.eventsOf(EVENT_COMPLETED), IsEmpty());
}

}  // namespace
}  // namespace kelp::test
