#include "kelp_player/stream_muxer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <filesystem>
#include <limits>
#include <memory>
#include <type_traits>
#include <vector>

#include "kelp_player/codec_info.h"
#include "output/media_reader.h"
#include "output/muxer_calls.h"
#include "support/ffmpeg_release.h"
#include "support/log_capture.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/pixfmt.h>
}

namespace kelp {
namespace {

using test::LogCapture;
using test::makeCodecInfo;
using test::muxerCalls;
using test::TempFolder;
using testing::ElementsAre;
using testing::Pair;

static_assert(std::has_virtual_destructor_v<StreamMuxer>);

// What is asked of libavformat, and what becomes of failures.
class StreamMuxerTest : public testing::Test {
protected:
    void SetUp() override { test::resetMuxerCalls(); }

    std::string mp4() { return folder_.path("out.mp4"); }

    // Writes a frame at `ptsUs`; its time stamp in ticks.
    int64_t ticksFor(int64_t ptsUs) {
        muxer_.outputFrame(frame_.data(), static_cast<unsigned int>(frame_.size()), ptsUs, /*keyFrame=*/true);
        return muxerCalls().packets.empty() ? INT64_MIN : muxerCalls().packets.back().pts;
    }

    TempFolder folder_;
    std::vector<unsigned char> frame_ = std::vector<unsigned char>(100, 7);
    StreamMuxer muxer_;
};

TEST_F(StreamMuxerTest, ChoosesTheMuxerByThePath) {
    muxerCalls().failing = {"avformat_alloc_output_context2"};
    struct Case {
        const char* path;
        const char* muxer;
    };
    const Case cases[] = {
        {"rtsp://127.0.0.1:1/live", "rtsp"},
        {"rtsp://127.0.0.1:1/live.mp4", "rtsp"},
        {"rtp://127.0.0.1:1", "rtp"},
        {"rtp://127.0.0.1:1/.mp4", "rtp"},
        {"/tmp/a.mp4", "mp4"},
        {"a.mp4.part", "mp4"},
        {" rtsp://127.0.0.1/a.mp4", "mp4"},
        {".mp4", "mp4"},
    };
    LogCapture log;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        EXPECT_FALSE(muxer_.open(c.path, makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
        EXPECT_EQ(muxerCalls().muxer, c.muxer);
        EXPECT_EQ(muxerCalls().path, c.path);
        EXPECT_THAT(log.lines(), ElementsAre("[StreamMuxer]: open, Could not create output context\n"));
        log.clear();
    }
}

TEST_F(StreamMuxerTest, RefusesAnyOtherPathBeforeItMakesAContext) {
    LogCapture log;
    EXPECT_FALSE(muxer_.open("/tmp/a.mkv", makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_FALSE(muxer_.open("RTSP://127.0.0.1/a", makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_FALSE(muxer_.open("a.MP4", makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_FALSE(muxer_.open("", makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_THAT(log.lines(),
                ElementsAre("[StreamMuxer]: open, error filePath /tmp/a.mkv\n",
                            "[StreamMuxer]: open, error filePath RTSP://127.0.0.1/a\n",
                            "[StreamMuxer]: open, error filePath a.MP4\n", "[StreamMuxer]: open, error filePath \n"));
    EXPECT_TRUE(muxerCalls().names.empty());
}

TEST_F(StreamMuxerTest, RefusesWhatCannotBeATimeBaseOrHasNoCodecInfo) {
    for (int64_t timeBase : {int64_t{0}, int64_t{-1}, int64_t{-90000}, int64_t{INT_MAX} + 1, INT64_MAX, INT64_MIN}) {
        EXPECT_FALSE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), timeBase)) << timeBase;
    }
    EXPECT_FALSE(muxer_.open(mp4(), nullptr, 90000));
    EXPECT_TRUE(muxerCalls().names.empty());
    EXPECT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), INT_MAX));
}

TEST_F(StreamMuxerTest, OpensInOrderAndSaysSo) {
    LogCapture log;
    EXPECT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_THAT(muxerCalls().names, ElementsAre("avformat_alloc_output_context2", "avformat_new_stream", "avio_open",
                                                "avformat_write_header"));
    EXPECT_EQ(muxerCalls().avioPath, mp4());
    EXPECT_THAT(log.lines(), ElementsAre("[StreamMuxer]: open, 160x120, codec_id:7\n",
                                         "[StreamMuxer]: open, set key:rtsp_transport, value:tcp\n",
                                         "[StreamMuxer]: open, set key:stimeout, value:500000\n",
                                         "[StreamMuxer]: open, succeed!\n"));
}

TEST_F(StreamMuxerTest, DescribesTheStream) {
    struct Case {
        VideoCodecType type;
        int codecId;
        PixFormat pixFormat;
        int format;
    };
    const Case cases[] = {
        {VIDEO_CODEC_MSMPEG4V1, AV_CODEC_ID_MSMPEG4V1, PIX_FMT_YUV420P, AV_PIX_FMT_YUV420P},
        {VIDEO_CODEC_MSMPEG4V2, AV_CODEC_ID_MSMPEG4V2, PIX_FMT_YUYV422, AV_PIX_FMT_YUYV422},
        {VIDEO_CODEC_MSMPEG4V3, AV_CODEC_ID_MSMPEG4V3, PIX_FMT_YUV422P, AV_PIX_FMT_YUV422P},
        {VIDEO_CODEC_H264, AV_CODEC_ID_H264, PIX_FMT_YUV420P10, AV_PIX_FMT_YUV420P10LE},
        {VIDEO_CODEC_HEVC, AV_CODEC_ID_HEVC, PIX_FMT_PACKET, AV_PIX_FMT_NONE},
        {VIDEO_CODEC_MPEG4, AV_CODEC_ID_MPEG4, PIX_FMT_NONE, AV_PIX_FMT_NONE},
        {VIDEO_CODEC_MJPEG, AV_CODEC_ID_MJPEG, static_cast<PixFormat>(99), AV_PIX_FMT_NONE},
        {VIDEO_CODEC_270, test::codecId270(), PIX_FMT_YUV420P, AV_PIX_FMT_YUV420P},
        {VIDEO_CODEC_NONE, 0, PIX_FMT_YUV420P, AV_PIX_FMT_YUV420P},
        {static_cast<VideoCodecType>(8), 0, PIX_FMT_YUV420P, AV_PIX_FMT_YUV420P},
    };
    muxerCalls().failing = {"avformat_write_header"};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        const auto info = makeCodecInfo(c.type);
        info->pixFormat = c.pixFormat;
        info->width = 704;
        info->height = 576;
        info->videoParameters = avcodec_parameters_alloc();
        info->videoParameters->extradata = static_cast<uint8_t*>(av_mallocz(16 + AV_INPUT_BUFFER_PADDING_SIZE));
        info->videoParameters->extradata_size = 16;
        EXPECT_FALSE(muxer_.open(mp4(), info, 12800));
        const auto& stream = muxerCalls().stream;
        EXPECT_EQ(stream.codecType, AVMEDIA_TYPE_VIDEO);
        EXPECT_EQ(stream.codecId, c.codecId);
        EXPECT_EQ(stream.width, 704);
        EXPECT_EQ(stream.height, 576);
        EXPECT_EQ(stream.format, c.format);
        EXPECT_EQ(stream.extraDataSize, 0);
        EXPECT_EQ(stream.timeBaseNum, 1);
        EXPECT_EQ(stream.timeBaseDen, 12800);
    }
}

TEST_F(StreamMuxerTest, TakesAnotherCodecFromItsParameters) {
    const auto info = makeCodecInfo(VIDEO_CODEC_OTHER);
    info->pixFormat = PIX_FMT_NONE;
    info->videoParameters = avcodec_parameters_alloc();
    info->videoParameters->codec_id = AV_CODEC_ID_VP9;
    info->videoParameters->codec_tag = 0x12345678;
    info->videoParameters->format = AV_PIX_FMT_YUV444P;
    info->videoParameters->width = 704;
    info->videoParameters->extradata = static_cast<uint8_t*>(av_mallocz(16 + AV_INPUT_BUFFER_PADDING_SIZE));
    info->videoParameters->extradata_size = 16;
    ASSERT_TRUE(muxer_.open(mp4(), info, 12800));
    const auto& stream = muxerCalls().stream;
    EXPECT_EQ(stream.codecType, AVMEDIA_TYPE_VIDEO);
    EXPECT_EQ(stream.codecId, AV_CODEC_ID_VP9);
    EXPECT_EQ(stream.width, 160);
    EXPECT_EQ(stream.height, 120);
    EXPECT_EQ(stream.format, AV_PIX_FMT_YUV444P);
    EXPECT_EQ(stream.extraDataSize, 16);

    info->pixFormat = PIX_FMT_YUV420P;
    ASSERT_TRUE(muxer_.open(mp4(), info, 12800));
    EXPECT_EQ(muxerCalls().stream.format, AV_PIX_FMT_YUV420P);
}

TEST_F(StreamMuxerTest, PassesTheOptionsOn) {
    muxer_.setOption("stimeout", "70");
    muxer_.setOption("movflags", "faststart");
    muxer_.setOption(nullptr, "x");
    muxer_.setOption("x", nullptr);
    LogCapture log;
    EXPECT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_THAT(muxerCalls().options,
                ElementsAre(Pair("movflags", "faststart"), Pair("rtsp_transport", "tcp"), Pair("stimeout", "70")));
    // In the order of the keys.
    EXPECT_EQ(log.lines()[1], "[StreamMuxer]: open, set key:movflags, value:faststart\n");
    EXPECT_EQ(log.lines()[2], "[StreamMuxer]: open, set key:rtsp_transport, value:tcp\n");
    EXPECT_EQ(log.lines()[3], "[StreamMuxer]: open, set key:stimeout, value:70\n");
}

TEST_F(StreamMuxerTest, OpensAFileOnlyWhereTheFormatWantsOne) {
    muxerCalls().failing = {"avformat_write_header"};
    EXPECT_FALSE(muxer_.open("rtsp://127.0.0.1:1/live", makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    muxer_.close();
    EXPECT_THAT(muxerCalls().names,
                ElementsAre("avformat_alloc_output_context2", "avformat_new_stream", "avformat_write_header"));
    test::resetMuxerCalls();
    EXPECT_TRUE(muxer_.open("rtp://127.0.0.1:40000", makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    muxer_.stop();
    muxer_.close();
    EXPECT_THAT(muxerCalls().names, ElementsAre("avformat_alloc_output_context2", "avformat_new_stream", "avio_open",
                                                "avformat_write_header", "av_write_trailer", "avio_close"));
    EXPECT_EQ(muxerCalls().avioPath, "rtp://127.0.0.1:40000");
}

TEST_F(StreamMuxerTest, EndsAStreamButNoFileWhenItIsClosedWithoutAStop) {
    EXPECT_TRUE(muxer_.open("rtp://127.0.0.1:40000", makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    test::resetMuxerCalls();
    muxer_.close();
    EXPECT_THAT(muxerCalls().names, ElementsAre("av_write_trailer", "avio_close"));
    EXPECT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    test::resetMuxerCalls();
    muxer_.close();
    EXPECT_THAT(muxerCalls().names, ElementsAre("avio_close"));
}

TEST_F(StreamMuxerTest, ReportsEveryFailureToOpenAndClearsUpOnClose) {
    struct Case {
        const char* failing;
        std::string line;
        bool fileOpen;
    };
    const Case cases[] = {
        {"avformat_new_stream", "[StreamMuxer]: open, Could not allocate stream\n", false},
        {"avio_open", "[StreamMuxer]: open, Could not open output URL '" + mp4() + "'\n", false},
        {"avformat_write_header", "[StreamMuxer]: open, Error occurred when opening output\n", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.failing);
        test::resetMuxerCalls();
        muxerCalls().failing = {c.failing};
        LogCapture log(1);  // errors
        EXPECT_FALSE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
        EXPECT_EQ(muxerCalls().names.back(), c.failing);
        EXPECT_THAT(log.lines(), ElementsAre(c.line));
        EXPECT_FALSE(muxer_.outputFrame(frame_.data(), 100, 0, true));
        muxer_.stop();
        muxer_.close();
        // No end without a header. The file's context is given back either way, null where none was opened.
        EXPECT_EQ(muxerCalls().names.back(), "avio_close");
        EXPECT_EQ(std::count(muxerCalls().names.begin(), muxerCalls().names.end(), "av_write_trailer"), 0);
        EXPECT_EQ(std::filesystem::exists(mp4()), c.fileOpen);
    }
}

TEST_F(StreamMuxerTest, FailsForAPathThatCannotBeWritten) {
    LogCapture log(1);
    const std::string path = folder_.path("missing/out.mp4");
    EXPECT_FALSE(muxer_.open(path, makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_THAT(log.lines(), ElementsAre("[StreamMuxer]: open, Could not open output URL '" + path + "'\n"));
}

TEST_F(StreamMuxerTest, LeavesAStreamWithoutACodecToTheMuxer) {
    LogCapture log;
    EXPECT_FALSE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_NONE), 90000));
    EXPECT_EQ(muxerCalls().stream.codecId, 0);
    EXPECT_EQ(muxerCalls().names.back(), "avformat_write_header");
    EXPECT_TRUE(log.has("open, 160x120, codec_id:0\n"));
    EXPECT_TRUE(log.has("open, Error occurred when opening output\n"));
}

TEST_F(StreamMuxerTest, StartsWithoutDoingAnything) {
    LogCapture log;
    EXPECT_FALSE(muxer_.start());
    EXPECT_THAT(log.lines(), ElementsAre("[StreamMuxer]: start, succeed!\n"));
    EXPECT_TRUE(muxerCalls().names.empty());
}

TEST_F(StreamMuxerTest, WritesNoFrameUnlessItIsOpen) {
    LogCapture log(1);  // errors
    EXPECT_FALSE(muxer_.outputFrame(frame_.data(), 100, 0, true));
    EXPECT_THAT(log.lines(), ElementsAre("[StreamMuxer]: outputFrame, not open\n"));
    ASSERT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_TRUE(muxer_.outputFrame(frame_.data(), 100, 0, true));
    muxer_.stop();
    EXPECT_FALSE(muxer_.outputFrame(frame_.data(), 100, 40000, true));
    muxer_.close();
    EXPECT_FALSE(muxer_.outputFrame(frame_.data(), 100, 80000, true));
    EXPECT_EQ(muxerCalls().packets.size(), 1U);
    EXPECT_EQ(log.count("outputFrame, not open\n"), 3);
}

TEST_F(StreamMuxerTest, SaysThatTheEndCouldNotBeWritten) {
    ASSERT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    muxerCalls().failing = {"av_write_trailer"};
    LogCapture log;
    muxer_.stop();
    muxer_.stop();
    EXPECT_THAT(log.lines(), ElementsAre("[StreamMuxer]: stop, av_write_trailer failed, ret:-5, Input/output error\n",
                                         "[StreamMuxer]: stop, succeed!\n", "[StreamMuxer]: stop, succeed!\n"));
}

TEST_F(StreamMuxerTest, HandsTheCallersBytesToTheMuxer) {
    ASSERT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 12800));
    EXPECT_TRUE(muxer_.outputFrame(frame_.data(), 100, 40000, true));
    EXPECT_TRUE(muxer_.outputFrame(frame_.data() + 10, 80, 80000, false));
    ASSERT_EQ(muxerCalls().packets.size(), 2U);
    const auto& first = muxerCalls().packets[0];
    EXPECT_EQ(first.pts, 512);
    EXPECT_EQ(first.dts, 512);
    EXPECT_EQ(first.data, frame_.data());
    EXPECT_EQ(first.size, 100);
    EXPECT_EQ(first.streamIndex, 0);
    EXPECT_EQ(first.flags, 1);
    EXPECT_EQ(first.duration, 0);
    EXPECT_EQ(first.pos, -1);
    EXPECT_EQ(first.timeBaseNum, 1);
    EXPECT_EQ(first.timeBaseDen, 12800);
    EXPECT_FALSE(first.referenceCounted);
    const auto& second = muxerCalls().packets[1];
    EXPECT_EQ(second.pts, 1024);
    EXPECT_EQ(second.dts, 1024);
    EXPECT_EQ(second.data, frame_.data() + 10);
    EXPECT_EQ(second.size, 80);
    EXPECT_EQ(second.flags, 0);
    EXPECT_EQ(second.duration, 0);
}

TEST_F(StreamMuxerTest, RefusesAFrameWithoutData) {
    ASSERT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_FALSE(muxer_.outputFrame(nullptr, 100, 0, true));
    EXPECT_FALSE(muxer_.outputFrame(frame_.data(), 0, 0, true));
    EXPECT_FALSE(muxer_.outputFrame(frame_.data(), 0x80000000U, 0, true));
    EXPECT_TRUE(muxerCalls().packets.empty());
    EXPECT_EQ(ticksFor(0), 0);
}

TEST_F(StreamMuxerTest, CutsTheFractionOfATickOff) {
    ASSERT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_EQ(ticksFor(-33366), -3002);  // -3002.94
    EXPECT_EQ(ticksFor(0), 0);
    EXPECT_EQ(ticksFor(33366), 3002);
    EXPECT_EQ(ticksFor(3'600'000'000), 324'000'000);
}

TEST_F(StreamMuxerTest, WritesTwoFramesOfOneTimeOneTickApart) {
    ASSERT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_EQ(ticksFor(40000), 3600);
    EXPECT_EQ(ticksFor(40000), 3601);
    EXPECT_EQ(ticksFor(40011), 3602);  // 3600.99
    EXPECT_EQ(ticksFor(80000), 7200);
}

TEST_F(StreamMuxerTest, WritesAnEarlierFrameOneTickAfterTheLast) {
    ASSERT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_EQ(ticksFor(1000000), 90000);
    EXPECT_EQ(ticksFor(0), 90001);
    EXPECT_EQ(ticksFor(-5000000), 90002);
    EXPECT_EQ(ticksFor(1000034), 90003);  // 90003.06
    EXPECT_EQ(ticksFor(1000045), 90004);
}

TEST_F(StreamMuxerTest, TakesAnyTimeAfterOneOfMinusOneTick) {
    ASSERT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    muxerCalls().failing = {"av_interleaved_write_frame"};  // the file would not take the times
    EXPECT_EQ(ticksFor(-12), -1);
    EXPECT_EQ(ticksFor(-100000), -9000);
    EXPECT_EQ(ticksFor(-100000), -8999);
}

TEST_F(StreamMuxerTest, GoesOnFromTheTimeOfAFrameThatFailed) {
    ASSERT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    muxerCalls().failing = {"av_interleaved_write_frame"};
    LogCapture log(1);
    EXPECT_FALSE(muxer_.outputFrame(frame_.data(), 100, 40000, true));
    EXPECT_THAT(log.lines(), ElementsAre("[StreamMuxer]: outputFrame, av_interleaved_write_frame failed, ret:-5, "
                                         "Input/output error\n"));
    muxerCalls().failing.clear();
    EXPECT_TRUE(muxer_.outputFrame(frame_.data(), 100, 40000, true));
    EXPECT_EQ(muxerCalls().packets.back().pts, 3601);
}

TEST_F(StreamMuxerTest, KeepsRisingOverASecondOpen) {
    ASSERT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_EQ(ticksFor(1000000), 90000);
    muxer_.stop();
    muxer_.close();
    ASSERT_TRUE(muxer_.open(folder_.path("second.mp4"), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_EQ(ticksFor(0), 90001);
    EXPECT_EQ(ticksFor(2000000), 180000);
}

TEST_F(StreamMuxerTest, TakesTimesOfAnySize) {
    ASSERT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), INT_MAX));
    muxerCalls().failing = {"av_interleaved_write_frame"};
    const int64_t lowest = ticksFor(std::numeric_limits<int64_t>::min());
    EXPECT_LT(lowest, -1'000'000'000'000'000'000);
    const int64_t highest = ticksFor(std::numeric_limits<int64_t>::max());
    EXPECT_GT(highest, 1'000'000'000'000'000'000);
    EXPECT_EQ(ticksFor(std::numeric_limits<int64_t>::max()), highest + 1);
    EXPECT_EQ(ticksFor(0), highest + 2);
}

TEST_F(StreamMuxerTest, EndsAndClosesOnce) {
    ASSERT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_TRUE(muxer_.outputFrame(frame_.data(), 100, 0, true));
    test::resetMuxerCalls();
    LogCapture log;
    muxer_.stop();
    muxer_.stop();
    muxer_.close();
    muxer_.stop();
    muxer_.close();
    EXPECT_THAT(muxerCalls().names, ElementsAre("av_write_trailer", "avio_close"));
    EXPECT_THAT(log.lines(), ElementsAre("[StreamMuxer]: stop, succeed!\n", "[StreamMuxer]: stop, succeed!\n",
                                         "[StreamMuxer]: close, succeed!\n", "[StreamMuxer]: close, succeed!\n"));
}

TEST_F(StreamMuxerTest, EndsAndClosesWhenItIsDestroyed) {
    auto muxer = std::make_unique<StreamMuxer>();
    ASSERT_TRUE(muxer->open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_TRUE(muxer->outputFrame(frame_.data(), 100, 0, true));
    test::resetMuxerCalls();
    LogCapture log;
    muxer.reset();
    EXPECT_THAT(muxerCalls().names, ElementsAre("av_write_trailer", "avio_close"));
    EXPECT_THAT(log.lines(), ElementsAre("[StreamMuxer]: stop, succeed!\n", "[StreamMuxer]: close, succeed!\n"));
    const auto video = test::readVideo(mp4());
    EXPECT_EQ(video.frames.size(), 1U);
}

TEST_F(StreamMuxerTest, ClosesAnOpenOutputBeforeItOpensAnother) {
    ASSERT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    test::resetMuxerCalls();
    // What is refused leaves it open.
    EXPECT_FALSE(muxer_.open("a.mkv", makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_FALSE(muxer_.open(mp4(), nullptr, 90000));
    EXPECT_TRUE(muxerCalls().names.empty());
    EXPECT_TRUE(muxer_.open(folder_.path("second.mp4"), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_THAT(muxerCalls().names, ElementsAre("avio_close", "avformat_alloc_output_context2", "avformat_new_stream",
                                                "avio_open", "avformat_write_header"));
    EXPECT_EQ(ticksFor(0), 0);
}

TEST_F(StreamMuxerTest, OpensAfterAFailureToOpen) {
    muxerCalls().failing = {"avformat_write_header"};
    EXPECT_FALSE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    muxerCalls().failing.clear();
    EXPECT_TRUE(muxer_.open(mp4(), makeCodecInfo(VIDEO_CODEC_MJPEG), 90000));
    EXPECT_EQ(ticksFor(0), 0);
}

}  // namespace
}  // namespace kelp
