#include <gmock/gmock.h>

extern "C" {
#include <libavutil/display.h>
}

#include <string>
#include <vector>

#include "decode/ff_video_decoder_fixture.h"
#include "decode/video_decoder_factory.h"
#include "input/codec_tables.h"
#include "kelp_player/log.h"

namespace kelp {
namespace {

using test::realDecoder;
using test::videoFakes;
using test::VideoLibraryFakes;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kPrefix[] = "[FFVideoDecoder]: ";

std::vector<std::string> withPrefix(std::vector<std::string> lines) {
    for (auto& line : lines) {
        line = kPrefix + line + "\n";
    }
    return lines;
}

class FFVideoDecoderOpen : public test::FFVideoDecoderFixture {
protected:
    // Every device can be made, and the decoder has a surface format for each.
    void giveDevices() {
        videoFakes().hwConfig = [](int index) {
            static const AVCodecHWConfig configs[] = {
                {AV_PIX_FMT_YUYV422, AV_CODEC_HW_CONFIG_METHOD_HW_FRAMES_CTX, AV_HWDEVICE_TYPE_CUDA},
                {AV_PIX_FMT_UYVY422, AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX, AV_HWDEVICE_TYPE_QSV},
                {AV_PIX_FMT_CUDA, AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX, AV_HWDEVICE_TYPE_CUDA},
                {AV_PIX_FMT_VAAPI, AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX, AV_HWDEVICE_TYPE_VAAPI},
            };
            return index < 4 ? &configs[index] : nullptr;
        };
        videoFakes().createDevice = [](AVBufferRef** device, AVHWDeviceType) {
            *device = av_buffer_allocz(4096);
            return 0;
        };
    }

    const VideoLibraryFakes::Opened& lastOpened() { return videoFakes().opened.back(); }

    std::vector<std::string> deviceCalls() {
        std::vector<std::string> result;
        for (const auto& call : videoFakes().calls) {
            if (call.starts_with("device ") || call.starts_with("type ")) {
                result.push_back(call);
            }
        }
        return result;
    }
};

TEST_F(FFVideoDecoderOpen, HasNoPauseAndNoDirectDisplay) {
    EXPECT_FALSE(decoder_->pause());
    EXPECT_FALSE(decoder_->resume());
    EXPECT_FALSE(decoder_->canDisplayDirectly());
    EXPECT_FALSE(decoder_->setDisplayWindow(this));
    EXPECT_EQ(decoder_->getAvgDecodeTime(), 0);
    EXPECT_TRUE(decoder_->enableHardware(true, HW_DECODE_ALL));
}

TEST_F(FFVideoDecoderOpen, IsWhatTheFactoryMakesForEveryCodec) {
    VideoDecoderFactory factory;
    for (const int type : {0, 3, 7, 99}) {
        EXPECT_NE(std::dynamic_pointer_cast<FFVideoDecoder>(factory.create(static_cast<VideoCodecType>(type))),
                  nullptr);
    }
}

TEST_F(FFVideoDecoderOpen, SaysWhenItGoes) {
    std::make_shared<FFVideoDecoder>().reset();
    EXPECT_EQ(log_.count("[FFVideoDecoder]: ~FFVideoDecoder\n"), 1);
}

TEST_F(FFVideoDecoderOpen, OpensInPlainSoftwareWithHardwareOff) {
    decoder_->enableHardware(false, HW_DECODE_ALL);
    EXPECT_TRUE(open(VIDEO_CODEC_H264));
    EXPECT_EQ(log_.lines(),
              withPrefix({"open, codecType:3", "open, pix fmt: 0 yuv420p", "open, have no hw decoder for 27",
                          "open, use sw codec...", "open succeed, codecType:3"}));
    EXPECT_THAT(videoFakes().calls, ElementsAre("find 27", "open h264"));
}

TEST_F(FFVideoDecoderOpen, WarnsOfMissingAccelerationOnlyWithHardwareOn) {
    decoder_->enableHardware(true, HW_DECODE_NONE);
    EXPECT_TRUE(open(VIDEO_CODEC_H264));
    EXPECT_EQ(log_.lines(),
              withPrefix({"open, codecType:3", "open, pix fmt: 0 yuv420p", "open, have no hw decoder for 27",
                          "open, use sw codec...", "open, have no hw accel for 27", "open succeed, codecType:3"}));
    EXPECT_THAT(videoFakes().calls, ElementsAre("find 27", "open h264"));
}

TEST_F(FFVideoDecoderOpen, WarnsOfMissingHardwareAndCallsItNoError) {
    decoder_->enableHardware(true, HW_DECODE_NONE);
    Log::SetLevel(2);
    EXPECT_TRUE(open(VIDEO_CODEC_H264));
    EXPECT_EQ(log_.lines(), withPrefix({"open, have no hw decoder for 27", "open, have no hw accel for 27"}));
    decoder_->close();
    log_.clear();
    Log::SetLevel(1);
    EXPECT_TRUE(open(VIDEO_CODEC_H264));
    EXPECT_THAT(log_.lines(), testing::IsEmpty());
}

TEST_F(FFVideoDecoderOpen, TriesTheDedicatedDecoderAloneInModeOne) {
    videoFakes().findByName = [](const char*) { return nullptr; };
    decoder_->enableHardware(true, HW_DECODE_DECODER);
    EXPECT_TRUE(open(VIDEO_CODEC_H264));
    EXPECT_EQ(log_.lines(),
              withPrefix({"open, codecType:3", "open, pix fmt: 0 yuv420p",
                          "open, getHWDecoderInfo, info.id:27, name:h264_cuvid",
                          "open, could not find video codec, name:h264_cuvid", "open, have no hw decoder for 27",
                          "open, use sw codec...", "open, have no hw accel for 27", "open succeed, codecType:3"}));
    EXPECT_THAT(videoFakes().calls, ElementsAre("find h264_cuvid", "find 27", "open h264"));
    EXPECT_EQ(lastOpened().threads, 4);
}

TEST_F(FFVideoDecoderOpen, GoesToSoftwareWhenTheTrialOpenFails) {
    const AVCodec* found = realDecoder(AV_CODEC_ID_HEVC);
    videoFakes().findByName = [&](const char*) { return found; };
    videoFakes().openError = [opens = 0]() mutable { return ++opens == 1 ? AVERROR(ENODEV) : 0; };
    decoder_->enableHardware(true, HW_DECODE_DECODER);
    EXPECT_TRUE(open(VIDEO_CODEC_HEVC, nullptr, false, PIX_FMT_YUV420P10));
    const std::string number = std::to_string(AV_PIX_FMT_YUV420P10LE);
    EXPECT_EQ(
        log_.lines(),
        withPrefix({"open, codecType:4", "open, pix fmt: " + number + " yuv420p10le",
                    "open, getHWDecoderInfo, info.id:173, name:hevc_cuvid",
                    std::string("open, found video codec by name:hevc_cuvid: (173, hevc, ") + found->long_name + ")",
                    "open, try to open hw codec, ffPixFmt:" + number + "...", "open, have no hw decoder for 173",
                    "open, use sw codec...", "open, have no hw accel for 173", "open succeed, codecType:4"}));
    ASSERT_THAT(videoFakes().opened, SizeIs(2));
    EXPECT_EQ(videoFakes().opened[0].pixFmt, AV_PIX_FMT_YUV420P10LE);
    // The trial's context is no more; the real one lives.
    EXPECT_EQ(videoFakes().liveContexts, 1);
    EXPECT_EQ(lastOpened().threads, 4);
}

TEST_F(FFVideoDecoderOpen, TakesADedicatedDecoderThatOpens) {
    videoFakes().findByName = [](const char*) { return realDecoder(AV_CODEC_ID_MJPEG); };
    giveDevices();
    decoder_->enableHardware(true, HW_DECODE_ALL);
    EXPECT_TRUE(open(VIDEO_CODEC_MJPEG));
    EXPECT_THAT(videoFakes().calls, ElementsAre("find mjpeg_cuvid", "open mjpeg", "open mjpeg"));
    EXPECT_EQ(log_.count("open, open hw codec mjpeg_cuvid succeed\n"), 1);
    EXPECT_FALSE(log_.has("have no hw"));
    EXPECT_FALSE(log_.has("use sw codec"));
    // The library's own number of threads, no device and no say in the format.
    EXPECT_EQ(lastOpened().threads, 1);
    EXPECT_FALSE(lastOpened().hasDevice);
    EXPECT_FALSE(lastOpened().hasOpaque);
    EXPECT_TRUE(lastOpened().hasDefaultGetFormat);
    EXPECT_EQ(videoFakes().liveContexts, 1);
}

TEST_F(FFVideoDecoderOpen, StopsTryingDecodersWithoutMemoryForATrial) {
    videoFakes().findByName = [](const char*) { return realDecoder(AV_CODEC_ID_H264); };
    videoFakes().refuseContext = [allocations = 0]() mutable { return ++allocations == 1; };
    decoder_->enableHardware(true, HW_DECODE_DECODER);
    EXPECT_TRUE(open(VIDEO_CODEC_H264));
    EXPECT_EQ(log_.count("open, try to open hw codec, alloc ctx failed\n"), 1);
    EXPECT_FALSE(log_.has("have no hw decoder"));
    EXPECT_EQ(log_.count("open, use sw codec...\n"), 1);
}

TEST_F(FFVideoDecoderOpen, GoesThroughTheDeviceRowsInModeTwo) {
    videoFakes().findDeviceType = [](const char*) { return AV_HWDEVICE_TYPE_NONE; };
    decoder_->enableHardware(true, HW_DECODE_ACCEL);
    EXPECT_TRUE(open(VIDEO_CODEC_H264));
    EXPECT_THAT(videoFakes().calls,
                ElementsAre("find 27", "type cuda", "type dxva2", "type d3d11va", "type vaapi", "open h264"));
    EXPECT_EQ(log_.count("open, have no hw decoder for 27\n"), 1);
    EXPECT_EQ(log_.count("open, have no hw accel for 27\n"), 1);
    EXPECT_TRUE(lastOpened().hasDefaultGetFormat);
}

TEST_F(FFVideoDecoderOpen, NamesTheDeviceTypesThatThereAre) {
    videoFakes().findDeviceType = [](const char*) { return AV_HWDEVICE_TYPE_NONE; };
    decoder_->enableHardware(true, HW_DECODE_ACCEL);
    EXPECT_TRUE(open(VIDEO_CODEC_HEVC));
    std::vector<std::string> expected{"open, codecType:4", "open, pix fmt: 0 yuv420p",
                                      "open, have no hw decoder for 173", "open, use sw codec..."};
    const std::vector<std::pair<std::string, std::string>> rows{
        {"cuda", "h265_nvdec"}, {"dxva2", "h265_dxva2"}, {"d3d11va", "h265_d3d11va"}, {"vaapi", "h264_vaapi"}};
    for (const auto& [name, desc] : rows) {
        expected.push_back("open, try hw accel, name:" + name + ", desc:" + desc);
        expected.push_back("open, Device type " + name + " is not supported.");
        expected.push_back("open, Available device types:");
        AVHWDeviceType type = AV_HWDEVICE_TYPE_NONE;
        while ((type = av_hwdevice_iterate_types(type)) != AV_HWDEVICE_TYPE_NONE) {
            expected.push_back(std::string("open, ") + av_hwdevice_get_type_name(type));
        }
        expected.push_back("open, ");
    }
    expected.push_back("open, have no hw accel for 173");
    expected.push_back("open succeed, codecType:4");
    EXPECT_EQ(log_.lines(), withPrefix(expected));
}

TEST_F(FFVideoDecoderOpen, PassesOverDevicesThatTheDecoderDoesNotKnow) {
    videoFakes().hwConfig = [](int) -> const AVCodecHWConfig* { return nullptr; };
    decoder_->enableHardware(true, HW_DECODE_ACCEL);
    EXPECT_TRUE(open(VIDEO_CODEC_H264));
    EXPECT_EQ(log_.count("[FFVideoDecoder]: Decoder h264 does not support device type cuda.\n"), 1);
    EXPECT_EQ(log_.count("[FFVideoDecoder]: Decoder h264 does not support device type vaapi.\n"), 1);
    EXPECT_EQ(log_.count("[FFVideoDecoder]: open, hwPixFmt_:-1\n"), 4);
    EXPECT_EQ(log_.count("[FFVideoDecoder]: can't found support pix\n"), 4);
    EXPECT_FALSE(log_.has("can't create device context"));
}

TEST_F(FFVideoDecoderOpen, AttachesTheFirstDeviceThatCanBeMade) {
    giveDevices();
    int destroyed = 0;
    videoFakes().createDevice = [&](AVBufferRef** device, AVHWDeviceType type) {
        if (type == AV_HWDEVICE_TYPE_CUDA) {
            return AVERROR(ENODEV);
        }
        *device = av_buffer_create(
            static_cast<uint8_t*>(av_mallocz(4096)), 4096,
            [](void* count, uint8_t* data) {
                ++*static_cast<int*>(count);
                av_free(data);
            },
            &destroyed, 0);
        return 0;
    };
    decoder_->enableHardware(true, HW_DECODE_ACCEL);
    EXPECT_TRUE(open(VIDEO_CODEC_H264, nullptr, true));
    EXPECT_THAT(deviceCalls(),
                ElementsAre("type cuda", "device cuda", "type dxva2", "type d3d11va", "type vaapi", "device vaapi"));
    EXPECT_EQ(log_.count("Failed to create specified HW device.\n"), 1);
    EXPECT_EQ(log_.count("can't create device context\n"), 1);
    EXPECT_EQ(log_.count("open, hwPixFmt_:" + std::to_string(AV_PIX_FMT_CUDA) + "\n"), 1);
    EXPECT_EQ(log_.count("open, hwPixFmt_:" + std::to_string(AV_PIX_FMT_VAAPI) + "\n"), 1);
    EXPECT_EQ(log_.count("open, open hw accel vaapi (h264_vaapi) succeed!\n"), 1);
    EXPECT_FALSE(log_.has("have no hw accel"));
    EXPECT_TRUE(lastOpened().hasDevice);
    EXPECT_TRUE(lastOpened().hasOpaque);
    EXPECT_FALSE(lastOpened().hasDefaultGetFormat);
    EXPECT_EQ(lastOpened().threads, 1);

    EXPECT_EQ(destroyed, 0);
    decoder_->close();
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(log_.count("[FFVideoDecoder]: close, hwDeviceContext_:0x"), 1);
}

TEST_F(FFVideoDecoderOpen, AnswersTheCodecWithItsSurfaceFormat) {
    giveDevices();
    decoder_->enableHardware(true, HW_DECODE_ACCEL);
    ASSERT_TRUE(open(VIDEO_CODEC_H264));
    AVCodecContext* context = lastOpened().context;

    log_.clear();
    const AVPixelFormat offered[] = {AV_PIX_FMT_VAAPI, AV_PIX_FMT_CUDA, AV_PIX_FMT_YUV420P, AV_PIX_FMT_NONE};
    EXPECT_EQ(context->get_format(context, offered), AV_PIX_FMT_CUDA);
    EXPECT_EQ(log_.lines(), withPrefix({"getHwFormat, *p:" + std::to_string(AV_PIX_FMT_VAAPI) + ".",
                                        "getHwFormat, *p:" + std::to_string(AV_PIX_FMT_CUDA) + "."}));
    EXPECT_EQ(observer_->failures, 0);

    log_.clear();
    const AVPixelFormat without[] = {AV_PIX_FMT_VAAPI, AV_PIX_FMT_YUV420P, AV_PIX_FMT_NONE};
    EXPECT_EQ(context->get_format(context, without), AV_PIX_FMT_NONE);
    EXPECT_EQ(log_.lines(), withPrefix({"getHwFormat, *p:" + std::to_string(AV_PIX_FMT_VAAPI) + ".",
                                        "getHwFormat, *p:0.", "getHwFormat, Failed to get HW surface format."}));
    EXPECT_EQ(observer_->failures, 1);

    log_.clear();
    const AVPixelFormat none[] = {AV_PIX_FMT_NONE};
    EXPECT_EQ(context->get_format(context, none), AV_PIX_FMT_NONE);
    EXPECT_EQ(log_.lines(), withPrefix({"getHwFormat, Failed to get HW surface format."}));
    EXPECT_EQ(observer_->failures, 2);
}

TEST_F(FFVideoDecoderOpen, GoesOnInSoftwareWithAllCodecsWhereTheHardwareHasNoSurfaces) {
    giveDevices();
    decoder_->setOptions({.allCodecs = true});
    decoder_->enableHardware(true, HW_DECODE_ACCEL);
    ASSERT_TRUE(open(VIDEO_CODEC_H264));
    AVCodecContext* context = lastOpened().context;
    const AVPixelFormat offered[] = {AV_PIX_FMT_VAAPI, AV_PIX_FMT_CUDA, AV_PIX_FMT_YUV420P, AV_PIX_FMT_NONE};
    EXPECT_EQ(context->get_format(context, offered), AV_PIX_FMT_CUDA);
    log_.clear();
    const AVPixelFormat without[] = {AV_PIX_FMT_YUV422P10LE, AV_PIX_FMT_NONE};
    EXPECT_EQ(context->get_format(context, without), AV_PIX_FMT_YUV422P10LE);
    EXPECT_EQ(log_.count("[FFVideoDecoder]: getHwFormat, no surfaces for this stream, it is decoded in software\n"), 1);
    EXPECT_EQ(observer_->failures, 0);
}

// Where it is cheaper by far than in software. The others that only all codecs bring are decoded there.
TEST_F(FFVideoDecoderOpen, LooksForHardwareForVp9AndAv1) {
    const auto tries = [this](AVCodecID codec) {
        decoder_->close();
        videoFakes().calls.clear();
        const test::VideoParametersPtr parameters(avcodec_parameters_alloc());
        parameters->codec_type = AVMEDIA_TYPE_VIDEO;
        parameters->codec_id = codec;
        EXPECT_TRUE(open(VIDEO_CODEC_OTHER, parameters.get()));
        std::vector<std::string> found;
        for (const auto& call : videoFakes().calls) {
            if (call.starts_with("type ") || call.ends_with("_cuvid")) {
                found.push_back(call);
            }
        }
        return found;
    };
    videoFakes().findByName = [](const char*) { return nullptr; };
    videoFakes().findDeviceType = [](const char*) { return AV_HWDEVICE_TYPE_NONE; };
    decoder_->setOptions({.allCodecs = true});
    decoder_->enableHardware(true, HW_DECODE_ALL);
    EXPECT_THAT(tries(AV_CODEC_ID_VP9), ElementsAre("find vp9_cuvid", "type cuda", "type vaapi"));
    EXPECT_THAT(tries(AV_CODEC_ID_AV1), ElementsAre("find av1_cuvid"));
    EXPECT_THAT(tries(AV_CODEC_ID_VP8), IsEmpty());
    EXPECT_THAT(tries(AV_CODEC_ID_MPEG2VIDEO), IsEmpty());
}

TEST_F(FFVideoDecoderOpen, AnswersTheCodecWithoutAnObserver) {
    giveDevices();
    observer_ = nullptr;
    decoder_->enableHardware(true, HW_DECODE_ACCEL);
    ASSERT_TRUE(open(VIDEO_CODEC_H264));
    AVCodecContext* context = lastOpened().context;
    const AVPixelFormat none[] = {AV_PIX_FMT_NONE};
    EXPECT_EQ(context->get_format(context, none), AV_PIX_FMT_NONE);
}

TEST_F(FFVideoDecoderOpen, KeepsTheFormatOfARowWhoseDeviceFailed) {
    giveDevices();
    videoFakes().createDevice = [](AVBufferRef**, AVHWDeviceType) { return AVERROR(ENODEV); };
    decoder_->enableHardware(true, HW_DECODE_ACCEL);
    ASSERT_TRUE(open(VIDEO_CODEC_H264));
    EXPECT_EQ(log_.count("open, have no hw accel for 27\n"), 1);
    EXPECT_FALSE(lastOpened().hasDevice);
    EXPECT_TRUE(lastOpened().hasDefaultGetFormat);

    // The last row's format is in force still: such a picture would be fetched. All others go on in software.
    script();
    videoFakes().transfer = [](AVFrame*, const AVFrame*) { return AVERROR(EIO); };
    show(test::makePicture(0));
    EXPECT_EQ(videoFakes().transfers, 0);
    EXPECT_THAT(observer_->frames, SizeIs(1));
    auto surface = test::makePicture(40);
    surface->format = AV_PIX_FMT_VAAPI;
    show(std::move(surface));
    EXPECT_EQ(videoFakes().transfers, 1);
}

TEST_F(FFVideoDecoderOpen, ResetsTheFormatWithTheNextRow) {
    giveDevices();
    videoFakes().hwConfig = [](int index) {
        static const AVCodecHWConfig config{AV_PIX_FMT_CUDA, AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX,
                                            AV_HWDEVICE_TYPE_CUDA};
        return index == 0 ? &config : nullptr;
    };
    videoFakes().createDevice = [](AVBufferRef**, AVHWDeviceType) { return AVERROR(ENODEV); };
    decoder_->enableHardware(true, HW_DECODE_ACCEL);
    ASSERT_TRUE(open(VIDEO_CODEC_H264));
    script();
    auto surface = test::makePicture(0);
    surface->format = AV_PIX_FMT_CUDA;
    show(std::move(surface));
    EXPECT_EQ(videoFakes().transfers, 0);
}

TEST_F(FFVideoDecoderOpen, UsesFourThreadsForAFileAndOneForALiveSource) {
    // None of these has a row in the tables.
    const VideoCodecType types[] = {VIDEO_CODEC_MSMPEG4V1, VIDEO_CODEC_MSMPEG4V2, VIDEO_CODEC_MSMPEG4V3,
                                    VIDEO_CODEC_MPEG4};
    const test::VideoParametersPtr parameters(avcodec_parameters_alloc());
    parameters->codec_type = AVMEDIA_TYPE_VIDEO;
    parameters->width = 64;
    parameters->height = 48;
    for (const auto type : types) {
        parameters->codec_id = static_cast<AVCodecID>(codecIdFromType(type));
        for (const bool live : {false, true}) {
            SCOPED_TRACE(testing::Message() << type << (live ? " live" : ""));
            videoFakes() = {};
            decoder_ = std::make_shared<FFVideoDecoder>();
            EXPECT_TRUE(open(type, parameters.get(), live));
            const std::string number = std::to_string(codecIdFromType(type));
            ASSERT_THAT(videoFakes().calls, SizeIs(2));
            EXPECT_EQ(videoFakes().calls[0], "find " + number);
            EXPECT_EQ(lastOpened().threads, live ? 1 : 4);
            EXPECT_EQ(lastOpened().idctAlgo, 0);
            decoder_->close();
        }
    }
}

// What reorders its pictures isn't told to hurry: it might forget to.
TEST_F(FFVideoDecoderOpen, LetsNoThreadHoldAPictureWhereALowDelayIsWanted) {
    for (const auto& [type, reorders] : {std::pair{VIDEO_CODEC_MPEG4, true}, std::pair{VIDEO_CODEC_MJPEG, false}}) {
        videoFakes() = {};
        decoder_ = std::make_shared<FFVideoDecoder>();
        decoder_->enableHardware(false, HW_DECODE_NONE);
        decoder_->setOptions({.lowLiveDelay = true});
        EXPECT_TRUE(open(type, nullptr, true));
        EXPECT_EQ(lastOpened().threads, 4);
        EXPECT_EQ(lastOpened().threadType, FF_THREAD_SLICE);
        EXPECT_EQ((lastOpened().flags & AV_CODEC_FLAG_LOW_DELAY) == 0, reorders);
        decoder_->close();
    }
}

TEST_F(FFVideoDecoderOpen, HasAccelerationRowsForH264AndHevcOnly) {
    videoFakes().findByName = [](const char*) { return nullptr; };
    EXPECT_TRUE(open(VIDEO_CODEC_MJPEG));
    EXPECT_THAT(videoFakes().calls, ElementsAre("find mjpeg_cuvid", "find 7", "open mjpeg"));
    EXPECT_EQ(log_.count("open, have no hw accel for 7\n"), 1);
}

TEST_F(FFVideoDecoderOpen, RefusesAnUnknownCodecBeforeAnyCall) {
    for (const int type : {-1, 8, 1000}) {
        log_.clear();
        EXPECT_FALSE(open(static_cast<VideoCodecType>(type)));
        EXPECT_EQ(log_.lines(), withPrefix({"open, codecType:" + std::to_string(type),
                                            "open, unknown codec type:" + std::to_string(type)}));
    }
    EXPECT_THAT(videoFakes().calls, IsEmpty());
}

TEST_F(FFVideoDecoderOpen, NamesAFormatThatItDoesNotKnowNull) {
    EXPECT_TRUE(open(VIDEO_CODEC_MPEG4, nullptr, false, PIX_FMT_NONE));
    EXPECT_EQ(log_.count("open, pix fmt: -1 null\n"), 1);
    EXPECT_EQ(lastOpened().pixFmt, AV_PIX_FMT_NONE);
}

TEST_F(FFVideoDecoderOpen, PassesEveryFormatOn) {
    const std::vector<std::pair<PixFormat, AVPixelFormat>> formats{{PIX_FMT_YUV420P, AV_PIX_FMT_YUV420P},
                                                                   {PIX_FMT_YUYV422, AV_PIX_FMT_YUYV422},
                                                                   {PIX_FMT_YUV422P, AV_PIX_FMT_YUV422P},
                                                                   {PIX_FMT_YUV420P10, AV_PIX_FMT_YUV420P10LE},
                                                                   {PIX_FMT_PACKET, AV_PIX_FMT_NONE}};
    for (const auto& [own, av] : formats) {
        decoder_ = std::make_shared<FFVideoDecoder>();
        EXPECT_TRUE(open(VIDEO_CODEC_MPEG4, nullptr, false, own));
        EXPECT_EQ(lastOpened().pixFmt, av);
        decoder_->close();
    }
}

TEST_F(FFVideoDecoderOpen, TakesTheStreamsParametersButNotItsFormat) {
    const test::VideoParametersPtr parameters(avcodec_parameters_alloc());
    parameters->codec_type = AVMEDIA_TYPE_VIDEO;
    parameters->codec_id = AV_CODEC_ID_MPEG4;
    parameters->format = AV_PIX_FMT_YUV422P;
    parameters->width = 320;
    parameters->height = 240;
    parameters->extradata = static_cast<uint8_t*>(av_mallocz(4 + AV_INPUT_BUFFER_PADDING_SIZE));
    parameters->extradata_size = 4;
    EXPECT_TRUE(open(VIDEO_CODEC_MPEG4, parameters.get()));
    EXPECT_EQ(lastOpened().width, 320);
    EXPECT_EQ(lastOpened().height, 240);
    EXPECT_EQ(lastOpened().extradataSize, 4);
    EXPECT_EQ(lastOpened().pixFmt, AV_PIX_FMT_YUV420P);
    // No display matrix came with them.
    EXPECT_FALSE(log_.has("theta"));
}

TEST_F(FFVideoDecoderOpen, TakesAnotherCodecAndItsFormatFromTheParameters) {
    const test::VideoParametersPtr parameters(avcodec_parameters_alloc());
    parameters->codec_type = AVMEDIA_TYPE_VIDEO;
    parameters->codec_id = AV_CODEC_ID_RAWVIDEO;
    parameters->format = AV_PIX_FMT_GBRP;
    parameters->width = 320;
    parameters->height = 240;
    EXPECT_TRUE(open(VIDEO_CODEC_OTHER, parameters.get(), false, PIX_FMT_NONE));
    EXPECT_EQ(lastOpened().decoder, "rawvideo");
    EXPECT_EQ(lastOpened().pixFmt, AV_PIX_FMT_GBRP);
    EXPECT_EQ(log_.count("[FFVideoDecoder]: open, have no hw decoder for 13\n"), 1);
}

TEST_F(FFVideoDecoderOpen, LooksForHardwareByTheNumberInTheParameters) {
    const test::VideoParametersPtr parameters(avcodec_parameters_alloc());
    parameters->codec_type = AVMEDIA_TYPE_VIDEO;
    parameters->codec_id = AV_CODEC_ID_H264;
    videoFakes().findByName = [](const char*) { return nullptr; };
    decoder_->enableHardware(true, HW_DECODE_DECODER);
    EXPECT_TRUE(open(VIDEO_CODEC_OTHER, parameters.get()));
    EXPECT_EQ(videoFakes().callCount("find h264_cuvid"), 1);
}

TEST_F(FFVideoDecoderOpen, TurnsPicturesAsTheStreamSays) {
    // The command counts against the clock.
    const auto stream = test::makeVideoStream("-c:v mpeg4", "mp4", 64, 48, 1, /*turned=*/true);
    ASSERT_TRUE(open(stream.codecType, stream.parameters.get()));
    EXPECT_EQ(log_.count("[FFVideoDecoder]: open, theta 1:90.000000\n"), 1);
    EXPECT_EQ(log_.count("[FFVideoDecoder]: open, theta 2:90.000000\n"), 1);
    script();
    show(test::makePicture(0));
    ASSERT_THAT(observer_->frames, SizeIs(1));
    EXPECT_EQ(observer_->frames[0]->rotate, 90);
}

TEST_F(FFVideoDecoderOpen, FailsWithoutADecoder) {
    videoFakes().findDecoder = [](int) { return nullptr; };
    EXPECT_FALSE(open(VIDEO_CODEC_MPEG4));
    EXPECT_EQ(log_.count("open, could not find video codec, type:5, ffcodecId:12\n"), 1);
}

TEST_F(FFVideoDecoderOpen, FailsWithoutAContext) {
    videoFakes().refuseContext = [] { return true; };
    EXPECT_FALSE(open(VIDEO_CODEC_MPEG4));
    EXPECT_EQ(log_.count("open, could not alloc codec context, type:5, ffcodecId:12\n"), 1);
}

TEST_F(FFVideoDecoderOpen, FailsWithTheCodecsError) {
    videoFakes().openError = [] { return AVERROR(EINVAL); };
    EXPECT_FALSE(open(VIDEO_CODEC_MPEG4));
    EXPECT_EQ(log_.count("[FFVideoDecoder]: open, count not open video codec, type:5, ffcodecId:12, ret:-22, "
                         "Invalid argument\n"),
              1);
    EXPECT_FALSE(log_.has("succeed"));
}

TEST_F(FFVideoDecoderOpen, FailsWithoutAFrame) {
    for (const int failing : {1, 2}) {
        log_.clear();
        decoder_ = std::make_shared<FFVideoDecoder>();
        videoFakes().refuseFrame = [failing, frames = 0]() mutable { return ++frames == failing; };
        EXPECT_FALSE(open(VIDEO_CODEC_MPEG4));
        EXPECT_EQ(log_.count("open, count not alloc output frame\n"), 1);
        EXPECT_EQ(videoFakes().liveContexts, 0);
    }
}

TEST_F(FFVideoDecoderOpen, KeepsNothingOfAnOpenThatFailed) {
    giveDevices();
    const std::weak_ptr<test::RecordingVideoObserver> watched = observer_;
    videoFakes().openError = [] { return AVERROR(EINVAL); };
    decoder_->enableHardware(true, HW_DECODE_ACCEL);
    EXPECT_FALSE(open(VIDEO_CODEC_H264));
    EXPECT_EQ(videoFakes().liveContexts, 0);
    observer_.reset();
    EXPECT_TRUE(watched.expired());
    // Whoever uses it all the same gets nothing.
    decoder_->insertPacket(test::makeVideoPacket(0).get());
    decoder_->insertPacket(test::makeEndPacket(false).get());
    decoder_->insertPacket(test::makeFlushPacket().get());
    decoder_->flush();
    EXPECT_THAT(videoFakes().sent, IsEmpty());
    decoder_->close();
    decoder_->close();
}

// What this machine has in the way of hardware, if anything: the picture comes out one way or another.
TEST_F(FFVideoDecoderOpen, OpensWithEveryModeOnThisMachine) {
    const auto stream = test::makeVideoStream("-c:v libx264 -bf 0", "mp4", 64, 48, 2);
    for (const auto mode : {HW_DECODE_NONE, HW_DECODE_DECODER, HW_DECODE_ACCEL, HW_DECODE_ALL}) {
        SCOPED_TRACE(mode);
        decoder_ = std::make_shared<FFVideoDecoder>();
        observer_ = std::make_shared<test::RecordingVideoObserver>();
        decoder_->enableHardware(true, mode);
        ASSERT_TRUE(open(stream.codecType, stream.parameters.get(), false, stream.pixFormat));
        for (const auto& packet : stream.packets) {
            decoder_->insertPacket(packet.get());
        }
        decoder_->insertPacket(test::makeEndPacket(true).get());
        EXPECT_THAT(observer_->frames, SizeIs(2));
        decoder_->close();
    }
}

}  // namespace
}  // namespace kelp
