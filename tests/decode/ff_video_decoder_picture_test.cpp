#include <gmock/gmock.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include "decode/decoded_frame.h"
#include "decode/ff_video_decoder_fixture.h"
#include "input/tick_math.h"
#include "support/ffmpeg_release.h"
#include "support/sanitizers.h"

extern "C" {
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

// What becomes of pictures: layout, conversion, sizes, rotation, hardware surfaces, and real streams as a whole.
namespace kelp {
namespace {

using test::addDisplayMatrix;
using test::makePicture;
using test::planesOf;
using test::videoFakes;
using test::VideoFramePtr;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// The picture as the library converts it with all the room it may want, cut to a frame's planes.
std::vector<uint8_t> convertedWithRoom(const AVFrame& picture) {
    VideoFramePtr room(av_frame_alloc());
    room->format = AV_PIX_FMT_YUV420P;
    room->width = (picture.width / 64 + 2) * 64;
    room->height = picture.height + 2;
    av_frame_get_buffer(room.get(), 0);
    SwsContext* scaler =
        sws_getContext(picture.width, picture.height, static_cast<AVPixelFormat>(picture.format), picture.width,
                       picture.height, AV_PIX_FMT_YUV420P, SWS_BICUBIC, nullptr, nullptr, nullptr);
    sws_scale(scaler, picture.data, picture.linesize, 0, picture.height, room->data, room->linesize);
    sws_freeContext(scaler);
    std::vector<uint8_t> bytes;
    for (int plane = 0; plane < 3; ++plane) {
        const int width = plane == 0 ? picture.width : picture.width / 2;
        const int height = plane == 0 ? picture.height : picture.height / 2;
        for (int row = 0; row < height; ++row) {
            const uint8_t* from = room->data[plane] + row * room->linesize[plane];
            bytes.insert(bytes.end(), from, from + width);
        }
    }
    return bytes;
}

class FFVideoDecoderPicture : public test::FFVideoDecoderFixture {
protected:
    void SetUp() override { openScripted(); }

    const VideoFrameInfo& lastFrame() { return *observer_->frames.back(); }

    // Reopens with acceleration in force, for surfaces of the format CUDA.
    void accelerate() {
        decoder_->close();
        decoder_ = std::make_shared<FFVideoDecoder>();
        videoFakes() = {};
        offerDevice();
        decoder_->enableHardware(true, HW_DECODE_ACCEL);
        ASSERT_TRUE(open(VIDEO_CODEC_H264));
        script();
        // As the library does it: memory only for a target that has none.
        videoFakes().transfer = [this](AVFrame* target, const AVFrame* source) {
            targetsWithMemory_.push_back(target->buf[0] != nullptr);
            sideDataAtTransfer_.push_back(target->nb_side_data);
            if (!target->buf[0]) {
                target->format = AV_PIX_FMT_NV12;
                target->width = source->width;
                target->height = source->height;
                av_frame_get_buffer(target, 0);
            }
            std::fill_n(target->data[0], target->linesize[0] * target->height, uint8_t{50});
            std::fill_n(target->data[1], target->linesize[1] * target->height / 2, uint8_t{60});
            return 0;
        };
    }

    static VideoFramePtr makeSurface(int64_t pts, int width = 64, int height = 48) {
        VideoFramePtr surface(av_frame_alloc());
        surface->format = AV_PIX_FMT_CUDA;
        surface->width = width;
        surface->height = height;
        surface->pts = pts;
        surface->best_effort_timestamp = pts;
        return surface;
    }

    std::vector<bool> targetsWithMemory_;
    std::vector<int> sideDataAtTransfer_;
};

TEST_F(FFVideoDecoderPicture, TellsTheShapeOfThePixels) {
    auto picture = makePicture(120);
    picture->sample_aspect_ratio = {128, 90};
    show(std::move(picture));
    EXPECT_EQ(lastFrame().pixelWidth, 64);
    EXPECT_EQ(lastFrame().pixelHeight, 45);

    // That of the container.
    const test::VideoParametersPtr parameters(avcodec_parameters_alloc());
    parameters->codec_type = AVMEDIA_TYPE_VIDEO;
    parameters->codec_id = AV_CODEC_ID_MPEG4;
    parameters->sample_aspect_ratio = {4, 3};
    decoder_->close();
    decoder_ = std::make_shared<FFVideoDecoder>();
    ASSERT_TRUE(open(VIDEO_CODEC_MPEG4, parameters.get()));
    script();
    show(makePicture(160));
    EXPECT_EQ(lastFrame().pixelWidth, 4);
    EXPECT_EQ(lastFrame().pixelHeight, 3);
}

TEST_F(FFVideoDecoderPicture, FillsEveryFieldOfAFrame) {
    auto picture = makePicture(120);
    test::setKeyFrame(*picture, true);
    picture->color_range = AVCOL_RANGE_MPEG;
    picture->colorspace = AVCOL_SPC_BT709;
    show(std::move(picture));
    ASSERT_THAT(observer_->frames, SizeIs(1));
    const auto& frame = lastFrame();
    EXPECT_THAT(observer_->sizesAsked, ElementsAre(64 * 48 * 3 / 2));
    EXPECT_EQ(frame.pixFormat, PIX_FMT_YUV420P);
    EXPECT_EQ(frame.colorRange, 1);
    EXPECT_EQ(frame.colorSpace, 1);
    EXPECT_EQ(frame.width, 64);
    EXPECT_EQ(frame.height, 48);
    EXPECT_EQ(frame.data[0], frame.buffer->data);
    EXPECT_EQ(frame.data[1], frame.buffer->data + 64 * 48);
    EXPECT_EQ(frame.data[2], frame.buffer->data + 64 * 48 + 32 * 24);
    EXPECT_EQ(frame.linesize[0], 64);
    EXPECT_EQ(frame.linesize[1], 32);
    EXPECT_EQ(frame.linesize[2], 32);
    EXPECT_TRUE(frame.keyFrame);
    EXPECT_EQ(frame.rotate, 0);
    EXPECT_EQ(frame.frameTag, 0);
    EXPECT_EQ(frame.pts, 120);
    EXPECT_EQ(frame.duration, 40);
    EXPECT_FALSE(frame.allocBuffer);
}

TEST_F(FFVideoDecoderPicture, MapsColours) {
    const std::vector<std::pair<AVColorRange, int>> ranges{
        {AVCOL_RANGE_UNSPECIFIED, 0}, {AVCOL_RANGE_MPEG, 1}, {AVCOL_RANGE_JPEG, 2}};
    for (const auto& [range, expected] : ranges) {
        auto picture = makePicture(0);
        picture->color_range = range;
        show(std::move(picture));
        EXPECT_EQ(lastFrame().colorRange, expected) << range;
    }
    const std::vector<std::pair<AVColorSpace, int>> spaces{{AVCOL_SPC_RGB, 0},         {AVCOL_SPC_BT709, 1},
                                                           {AVCOL_SPC_UNSPECIFIED, 0}, {AVCOL_SPC_BT470BG, 2},
                                                           {AVCOL_SPC_SMPTE170M, 0},   {AVCOL_SPC_BT2020_NCL, 0}};
    for (const auto& [space, expected] : spaces) {
        auto picture = makePicture(0);
        picture->colorspace = space;
        show(std::move(picture));
        EXPECT_EQ(lastFrame().colorSpace, expected) << space;
    }
}

TEST_F(FFVideoDecoderPicture, MarksKeyFramesOnly) {
    auto picture = makePicture(0);
    test::setKeyFrame(*picture, false);
    show(std::move(picture));
    EXPECT_FALSE(lastFrame().keyFrame);
}

TEST_F(FFVideoDecoderPicture, CopiesTheRowsWithoutTheCodecsPadding) {
    // 50 pixels a row: the codec's rows are longer.
    auto picture = makePicture(0, 50, 20);
    ASSERT_GT(picture->linesize[0], 50);
    std::vector<uint8_t> expected;
    for (int plane = 0; plane < 3; ++plane) {
        for (int row = 0; row < (plane ? 10 : 20); ++row) {
            const uint8_t* from = picture->data[plane] + row * picture->linesize[plane];
            expected.insert(expected.end(), from, from + (plane ? 25 : 50));
        }
    }
    show(std::move(picture));
    EXPECT_EQ(planesOf(lastFrame()), expected);
}

TEST_F(FFVideoDecoderPicture, DeliversPlanar420WhateverTheDecoderWasOpenedWith) {
    decoder_->close();
    decoder_ = std::make_shared<FFVideoDecoder>();
    decoder_->enableHardware(false, HW_DECODE_NONE);
    videoFakes() = {};
    ASSERT_TRUE(open(VIDEO_CODEC_MPEG4, nullptr, false, PIX_FMT_YUV420P10));
    script();
    show(makePicture(0, 64, 48, AV_PIX_FMT_YUV420P10LE));
    ASSERT_THAT(observer_->frames, SizeIs(1));
    EXPECT_EQ(lastFrame().pixFormat, PIX_FMT_YUV420P);
    EXPECT_EQ(lastFrame().buffer->size, 64U * 48 * 3 / 2);
}

TEST_F(FFVideoDecoderPicture, ConvertsWithoutScaling) {
    show(makePicture(0, 64, 48));
    show(makePicture(40, 64, 48, AV_PIX_FMT_YUV422P));
    // The record holds bicubic conversions to planar 4:2:0 of the same size only.
    ASSERT_THAT(videoFakes().conversions, SizeIs(2));
    EXPECT_EQ(videoFakes().conversions[0].format, AV_PIX_FMT_YUV420P);
    EXPECT_EQ(videoFakes().conversions[1].format, AV_PIX_FMT_YUV422P);
    EXPECT_EQ(videoFakes().conversions[1].width, 64);
    EXPECT_EQ(videoFakes().conversions[1].height, 48);
}

TEST_F(FFVideoDecoderPicture, KeepsWhatConvertsUntilSizeOrFormatChange) {
    // The library takes YUVJ for the format without it, in full range, and forgets the name.
    for (int i = 0; i < 3; ++i) {
        show(makePicture(40 * i, 64, 48, AV_PIX_FMT_YUVJ420P));
    }
    EXPECT_THAT(videoFakes().conversions, SizeIs(1));
    show(makePicture(120, 64, 48));
    show(makePicture(160, 64, 50));
    show(makePicture(200, 66, 50));
    show(makePicture(240, 66, 50, AV_PIX_FMT_YUVJ420P));
    EXPECT_THAT(videoFakes().conversions, SizeIs(5));
}

TEST_F(FFVideoDecoderPicture, ConvertsAsIfEachPictureWereTheFirst) {
    const AVPixelFormat formats[] = {AV_PIX_FMT_YUVJ420P,    AV_PIX_FMT_YUV420P,  AV_PIX_FMT_YUVJ420P,
                                     AV_PIX_FMT_YUVJ422P,    AV_PIX_FMT_YUV422P,  AV_PIX_FMT_YUVJ444P,
                                     AV_PIX_FMT_YUV420P10LE, AV_PIX_FMT_YUVJ444P, AV_PIX_FMT_YUVJ420P};
    for (const auto format : formats) {
        for (const auto& [width, height] : std::vector<std::pair<int, int>>{{64, 48}, {640, 360}, {35, 17}, {64, 48}}) {
            for (int i = 0; i < 2; ++i) {
                auto picture = makePicture(0, width, height, format);
                // Not the same bytes again: nothing may be left of the picture before.
                std::fill_n(picture->data[0], picture->linesize[0] * height / 2, static_cast<uint8_t>(100 + i));
                const auto expected = convertedWithRoom(*picture);
                show(std::move(picture));
                EXPECT_TRUE(planesOf(lastFrame()) == expected)
                    << av_get_pix_fmt_name(format) << " " << width << "x" << height << ", picture " << i;
            }
        }
    }
}

TEST_F(FFVideoDecoderPicture, GivesAFramesBufferBackWhenTheFrameDies) {
    show(makePicture(0));
    const auto buffer = observer_->frames[0]->buffer;
    EXPECT_THAT(observer_->buffersGivenBack, IsEmpty());
    observer_->frames.clear();
    EXPECT_THAT(observer_->buffersGivenBack, ElementsAre(buffer));
}

TEST_F(FFVideoDecoderPicture, LetsAFrameOutliveItsObserver) {
    show(makePicture(0));
    auto frame = std::move(observer_->frames[0]);
    const std::weak_ptr<FrameBuffer> buffer = frame->buffer;
    const std::weak_ptr<test::RecordingVideoObserver> watched = observer_;
    decoder_->close();
    decoder_ = std::make_shared<FFVideoDecoder>();
    observer_.reset();
    ASSERT_TRUE(watched.expired());
    frame.reset();
    EXPECT_TRUE(buffer.expired());
}

TEST_F(FFVideoDecoderPicture, DropsAPictureWithoutABuffer) {
    log_.clear();
    observer_->refuseBuffers = true;
    show(makePicture(0));
    EXPECT_THAT(observer_->frames, IsEmpty());
    EXPECT_THAT(observer_->buffersGivenBack, IsEmpty());
    EXPECT_THAT(videoFakes().conversions, IsEmpty());
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(FFVideoDecoderPicture, DropsAPictureThatCannotBeConverted) {
    log_.clear();
    videoFakes().refuseScaler = [] { return true; };
    show(makePicture(0));
    EXPECT_THAT(observer_->frames, IsEmpty());
    EXPECT_THAT(log_.lines(), ElementsAre("[FFVideoDecoder]: DeliverVideoFrame, get swscale context failed\n"));
    EXPECT_THAT(observer_->buffersGivenBack, SizeIs(1));
    videoFakes().refuseScaler = nullptr;
    show(makePicture(40));
    EXPECT_THAT(observer_->times(), ElementsAre(40));
}

TEST_F(FFVideoDecoderPicture, DropsAPictureThatThereIsNoMemoryToConvert) {
    auto picture = makePicture(0, 101, 51);
    videoFakes().refuseFrame = [] { return true; };
    show(std::move(picture));
    EXPECT_EQ(log_.count("[FFVideoDecoder]: DeliverVideoFrame, no memory for a picture of 101x51\n"), 1);
    EXPECT_THAT(observer_->frames, IsEmpty());
    EXPECT_THAT(observer_->buffersGivenBack, SizeIs(1));
    videoFakes().refuseFrame = nullptr;
    show(makePicture(40, 101, 51));
    EXPECT_THAT(observer_->frames, SizeIs(1));
}

TEST_F(FFVideoDecoderPicture, DropsAPictureOfAForeignKind) {
    // A hardware surface that nobody asked for.
    show(makeSurface(0));
    EXPECT_THAT(observer_->frames, IsEmpty());
    EXPECT_TRUE(log_.has("get swscale context failed"));
    EXPECT_EQ(videoFakes().transfers, 0);
}

TEST_F(FFVideoDecoderPicture, HasNoUseForPicturesWithoutAnObserver) {
    decoder_->close();
    decoder_ = std::make_shared<FFVideoDecoder>();
    observer_ = nullptr;
    openScripted();
    show(makePicture(0));
    decoder_->insertPacket(test::makeEndPacket(false).get());
    videoFakes().send = [](const AVPacket*) { return AVERROR_INVALIDDATA; };
    for (int i = 0; i < 200; ++i) {
        send(i);
    }
    EXPECT_FALSE(log_.has("notify onVideoDecodeFailed"));
    EXPECT_THAT(videoFakes().conversions, IsEmpty());
}

TEST_F(FFVideoDecoderPicture, GivesChromaRowsOfHalfAnOddWidth) {
    show(makePicture(0, 101, 51));
    EXPECT_THAT(observer_->sizesAsked, ElementsAre(101 * 51 * 3 / 2));
    const auto& frame = lastFrame();
    EXPECT_EQ(frame.linesize[0], 101);
    EXPECT_EQ(frame.linesize[1], 50);
    EXPECT_EQ(frame.linesize[2], 50);
    EXPECT_EQ(frame.data[1] - frame.data[0], 101 * 51);
    EXPECT_EQ(frame.data[2] - frame.data[1], 50 * 25);
}

// The conversion library writes past the rows of packed planes, and to aligned addresses only; neither may be seen.
TEST_F(FFVideoDecoderPicture, StaysWithinTheBufferAtEverySize) {
    const AVPixelFormat formats[] = {AV_PIX_FMT_YUV420P,  AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUV422P,
                                     AV_PIX_FMT_YUVJ422P, AV_PIX_FMT_YUV444P,  AV_PIX_FMT_NV12,
                                     AV_PIX_FMT_P010LE,   AV_PIX_FMT_GRAY8,    AV_PIX_FMT_YUV420P10LE,
                                     AV_PIX_FMT_YUYV422,  AV_PIX_FMT_BGR24,    AV_PIX_FMT_GBRP};
    for (const auto format : formats) {
        int wrong = 0;
        std::string first;
        for (const int height : {1, 2, 3, 4, 5, 8, 17}) {
            for (int width = 1; width <= 130; width += KELP_THREAD_SANITIZER ? 3 : 1) {
                auto picture = makePicture(0, width, height, format);
                const auto expected = convertedWithRoom(*picture);
                observer_->frames.clear();
                show(std::move(picture));
                if (observer_->frames.size() != 1 || planesOf(lastFrame()) != expected) {
                    ++wrong;
                    first = first.empty() ? std::to_string(width) + "x" + std::to_string(height) : first;
                }
            }
        }
        EXPECT_EQ(wrong, 0) << av_get_pix_fmt_name(format) << ", first at " << first;
    }
    EXPECT_EQ(observer_->tailsWrittenTo, 0);
}

TEST_F(FFVideoDecoderPicture, TakesAPictureOfOnePixel) {
    show(makePicture(0, 1, 1));
    ASSERT_THAT(observer_->frames, SizeIs(1));
    EXPECT_THAT(observer_->sizesAsked, ElementsAre(1));
    EXPECT_EQ(lastFrame().linesize[1], 0);
    EXPECT_EQ(lastFrame().data[2], lastFrame().data[0] + 1);
    EXPECT_EQ(observer_->tailsWrittenTo, 0);
}

TEST_F(FFVideoDecoderPicture, FollowsAChangeOfSize) {
    for (const auto& [width, height] :
         std::vector<std::pair<int, int>>{{64, 48}, {33, 17}, {640, 360}, {35, 17}, {64, 48}}) {
        auto picture = makePicture(0, width, height, AV_PIX_FMT_YUVJ420P);
        const auto expected = convertedWithRoom(*picture);
        show(std::move(picture));
        EXPECT_EQ(lastFrame().width, width);
        EXPECT_EQ(lastFrame().height, height);
        EXPECT_EQ(planesOf(lastFrame()), expected);
    }
}

TEST_F(FFVideoDecoderPicture, DropsAPictureWhoseSizeDoesNotFit) {
    observer_->refuseBuffers = true;
    auto picture = makePicture(0);
    // 2147329548 bytes before the division, the last square that fits.
    picture->width = picture->height = 26754;
    show(std::move(picture));
    EXPECT_THAT(observer_->sizesAsked, ElementsAre(1073664774));

    observer_->refuseBuffers = false;
    const std::vector<std::pair<int, int>> sizes{
        {26755, 26755}, {65536, 65536}, {INT32_MAX, INT32_MAX}, {1 << 30, 4}, {-64, 48}, {64, -48}, {-64, -48}};
    for (const auto& [width, height] : sizes) {
        picture = makePicture(0);
        picture->width = width;
        picture->height = height;
        log_.clear();
        show(std::move(picture));
        EXPECT_THAT(observer_->sizesAsked, SizeIs(1));
        EXPECT_THAT(log_.lines(), ElementsAre("[FFVideoDecoder]: DeliverVideoFrame, picture size not supported, " +
                                              std::to_string(width) + "x" + std::to_string(height) + "\n"));
    }
    EXPECT_THAT(observer_->frames, IsEmpty());
}

TEST_F(FFVideoDecoderPicture, TurnsAsAPictureSaysUntilAnotherDoes) {
    const std::vector<std::pair<double, int>> rotations{{90, 90}, {180, 180}, {270, 270}, {-90, 270},
                                                        {0, 0},   {359.7, 0}, {-1, 359}};
    for (const auto& [clockwise, expected] : rotations) {
        auto picture = makePicture(0);
        addDisplayMatrix(picture.get(), clockwise);
        show(std::move(picture));
        EXPECT_EQ(lastFrame().rotate, expected) << clockwise;
        show(makePicture(40));
        EXPECT_EQ(lastFrame().rotate, expected) << clockwise;
    }
}

TEST_F(FFVideoDecoderPicture, LogsTheRotationInTwoSteps) {
    auto picture = makePicture(0);
    addDisplayMatrix(picture.get(), -90);
    log_.clear();
    show(std::move(picture));
    EXPECT_THAT(log_.lines(), ElementsAre("[FFVideoDecoder]: insertPacket, theta 1:-90.000000\n",
                                          "[FFVideoDecoder]: insertPacket, theta 2:270.000000\n"));
}

TEST_F(FFVideoDecoderPicture, KeepsTheRotationOverAFlushButNotOverAClose) {
    auto picture = makePicture(0);
    addDisplayMatrix(picture.get(), 90);
    show(std::move(picture));
    decoder_->flush();
    decoder_->insertPacket(test::makeFlushPacket().get());
    show(makePicture(0));
    EXPECT_EQ(lastFrame().rotate, 90);
    decoder_->close();
    videoFakes().queuePictures = false;
    openScripted();
    show(makePicture(0));
    EXPECT_EQ(lastFrame().rotate, 0);
}

TEST_F(FFVideoDecoderPicture, ReplacesTheStreamsRotation) {
    // The command counts against the clock.
    const auto stream = test::makeVideoStream("-c:v mpeg4", "mp4", 64, 48, 1, /*turned=*/true);
    decoder_->close();
    decoder_ = std::make_shared<FFVideoDecoder>();
    videoFakes() = {};
    decoder_->enableHardware(false, HW_DECODE_NONE);
    ASSERT_TRUE(open(stream.codecType, stream.parameters.get()));
    script();
    auto picture = makePicture(0);
    addDisplayMatrix(picture.get(), 180);
    show(makePicture(0));
    show(std::move(picture));
    show(makePicture(80));
    ASSERT_THAT(observer_->frames, SizeIs(3));
    EXPECT_EQ(observer_->frames[0]->rotate, 90);
    EXPECT_EQ(observer_->frames[1]->rotate, 180);
    EXPECT_EQ(observer_->frames[2]->rotate, 180);
}

TEST_F(FFVideoDecoderPicture, IgnoresADisplayMatrixThatIsTooShort) {
    auto picture = makePicture(0);
    av_frame_new_side_data(picture.get(), AV_FRAME_DATA_DISPLAYMATRIX, 8);
    show(std::move(picture));
    EXPECT_EQ(lastFrame().rotate, 0);
    EXPECT_FALSE(log_.has("theta"));
}

TEST_F(FFVideoDecoderPicture, FetchesSurfacesFromTheHardware) {
    accelerate();
    auto surface = makeSurface(40);
    test::setKeyFrame(*surface, true);
    surface->color_range = AVCOL_RANGE_JPEG;
    surface->colorspace = AVCOL_SPC_BT470BG;
    addDisplayMatrix(surface.get(), 90);
    send(40);
    test::FakeTime::advanceMs(100);
    show(std::move(surface));
    ASSERT_THAT(observer_->frames, SizeIs(1));
    const auto& frame = lastFrame();
    EXPECT_EQ(frame.pts, 40);
    EXPECT_TRUE(frame.keyFrame);
    EXPECT_EQ(frame.colorRange, 2);
    EXPECT_EQ(frame.colorSpace, 2);
    EXPECT_EQ(frame.rotate, 90);
    EXPECT_EQ(frame.data[0][64 * 48 - 1], 50);
    EXPECT_EQ(frame.data[1][0], 60);
    EXPECT_EQ(frame.data[2][32 * 24 - 1], 60);
    EXPECT_EQ(decoder_->getAvgDecodeTime(), 5);
}

TEST_F(FFVideoDecoderPicture, LosesThePacketAtHandWhenATransferFails) {
    accelerate();
    const auto transfer = videoFakes().transfer;
    videoFakes().transfer = [](AVFrame*, const AVFrame*) { return AVERROR(EIO); };
    videoFakes().pictures.push_back(makeSurface(0));
    videoFakes().pictures.push_back(makeSurface(40));
    log_.clear();
    send(80);
    EXPECT_THAT(log_.lines(), ElementsAre("[FFVideoDecoder]: Error transferring the data to system memory\n"));
    EXPECT_THAT(videoFakes().sent, IsEmpty());
    EXPECT_THAT(observer_->frames, IsEmpty());
    EXPECT_EQ(videoFakes().transfers, 1);
    // The next one goes on with what is left.
    videoFakes().transfer = transfer;
    send(120);
    EXPECT_THAT(videoFakes().sent, SizeIs(1));
    EXPECT_THAT(observer_->times(), ElementsAre(40));
    EXPECT_EQ(observer_->failures, 0);
}

TEST_F(FFVideoDecoderPicture, UsesOneCopyForSurfacesThatAreAlike) {
    accelerate();
    for (int i = 0; i < 3; ++i) {
        auto surface = makeSurface(40 * i);
        addDisplayMatrix(surface.get(), 90.0 * i);
        show(std::move(surface));
    }
    EXPECT_THAT(targetsWithMemory_, ElementsAre(false, true, true));
    // What one surface says of itself isn't left over for the next.
    EXPECT_THAT(sideDataAtTransfer_, ElementsAre(0, 0, 0));
    ASSERT_THAT(observer_->frames, SizeIs(3));
    EXPECT_EQ(observer_->frames[1]->rotate, 90);
    EXPECT_EQ(observer_->frames[2]->rotate, 180);

    show(makeSurface(120, 128, 96));
    show(makeSurface(160, 32, 16));
    EXPECT_THAT(targetsWithMemory_, ElementsAre(false, true, true, false, false));
    EXPECT_EQ(lastFrame().width, 32);
}

TEST_F(FFVideoDecoderPicture, KeepsOrdinaryPicturesApartFromSurfaces) {
    accelerate();
    show(makePicture(0));
    EXPECT_EQ(videoFakes().transfers, 0);
    EXPECT_THAT(observer_->frames, SizeIs(1));
}

// Real streams: each picture as the ffmpeg command decodes it, in order and with the stream's times.
struct RealStream {
    const char* name;
    const char* options;
    const char* extension;
    int width;
    int height;
    VideoCodecType codecType;

    friend std::ostream& operator<<(std::ostream& out, const RealStream& row) { return out << row.name; }
};

class FFVideoDecoderStream : public test::FFVideoDecoderFixture, public testing::WithParamInterface<RealStream> {};

TEST_P(FFVideoDecoderStream, ComesOutAsTheCommandDecodesIt) {
    constexpr int kFrames = 12;
    const auto& row = GetParam();
    const auto stream = test::makeVideoStream(row.options, row.extension, row.width, row.height, kFrames);
    ASSERT_EQ(stream.codecType, row.codecType);
    ASSERT_EQ(stream.pictures.size(), static_cast<size_t>(kFrames));
    decoder_->enableHardware(false, HW_DECODE_NONE);
    ASSERT_TRUE(open(stream.codecType, stream.parameters.get(), false, stream.pixFormat));
    for (const auto& packet : stream.packets) {
        decoder_->insertPacket(packet.get());
        test::FakeTime::advanceMs(10);
    }
    EXPECT_LT(observer_->frames.size(), static_cast<size_t>(kFrames));
    // Four frame threads and reordering hold some pictures back until the end.
    decoder_->insertPacket(test::makeEndPacket(true).get());
    ASSERT_THAT(observer_->frames, SizeIs(kFrames));
    EXPECT_EQ(observer_->noMoreFrames, 0);
    EXPECT_EQ(observer_->failures, 0);
    EXPECT_EQ(observer_->tailsWrittenTo, 0);
    EXPECT_TRUE(observer_->frames[0]->keyFrame);
    const int64_t start = observer_->frames[0]->pts;
    for (size_t i = 0; i < kFrames; ++i) {
        const auto& frame = *observer_->frames[i];
        EXPECT_EQ(frame.pts, start + 40 * static_cast<int64_t>(i));
        EXPECT_EQ(frame.duration, 40);
        EXPECT_EQ(frame.width, row.width);
        EXPECT_EQ(frame.height, row.height);
        EXPECT_TRUE(planesOf(frame) == stream.expected(i)) << "picture " << i;
    }
}

// A stream that reorders its pictures has them held back for that alone.
TEST_P(FFVideoDecoderStream, ComesOutInTheSameOrderWithALowDelay) {
    constexpr int kFrames = 12;
    const auto& row = GetParam();
    const auto stream = test::makeVideoStream(row.options, row.extension, row.width, row.height, kFrames);
    decoder_->enableHardware(false, HW_DECODE_NONE);
    decoder_->setOptions({.lowLiveDelay = true});
    ASSERT_TRUE(open(stream.codecType, stream.parameters.get(), /*isLive=*/true, stream.pixFormat));
    bool reorders = false;
    for (const auto& packet : stream.packets) {
        decoder_->insertPacket(packet.get());
        reorders = reorders || packet->pts != packet->dts;
        if (!reorders) {
            ASSERT_FALSE(observer_->frames.empty());
            EXPECT_EQ(observer_->frames.back()->pts, ticksToMs(packet->pts, packet->timeBaseNum, packet->timeBaseDen));
        }
    }
    decoder_->insertPacket(test::makeEndPacket(true).get());
    ASSERT_THAT(observer_->frames, SizeIs(kFrames));
    for (size_t i = 0; i < kFrames; ++i) {
        EXPECT_EQ(observer_->frames[i]->pts, observer_->frames[0]->pts + 40 * static_cast<int64_t>(i));
        EXPECT_TRUE(planesOf(*observer_->frames[i]) == stream.expected(i)) << "picture " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(
    , FFVideoDecoderStream,
    testing::Values(RealStream{"H264", "-c:v libx264 -bf 2 -pix_fmt yuv420p", "mp4", 128, 96, VIDEO_CODEC_H264},
                    RealStream{"H264InTs", "-c:v libx264 -bf 0 -pix_fmt yuv420p", "ts", 128, 96, VIDEO_CODEC_H264},
                    RealStream{"Hevc", "-c:v libx265 -x265-params log-level=error -pix_fmt yuv420p", "mp4", 128, 96,
                               VIDEO_CODEC_HEVC},
                    RealStream{"HevcTenBits", "-c:v libx265 -x265-params log-level=error -pix_fmt yuv420p10le", "mp4",
                               120, 90, VIDEO_CODEC_HEVC},
                    RealStream{"Mpeg4", "-c:v mpeg4 -bf 2", "mp4", 128, 96, VIDEO_CODEC_MPEG4},
                    RealStream{"Mpeg4Odd", "-c:v mpeg4", "mp4", 101, 75, VIDEO_CODEC_MPEG4},
                    RealStream{"Msmpeg4", "-c:v msmpeg4v2", "avi", 128, 96, VIDEO_CODEC_MSMPEG4V2},
                    RealStream{"Mjpeg", "-c:v mjpeg", "avi", 128, 96, VIDEO_CODEC_MJPEG},
                    RealStream{"MjpegOdd", "-c:v mjpeg -pix_fmt yuvj422p", "avi", 75, 51, VIDEO_CODEC_MJPEG},
                    RealStream{"H264In422", "-c:v libx264 -pix_fmt yuv422p", "mp4", 100, 50, VIDEO_CODEC_H264}),
    [](const testing::TestParamInfo<RealStream>& row) { return row.param.name; });

using FFVideoDecoderRefresh = test::FFVideoDecoderFixture;

// H.264 that is met in its midst, whose pictures are refreshed part by part, and nothing says where it may begin.
TEST_F(FFVideoDecoderRefresh, IsShownOnceThereIsNoHopeForAKeyFrame) {
    constexpr int kFrames = 40;
    const auto stream = test::makeVideoStream(
        "-c:v libx264 -preset veryfast -bf 0 -pix_fmt yuv420p -x264-params intra-refresh=1:keyint=12 "
        "-bsf:v filter_units=remove_types=6",
        "mkv", 160, 96, kFrames);
    ASSERT_EQ(stream.packets.size(), static_cast<size_t>(kFrames));
    for (const bool isHopeless : {false, true}) {
        decoder_->enableHardware(false, HW_DECODE_NONE);
        ASSERT_TRUE(open(stream.codecType, stream.parameters.get(), false, stream.pixFormat));
        for (size_t i = 1; i < kFrames; ++i) {
            stream.packets[i]->isHopeless = isHopeless;
            decoder_->insertPacket(stream.packets[i].get());
        }
        decoder_->insertPacket(test::makeEndPacket(true).get());
        decoder_->close();
        if (!isHopeless) {
            EXPECT_THAT(observer_->frames, IsEmpty());
            continue;
        }
        ASSERT_THAT(observer_->frames, SizeIs(kFrames - 1));
        EXPECT_TRUE(planesOf(*observer_->frames.back()) == stream.expected(kFrames - 1)) << "not refreshed";
    }
}

TEST_F(FFVideoDecoderPicture, TurnsAsAStreamSaysFromWithin) {
    const auto stream = test::makeVideoStream(
        "-c:v libx264 -bf 0 -bsf:v h264_metadata=display_orientation=insert:rotate=90", "h264", 64, 48, 2);
    decoder_->close();
    decoder_ = std::make_shared<FFVideoDecoder>();
    videoFakes() = {};
    decoder_->enableHardware(false, HW_DECODE_NONE);
    ASSERT_TRUE(open(stream.codecType, stream.parameters.get(), true));
    for (const auto& packet : stream.packets) {
        decoder_->insertPacket(packet.get());
    }
    decoder_->insertPacket(test::makeEndPacket(true).get());
    ASSERT_THAT(observer_->frames, SizeIs(2));
    // The stream counts its angle the other way round.
    EXPECT_EQ(observer_->frames[0]->rotate, 270);
    EXPECT_EQ(observer_->frames[1]->rotate, 270);
}

}  // namespace
}  // namespace kelp
