// A live source that is to be seen as soon as can be, with option live_delay, behind a standstill of its connection.

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "e2e/clock_picture.h"
#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "e2e/rtsp_server.h"
#include "e2e/tcp_relay.h"

namespace kelp::test {
namespace {

constexpr int kPatienceMs = 60000;
constexpr int kStandstillMs = 2500;

int64_t delayOf(const ShownFrame& frame) {
    return frame.atUs / 1000 % 0x100000000 -
           readClockPicture(frame.bytes.data(), frame.width, frame.width, frame.height);
}

// With sound as the master a standard playback is as far behind from then on as the standstill was long.
TEST(LowDelay, IsBackSoonBehindAStandstillAndLeavesThePicturesInOrder) {
    RtspServer server;
    TcpRelay relay(server.port());
    RecordingSink sink(RecordingSink::Keep::Bytes);
    Playback playback;
    playback.player().setOption("live_delay", "low");
    playback.player().setAVSyncMode(SYNC_MASTER_AUDIO);
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open("rtsp://127.0.0.1:" + std::to_string(relay.port()) + "/h264-aac", kPatienceMs));
    ASSERT_TRUE(playback.player().play());
    ASSERT_TRUE(sink.waitForFrames(25, kPatienceMs));
    relay.hold(true);
    std::this_thread::sleep_for(std::chrono::milliseconds(kStandstillMs));
    const int64_t endUs = steadyUs();
    relay.hold(false);
    std::this_thread::sleep_for(std::chrono::seconds(3));

    const auto frames = sink.frames();
    int64_t leastMs = kStandstillMs;
    for (size_t i = 1; i < frames.size(); ++i) {
        EXPECT_GT(frames[i].pts, frames[i - 1].pts) << "picture " << i;
        // The quickest of those that come two seconds later: others may be held up by a busy machine.
        if (frames[i].atUs > endUs + 2'000'000) {
            leastMs = std::min(leastMs, delayOf(frames[i]));
        }
    }
    EXPECT_LT(leastMs, 600);
    EXPECT_EQ(playback.count(Happened::Failed), 0);
}

// Its server begins with a key frame, and has one each second.
TEST(LowDelay, BeginsWithTheFirstPictureThatIsSent) {
    RtspServer server({{"camera", mediaPath("small.mp4")}});
    RecordingSink sink(RecordingSink::Keep::Nothing);
    Playback playback;
    playback.player().setOption("live_delay", "low");
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(server.url("camera"), kPatienceMs));
    ASSERT_TRUE(playback.player().play());
    ASSERT_TRUE(sink.waitForFrames(1, kPatienceMs));
    EXPECT_LT(sink.frames().front().pts, 500);
    EXPECT_EQ(playback.first(Happened::SizeUpdated), (Event{Happened::SizeUpdated, 320, 180, 0}));
}

}  // namespace
}  // namespace kelp::test
