#include <gmock/gmock.h>

#include <ostream>
#include <thread>
#include <vector>

#include "decode/decoded_frame.h"
#include "decode/ff_video_decoder_fixture.h"
#include "support/ffmpeg_release.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

// Pictures that are handed on in the decoder's memory.
namespace kelp {
namespace {

using test::makePicture;
using test::planesOf;
using test::videoFakes;
using test::VideoFramePtr;
using testing::Each;
using testing::IsEmpty;
using testing::SizeIs;

struct Unref {
    void operator()(AVBufferRef* reference) const { av_buffer_unref(&reference); }
};
// A reference of the test's own, to count the others.
using Watched = std::unique_ptr<AVBufferRef, Unref>;

class FFVideoDecoderShared : public test::FFVideoDecoderFixture {
protected:
    void SetUp() override {
        decoder_->setOptions({.sharedPictures = true});
        openScripted();
    }

    const VideoFrameInfo& lastFrame() { return *observer_->frames.back(); }
    bool isLastShared() { return lastFrame().decoderMemory[0] != nullptr; }

    static VideoFramePtr makeEmptyPicture(AVPixelFormat format = AV_PIX_FMT_YUV420P) {
        VideoFramePtr picture(av_frame_alloc());
        picture->format = format;
        picture->width = 64;
        picture->height = 48;
        return picture;
    }

    // How many references there are but the test's own.
    static int referencesTo(const Watched& memory) { return av_buffer_get_ref_count(memory.get()) - 1; }
};

TEST_F(FFVideoDecoderShared, HandsOnThePlanesWhereTheDecoderLeftThem) {
    auto picture = makePicture(120, 50, 20);
    test::setKeyFrame(*picture, true);
    picture->color_range = AVCOL_RANGE_JPEG;
    picture->colorspace = AVCOL_SPC_BT709;
    const std::vector<uint8_t*> data(picture->data, picture->data + 8);
    const std::vector<int> linesize(picture->linesize, picture->linesize + 8);
    ASSERT_GT(linesize[0], 50);
    show(std::move(picture));
    ASSERT_THAT(observer_->frames, SizeIs(1));
    const auto& frame = lastFrame();
    EXPECT_EQ(std::vector<uint8_t*>(frame.data, frame.data + 8), data);
    EXPECT_EQ(std::vector<int>(frame.linesize, frame.linesize + 8), linesize);
    EXPECT_FALSE(frame.buffer || frame.freeBuffer || frame.allocBuffer);
    EXPECT_EQ(frame.pixFormat, PIX_FMT_YUV420P);
    EXPECT_EQ(frame.colorRange, 2);
    EXPECT_EQ(frame.colorSpace, 1);
    EXPECT_EQ(frame.width, 50);
    EXPECT_EQ(frame.height, 20);
    EXPECT_TRUE(frame.keyFrame);
    EXPECT_EQ(frame.pts, 120);
    EXPECT_EQ(frame.duration, 40);
    // Nothing is asked for, and nothing converted.
    EXPECT_THAT(observer_->sizesAsked, IsEmpty());
    EXPECT_THAT(videoFakes().conversions, IsEmpty());
}

TEST_F(FFVideoDecoderShared, GivesTheMemoryBackWithTheLastReferenceToTheFrame) {
    auto picture = makePicture(0);
    const Watched memory(av_buffer_ref(picture->buf[0]));
    show(std::move(picture));
    auto kept = observer_->frames[0];
    show(makePicture(40));
    decoder_->flush();
    observer_->frames.clear();
    EXPECT_EQ(referencesTo(memory), 1);
    kept.reset();
    EXPECT_EQ(referencesTo(memory), 0);
    EXPECT_THAT(observer_->buffersGivenBack, IsEmpty());
}

TEST_F(FFVideoDecoderShared, KeepsThreeBuffersForThreePlanes) {
    auto picture = makeEmptyPicture();
    std::vector<Watched> planes;
    for (int plane = 0; plane < 3; ++plane) {
        picture->linesize[plane] = plane == 0 ? 64 : 32;
        picture->buf[plane] = av_buffer_allocz(static_cast<size_t>(picture->linesize[plane]) * 48);
        picture->data[plane] = picture->buf[plane]->data;
        planes.emplace_back(av_buffer_ref(picture->buf[plane]));
    }
    show(std::move(picture));
    for (int plane = 0; plane < 3; ++plane) {
        EXPECT_EQ(lastFrame().data[plane], planes[static_cast<size_t>(plane)]->data);
        EXPECT_EQ(referencesTo(planes[static_cast<size_t>(plane)]), 1);
    }
    EXPECT_EQ(lastFrame().bytes(), 2U * 64 * 48);
    observer_->frames.clear();
    for (const auto& plane : planes) {
        EXPECT_EQ(referencesTo(plane), 0);
    }
}

TEST_F(FFVideoDecoderShared, CopiesWhatCannotStayWhereItIs) {
    struct Row {
        const char* name;
        VideoFramePtr picture;
    };
    std::vector<Row> rows;
    for (const auto format : {AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUV422P, AV_PIX_FMT_YUV444P, AV_PIX_FMT_NV12,
                              AV_PIX_FMT_YUV420P10LE, AV_PIX_FMT_GRAY8, AV_PIX_FMT_YUVA420P}) {
        rows.push_back({av_get_pix_fmt_name(format), makePicture(0, 64, 48, format)});
    }
    rows.push_back({"upside down", makePicture(0)});
    for (int plane = 0; plane < 3; ++plane) {
        auto& picture = *rows.back().picture;
        picture.data[plane] += picture.linesize[plane] * ((plane == 0 ? 48 : 24) - 1);
        picture.linesize[plane] = -picture.linesize[plane];
    }
    rows.push_back({"one row for all", makePicture(0)});
    rows.back().picture->linesize[1] = 0;
    rows.push_back({"memory of nobody's", makePicture(0)});
    const Watched lender(std::exchange(rows.back().picture->buf[0], nullptr));
    rows.push_back({"more memory than planes", makePicture(0)});
    for (int i = 1; i < 4; ++i) {
        rows.back().picture->buf[i] = av_buffer_alloc(1);
    }
    for (auto& row : rows) {
        observer_->frames.clear();
        show(std::move(row.picture));
        ASSERT_THAT(observer_->frames, SizeIs(1)) << row.name;
        EXPECT_FALSE(isLastShared()) << row.name;
        ASSERT_TRUE(lastFrame().buffer) << row.name;
        EXPECT_EQ(lastFrame().data[0], lastFrame().buffer->data) << row.name;
        EXPECT_EQ(lastFrame().linesize[0], 64) << row.name;
        EXPECT_EQ(lastFrame().linesize[1], 32) << row.name;
    }
    // Back again, in the middle of all.
    show(makePicture(0, 32, 16));
    EXPECT_TRUE(isLastShared());
}

TEST_F(FFVideoDecoderShared, CopiesOutOfMemoryThatHardwareFills) {
    decoder_->close();
    decoder_ = std::make_shared<FFVideoDecoder>();
    videoFakes() = {};
    offerDevice();
    videoFakes().transfer = [](AVFrame* target, const AVFrame* source) {
        if (!target->buf[0]) {
            target->format = AV_PIX_FMT_YUV420P;
            target->width = source->width;
            target->height = source->height;
            av_frame_get_buffer(target, 0);
        }
        return 0;
    };
    decoder_->setOptions({.sharedPictures = true});
    decoder_->enableHardware(true, HW_DECODE_ACCEL);
    ASSERT_TRUE(open(VIDEO_CODEC_H264));
    script();
    show(makeEmptyPicture(AV_PIX_FMT_CUDA));
    ASSERT_THAT(observer_->frames, SizeIs(1));
    EXPECT_FALSE(isLastShared());
    // The decoder went on without the hardware.
    show(makePicture(40));
    EXPECT_TRUE(isLastShared());
}

TEST_F(FFVideoDecoderShared, LeavesTheBuffersOfAHardwareDecoderAlone) {
    decoder_->close();
    decoder_ = std::make_shared<FFVideoDecoder>();
    videoFakes() = {};
    videoFakes().findByName = [](const char*) { return test::realDecoder(AV_CODEC_ID_H264); };
    decoder_->setOptions({.sharedPictures = true});
    decoder_->enableHardware(true, HW_DECODE_DECODER);
    ASSERT_TRUE(open(VIDEO_CODEC_H264));
    ASSERT_TRUE(log_.has("open hw codec"));
    script();
    show(makePicture(0));
    ASSERT_THAT(observer_->frames, SizeIs(1));
    EXPECT_FALSE(isLastShared());
}

// Real streams. What the decoder has handed out stays as it is while it decodes on from it, and when it is gone.
struct SharedStream {
    const char* name;
    const char* options;
    const char* extension;
    int width;
    int height;

    friend std::ostream& operator<<(std::ostream& out, const SharedStream& row) { return out << row.name; }
};

class FFVideoDecoderSharedStream : public FFVideoDecoderShared, public testing::WithParamInterface<SharedStream> {
    void SetUp() override {}
};

TEST_P(FFVideoDecoderSharedStream, OutlivesItsDecoderUnchanged) {
    constexpr int kFrames = 24;
    const auto& row = GetParam();
    const auto stream = test::makeVideoStream(row.options, row.extension, row.width, row.height, kFrames);
    decoder_->setOptions({.sharedPictures = true});
    decoder_->enableHardware(false, HW_DECODE_NONE);
    ASSERT_TRUE(open(stream.codecType, stream.parameters.get(), false, stream.pixFormat));
    for (const auto& packet : stream.packets) {
        decoder_->insertPacket(packet.get());
    }
    decoder_->insertPacket(test::makeEndPacket(true).get());
    decoder_->close();
    decoder_.reset();
    ASSERT_THAT(observer_->frames, SizeIs(kFrames));
    for (size_t i = 0; i < kFrames; ++i) {
        const auto& frame = *observer_->frames[i];
        EXPECT_TRUE(frame.decoderMemory[0]) << "picture " << i;
        EXPECT_EQ(frame.width, row.width);
        EXPECT_EQ(frame.height, row.height);
        EXPECT_TRUE(planesOf(frame) == stream.expected(i)) << "picture " << i;
    }
    EXPECT_THAT(videoFakes().conversions, IsEmpty());
    std::thread([this] { observer_->frames.clear(); }).join();
    decoder_ = std::make_shared<FFVideoDecoder>();  // for the fixture to close
}

INSTANTIATE_TEST_SUITE_P(
    , FFVideoDecoderSharedStream,
    testing::Values(SharedStream{"H264", "-c:v libx264 -bf 2 -g 12 -pix_fmt yuv420p", "mp4", 128, 96},
                    SharedStream{"H264Cropped", "-c:v libx264 -pix_fmt yuv420p", "mp4", 100, 50},
                    SharedStream{"Hevc", "-c:v libx265 -x265-params log-level=error -pix_fmt yuv420p", "mp4", 120, 90},
                    SharedStream{"Mpeg4", "-c:v mpeg4 -bf 2", "mp4", 128, 96},
                    SharedStream{"Mpeg4Odd", "-c:v mpeg4", "mp4", 101, 75}),
    [](const testing::TestParamInfo<SharedStream>& row) { return row.param.name; });

}  // namespace
}  // namespace kelp
