#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "kelp_player/frame_sink.h"
#include "kelp_player/tarn_player.h"
#include "playtask/small_media.h"
#include "support/gate.h"
#include "support/log_capture.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/hwcontext.h>
}

// A managed player on the whole engine, with hardware that the library's functions only pretend to have.

namespace {

std::atomic<bool> pretend{false};
std::atomic<AVPixelFormat> surfaceFormat{AV_PIX_FMT_NONE};
std::atomic<int> sendsToFail{0};

}  // namespace

extern "C" {

int __real_av_hwdevice_ctx_create(AVBufferRef** device, AVHWDeviceType type, const char* name, AVDictionary* options,
                                  int flags);
int __wrap_av_hwdevice_ctx_create(AVBufferRef** device, AVHWDeviceType type, const char* name, AVDictionary* options,
                                  int flags) {
    if (!pretend) {
        return __real_av_hwdevice_ctx_create(device, type, name, options, flags);
    }
    *device = av_hwdevice_ctx_alloc(AV_HWDEVICE_TYPE_VAAPI);
    return *device ? 0 : AVERROR(ENOMEM);
}

const AVCodecHWConfig* __real_avcodec_get_hw_config(const AVCodec* codec, int index);
const AVCodecHWConfig* __wrap_avcodec_get_hw_config(const AVCodec* codec, int index) {
    if (!pretend) {
        return __real_avcodec_get_hw_config(codec, index);
    }
    static AVCodecHWConfig config;
    config = {surfaceFormat, AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX, AV_HWDEVICE_TYPE_VAAPI};
    return index == 0 ? &config : nullptr;
}

int __real_av_hwframe_transfer_data(AVFrame* to, const AVFrame* from, int flags);
int __wrap_av_hwframe_transfer_data(AVFrame* to, const AVFrame* from, int flags) {
    if (!pretend) {
        return __real_av_hwframe_transfer_data(to, from, flags);
    }
    // The pretended surface is a picture in memory already.
    if (!to->buf[0]) {
        to->format = from->format;
        to->width = from->width;
        to->height = from->height;
        if (av_frame_get_buffer(to, 0) < 0) {
            return AVERROR(ENOMEM);
        }
    }
    return av_frame_copy(to, from);
}

int __real_avcodec_send_packet(AVCodecContext* context, const AVPacket* packet);
int __wrap_avcodec_send_packet(AVCodecContext* context, const AVPacket* packet) {
    // Only what decodes pictures on the pretended hardware fails.
    if (context->codec_type == AVMEDIA_TYPE_VIDEO && context->hw_device_ctx && packet && sendsToFail > 0) {
        --sendsToFail;
        return AVERROR_EXTERNAL;
    }
    return __real_avcodec_send_packet(context, packet);
}

}  // extern "C"

namespace kelp::test {
namespace {

using testing::UnorderedElementsAre;

class Host final : public TarnPlayerObserver, public ExternFrameSink {
public:
    void onVideoSizeUpdated(int, int, int) override {}
    void onPrepared(bool, bool) override { note("prepared"); }
    void onStarted() override { note("started"); }
    void onFailed(int errorType) override { note("failed " + std::to_string(errorType)); }
    void onFirstVideoFrame(int) override { note("picture"); }
    void onFirstAudioFrame(int) override {}
    void onCompleted() override { note("completed"); }
    void onDurationUpdated(int) override {}

    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int, int64_t, uint8_t**, int*, int, int64_t) override { return true; }

    std::vector<std::string> told() {
        std::lock_guard lock(mutex_);
        return told_;
    }
    bool waitFor(const std::string& what) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(60),
                                 [&] { return std::find(told_.begin(), told_.end(), what) != told_.end(); });
    }

private:
    void note(const std::string& what) {
        std::lock_guard lock(mutex_);
        told_.push_back(what);
        changed_.notify_all();
    }

    std::mutex mutex_;  // guards told_
    std::condition_variable changed_;
    std::vector<std::string> told_;
};

class TarnPlayerFallBack : public testing::Test {
protected:
    TarnPlayerFallBack() : player_(TarnPlayer::create()) {
        pretend = true;
        player_->enableHwDecoder(true, HW_DECODE_ACCEL);
        player_->addWindow(static_cast<ExternFrameSink*>(&host_), WINDOW_TYPE_EXTERN, 0, 0);
    }
    ~TarnPlayerFallBack() override {
        TarnPlayer::destroy(player_);
        pretend = false;
        sendsToFail = 0;
    }

    void play(const std::string& file) {
        ASSERT_TRUE(player_->setDataSource(smallMedia(file).c_str(), 0, &host_));
        ASSERT_TRUE(player_->prepareAsync());
        ASSERT_TRUE(player_->start());
    }

    // With all that is queued by now. What plays may tell of itself ahead of onStarted.
    std::vector<std::string> toldSoFar() {
        Gate through;
        player_->runInWorker([through]() mutable { through.open(); });
        through.wait();
        return host_.told();
    }

    // The same without what the decoder reported after hardware was disabled and before the restart: that is told as a
    // failure without hardware, and the restart comes all the same.
    std::vector<std::string> toldButForLateReports() {
        auto told = toldSoFar();
        const auto isPrepared = [](const std::string& what) { return what == "prepared"; };
        const auto first = std::find_if(told.begin(), told.end(), isPrepared);
        const auto restarted = first == told.end() ? first : std::find_if(first + 1, told.end(), isPrepared);
        told.erase(std::remove(first, restarted, "failed 2"), restarted);
        return told;
    }

    Host host_;
    TarnPlayer* const player_;
    LogCapture log_;  // behind the first player of the process, which sets the level
};

// The surfaces are fetched, and the host sees an ordinary playback.
TEST_F(TarnPlayerFallBack, PlaysWhatTheHardwareDecodes) {
    surfaceFormat = AV_PIX_FMT_YUV420P;  // which the decoder offers
    play("video.mp4");
    ASSERT_TRUE(host_.waitFor("completed"));
    ASSERT_TRUE(host_.waitFor("picture"));
    EXPECT_THAT(toldSoFar(), UnorderedElementsAre("prepared", "started", "picture", "completed"));
    EXPECT_TRUE(log_.has("[FFVideoDecoder]: open, open hw accel cuda (h264_nvdec) succeed!\n") ||
                log_.has("[FFVideoDecoder]: open, open hw accel vaapi (h264_vaapi) succeed!\n"));
    EXPECT_FALSE(log_.has("Failed to get HW surface format"));
}

// The decoder reports with every packet until the restart has stopped it, also in the middle of the restart.
TEST_F(TarnPlayerFallBack, RestartsWhenTheDecoderHasNoSurfaces) {
    surfaceFormat = AV_PIX_FMT_QSV;  // which the decoder doesn't offer
    play("long.mp4");
    ASSERT_TRUE(host_.waitFor("picture"));
    EXPECT_THAT(toldButForLateReports(), UnorderedElementsAre("prepared", "started", "prepared", "started", "picture"));
    EXPECT_TRUE(log_.has("[FFVideoDecoder]: getHwFormat, Failed to get HW surface format.\n"));
    EXPECT_TRUE(log_.has("[TarnPlayer]: onFailed, errorType:2, extraData:1, current state:16\n"));
    EXPECT_EQ(log_.count("[TarnPlayer]: restartWithOldState, state:16\n"), 1);
}

TEST_F(TarnPlayerFallBack, RestartsWhenTheHardwareRefusesPackets) {
    surfaceFormat = AV_PIX_FMT_YUV420P;
    sendsToFail = 101;
    play("long.mp4");
    ASSERT_TRUE(host_.waitFor("picture"));
    EXPECT_THAT(toldSoFar(), UnorderedElementsAre("prepared", "started", "prepared", "started", "picture"));
    EXPECT_EQ(log_.count("[FFVideoDecoder]: notify onVideoDecodeFailed\n"), 1);
    EXPECT_EQ(log_.count("open hw accel"), 1);
}

}  // namespace
}  // namespace kelp::test
