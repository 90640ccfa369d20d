#include "sink_recorder.h"

#include <utility>

#include "kelp_player/types.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
}

namespace {

constexpr int kMicrosecondsPerSecond = 1000000;
constexpr int kTicksPerSecond = 90000;  // the muxer's
constexpr int kKeyFrameInterval = 60;   // pictures

}  // namespace

SinkRecorder::SinkRecorder(std::string destination)
    : destination_(std::move(destination)), packet_(av_packet_alloc()), thread_([this] { run(); }) {
}

SinkRecorder::~SinkRecorder() {
    finish();
    av_packet_free(&packet_);
}

// [sink]
void SinkRecorder::onVideoSize(int width, int height, int) {
    width_ = width;
    height_ = height;
}

bool SinkRecorder::onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int, int64_t) {
    if (pixFormat != kelp::PIX_FMT_YUV420P || pts == lastPts_) {
        return false;  // the same picture, painted again
    }
    lastPts_ = pts;
    const auto now = std::chrono::steady_clock::now();
    begin_ = std::exchange(begun_, true) ? begin_ : now;
    AVFrame* picture = av_frame_alloc();
    picture->format = AV_PIX_FMT_YUV420P;
    picture->width = width_ / 2 * 2;  // an encoder of 4:2:0 takes no odd sizes
    picture->height = height_ / 2 * 2;
    picture->pts = std::chrono::duration_cast<std::chrono::microseconds>(now - begin_).count();
    if (av_frame_get_buffer(picture, 0) < 0) {
        av_frame_free(&picture);
        return false;
    }
    // The bytes are the player's as soon as this returns.
    av_image_copy(picture->data, picture->linesize, const_cast<const uint8_t**>(data), linesize, AV_PIX_FMT_YUV420P,
                  picture->width, picture->height);

    std::lock_guard lock(mutex_);
    if (waiting_.size() >= kWaitingMax) {
        av_frame_free(&picture);
        ++leftOut_;
        return false;
    }
    waiting_.push_back(picture);
    changed_.notify_one();
    return true;
}
// [/sink]

void SinkRecorder::run() {
    while (true) {
        AVFrame* picture = nullptr;
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return finished_ || !waiting_.empty(); });
            if (waiting_.empty()) {
                break;
            }
            picture = waiting_.front();
            waiting_.pop_front();
        }
        if (!failed_ && (encoder_ != nullptr || openOutput(*picture))) {
            if (picture->width == encoder_->width && picture->height == encoder_->height) {
                failed_ = !encode(picture);
            } else {
                std::lock_guard lock(mutex_);
                ++leftOut_;
            }
        } else {
            failed_ = true;
        }
        av_frame_free(&picture);
    }
    closeOutput();
}

// [encoder]
bool SinkRecorder::openOutput(const AVFrame& picture) {
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    encoder_ = codec != nullptr ? avcodec_alloc_context3(codec) : nullptr;
    if (encoder_ == nullptr) {
        return false;
    }
    encoder_->width = picture.width;
    encoder_->height = picture.height;
    encoder_->pix_fmt = AV_PIX_FMT_YUV420P;
    encoder_->time_base = {1, kMicrosecondsPerSecond};
    encoder_->gop_size = kKeyFrameInterval;
    encoder_->max_b_frames = 0;  // the muxer wants times that rise
    // Without AV_CODEC_FLAG_GLOBAL_HEADER each key frame has its parameter sets in front, as the muxer wants them.
    av_opt_set(encoder_->priv_data, "preset", "veryfast", 0);
    av_opt_set(encoder_->priv_data, "tune", "zerolatency", 0);
    if (avcodec_open2(encoder_, codec, nullptr) < 0) {
        return false;
    }
    const auto info = std::make_shared<kelp::CodecInfo>();
    info->videoCodecType = kelp::VIDEO_CODEC_H264;
    info->pixFormat = kelp::PIX_FMT_YUV420P;
    info->width = picture.width;
    info->height = picture.height;
    muxer_.setOption("timeout", "5000000");  // microseconds that an RTSP server may take
    return muxer_.open(destination_, info, kTicksPerSecond);
}

bool SinkRecorder::encode(const AVFrame* picture) {
    if (avcodec_send_frame(encoder_, picture) < 0) {
        return false;
    }
    while (avcodec_receive_packet(encoder_, packet_) >= 0) {
        const bool keyFrame = (packet_->flags & AV_PKT_FLAG_KEY) != 0;
        if (!muxer_.outputFrame(packet_->data, static_cast<unsigned int>(packet_->size), packet_->pts, keyFrame)) {
            return false;
        }
        ++written_;
        av_packet_unref(packet_);
    }
    return true;
}
// [/encoder]

void SinkRecorder::closeOutput() {
    if (encoder_ != nullptr && !failed_) {
        failed_ = !encode(nullptr);  // what the encoder still holds
    }
    muxer_.stop();  // without it an MP4 file can't be played
    muxer_.close();
    avcodec_free_context(&encoder_);
}

bool SinkRecorder::finish() {
    {
        std::lock_guard lock(mutex_);
        finished_ = true;
        changed_.notify_one();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    return !failed_ && written_ > 0;
}
