#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <utility>

#include "decode/ff_video_decoder.h"
#include "decode/video_test_support.h"
#include "support/fake_time.h"
#include "support/log_capture.h"

namespace kelp::test {

// A decoder with a recording observer over the fakes of the library. At the end of a test nothing of the library may
// be left.
class FFVideoDecoderFixture : public testing::Test {
protected:
    FFVideoDecoderFixture() {
        videoFakes() = {};
        FakeTime::reset();
        // The library has its own to say of broken streams.
        av_log_set_level(AV_LOG_QUIET);
    }
    ~FFVideoDecoderFixture() override {
        decoder_->close();
        EXPECT_EQ(videoFakes().liveContexts, 0);
        videoFakes() = {};
    }

    // Hardware is off unless a test turns it on.
    bool open(VideoCodecType type, const AVCodecParameters* parameters = nullptr, bool isLive = false,
              PixFormat format = PIX_FMT_YUV420P) {
        return decoder_->open(type, parameters, format, isLive, observer_);
    }

    // A decoder whose pictures are those that the test queues, and that takes every packet.
    void openScripted() {
        decoder_->enableHardware(false, HW_DECODE_NONE);
        ASSERT_TRUE(open(VIDEO_CODEC_MPEG4));
        script();
    }
    void script() {
        videoFakes().queuePictures = true;
        videoFakes().send = [](const AVPacket*) { return 0; };
    }

    // A device for acceleration, whose surfaces are of the format CUDA.
    static void offerDevice() {
        videoFakes().hwConfig = [](int index) {
            static const AVCodecHWConfig config{AV_PIX_FMT_CUDA, AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX,
                                                AV_HWDEVICE_TYPE_CUDA};
            return index == 0 ? &config : nullptr;
        };
        videoFakes().createDevice = [](AVBufferRef** device, AVHWDeviceType) {
            *device = av_buffer_allocz(4096);
            return 0;
        };
    }

    void send(int64_t pts) { decoder_->insertPacket(makeVideoPacket(pts).get()); }
    // Queues a picture and has it delivered, by a packet that the codec doesn't take.
    void show(VideoFramePtr picture) {
        videoFakes().pictures.push_back(std::move(picture));
        drain();
    }
    void drain() {
        auto& fakes = videoFakes();
        const auto taken = std::exchange(fakes.send, [](const AVPacket*) { return AVERROR(EAGAIN); });
        decoder_->insertPacket(makeVideoPacket(0).get());
        fakes.send = taken;
    }

    LogCapture log_;
    std::shared_ptr<RecordingVideoObserver> observer_ = std::make_shared<RecordingVideoObserver>();
    std::shared_ptr<FFVideoDecoder> decoder_ = std::make_shared<FFVideoDecoder>();
};

}  // namespace kelp::test
