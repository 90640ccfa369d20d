// The events of a playback: which, in what order, with what arguments.

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "e2e/media.h"
#include "e2e/packet_facts.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "support/log_capture.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;

class Events : public testing::TestWithParam<const char*> {};

// Where `event` stands among `events`; -1 if nowhere.
int indexOf(const std::vector<Event>& events, Happened what) {
    for (size_t i = 0; i < events.size(); ++i) {
        if (events[i].what == what) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

TEST_P(Events, ComeInOrderWithTheirArguments) {
    const std::string path = mediaPath(GetParam());
    const PacketFacts facts = packetFacts(path);
    RecordingSink sink;
    Playback playback;
    playback.player().setAVSyncMode(SYNC_MASTER_AUDIO);
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(path));
    EXPECT_EQ(playback.player().getDuration(), facts.durationMs);
    ASSERT_TRUE(playback.playToEnd());
    // Nothing follows completion.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto events = playback.events();
    SCOPED_TRACE(testing::PrintToString(events));

    size_t at = 0;
    if (facts.hasVideo) {
        EXPECT_EQ(events.at(at++), (Event{Happened::SizeUpdated, facts.width, facts.height, 0}));
    }
    EXPECT_EQ(events.at(at++), (Event{Happened::Prepared, facts.hasVideo, facts.hasAudio}));
    EXPECT_EQ(events.at(at++), (Event{Happened::FirstPacket, facts.firstPacketMs}));
    const int video = indexOf(events, Happened::FirstVideoFrame);
    const int audio = indexOf(events, Happened::FirstAudioFrame);
    const int duration = indexOf(events, Happened::DurationUpdated);
    const int completed = indexOf(events, Happened::Completed);
    EXPECT_EQ(video > 0, sink.frameCount() > 0);
    if (video > 0) {
        EXPECT_NEAR(events.at(static_cast<size_t>(video)).a, facts.firstVideoFrameMs, 1);
        EXPECT_EQ(events.at(static_cast<size_t>(video)).a, sink.frames().front().pts);
    }
    EXPECT_TRUE(video > 0 || audio > 0);
    // The container's duration counts the last frame's length, the file's end the last frame's start.
    // A short file is read to its end before its first picture is shown.
    ASSERT_GE(duration, static_cast<int>(at));
    EXPECT_NEAR(events.at(static_cast<size_t>(duration)).a, facts.lastPtsMs, 1);
    EXPECT_EQ(playback.player().getDuration(), events.at(static_cast<size_t>(duration)).a);
    EXPECT_EQ(completed, static_cast<int>(events.size()) - 1);
    EXPECT_GT(completed, duration);
    EXPECT_EQ(playback.count(Happened::Completed), 1);
    EXPECT_EQ(playback.count(Happened::FirstVideoFrame), video > 0 ? 1 : 0);
    EXPECT_EQ(playback.count(Happened::FirstAudioFrame), audio > 0 ? 1 : 0);
    EXPECT_EQ(playback.count(Happened::Failed), 0);
}

INSTANTIATE_TEST_SUITE_P(Of, Events,
                         testing::Values("small.mp4", "hevc.ts", "mpeg4.avi", "mjpeg_alaw.mov", "vfr.mkv", "vorbis.ogg",
                                         "tone.mp3", "vp9_aac.mkv", "h264_ac3.mp4"),
                         [](const auto& test) {
                             std::string name = test.param;
                             std::replace(name.begin(), name.end(), '.', '_');
                             return name;
                         });

TEST(Events, CorrectADurationThatTheContainerHasWrong) {
    Playback playback;
    ASSERT_TRUE(playback.open(mediaPath("cut_faststart.mp4")));
    EXPECT_EQ(playback.player().getDuration(), 3000);
    ASSERT_TRUE(playback.playToEnd());
    EXPECT_EQ(playback.count(Happened::DurationUpdated), 1);
    const int corrected = playback.first(Happened::DurationUpdated).a;
    EXPECT_GT(corrected, 500);
    EXPECT_LT(corrected, 2500);
    EXPECT_EQ(playback.player().getDuration(), corrected);
}

TEST(Events, DoNotTellCompletionWhilePaused) {
    RecordingSink sink;
    Playback playback;
    playback.player().setAVSyncMode(SYNC_MASTER_VIDEO);
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(mediaPath("vfr.mkv")));
    ASSERT_TRUE(playback.player().play());
    ASSERT_TRUE(sink.waitForFrames(55, 20000));
    playback.player().pause();
    EXPECT_FALSE(playback.waitFor(Happened::Completed, 1500));
    const int shown = sink.frameCount();
    playback.player().resume();
    EXPECT_TRUE(playback.waitFor(Happened::Completed, 10000));
    EXPECT_TRUE(sink.waitForFrames(60, 10000));
    EXPECT_EQ(sink.frameCount(), 60);
    EXPECT_LE(shown, 57);
}

TEST(Events, OfASecondPlaybackOnTheSamePlayer) {
    Playback playback;
    for (int round = 1; round <= 2; ++round) {
        ASSERT_TRUE(playback.open(mediaPath("h264_ac3.mp4")));
        ASSERT_TRUE(playback.player().play());
        ASSERT_TRUE(playback.waitFor(Happened::Completed, 20000, round));
        EXPECT_TRUE(playback.player().stop());
        EXPECT_EQ(playback.player().getDuration(), 0);
    }
    EXPECT_EQ(playback.count(Happened::Prepared), 2);
    EXPECT_EQ(playback.count(Happened::FirstVideoFrame), 2);
}

class BadFile : public testing::TestWithParam<const char*> {};

// Whatever a file holds, a player ends in a failure or in completion, and stops.
TEST_P(BadFile, EndsInAnEventAndALogLine) {
    const std::string name = GetParam();
    LogCapture log(1);
    RecordingSink sink;
    Playback playback;
    playback.player().setOption("log_level", "error");
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    const std::string path = name == "missing"  ? mediaPath("missing.mp4")
                             : name == "folder" ? mediaPath("")
                                                : mediaPath(name);
    if (!playback.open(path)) {
        EXPECT_THAT(playback.events(), ElementsAre(Event{Happened::Failed, 1, 0}));
        EXPECT_TRUE(log.has(": open input file " + path) || log.has("No avaliable stream have found") ||
                    log.has("find stream info " + path + " failed"))
            << testing::PrintToString(log.lines());
    } else {
        ASSERT_TRUE(playback.player().play());
        EXPECT_TRUE(playback.waitFor(Happened::Completed, 30000) || playback.count(Happened::Failed) > 0);
        EXPECT_TRUE(log.has("read failed, ret:"));
    }
    EXPECT_TRUE(playback.player().stop());
}

INSTANTIATE_TEST_SUITE_P(Named, BadFile,
                         testing::Values("missing", "folder", "empty.mp4", "text.mp4", "cut.mp4", "cut_faststart.mp4",
                                         "cut.avi", "flipped.mp4", "flipped.ts"),
                         [](const auto& test) {
                             std::string name = test.param;
                             std::replace(name.begin(), name.end(), '.', '_');
                             return name;
                         });

}  // namespace
}  // namespace kelp::test
