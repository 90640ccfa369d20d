// Live sources play, from a real RTSP server.

#include <gmock/gmock.h>

#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "e2e/rtsp_server.h"

namespace kelp::test {
namespace {

struct LiveCase {
    const char* stream;
    const char* transport;
    bool sound;
};

class Live : public testing::TestWithParam<LiveCase> {};

TEST_P(Live, PlaysWithPicturesAndSound) {
    RtspServer server({{"file", mediaPath("small.mp4")}});
    RecordingSink sink(RecordingSink::Keep::Hashes);
    Playback playback;
    playback.player().setOption("rtsp_transport", GetParam().transport);
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(server.url(GetParam().stream)));
    EXPECT_EQ(playback.first(Happened::Prepared), (Event{Happened::Prepared, true, GetParam().sound}));
    EXPECT_EQ(playback.first(Happened::SizeUpdated), (Event{Happened::SizeUpdated, 320, 180, 0}));
    ASSERT_TRUE(playback.player().play());
    EXPECT_TRUE(playback.waitFor(Happened::FirstPacket, 30000));
    EXPECT_TRUE(playback.waitFor(Happened::FirstVideoFrame, 30000));
    EXPECT_TRUE(!GetParam().sound || playback.waitFor(Happened::FirstAudioFrame, 30000));
    ASSERT_TRUE(sink.waitForFrames(50, 30000));
    const auto frames = sink.frames();
    for (size_t i = 1; i < frames.size(); ++i) {
        EXPECT_GT(frames[i].pts, frames[i - 1].pts);
        EXPECT_NE(frames[i].hash, frames[i - 1].hash);
    }
    EXPECT_EQ(playback.count(Happened::Failed), 0);
}

INSTANTIATE_TEST_SUITE_P(Over, Live,
                         testing::Values(LiveCase{"h264", "tcp", false}, LiveCase{"h264-aac", "tcp", true},
                                         LiveCase{"hevc-alaw", "tcp", true}, LiveCase{"h264-alaw", "udp", true},
                                         LiveCase{"hevc-aac", "udp", true}, LiveCase{"file", "tcp", true}),
                         [](const auto& test) {
                             std::string name = std::string(test.param.stream) + "_" + test.param.transport;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

}  // namespace
}  // namespace kelp::test
