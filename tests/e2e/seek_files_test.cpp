// Seeks in files that lack something: a stream, a part of one, key frames, an index, a duration.

#include <gmock/gmock.h>

#include <algorithm>

#include "e2e/seeking.h"

namespace kelp::test {
namespace {

TEST(SeekIn, AFileWithoutSound) {
    Seeking seeking("numbers_video.mp4");
    ASSERT_TRUE(seeking.start());
    for (const int target : {6500, 2700, 10999}) {
        seeking.seekTo(target);
        ASSERT_FALSE(HasFatalFailure());
    }
    ASSERT_TRUE(seeking.playback.waitFor(Happened::Completed, kPatienceMs));
    seeking.expectLast(301);
    EXPECT_EQ(seeking.playback.count(Happened::FirstAudioFrame), 0);
}

TEST(SeekIn, AFileWithoutPictures) {
    Recording recording("without_pictures");
    {
        Seeking seeking("numbers_sound.m4a");
        ASSERT_TRUE(seeking.start());
        ASSERT_TRUE(seeking.playUntil(500));
        const auto pausedSeek = [&](int target) {
            const int events = seeking.playback.count(Happened::FirstAudioFrame);
            ASSERT_TRUE(seeking.player().seek(target));
            ASSERT_TRUE(seeking.playback.waitFor(Happened::FirstAudioFrame, kPatienceMs, events + 1));
            EXPECT_NEAR(seeking.playback.last(Happened::FirstAudioFrame).a, target, 50);
        };
        pausedSeek(9500);
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_TRUE(seeking.playUntil(9800));
        pausedSeek(3000);
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_TRUE(seeking.playUntil(4000));
        pausedSeek(11300);
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_TRUE(seeking.playback.waitFor(Happened::Completed, kPatienceMs));
        EXPECT_EQ(seeking.playback.count(Happened::FirstVideoFrame), 0);
        EXPECT_EQ(seeking.sink.frameCount(), 0);
        seeking.player().stop();
    }
    EXPECT_NEAR(static_cast<double>(recording.afterLastCut()), 11300, 100);
}

// Behind the end of the sound there are pictures only.
TEST(SeekIn, AFileWhoseSoundEndsFiveSecondsEarly) {
    Seeking seeking("numbers_sound_short.mp4");
    ASSERT_TRUE(seeking.start());
    seeking.seekTo(9500);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(seeking.playUntil(9900));
    // Back where there is sound: the time is the sound's, and that of before until its first block.
    const int sounds = seeking.playback.count(Happened::FirstAudioFrame);
    seeking.seekTo(3500);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(seeking.playback.waitFor(Happened::FirstAudioFrame, kPatienceMs, sounds + 1));
    ASSERT_TRUE(seeking.playUntil(3900));
    seeking.seekTo(11500);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(seeking.playback.waitFor(Happened::Completed, kPatienceMs));
    seeking.expectLast(301);
}

// Behind the end of the pictures there is sound only: the seek ends at the last picture or with the end of the file,
// and the sound goes on from the target.
TEST(SeekIn, AFileWhosePictureEndsFiveSecondsEarly) {
    Recording recording("picture_short");
    {
        Seeking seeking("numbers_picture_short.mp4");
        ASSERT_TRUE(seeking.start());
        ASSERT_TRUE(seeking.playUntil(300));
        ASSERT_TRUE(seeking.player().seek(10500));
        ASSERT_TRUE(seeking.playback.waitFor(Happened::FirstAudioFrame, kPatienceMs, 2));
        EXPECT_NEAR(seeking.playback.last(Happened::FirstAudioFrame).a, 10500, 50);
        ASSERT_TRUE(seeking.playback.waitFor(Happened::Completed, kPatienceMs));
        // And from there back. The time is that of before until the sound's first block.
        seeking.seekTo(5500);
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_TRUE(seeking.playback.waitFor(Happened::FirstAudioFrame, kPatienceMs, 3));
        ASSERT_TRUE(seeking.playUntil(5900));
        seeking.player().stop();
    }
    const auto moments = recording.moments();
    EXPECT_TRUE(std::any_of(moments.begin(), moments.end(), [](const SoundMoment& moment) {
        return moment.streamMs > 10400 && moment.streamMs < 10600;
    }));
    EXPECT_NEAR(static_cast<double>(recording.afterLastCut()), 5500, 100);
}

TEST(SeekIn, AFileOfHalfASecond) {
    Seeking seeking("numbers_half.mp4");
    ASSERT_TRUE(seeking.start());
    ASSERT_TRUE(seeking.playback.waitFor(Happened::Completed, kPatienceMs));
    seeking.expectLast(12);
    int completed = 1;
    for (const int target : {300, 0, 410}) {
        // The demuxer has nowhere else to go, the frames before the target are skipped.
        const int events = seeking.playback.count(Happened::FirstVideoFrame);
        seeking.beginSeek(target);
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_TRUE(seeking.playback.waitFor(Happened::FirstVideoFrame, kPatienceMs, events + 1));
        const int pts = seeking.playback.last(Happened::FirstVideoFrame).a;
        EXPECT_LE(pts, target);
        EXPECT_GT(pts + kNumberedFrameMs, target);
        ASSERT_TRUE(seeking.playback.waitFor(Happened::Completed, kPatienceMs, ++completed));
        seeking.expectLast(12);
    }
    EXPECT_TRUE(seeking.log.has("seekTarget:0\n"));
}

TEST(SeekIn, AFileWithOneKeyFrame) {
    Seeking seeking("numbers_one_key.mp4");
    ASSERT_TRUE(seeking.start());
    for (const int target : {10500, 4700, 11200}) {
        seeking.seekTo(target);
        ASSERT_FALSE(HasFatalFailure());
    }
}

// Pictures that need the group before theirs are never shown broken: a number that can't be read counts as wrong.
TEST(SeekIn, OpenGroupsOfPictures) {
    Seeking seeking("numbers_open_gop.mp4");
    ASSERT_TRUE(seeking.start());
    ASSERT_TRUE(seeking.pause());
    const int first = seeking.firstPts();
    for (const int target : {first + 8000, first + 6040, first + 3900, first + 2500, first + 9720}) {
        seeking.seekTo(target);
        ASSERT_FALSE(HasFatalFailure()) << target;
    }
    // The demuxer goes to the key frame that comes before it in the file.
    ASSERT_TRUE(seeking.player().seek(first + 3960));
    ASSERT_TRUE(waitUntil([&] { return seeking.sink.shown().pts == first + 4000; }));
    seeking.player().resume();
    ASSERT_TRUE(seeking.playUntil(first + 6100));
    for (const NumberedFrame& frame : seeking.sink.frames()) {
        EXPECT_EQ(frame.number, seeking.numberAt(frame.pts));
    }
}

TEST(SeekIn, AFileOfUnknownDuration) {
    Seeking seeking("numbers_unknown.mkv");
    ASSERT_TRUE(seeking.start());
    EXPECT_EQ(seeking.player().getDuration(), 36000000);
    // Where the end is isn't known: the request goes on as it is.
    ASSERT_TRUE(seeking.player().seek(30000000));
    EXPECT_TRUE(seeking.log.has("[StreamParser]: seek to 30000000 ms\n"));
    ASSERT_TRUE(seeking.playback.waitFor(Happened::Completed, kPatienceMs));
    EXPECT_LT(seeking.player().getDuration(), 9000);
    // Its own picture may be told, and shown, behind the end.
    ASSERT_TRUE(seeking.playback.waitFor(Happened::FirstVideoFrame, kPatienceMs, 2));
    const int last = seeking.playback.last(Happened::FirstVideoFrame).a;
    ASSERT_TRUE(waitUntil([&] { return seeking.sink.shown().pts == last; }));
    for (const int target : {6500, 2700, 5100}) {
        seeking.seekTo(target);
        ASSERT_FALSE(HasFatalFailure());
    }
}

}  // namespace
}  // namespace kelp::test
