#include <chrono>
#include <memory>
#include <thread>

#include "decode/ff_video_decoder_fixture.h"
#include "decode/video_decode_thread.h"

// Whether hardware decodes a stream is told as it is, not as it was hoped for.

namespace kelp {
namespace {

using test::videoFakes;

constexpr AVPixelFormat kSurfaces[] = {AV_PIX_FMT_CUDA, AV_PIX_FMT_YUV420P, AV_PIX_FMT_NONE};
constexpr AVPixelFormat kNoSurfaces[] = {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NONE};

// As the codec asks when it has read what the stream is.
void choose(const AVPixelFormat* formats) {
    AVCodecContext* const context = videoFakes().opened.back().context;
    context->get_format(context, formats);
}

// Has room for pictures that never come.
class PicturesWanted final : public VideoDecodeThreadObserver {
public:
    void onVideoDecoded(std::shared_ptr<VideoFrameInfo>) override {}
    void onVideoDecodeFailed() override {}
    void onVideoDecodeNoMoreFrame() override {}
    int onVideoFrameQueueSize() override { return 0; }
    void onVideoDecodeSeek(int, bool) override {}
    std::shared_ptr<FrameBuffer> allocPixBuffer(unsigned int) override { return nullptr; }
    void freePixBuffer(std::shared_ptr<FrameBuffer>) override {}
};

class HardwareTold : public test::FFVideoDecoderFixture {};

TEST_F(HardwareTold, IsNoneInSoftware) {
    decoder_->enableHardware(false, HW_DECODE_ALL);
    ASSERT_TRUE(open(VIDEO_CODEC_H264));
    EXPECT_FALSE(decoder_->isHardware());
}

TEST_F(HardwareTold, IsADecoderOfItsOwn) {
    videoFakes().findByName = [](const char*) { return test::realDecoder(AV_CODEC_ID_MJPEG); };
    decoder_->enableHardware(true, HW_DECODE_DECODER);
    ASSERT_TRUE(open(VIDEO_CODEC_MJPEG));
    EXPECT_TRUE(decoder_->isHardware());
}

TEST_F(HardwareTold, GoesWhereItHasNoSurfacesForTheStream) {
    offerDevice();
    decoder_->setOptions({.allCodecs = true});
    decoder_->enableHardware(true, HW_DECODE_ACCEL);
    ASSERT_TRUE(open(VIDEO_CODEC_H264));
    EXPECT_TRUE(decoder_->isHardware());
    choose(kNoSurfaces);
    EXPECT_FALSE(decoder_->isHardware());
    choose(kSurfaces);
    EXPECT_TRUE(decoder_->isHardware());
}

TEST_F(HardwareTold, IsCountedByTheDecodeThread) {
    offerDevice();
    videoFakes().send = [sent = 0](const AVPacket*) mutable {
        if (++sent == 2) {
            choose(kNoSurfaces);
        }
        return 0;
    };
    const auto thread = std::make_shared<VideoDecodeThread>();
    ASSERT_TRUE(thread->open(VIDEO_CODEC_H264, nullptr, PIX_FMT_YUV420P, /*enableHw=*/true, HW_DECODE_ACCEL,
                             /*isLive=*/false, std::make_shared<PicturesWanted>(), {.allCodecs = true}));
    EXPECT_STREQ(thread->counts().decoder, "h264");
    EXPECT_TRUE(thread->counts().isHardware);
    ASSERT_TRUE(thread->start());
    thread->fillPacket(test::makeVideoPacket(0));
    thread->fillPacket(test::makeVideoPacket(40));
    for (int waitedMs = 0; thread->counts().isHardware && waitedMs < 20000; ++waitedMs) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_FALSE(thread->counts().isHardware);
    thread->stop();
}

}  // namespace
}  // namespace kelp
