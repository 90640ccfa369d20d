#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kelp_player/codec_info.h"
#include "kelp_player/stream_muxer.h"
#include "output/media_reader.h"
#include "output/muxer_calls.h"
#include "output/written_sets.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/mem.h>
}

namespace kelp {
namespace {

using test::EncodedVideo;
using test::makeCodecInfo;
using test::operator+;
using test::TempFolder;

constexpr int kFrames = 12;

// The last frame has no duration, and the reader leaves it out unless it is told to look past the edit list.
const std::map<std::string, std::string> kWholeFile{{"ignore_editlist", "1"}};

struct Codec {
    const char* name;
    VideoCodecType type;
    AVCodecID id;
    std::string encode;  // arguments of the encoding command
};

// No B frames: every frame is shown in the order in which it is decoded.
const Codec kH264{"H264", VIDEO_CODEC_H264, AV_CODEC_ID_H264, "-c:v libx264 -g 5 -bf 0 -threads 1 -f h264"};
const Codec kHevc{"Hevc", VIDEO_CODEC_HEVC, AV_CODEC_ID_HEVC,
                  "-c:v libx265 -x265-params log-level=none:keyint=5:bframes=0:pools=1 -f hevc"};
const Codec kMpeg4{"Mpeg4", VIDEO_CODEC_MPEG4, AV_CODEC_ID_MPEG4, "-c:v mpeg4 -g 5 -f m4v"};
const Codec kMjpeg{"Mjpeg", VIDEO_CODEC_MJPEG, AV_CODEC_ID_MJPEG, "-c:v mjpeg -f mjpeg"};

// Writes the frames from `first` on, 40 ms apart. Each from a block of just its size.
void writeFrames(StreamMuxer& muxer, const EncodedVideo& video, size_t first = 0) {
    for (size_t i = first; i < video.frames.size(); ++i) {
        const auto& frame = video.frames[i];
        const auto bytes = std::make_unique<unsigned char[]>(frame.bytes.size());
        std::copy(frame.bytes.begin(), frame.bytes.end(), bytes.get());
        EXPECT_TRUE(muxer.outputFrame(bytes.get(), static_cast<unsigned int>(frame.bytes.size()),
                                      static_cast<int64_t>(i) * 40000, frame.keyFrame))
            << "frame " << i;
    }
}

class Socket {
public:
    explicit Socket(int type) : socket_(socket(AF_INET, type, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        socklen_t length = sizeof(address);
        EXPECT_EQ(getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length), 0);
        port_ = ntohs(address.sin_port);
        const timeval timeout = {5, 0};
        EXPECT_EQ(setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)), 0);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() { close(socket_); }

    int get() const { return socket_; }
    int port() const { return port_; }

private:
    int socket_;
    int port_ = 0;
};

class StreamMuxerMp4Test : public testing::TestWithParam<Codec> {
protected:
    void SetUp() override { test::resetMuxerCalls(); }
    TempFolder folder_;
};

TEST_P(StreamMuxerMp4Test, WritesAFileThatPlays) {
    const auto source = test::encodeVideo(GetParam().encode, kFrames);
    ASSERT_EQ(source.pictures.size(), static_cast<size_t>(kFrames));
    const std::string path = folder_.path("out.mp4");
    StreamMuxer muxer;
    ASSERT_TRUE(muxer.open(path, makeCodecInfo(GetParam().type), 90000));
    muxer.start();
    writeFrames(muxer, source);
    muxer.stop();
    muxer.close();

    const auto video = test::readVideo(path, kWholeFile);
    ASSERT_TRUE(video.opened);
    EXPECT_EQ(video.codecId, GetParam().id);
    EXPECT_EQ(video.width, 160);
    EXPECT_EQ(video.height, 120);
    EXPECT_EQ(video.timeBaseDen, 90000);
    ASSERT_EQ(video.frames.size(), source.frames.size());
    for (size_t i = 0; i < video.frames.size(); ++i) {
        EXPECT_EQ(video.frames[i].pts, static_cast<int64_t>(i) * 3600);
        EXPECT_EQ(video.frames[i].keyFrame, source.frames[i].keyFrame) << "frame " << i;
    }
    ASSERT_EQ(video.pictures.size(), source.pictures.size());
    for (size_t i = 0; i < video.pictures.size(); ++i) {
        EXPECT_TRUE(video.pictures[i] == source.pictures[i]) << "picture " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Codecs, StreamMuxerMp4Test, testing::Values(kH264, kHevc, kMpeg4, kMjpeg),
                         [](const auto& codec) { return std::string(codec.param.name); });

class StreamMuxerOutputTest : public testing::Test {
protected:
    void SetUp() override { test::resetMuxerCalls(); }
    TempFolder folder_;
    StreamMuxer muxer_;
};

// What the class's comment tells a host.
TEST_F(StreamMuxerOutputTest, AnMp4FileNeedsTheParameterSetsInItsFirstFrame) {
    for (const Codec& codec : {kH264, kHevc}) {
        SCOPED_TRACE(codec.name);
        const auto source = test::encodeVideo(codec.encode, kFrames);
        ASSERT_TRUE(source.frames[5].keyFrame);
        // From a frame on that isn't a key frame: the parameter sets of the later ones are of no use.
        const std::string late = folder_.path("late.mp4");
        ASSERT_TRUE(muxer_.open(late, makeCodecInfo(codec.type), 90000));
        writeFrames(muxer_, source, 3);
        muxer_.stop();
        muxer_.close();
        // A newer decoder finds those of the next key frame by itself; what stands before it is lost.
        EXPECT_LE(test::readVideo(late, kWholeFile).pictures.size(), source.frames.size() - 5);
    }
}

TEST_F(StreamMuxerOutputTest, AnMp4FileDoesNotPlayIfItsFirstKeyFrameHasNoParameterSets) {
    auto source = test::encodeVideo(kH264.encode, kFrames);
    ASSERT_TRUE(source.frames[5].keyFrame);
    // Cut off what stands before the picture: the unit of type 5 behind the last start code.
    auto& bytes = source.frames[0].bytes;
    const unsigned char picture[] = {0, 0, 1, 0x65};
    const auto found = std::search(bytes.begin(), bytes.end(), std::begin(picture), std::end(picture));
    ASSERT_NE(found, bytes.end());
    bytes.erase(bytes.begin(), found);
    const std::string path = folder_.path("out.mp4");
    ASSERT_TRUE(muxer_.open(path, makeCodecInfo(VIDEO_CODEC_H264), 90000));
    writeFrames(muxer_, source);
    muxer_.stop();
    muxer_.close();
    EXPECT_TRUE(test::readVideo(path, kWholeFile).pictures.empty());
}

// libavformat would count in them for minutes.
TEST_F(StreamMuxerOutputTest, AnMp4FileBeginsWithTheFirstFrameWhoseParameterSetsAreNotBroken) {
    const std::pair<Codec, test::Bytes> streams[] = {{kH264, test::h264Set(0x7FFFFFFE) + test::h264Frame()},
                                                     {kHevc, test::hevcSet(64, 1) + test::hevcFrame()}};
    for (auto [codec, broken] : streams) {
        SCOPED_TRACE(codec.name);
        const auto source = test::encodeVideo(codec.encode, kFrames);
        const std::string path = folder_.path("out.mp4");
        ASSERT_TRUE(muxer_.open(path, makeCodecInfo(codec.type), 90000));
        EXPECT_FALSE(muxer_.outputFrame(broken.data(), static_cast<unsigned int>(broken.size()), 0, true));
        writeFrames(muxer_, source);
        EXPECT_TRUE(muxer_.outputFrame(broken.data(), static_cast<unsigned int>(broken.size()), 480'000, true));
        muxer_.stop();
        muxer_.close();
        EXPECT_EQ(test::readVideo(path, kWholeFile).frames.size(), static_cast<size_t>(kFrames + 1));
    }
    auto info = makeCodecInfo(VIDEO_CODEC_OTHER);
    info->videoParameters = avcodec_parameters_alloc();
    info->videoParameters->codec_id = AV_CODEC_ID_AV1;
    const auto broken = test::av1Sequence(1);
    info->videoParameters->extradata = static_cast<uint8_t*>(av_mallocz(broken.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    std::copy(broken.begin(), broken.end(), info->videoParameters->extradata);
    info->videoParameters->extradata_size = static_cast<int>(broken.size());
    EXPECT_FALSE(muxer_.open(folder_.path("out.mp4"), info, 90000));
}

TEST_F(StreamMuxerOutputTest, AnMp4FileCountsInAnyTimeBaseFromTenThousandOn) {
    const auto source = test::encodeVideo(kMjpeg.encode, 3);
    for (int timeBase : {10000, 12800, 1000000}) {
        SCOPED_TRACE(timeBase);
        const std::string path = folder_.path("out.mp4");
        StreamMuxer muxer;
        ASSERT_TRUE(muxer.open(path, makeCodecInfo(VIDEO_CODEC_MJPEG), timeBase));
        writeFrames(muxer, source);
        muxer.stop();
        const auto video = test::readVideo(path, kWholeFile);
        ASSERT_EQ(video.frames.size(), 3U);
        EXPECT_EQ(video.timeBaseDen, timeBase);
        EXPECT_EQ(video.frames[1].pts, timeBase / 25);
        EXPECT_EQ(video.frames[2].pts, 2 * timeBase / 25);
    }
}

TEST_F(StreamMuxerOutputTest, SendsRtpPackets) {
    // Waits in real time for the datagrams, which are there already but for the scheduler.
    const Socket receiver(SOCK_DGRAM);
    const auto source = test::encodeVideo(kH264.encode, 4);
    ASSERT_TRUE(
        muxer_.open("rtp://127.0.0.1:" + std::to_string(receiver.port()), makeCodecInfo(VIDEO_CODEC_H264), 90000));
    const int64_t timesUs[] = {0, 40000, 40000, 20000};
    std::vector<uint32_t> timestamps;
    for (size_t i = 0; i < 4; ++i) {
        std::vector<unsigned char> bytes = source.frames[i].bytes;
        EXPECT_TRUE(muxer_.outputFrame(bytes.data(), static_cast<unsigned int>(bytes.size()), timesUs[i], i == 0));
        // The marker bit tells the last packet of a frame.
        unsigned char packet[2000];
        do {
            const ssize_t size = recv(receiver.get(), packet, sizeof(packet), 0);
            ASSERT_GT(size, 12);
            EXPECT_EQ(packet[0], 0x80);       // RTP version 2, nothing special
            EXPECT_EQ(packet[1] & 0x7f, 96);  // the first dynamic payload type
        } while (!(packet[1] & 0x80));
        timestamps.push_back(static_cast<uint32_t>(packet[4]) << 24 | static_cast<uint32_t>(packet[5]) << 16 |
                             static_cast<uint32_t>(packet[6]) << 8 | packet[7]);
    }
    muxer_.stop();
    muxer_.close();
    EXPECT_EQ(timestamps[1] - timestamps[0], 3600U);
    EXPECT_EQ(timestamps[2] - timestamps[1], 1U);
    EXPECT_EQ(timestamps[3] - timestamps[2], 1U);
}

TEST_F(StreamMuxerOutputTest, FailsForAnRtpDestinationWithoutAnAddress) {
    EXPECT_FALSE(muxer_.open("rtp://", makeCodecInfo(VIDEO_CODEC_H264), 90000));
}

TEST_F(StreamMuxerOutputTest, SendsToAnRtspServer) {
    const auto source = test::encodeVideo(kH264.encode, kFrames);
    // The library's own reader plays the server. Nothing tells when it listens, so the muxer tries again after a pause
    // of real time.
    const int port = Socket(SOCK_STREAM).port();
    const std::string url = "rtsp://127.0.0.1:" + std::to_string(port) + "/live";
    auto server = std::async(std::launch::async, [&] {
        return test::readVideo(url, {{"rtsp_flags", "listen"}, {"listen_timeout", "20"}});
    });
    muxer_.setOption("timeout", "5000000");
    bool opened = false;
    for (int i = 0; i < 400 && !opened; ++i) {
        opened = muxer_.open(url, makeCodecInfo(VIDEO_CODEC_H264), 90000);
        if (!opened) {
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
    }
    ASSERT_TRUE(opened);
    writeFrames(muxer_, source);
    muxer_.stop();
    muxer_.close();

    const auto video = server.get();
    ASSERT_TRUE(video.opened);
    EXPECT_EQ(video.codecId, AV_CODEC_ID_H264);
    ASSERT_EQ(video.frames.size(), source.frames.size());
    // The reader knows no time for the first frame.
    for (size_t i = 2; i < video.frames.size(); ++i) {
        EXPECT_EQ(video.frames[i].pts - video.frames[i - 1].pts, 3600) << "frame " << i;
    }
    ASSERT_EQ(video.pictures.size(), source.pictures.size());
    for (size_t i = 0; i < video.pictures.size(); ++i) {
        EXPECT_TRUE(video.pictures[i] == source.pictures[i]) << "picture " << i;
    }
}

TEST_F(StreamMuxerOutputTest, FailsWhereNobodyListens) {
    const int port = Socket(SOCK_STREAM).port();
    EXPECT_FALSE(
        muxer_.open("rtsp://127.0.0.1:" + std::to_string(port) + "/live", makeCodecInfo(VIDEO_CODEC_H264), 90000));
}

TEST_F(StreamMuxerOutputTest, WaitsForASilentRtspServerAsLongAsTimeoutSays) {
    // Takes real time: the wait is the library's own. The system accepts the connection, and nobody answers.
    const Socket server(SOCK_STREAM);
    ASSERT_EQ(listen(server.get(), 1), 0);
    muxer_.setOption("timeout", "200000");
    const auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(muxer_.open("rtsp://127.0.0.1:" + std::to_string(server.port()) + "/live",
                             makeCodecInfo(VIDEO_CODEC_H264), 90000));
    const auto waited = std::chrono::steady_clock::now() - before;
    EXPECT_GE(waited, std::chrono::milliseconds(190));
    EXPECT_LT(waited, std::chrono::seconds(10));
}

}  // namespace
}  // namespace kelp
