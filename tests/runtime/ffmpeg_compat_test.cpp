#include "runtime/ffmpeg_compat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>
#include <memory>
#include <thread>
#include <vector>

#include "support/ffmpeg_release.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/display.h>
#include <libavutil/frame.h>
#include <libavutil/mastering_display_metadata.h>
#include <libavutil/mem.h>
}

namespace kelp {
namespace {

struct FormatDeleter {
    void operator()(AVFormatContext* context) const { avformat_free_context(context); }
};
struct FrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};

class FFmpegCompatTest : public testing::Test {
protected:
    FFmpegCompatTest() : format_(avformat_alloc_context()), stream_(avformat_new_stream(format_.get(), nullptr)) {
        AVCodecParameters* parameters = stream_->codecpar;
        parameters->codec_type = AVMEDIA_TYPE_VIDEO;
        parameters->codec_id = AV_CODEC_ID_H264;
        parameters->width = 320;
        parameters->height = 240;
        parameters->extradata = static_cast<uint8_t*>(av_mallocz(4 + AV_INPUT_BUFFER_PADDING_SIZE));
        parameters->extradata_size = 4;
        std::memcpy(parameters->extradata, "abcd", 4);
    }

    // av_display_rotation_get gives the angle back with the other sign.
    void setRotation(double degrees) {
        int32_t matrix[9];
        av_display_rotation_set(matrix, degrees);
        uint8_t* data = test::newSideData(stream_, AV_PKT_DATA_DISPLAYMATRIX, sizeof(matrix));
        ASSERT_NE(data, nullptr);
        std::memcpy(data, matrix, sizeof(matrix));
    }

    std::unique_ptr<AVFormatContext, FormatDeleter> format_;
    AVStream* stream_;
};

TEST_F(FFmpegCompatTest, CopiesAStreamsParametersDeeply) {
    AVCodecParameters* copy = compat::copyParameters(stream_);
    ASSERT_NE(copy, nullptr);
    format_.reset();
    EXPECT_EQ(copy->codec_id, AV_CODEC_ID_H264);
    EXPECT_EQ(copy->width, 320);
    EXPECT_EQ(copy->height, 240);
    ASSERT_EQ(copy->extradata_size, 4);
    EXPECT_EQ(std::memcmp(copy->extradata, "abcd", 4), 0);
    compat::freeParameters(&copy);
    EXPECT_EQ(copy, nullptr);
}

TEST_F(FFmpegCompatTest, CopiesTheShapeOfThePixelsThatTheContainerStates) {
    const auto copied = [this] {
        AVCodecParameters* copy = compat::copyParameters(stream_);
        const AVRational ratio = copy->sample_aspect_ratio;
        compat::freeParameters(&copy);
        return std::pair(ratio.num, ratio.den);
    };
    stream_->codecpar->sample_aspect_ratio = {16, 15};
    EXPECT_EQ(copied(), std::pair(16, 15));
    stream_->sample_aspect_ratio = {4, 3};
    EXPECT_EQ(copied(), std::pair(4, 3));
}

TEST_F(FFmpegCompatTest, KeepsTheDisplayMatrixWithTheCopyOfTheParameters) {
    setRotation(90);
    AVCodecParameters* copy = compat::copyParameters(stream_);
    ASSERT_NE(copy, nullptr);
    format_.reset();
    const int32_t* matrix = compat::displayMatrix(copy);
    ASSERT_NE(matrix, nullptr);
    int32_t expected[9];
    av_display_rotation_set(expected, 90);
    EXPECT_TRUE(std::equal(std::begin(expected), std::end(expected), matrix));
    EXPECT_EQ(av_display_rotation_get(matrix), -90.0);
    compat::freeParameters(&copy);
}

TEST_F(FFmpegCompatTest, KeepsTheMatrixOfEachCopy) {
    setRotation(90);
    AVCodecParameters* first = compat::copyParameters(stream_);
    setRotation(180);
    AVCodecParameters* second = compat::copyParameters(stream_);
    EXPECT_EQ(av_display_rotation_get(compat::displayMatrix(first)), -90.0);
    compat::freeParameters(&first);
    EXPECT_EQ(av_display_rotation_get(compat::displayMatrix(second)), -180.0);
    compat::freeParameters(&second);
}

TEST_F(FFmpegCompatTest, KeepsTheBrightnessThatIsStatedWithEachCopy) {
    AVCodecParameters* none = compat::copyParameters(stream_);
    EXPECT_EQ(compat::contentLight(none), nullptr);
    EXPECT_EQ(compat::masteringDisplay(none), nullptr);
    compat::freeParameters(&none);

    setRotation(90);
    reinterpret_cast<AVContentLightMetadata*>(
        test::newSideData(stream_, AV_PKT_DATA_CONTENT_LIGHT_LEVEL, sizeof(AVContentLightMetadata)))
        ->MaxCLL = 4000;
    reinterpret_cast<AVMasteringDisplayMetadata*>(
        test::newSideData(stream_, AV_PKT_DATA_MASTERING_DISPLAY_METADATA, sizeof(AVMasteringDisplayMetadata)))
        ->max_luminance = {600, 1};
    AVCodecParameters* first = compat::copyParameters(stream_);
    format_.reset();
    AVCodecParameters* second = compat::copyParameters(*first);
    compat::freeParameters(&first);
    ASSERT_NE(compat::contentLight(second), nullptr);
    ASSERT_NE(compat::masteringDisplay(second), nullptr);
    EXPECT_EQ(compat::contentLight(second)->MaxCLL, 4000U);
    EXPECT_EQ(compat::masteringDisplay(second)->max_luminance.num, 600);

    const std::unique_ptr<AVFormatContext, FormatDeleter> written(avformat_alloc_context());
    AVStream* stream = avformat_new_stream(written.get(), nullptr);
    avcodec_parameters_copy(stream->codecpar, second);
    compat::copySideData(*second, stream);
    compat::freeParameters(&second);
    AVCodecParameters* third = compat::copyParameters(stream);
    ASSERT_NE(compat::contentLight(third), nullptr);
    EXPECT_EQ(compat::contentLight(third)->MaxCLL, 4000U);
    ASSERT_NE(compat::masteringDisplay(third), nullptr);
    ASSERT_NE(compat::displayMatrix(third), nullptr);
    EXPECT_EQ(av_display_rotation_get(compat::displayMatrix(third)), -90.0);
    compat::freeParameters(&third);
}

TEST_F(FFmpegCompatTest, FindsNoMatrixWhereThereIsNone) {
    AVCodecParameters* copy = compat::copyParameters(stream_);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(compat::displayMatrix(copy), nullptr);
    compat::freeParameters(&copy);

    AVCodecParameters* plain = avcodec_parameters_alloc();
    EXPECT_EQ(compat::displayMatrix(plain), nullptr);
    compat::freeParameters(&plain);
    EXPECT_EQ(plain, nullptr);

    EXPECT_EQ(compat::displayMatrix(nullptr), nullptr);
}

TEST_F(FFmpegCompatTest, FindsNoMatrixInSideDataThatIsTooShort) {
    ASSERT_NE(test::newSideData(stream_, AV_PKT_DATA_DISPLAYMATRIX, 8), nullptr);
    AVCodecParameters* copy = compat::copyParameters(stream_);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(compat::displayMatrix(copy), nullptr);
    compat::freeParameters(&copy);
}

TEST_F(FFmpegCompatTest, ForgetsTheMatrixOfFreedParameters) {
    setRotation(90);
    std::vector<AVCodecParameters*> copies(64);
    for (auto& copy : copies) {
        copy = compat::copyParameters(stream_);
    }
    for (auto& copy : copies) {
        compat::freeParameters(&copy);
    }
    // The allocator hands some of the addresses out again.
    std::vector<AVCodecParameters*> others(256);
    for (auto& other : others) {
        other = avcodec_parameters_alloc();
    }
    for (auto& other : others) {
        EXPECT_EQ(compat::displayMatrix(other), nullptr);
        compat::freeParameters(&other);
    }
}

TEST_F(FFmpegCompatTest, FreesNothingForNoParameters) {
    AVCodecParameters* none = nullptr;
    compat::freeParameters(&none);
    EXPECT_EQ(none, nullptr);
}

TEST_F(FFmpegCompatTest, TakesTheUntypedPointerThatADecoderIsHanded) {
    setRotation(90);
    AVCodecParameters* copy = compat::copyParameters(stream_);
    const void* handed = copy;
    EXPECT_NE(compat::displayMatrix(static_cast<const AVCodecParameters*>(handed)), nullptr);
    compat::freeParameters(&copy);
}

TEST_F(FFmpegCompatTest, CopiesAndFreesOnSeveralThreads) {
    setRotation(90);
    std::atomic<int> found{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 500; ++round) {
                AVCodecParameters* copy = compat::copyParameters(stream_);
                const int32_t* matrix = compat::displayMatrix(copy);
                found += matrix && av_display_rotation_get(matrix) == -90.0;
                compat::freeParameters(&copy);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(found, 2000);
}

TEST(FrameFlags, TellAKeyFrameByBitOne) {
    const std::unique_ptr<AVFrame, FrameDeleter> frame(av_frame_alloc());
    test::setKeyFrame(*frame, false);
    EXPECT_EQ(compat::frameFlags(frame.get()) & 2, 0);
    test::setKeyFrame(*frame, true);
    EXPECT_EQ(compat::frameFlags(frame.get()) & 2, 2);
}

TEST(FrameFlags, KeepTheOtherBits) {
    const std::unique_ptr<AVFrame, FrameDeleter> frame(av_frame_alloc());
    frame->flags = AV_FRAME_FLAG_CORRUPT | AV_FRAME_FLAG_DISCARD;
    test::setKeyFrame(*frame, true);
    EXPECT_EQ(compat::frameFlags(frame.get()), AV_FRAME_FLAG_CORRUPT | AV_FRAME_FLAG_DISCARD | 2);
    test::setKeyFrame(*frame, false);
    EXPECT_EQ(compat::frameFlags(frame.get()), AV_FRAME_FLAG_CORRUPT | AV_FRAME_FLAG_DISCARD);
}

TEST(InitPacket, SetsEveryFieldToItsDefault) {
    AVPacket packet;
    std::memset(&packet, 0xEE, sizeof(packet));
    compat::initPacket(&packet);
    EXPECT_EQ(packet.data, nullptr);
    EXPECT_EQ(packet.size, 0);
    EXPECT_EQ(packet.pts, AV_NOPTS_VALUE);
    EXPECT_EQ(packet.dts, AV_NOPTS_VALUE);
    EXPECT_EQ(packet.pos, -1);
    EXPECT_EQ(packet.duration, 0);
    EXPECT_EQ(packet.flags, 0);
    EXPECT_EQ(packet.stream_index, 0);
    EXPECT_EQ(packet.buf, nullptr);
    EXPECT_EQ(packet.side_data, nullptr);
    EXPECT_EQ(packet.side_data_elems, 0);
    EXPECT_EQ(packet.opaque, nullptr);
    EXPECT_EQ(packet.opaque_ref, nullptr);
    EXPECT_EQ(packet.time_base.num, 0);
    EXPECT_EQ(packet.time_base.den, 1);
}

}  // namespace
}  // namespace kelp
