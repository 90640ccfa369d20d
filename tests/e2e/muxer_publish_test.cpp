#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "e2e/child_process.h"
#include "e2e/free_ports.h"
#include "e2e/silent_server.h"
#include "kelp_player/codec_info.h"
#include "kelp_player/stream_muxer.h"
#include "output/media_reader.h"
#include "support/log_capture.h"

// What StreamMuxer sends to servers and receivers of other makers, by the shared library as a host uses it. They are
// real programs in real time: every wait is for something to happen, with a generous limit.

namespace kelp {
namespace {

using test::ChildProcess;
using test::EncodedVideo;
using test::LogCapture;
using test::makeCodecInfo;
using test::TempFolder;

constexpr int kPublishedFrames = 60;

// Start codes, parameter sets in band, no B frames, and every fifth picture left out: the distances are 40 and 80 ms.
const EncodedVideo& published() {
    static const EncodedVideo video = test::encodeVideo(
        "-vf select='lt(mod(n\\,5)\\,4)' -fps_mode passthrough -c:v libx264 -preset veryfast -bf 0 -g 10 -threads 1 "
        "-f mpegts",
        kPublishedFrames);
    return video;
}

// Writes a frame; after the last one the source begins again, later in time.
bool writeFrame(StreamMuxer& muxer, size_t index) {
    const auto& frames = published().frames;
    auto frame = frames[index % frames.size()];
    const int64_t round = static_cast<int64_t>(index / frames.size());
    const int64_t roundTicks = frames.back().pts - frames.front().pts + 3600;
    const int64_t ticks = frame.pts - frames.front().pts + round * roundTicks;
    return muxer.outputFrame(frame.bytes.data(), static_cast<unsigned int>(frame.bytes.size()), ticks * 1000000 / 90000,
                             frame.keyFrame);
}

void writeSource(StreamMuxer& muxer) {
    for (size_t i = 0; i < published().frames.size(); ++i) {
        ASSERT_TRUE(writeFrame(muxer, i)) << "frame " << i;
    }
}

// The recorded pictures are the source's first ones, byte for byte.
void expectPictures(const std::string& path, size_t count) {
    const auto recorded = test::readVideo(path);
    ASSERT_TRUE(recorded.opened) << path;
    ASSERT_EQ(recorded.pictures.size(), count);
    for (size_t i = 0; i < count; ++i) {
        EXPECT_TRUE(recorded.pictures[i] == published().pictures[i]) << "picture " << i;
    }
}

std::string rtspUrl(int port) {
    return "rtsp://127.0.0.1:" + std::to_string(port) + "/live";
}

// The ffmpeg command as a server that takes one publisher and copies what comes into a file.
std::unique_ptr<ChildProcess> startListener(int port, const std::string& path) {
    auto server = std::make_unique<ChildProcess>(
        std::vector<std::string>{"ffmpeg", "-nostdin", "-v", "fatal", "-y", "-rtsp_flags", "listen", "-i",
                                 rtspUrl(port), "-c", "copy", "-f", path.ends_with(".ts") ? "mpegts" : "h264", path});
    EXPECT_TRUE(test::waitForPort(SOCK_STREAM, port));
    return server;
}

class MuxerPublish : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(published().pictures.size(), static_cast<size_t>(kPublishedFrames));
        muxer_.setOption("timeout", "30000000");
    }

    TempFolder folder_;
    StreamMuxer muxer_;
};

TEST_F(MuxerPublish, IsRecordedByAListeningFfmpegCommand) {
    const std::string path = folder_.path("recorded.ts");
    const int port = test::freePortPair(SOCK_STREAM);
    const auto server = startListener(port, path);
    ASSERT_TRUE(muxer_.open(rtspUrl(port), makeCodecInfo(), 90000));
    EXPECT_FALSE(muxer_.start());
    writeSource(muxer_);
    muxer_.stop();
    muxer_.close();
    EXPECT_EQ(server->wait(), 0);
    expectPictures(path, kPublishedFrames);
    // The times are the frames' own, but for the first ones, whose time the server doesn't know yet.
    const auto frames = test::readVideo(path).frames;
    ASSERT_EQ(frames.size(), static_cast<size_t>(kPublishedFrames));
    for (size_t i = 3; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].pts - frames[i - 1].pts, published().frames[i].pts - published().frames[i - 1].pts)
            << "frame " << i;
    }
}

TEST_F(MuxerPublish, IsRecordedByAGStreamerServer) {
    const std::string path = folder_.path("recorded.h264");
    ChildProcess server({"/usr/bin/python3", KELP_RTSP_RECORDER, path});
    const std::string port = server.readLine(60000);
    ASSERT_FALSE(port.empty());
    ASSERT_TRUE(muxer_.open(rtspUrl(std::stoi(port)), makeCodecInfo(), 90000));
    writeSource(muxer_);
    muxer_.stop();
    muxer_.close();
    EXPECT_EQ(server.wait(), 0);
    expectPictures(path, kPublishedFrames);
}

TEST_F(MuxerPublish, IsReceivedByRtpWithADescriptionOfTheHost) {
    constexpr int kReceived = 30;
    const int port = test::freePortPair(SOCK_DGRAM);
    const std::string description = folder_.path("stream.sdp");
    std::ofstream(description) << "v=0\r\n"
                                  "o=- 0 0 IN IP4 127.0.0.1\r\n"
                                  "s=kelp\r\n"
                                  "c=IN IP4 127.0.0.1\r\n"
                                  "t=0 0\r\n"
                                  "m=video "
                               << port
                               << " RTP/AVP 96\r\n"
                                  "a=rtpmap:96 H264/90000\r\n"
                                  "a=fmtp:96 packetization-mode=1\r\n";
    const std::string path = folder_.path("received.h264");
    ChildProcess receiver({"ffmpeg", "-nostdin", "-v", "fatal", "-y", "-protocol_whitelist", "file,udp,rtp",
                           "-analyzeduration", "1000000", "-i", description, "-frames:v", std::to_string(kReceived),
                           "-c", "copy", "-f", "h264", path});
    ASSERT_TRUE(test::waitForPort(SOCK_DGRAM, port));
    ASSERT_TRUE(muxer_.open("rtp://127.0.0.1:" + std::to_string(port), makeCodecInfo(), 90000));
    // Sends on, as a camera does, until the receiver has as many as it wants.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (size_t i = 0; receiver.running() && std::chrono::steady_clock::now() < end; ++i) {
        ASSERT_TRUE(writeFrame(muxer_, i)) << "frame " << i;
        // Never more than its buffer holds, however slow it is.
        do {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        } while (test::waitingBytes(port) > 20000 && std::chrono::steady_clock::now() < end);
    }
    muxer_.stop();
    muxer_.close();
    EXPECT_EQ(receiver.wait(), 0);
    expectPictures(path, kReceived);
}

TEST_F(MuxerPublish, FailsWithoutAServer) {
    LogCapture log(1);  // errors
    const int port = test::freePortPair(SOCK_STREAM);
    EXPECT_FALSE(muxer_.open(rtspUrl(port), makeCodecInfo(), 90000));
    EXPECT_THAT(log.lines(), testing::ElementsAre("[StreamMuxer]: open, Error occurred when opening output\n"));
    log.clear();
    EXPECT_FALSE(writeFrame(muxer_, 0));
    EXPECT_THAT(log.lines(), testing::ElementsAre("[StreamMuxer]: outputFrame, not open\n"));
    muxer_.stop();
    muxer_.close();
    muxer_.close();
}

TEST_F(MuxerPublish, FailsAtAServerThatSaysNothing) {
    test::SilentServer server;
    muxer_.setOption("timeout", "300000");
    LogCapture log(1);
    EXPECT_FALSE(muxer_.open(server.url(), makeCodecInfo(), 90000));
    EXPECT_THAT(log.lines(), testing::ElementsAre("[StreamMuxer]: open, Error occurred when opening output\n"));
    EXPECT_GE(server.accepted(), 1);
}

TEST_F(MuxerPublish, FailsWhenTheServerGoesAwayAndPublishesToTheNextOne) {
    const int port = test::freePortPair(SOCK_STREAM);
    const auto server = startListener(port, folder_.path("first.h264"));
    ASSERT_TRUE(muxer_.open(rtspUrl(port), makeCodecInfo(), 90000));
    ASSERT_TRUE(writeFrame(muxer_, 0));
    server->kill();
    server->wait();
    LogCapture log(1);
    // What the connection's buffers take is no failure yet.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (size_t i = 1; writeFrame(muxer_, i) && std::chrono::steady_clock::now() < end; ++i) {
    }
    EXPECT_FALSE(writeFrame(muxer_, 0)) << "it goes on failing";
    EXPECT_EQ(log.count("outputFrame, av_interleaved_write_frame failed, ret:"), 2);
    muxer_.stop();
    muxer_.stop();
    muxer_.close();
    muxer_.close();
    const std::string path = folder_.path("second.h264");
    const int nextPort = test::freePortPair(SOCK_STREAM);
    const auto next = startListener(nextPort, path);
    ASSERT_TRUE(muxer_.open(rtspUrl(nextPort), makeCodecInfo(), 90000));
    writeSource(muxer_);
    muxer_.stop();
    muxer_.close();
    EXPECT_EQ(next->wait(), 0);
    expectPictures(path, kPublishedFrames);
}

// What the class's comment tells a host.
TEST_F(MuxerPublish, IsHeldUpByAServerThatHangsButComesBack) {
    using Clock = std::chrono::steady_clock;
    const int port = test::freePortPair(SOCK_STREAM);
    const auto server = startListener(port, folder_.path("first.h264"));
    muxer_.setOption("timeout", "300000");
    ASSERT_TRUE(muxer_.open(rtspUrl(port), makeCodecInfo(), 90000));
    ASSERT_TRUE(writeFrame(muxer_, 0));
    server->suspend();
    // The connection takes what its buffers hold, and then nothing more.
    auto longest = Clock::duration::zero();
    for (size_t i = 1; longest < std::chrono::milliseconds(250) && i < 200000; ++i) {
        const auto begin = Clock::now();
        writeFrame(muxer_, i);
        longest = std::max(longest, Clock::now() - begin);
    }
    EXPECT_GE(longest, std::chrono::milliseconds(250));
    const auto begin = Clock::now();
    muxer_.stop();
    muxer_.close();
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(30));
}

}  // namespace
}  // namespace kelp
