// Live sources whose end counts as a loss, servers that refuse TCP, and what a server hears of a player's end.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "e2e/child_process.h"
#include "e2e/managed_playback.h"
#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "e2e/rtp_session.h"
#include "e2e/rtsp_server.h"
#include "support/temp_files.h"

namespace kelp::test {
namespace {

constexpr int kAtMostMs = 60000;

// How many sockets for datagrams this process has.
int datagramSockets() {
    std::set<std::string> own;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        own.insert(std::filesystem::read_symlink(entry, gone).string());
    }
    int count = 0;
    for (const char* table : {"/proc/net/udp", "/proc/net/udp6"}) {
        std::ifstream lines(table);
        for (std::string line; std::getline(lines, line);) {
            std::istringstream words(line);
            std::string inode;
            for (int column = 0; column < 10; ++column) {
                words >> inode;
            }
            count += own.contains("socket:[" + inode + "]") ? 1 : 0;
        }
    }
    return count;
}

class LiveLoss : public testing::TestWithParam<const char*> {
protected:
    LiveLoss() {
        player().enableHwDecoder(false, HW_DECODE_NONE);
        player().setOption("closed_live_source", "failed");
        player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink_), 0, 0);
    }

    KelpPlayer& player() { return playback_.player(); }
    bool watch(const std::string& url) {
        return playback_.open(url, kAtMostMs) && player().play() && sink_.waitForFrames(20, kAtMostMs);
    }

    RecordingSink sink_{RecordingSink::Keep::Hashes};
    Playback playback_;
};

INSTANTIATE_TEST_SUITE_P(Over, LiveLoss, testing::Values("tcp", "udp"),
                         [](const auto& test) { return std::string(test.param); });

TEST_P(LiveLoss, OfAServerFailsThePlayback) {
    RtspServer server;
    player().setOption("rtsp_transport", GetParam());
    ASSERT_TRUE(watch(server.url("h264-aac")));
    server.kill();
    ASSERT_TRUE(playback_.waitFor(Happened::Failed, kAtMostMs));
    EXPECT_EQ(playback_.last(Happened::Failed), (Event{Happened::Failed, 1, 1}));
    EXPECT_EQ(playback_.count(Happened::Completed), 0);
    EXPECT_EQ(playback_.count(Happened::DurationUpdated), 0);
}

TEST_P(LiveLoss, IsToldToTheServerByAPlayerThatStops) {
    RtspServer server;
    player().setOption("rtsp_fallback", "udp");  // which nobody needs here
    player().setOption("rtsp_transport", GetParam());
    ASSERT_TRUE(watch(server.url("h264-aac")));
    EXPECT_EQ(datagramSockets() == 0, std::string(GetParam()) == "tcp");
    player().stop();
    EXPECT_TRUE(server.waitForTeardown(kAtMostMs));
    // One that is open and doesn't play, and a server that takes nothing at that moment: it holds up nobody.
    ASSERT_TRUE(playback_.open(server.url("h264"), kAtMostMs));
    server.suspend();
    const int64_t begin = steadyUs();
    player().stop();
    EXPECT_LT((steadyUs() - begin) / 1000, 5000);
    server.proceed();
    EXPECT_TRUE(server.waitForTeardown(kAtMostMs));
}

TEST_P(LiveLoss, IsToldToTheServerByAProcessThatEndsInOrder) {
    RtspServer server({{"camera", mediaPath("small.mp4")}});
    // A thread that has ended isn't waited for by anybody there.
    const char* const tsan = std::getenv("TSAN_OPTIONS");
    for (const bool plays : {true, false}) {
        SCOPED_TRACE(plays);
        ChildProcess child({"env", std::string("TSAN_OPTIONS=") + (tsan ? tsan : "") + " report_thread_leaks=0",
                            KELP_UNSTOPPED_PLAYER, server.url("camera"), GetParam(), plays ? "plays" : "opens"});
        EXPECT_EQ(child.wait(kAtMostMs), 0);
        EXPECT_TRUE(server.waitForTeardown(kAtMostMs));
    }
}

TEST_F(LiveLoss, OfAServerWithoutTcpIsMendedByUdpWhereThatIsAskedFor) {
    RtspServer server({}, 0, RtspServer::Transport::UdpOnly);
    EXPECT_FALSE(playback_.open(server.url("h264-aac"), kAtMostMs));
    player().stop();
    player().setOption("rtsp_fallback", "udp");
    ASSERT_TRUE(watch(server.url("h264-aac")));
    EXPECT_EQ(playback_.first(Happened::Prepared), (Event{Happened::Prepared, 1, 1}));
    player().stop();
    EXPECT_TRUE(server.waitForTeardown(kAtMostMs));
}

TEST_F(LiveLoss, OfWhoWritesToAPipeFailsThePlayback) {
    const TempFolder folder;
    const std::string pipe = folder.path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    ChildProcess writer({"ffmpeg", "-nostdin", "-v", "quiet", "-y", "-re", "-stream_loop", "-1", "-i",
                         mediaPath("small.mp4"), "-c", "copy", "-f", "mpegts", pipe});
    ASSERT_TRUE(watch(pipe));
    writer.kill();
    ASSERT_TRUE(playback_.waitFor(Happened::Failed, kAtMostMs));
    EXPECT_EQ(playback_.last(Happened::Failed), (Event{Happened::Failed, 1, 1}));
    EXPECT_EQ(playback_.count(Happened::Completed), 0);
}

// By its goodbye, long before the minute after which silence is a loss, or else by one time of silence.
TEST_F(LiveLoss, OfTheSenderOfASessionFailsThePlayback) {
    for (const bool saysSo : {true, false}) {
        SCOPED_TRACE(saysSo);
        player().setOption("listen_timeout", saysSo ? "600" : "1");
        RtpSession session(mediaPath("small.mp4"));
        const int shown = sink_.frameCount();
        ASSERT_TRUE(watch(session.sdpPath()) && sink_.waitForFrames(shown + 20, kAtMostMs));
        saysSo ? session.interrupt() : session.kill();
        ASSERT_TRUE(playback_.waitFor(Happened::Failed, kAtMostMs, saysSo ? 1 : 2));
        EXPECT_EQ(playback_.last(Happened::Failed), (Event{Happened::Failed, 1, 1}));
        EXPECT_EQ(playback_.count(Happened::Completed), 0);
        player().stop();
    }
}

// A managed player, and a camera that is killed and comes back with other streams each time.
TEST(ManagedLoss, IsMendedWhateverTheStreamsAreAfterwards) {
    const auto as = [](const char* file) { return RtspServer::Files{{"camera", mediaPath(file)}}; };
    RtspServer server(as("small.mp4"));
    ManagedPlayback playback;
    TarnPlayer& player = playback.player();
    player.setOption("closed_live_source", "failed");
    player.setOption("retry_when_failed", "200");
    player.setAVSyncMode(SYNC_MASTER_AUDIO);
    ASSERT_TRUE(playback.open(server.url("camera")));
    ASSERT_TRUE(player.start());
    ASSERT_TRUE(playback.waitFor("picture", 1, kAtMostMs));
    for (const char* file : {"numbers_video.mp4", "hevc.ts"}) {
        SCOPED_TRACE(file);
        const int pictures = playback.count("picture");
        server.kill();
        ASSERT_TRUE(playback.sink().waitFor(playback.sink().count() + 1, kAtMostMs));  // the last one stands
        server.start(as(file));
        ASSERT_TRUE(playback.waitFor("picture", pictures + 1, kAtMostMs));
        ASSERT_TRUE(playback.sink().waitFor(playback.sink().count() + 20, kAtMostMs));
        EXPECT_EQ(playback.state(), PLAYER_STATE_STARTED);
    }
    EXPECT_EQ(playback.count("failed"), 0);
    EXPECT_EQ(playback.count("completed"), 0);
    // The last word, from a player that goes without a stop.
    playback.destroy();
    EXPECT_TRUE(server.waitForTeardown(kAtMostMs));
}

}  // namespace
}  // namespace kelp::test
