// Live sources play, halt and go on: a real RTSP server, and RTP packets that an SDP file describes.

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <thread>

#include "e2e/clock_picture.h"
#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "e2e/rtp_session.h"
#include "e2e/rtsp_server.h"
#include "support/log_capture.h"

namespace kelp::test {
namespace {

constexpr int kLimitMs = 60000;  // for whatever must come; on an idle machine it takes two seconds at most

void pauseFor(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

bool waitForLine(LogCapture& log, const std::string& text, int times) {
    for (int i = 0; i < kLimitMs / 10 && log.count(text) < times; ++i) {
        pauseFor(10);
    }
    return log.count(text) >= times;
}

int64_t clockOf(const ShownFrame& frame) {
    return readClockPicture(frame.bytes.data(), frame.width, frame.width, frame.height);
}

// Threads of this process.
int threadCount() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<int>(std::distance(begin(tasks), end(tasks)));
}

struct LiveCase {
    const char* stream;
    const char* transport;
    bool sound;
};

class Live : public testing::TestWithParam<LiveCase> {};

TEST_P(Live, PlaysWithPicturesAndSound) {
    RtspServer server;
    RecordingSink sink(RecordingSink::Keep::Bytes);
    Playback playback;
    playback.player().setOption("rtsp_transport", GetParam().transport);
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(server.url(GetParam().stream), kLimitMs));
    EXPECT_EQ(playback.first(Happened::Prepared), (Event{Happened::Prepared, true, GetParam().sound}));
    EXPECT_EQ(playback.first(Happened::SizeUpdated), (Event{Happened::SizeUpdated, 320, 180, 0}));
    ASSERT_TRUE(playback.player().play());
    EXPECT_TRUE(playback.waitFor(Happened::FirstPacket, kLimitMs));
    EXPECT_TRUE(playback.waitFor(Happened::FirstVideoFrame, kLimitMs));
    EXPECT_TRUE(!GetParam().sound || playback.waitFor(Happened::FirstAudioFrame, kLimitMs));
    ASSERT_TRUE(sink.waitForFrames(40, kLimitMs));
    const auto frames = sink.frames();
    for (size_t i = 0; i < frames.size(); ++i) {
        ASSERT_GE(clockOf(frames[i]), 0) << "picture " << i << " isn't the server's";
        ASSERT_TRUE(i == 0 || frames[i].pts > frames[i - 1].pts) << "picture " << i;
        // A server that was held up makes several in one millisecond, but never the same twice.
        ASSERT_TRUE(i == 0 || clockOf(frames[i]) >= clockOf(frames[i - 1])) << "picture " << i;
        ASSERT_TRUE(i == 0 || frames[i].hash != frames[i - 1].hash) << "picture " << i;
        // Shown after it was made.
        EXPECT_GE(frames[i].atUs / 1000 % 0x100000000, clockOf(frames[i]));
    }
    // The times are the source's own: they went as far as its clock did, but for the waits of a busy server.
    EXPECT_NEAR(static_cast<double>(frames.back().pts - frames.front().pts),
                static_cast<double>(clockOf(frames.back()) - clockOf(frames.front())), 1000);
    EXPECT_FALSE(playback.player().seek(1000));
    EXPECT_EQ(playback.count(Happened::Failed), 0);
    EXPECT_EQ(playback.count(Happened::Completed), 0);
}

INSTANTIATE_TEST_SUITE_P(Over, Live,
                         testing::Values(LiveCase{"h264-aac", "tcp", true}, LiveCase{"hevc-alaw", "tcp", true},
                                         LiveCase{"h264-alaw", "udp", true}, LiveCase{"hevc-aac", "udp", true}),
                         [](const auto& test) {
                             std::string name = std::string(test.param.stream) + "_" + test.param.transport;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST(LiveSource, ThatPlaysAFileInALoopGoesOnBehindItsEnd) {
    RtspServer server({{"loop", mediaPath("short.mp4")}});
    RecordingSink sink;
    Playback playback;
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(server.url("loop"), kLimitMs));
    EXPECT_EQ(playback.first(Happened::Prepared), (Event{Happened::Prepared, true, true}));
    ASSERT_TRUE(playback.player().play());
    // The file has 13 pictures.
    ASSERT_TRUE(sink.waitForFrames(40, kLimitMs));
    EXPECT_EQ(playback.count(Happened::Completed), 0);
}

TEST(LiveSource, IsAnRtspOneWithItsOptions) {
    RtspServer server;
    Playback playback;
    LogCapture log;  // behind the player: the first one of a process sets the level
    ASSERT_TRUE(playback.open(server.url("h264"), kLimitMs));
    for (const char* line : {"set key:fflags, value:nobuffer", "set key:rtsp_transport, value:tcp",
                             "set key:max_delay, value:1000000", "set key:reorder_queue_size, value:1200",
                             "set key:buffer_size, value:-1", "set key:stimeout, value:500000"}) {
        EXPECT_EQ(log.count(std::string("[StreamParser]: open, ") + line + "\n"), 1) << line;
    }
    EXPECT_EQ(log.count("set key:"), 6);
    EXPECT_FALSE(playback.player().seek(0));
}

TEST(LiveSource, IsAnSdpOneWithItsOptions) {
    RtpSession session(mediaPath("small.mp4"));
    Playback playback;
    LogCapture log;  // behind the player: the first one of a process sets the level
    ASSERT_TRUE(playback.open(session.sdpPath(), kLimitMs));
    for (const char* line : {"set key:fflags, value:nobuffer", "set key:protocol_whitelist, value:file,udp,rtp",
                             "set key:rtsp_transport, value:tcp"}) {
        EXPECT_EQ(log.count(std::string("[StreamParser]: open, ") + line + "\n"), 1) << line;
    }
    EXPECT_EQ(log.count("set key:"), 7);
    EXPECT_FALSE(playback.player().seek(0));
}

TEST(LiveSource, KeepsTheHostsOptions) {
    RtspServer server;
    Playback playback;
    LogCapture log;  // behind the player: the first one of a process sets the level
    playback.player().setOption("fflags", "discardcorrupt");
    ASSERT_TRUE(playback.open(server.url("h264"), kLimitMs));
    EXPECT_EQ(log.count("open, set key:fflags, value:discardcorrupt\n"), 1);
    EXPECT_EQ(log.count("nobuffer"), 0);
}

TEST(LiveSource, IsDecodedOnOneThread) {
    const auto threadsWhilePlaying = [](const std::string& url) {
        RecordingSink sink(RecordingSink::Keep::Nothing);
        Playback playback;
        playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
        playback.player().enableHwDecoder(false, HW_DECODE_NONE);
        EXPECT_TRUE(playback.open(url, kLimitMs));
        EXPECT_TRUE(playback.player().play());
        EXPECT_TRUE(sink.waitForFrames(5, kLimitMs));
        return threadCount();
    };
    RtspServer server;
    const int live = threadsWhilePlaying(server.url("h264"));
    const int file = threadsWhilePlaying(mediaPath("vfr.mkv"));
    // A file without sound is decoded by four threads more; the only one of a live source is the player's own.
    EXPECT_EQ(file - live, 4);
}

TEST(LiveSource, OfAnSdpFilePlaysWithPicturesAndSound) {
    RtpSession session(mediaPath("small.mp4"));
    RecordingSink sink(RecordingSink::Keep::Nothing);
    Playback playback;
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(session.sdpPath(), kLimitMs));
    EXPECT_EQ(playback.first(Happened::Prepared), (Event{Happened::Prepared, true, true}));
    EXPECT_EQ(playback.first(Happened::SizeUpdated), (Event{Happened::SizeUpdated, 320, 180, 0}));
    ASSERT_TRUE(playback.player().play());
    EXPECT_TRUE(playback.waitFor(Happened::FirstVideoFrame, kLimitMs));
    EXPECT_TRUE(playback.waitFor(Happened::FirstAudioFrame, kLimitMs));
    EXPECT_TRUE(sink.waitForFrames(80, kLimitMs));
    EXPECT_FALSE(playback.player().seek(1000));
}

// Pauses for longer than the server's pictures lie apart, and resumes.
TEST(LivePause, StopsTheReaderOfAnRtspSourceAndRestartsAtAKeyFrame) {
    LogCapture log;
    RtspServer server;
    RecordingSink sink(RecordingSink::Keep::Bytes);
    Playback playback;
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(server.url("h264"), kLimitMs));
    ASSERT_TRUE(playback.player().play());
    ASSERT_TRUE(sink.waitForFrames(30, kLimitMs));
    ASSERT_EQ(log.count("found first key frame"), 1);
    playback.player().pause();
    pauseFor(2000);
    const int held = sink.frameCount();
    const int64_t heldAt = clockPictureNow();
    // A reader that went on would drop or queue pictures now: they are missing in what comes.
    pauseFor(2000);
    EXPECT_EQ(sink.frameCount(), held);
    const int64_t resumedAt = clockPictureNow();
    playback.player().resume();
    ASSERT_TRUE(waitForLine(log, "found first key frame", 2));
    ASSERT_TRUE(sink.waitForFrames(held + 40, kLimitMs));
    EXPECT_EQ(log.count("found first key frame"), 2);
    for (const auto& frame : sink.frames()) {
        ASSERT_GE(clockOf(frame), 0) << "a picture was decoded without what it needs";
        EXPECT_FALSE(clockOf(frame) > heldAt && clockOf(frame) < resumedAt) << "a picture of the pause was shown";
    }
    EXPECT_GT(clockOf(sink.frames().back()), resumedAt);
    EXPECT_EQ(playback.count(Happened::FirstVideoFrame), 1);
    EXPECT_EQ(playback.count(Happened::FirstPacket), 1);
}

TEST(LivePause, LetsTheReaderOfAnSdpSourceGoOn) {
    LogCapture log;
    RtpSession session(mediaPath("small.mp4"));
    RecordingSink sink(RecordingSink::Keep::Nothing);
    Playback playback;
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(session.sdpPath(), kLimitMs));
    ASSERT_TRUE(playback.player().play());
    ASSERT_TRUE(sink.waitForFrames(30, kLimitMs));
    playback.player().pause();
    pauseFor(500);
    const int held = sink.frameCount();
    const int64_t heldPts = sink.frames().back().pts;
    pauseFor(1500);
    EXPECT_EQ(sink.frameCount(), held);
    playback.player().resume();
    ASSERT_TRUE(waitForLine(log, "found first key frame", 2));
    ASSERT_TRUE(sink.waitForFrames(held + 60, kLimitMs));
    // What was read during the pause is played behind it.
    int ofThePause = 0;
    for (const auto& frame : sink.frames()) {
        ofThePause += frame.pts > heldPts && frame.pts <= heldPts + 1200 ? 1 : 0;
    }
    EXPECT_GE(ofThePause, 20);
    EXPECT_EQ(playback.count(Happened::Failed), 0);
}

}  // namespace
}  // namespace kelp::test
