// Seeks at odd moments: during a pause, after the end, while the source is opened, before the first frame, and while
// the player is stopped.

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "e2e/media.h"
#include "e2e/seeking.h"
#include "e2e/silent_server.h"

namespace kelp::test {
namespace {

TEST(SeekWhilePaused, ShowsTheTargetAndStaysPaused) {
    Recording recording("paused");
    {
        Seeking seeking("numbers.mp4");
        ASSERT_TRUE(seeking.start());
        ASSERT_TRUE(seeking.playUntil(500));
        ASSERT_TRUE(seeking.pause());
        for (const int target : {14500, 3333}) {
            const int sounds = seeking.playback.count(Happened::FirstAudioFrame);
            seeking.seekTo(target);
            ASSERT_FALSE(HasFatalFailure());
            ASSERT_TRUE(seeking.playback.waitFor(Happened::FirstAudioFrame, kPatienceMs, sounds + 1));
            // Still there after twenty more chances to go on.
            const int shown = seeking.numberAt(target);
            ASSERT_TRUE(seeking.sink.waitUntilStill(20, kPatienceMs));
            EXPECT_EQ(seeking.sink.shown().number, shown);
            EXPECT_EQ(seeking.player().getCurrentTime(), seeking.sink.shown().pts);
        }
        const auto frames = static_cast<size_t>(seeking.sink.frameCount());
        seeking.player().resume();
        ASSERT_TRUE(seeking.playUntil(4300));
        // The picture's time may get there before the sound is heard again.
        EXPECT_TRUE(waitUntil([&] { return recording.afterLastCut() >= 0; }));
        seeking.player().stop();
        const auto shown = seeking.sink.frames();
        for (size_t i = frames; i < shown.size(); ++i) {
            EXPECT_GT(shown[i].number, shown[i - 1].number);
        }
        // Sound has waited as long as the pause was: until it is heard again, a slow machine skips some pictures.
        EXPECT_LE(shown[frames].number, seeking.numberAt(3333) + 100);
    }
    EXPECT_NEAR(static_cast<double>(recording.afterLastCut()), 3333, 100);
}

// On the player's own clock a seek during a pause takes the place of what the pause has kept.
TEST(SeekWhilePaused, ResumesFromTheTargetOnTheClockToo) {
    Seeking seeking("numbers.mp4", SYNC_MASTER_CLOCK);
    ASSERT_TRUE(seeking.start());
    ASSERT_TRUE(seeking.pause());
    seeking.seekTo(9500);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(seeking.sink.waitUntilStill(20, kPatienceMs));
    const auto frames = static_cast<size_t>(seeking.sink.frameCount());
    seeking.player().resume();
    ASSERT_TRUE(seeking.playUntil(10500));
    seeking.player().stop();
    const auto shown = seeking.sink.frames();
    for (size_t i = frames; i < shown.size(); ++i) {
        EXPECT_GT(shown[i].number, shown[i - 1].number);
    }
    EXPECT_EQ(shown[frames - 1].number, seeking.numberAt(9500));
}

TEST(SeekAfterTheEnd, BringsPlaybackBackToASecondEnd) {
    Seeking seeking("numbers.mp4");
    ASSERT_TRUE(seeking.start());
    for (int end = 1; end <= 3; ++end) {
        seeking.seekTo(19250);
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_TRUE(seeking.playback.waitFor(Happened::Completed, kPatienceMs, end));
        seeking.expectLast(499);
        EXPECT_EQ(seeking.playback.count(Happened::Completed), end);
    }
    EXPECT_EQ(seeking.playback.count(Happened::Failed), 0);
}

// The end is told once, however long it lasts, and not while paused.
TEST(SeekAfterTheEnd, IsNotCompletedDuringAPause) {
    Seeking seeking("numbers.mp4");
    ASSERT_TRUE(seeking.start());
    ASSERT_TRUE(seeking.pause());
    seeking.seekTo(19500);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(seeking.playback.waitFor(Happened::DurationUpdated, kPatienceMs));
    ASSERT_TRUE(seeking.sink.waitUntilStill(20, kPatienceMs));
    EXPECT_EQ(seeking.playback.count(Happened::Completed), 0);
    seeking.player().resume();
    ASSERT_TRUE(seeking.playback.waitFor(Happened::Completed, kPatienceMs));
}

// Beyond the end. The first time nobody knows where the last frame is: the seek ends there, if the end was read by
// then, or with the end itself. From the second time on it is known.
TEST(SeekBeyondTheEnd, EndsAtTheLastFrame) {
    Seeking seeking("numbers.mp4");
    ASSERT_TRUE(seeking.start());
    ASSERT_TRUE(seeking.player().seek(1000000));
    EXPECT_TRUE(seeking.log.has("[StreamParser]: seek to 20000 ms\n"));
    ASSERT_TRUE(seeking.playback.waitFor(Happened::Completed, kPatienceMs));
    // A seek never goes to the last second by itself.
    EXPECT_TRUE(seeking.log.has("processSeekRequest, seekPos:20000000, seekTarget:19000000\n"));
    EXPECT_EQ(seeking.player().getDuration(), seeking.playback.last(Happened::DurationUpdated).a);

    const int events = seeking.playback.count(Happened::FirstVideoFrame);
    ASSERT_TRUE(seeking.player().seek(1000000));
    ASSERT_TRUE(seeking.playback.waitFor(Happened::FirstVideoFrame, kPatienceMs, events + 1));
    EXPECT_EQ(seeking.playback.last(Happened::FirstVideoFrame).a, 499 * kNumberedFrameMs);
    ASSERT_TRUE(seeking.playback.waitFor(Happened::Completed, kPatienceMs, 2));
    seeking.expectLast(499);
}

TEST(SeekBeforeZero, GoesToTheStart) {
    Seeking seeking("numbers.mp4");
    ASSERT_TRUE(seeking.start());
    ASSERT_TRUE(seeking.pause());
    seeking.seekTo(5500);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(seeking.player().seek(-5));
    ASSERT_TRUE(waitUntil([&] { return seeking.sink.shown().number == 0; }));
}

TEST(SeekDuringOpen, IsRefusedUntilTheSourceIsOpen) {
    SilentServer server;
    Seeking seeking("numbers.mp4");
    EXPECT_FALSE(seeking.player().seek(8500));
    ASSERT_TRUE(seeking.player().loadFileAsync(server.url().c_str(), 0));
    ASSERT_TRUE(waitUntil([&] { return server.accepted() == 1; }));
    EXPECT_FALSE(seeking.player().seek(8500));
    EXPECT_EQ(seeking.player().getCurrentTime(), 0);
    seeking.player().stop();

    for (int round = 0; round < 10; ++round) {
        const int prepared = seeking.playback.count(Happened::Prepared);
        ASSERT_TRUE(seeking.player().loadFileAsync(mediaPath("numbers.mp4").c_str(), 0));
        ASSERT_TRUE(waitUntil([&] {
            seeking.player().seek(8500);
            return seeking.playback.count(Happened::Prepared) > prepared;
        }));
        EXPECT_TRUE(seeking.player().seek(8500));
        EXPECT_EQ(seeking.player().getCurrentTime(), 8500);
        seeking.player().stop();
    }
}

TEST(SeekBeforePlay, StartsAtTheTarget) {
    Seeking seeking("numbers.mp4");
    ASSERT_TRUE(seeking.open());
    ASSERT_TRUE(seeking.player().seek(8500));
    EXPECT_EQ(seeking.player().getCurrentTime(), 8500);
    ASSERT_TRUE(seeking.player().play());
    ASSERT_TRUE(seeking.playback.waitFor(Happened::FirstVideoFrame, kPatienceMs));
    EXPECT_EQ(seeking.playback.first(Happened::FirstVideoFrame).a, 8480);
    ASSERT_TRUE(seeking.sink.waitForFrames(1, kPatienceMs));
    EXPECT_EQ(seeking.sink.frames().front().number, 212);
}

TEST(SeekBeforeTheFirstFrame, EndsAtTheTarget) {
    for (int round = 0; round < 12; ++round) {
        Seeking seeking("numbers.mp4");
        ASSERT_TRUE(seeking.open());
        ASSERT_TRUE(seeking.player().play());
        std::this_thread::sleep_for(std::chrono::milliseconds(round * 2));
        ASSERT_TRUE(seeking.player().seek(8500));
        ASSERT_TRUE(seeking.playback.waitFor(Happened::FirstVideoFrame, kPatienceMs));
        ASSERT_TRUE(waitUntil([&] { return seeking.playback.last(Happened::FirstVideoFrame).a == 8480; }))
            << "round " << round;
        ASSERT_TRUE(waitUntil([&] { return seeking.sink.shown().number >= 212; }));
    }
}

TEST(SeekDuringStop, NeitherHangsNorOutlivesIt) {
    Seeking seeking("numbers.mp4");
    for (int round = 0; round < 15; ++round) {
        ASSERT_TRUE(seeking.playback.open(mediaPath("numbers.mp4"), kPatienceMs)) << "round " << round;
        const int events = seeking.playback.count(Happened::FirstVideoFrame);
        ASSERT_TRUE(seeking.player().play());
        ASSERT_TRUE(seeking.playback.waitFor(Happened::FirstVideoFrame, kPatienceMs, events + 1));
        std::atomic<bool> stopped{false};
        std::thread dragging([&] {
            for (int i = 0; !stopped; ++i) {
                seeking.player().seek(1000 + i * 37 % 18000);
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(round * 5));
        EXPECT_TRUE(seeking.player().stop());
        // Requests go on coming for a while.
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_FALSE(seeking.player().seek(1000));
        EXPECT_EQ(seeking.player().getCurrentTime(), 0);
        stopped = true;
        dragging.join();
    }
    // Nothing of all that is left.
    ASSERT_TRUE(seeking.playback.open(mediaPath("numbers.mp4"), kPatienceMs));
    const int events = seeking.playback.count(Happened::FirstVideoFrame);
    ASSERT_TRUE(seeking.player().play());
    ASSERT_TRUE(seeking.playback.waitFor(Happened::FirstVideoFrame, kPatienceMs, events + 1));
    EXPECT_EQ(seeking.playback.last(Happened::FirstVideoFrame).a, 0);
    ASSERT_TRUE(seeking.playUntil(200));
    EXPECT_LT(seeking.player().getCurrentTime(), 20000);
    EXPECT_EQ(seeking.playback.count(Happened::FirstVideoFrame), events + 1);
}

}  // namespace
}  // namespace kelp::test
