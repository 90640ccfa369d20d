#include "decode/ff_video_decoder.h"

#include <limits>
#include <utility>

#include "decode/decoded_frame.h"
#include "decode/display_rotation.h"
#include "decode/frame_turns.h"
#include "decode/packet_time.h"
#include "decode/unreferenced_picture.h"
#include "decode/video_frame_info.h"
#include "input/media_packet.h"
#include "kelp_player/log.h"
#include "runtime/ffmpeg_compat.h"
#include "runtime/kelp_time.h"

extern "C" {
#include <libavutil/hwcontext.h>
}

namespace kelp {

namespace {

constexpr char kTag[] = "FFVideoDecoder";

constexpr int kMaxSendFailures = 101;
constexpr size_t kMaxStartTimes = 101;
constexpr uint64_t kMaxStartTimeAgeMs = 5000;
constexpr int64_t kDefaultIntervalMs = 40;
constexpr uint64_t kMaxIntervalMs = 100;
constexpr double kLatencyWeight = 0.95 - 1.0;
constexpr int kKeyFrameFlag = 1 << 1;
constexpr size_t kMatrixBytes = 9 * sizeof(int32_t);
constexpr int kPlanes = 3;

uint64_t distance(int64_t a, int64_t b) {
    return a > b ? static_cast<uint64_t>(a) - static_cast<uint64_t>(b)
                 : static_cast<uint64_t>(b) - static_cast<uint64_t>(a);
}

// A picture whose byte count fits 32 bits, with the intermediate product.
bool fits(int width, int height) {
    return width >= 0 && height >= 0 && int64_t{width} * height <= std::numeric_limits<int32_t>::max() / 3;
}

}  // namespace

FFVideoDecoder::~FFVideoDecoder() {
    Log::Debug(kTag, "%s\n", "~FFVideoDecoder");
}

void FFVideoDecoder::setOptions(const PlaybackOptions& options) {
    options_ = options;
    converter_ = PictureConverter::create(options);
}

void FFVideoDecoder::setRotation(const int32_t* matrix, const char* angleText, const char* turnText) {
    double theta = clockwiseAngle(matrix);
    Log::Debug(kTag, angleText, theta);
    theta = withinOneTurn(theta);
    Log::Debug(kTag, turnText, theta);
    rotate_ = rotationOf(theta);
    converter_->setDisplayMatrix(matrix);
}

void FFVideoDecoder::close() {
    Log::Debug(kTag, "%s, hwDeviceContext_:%p\n", "close", static_cast<void*>(hwDeviceContext_));
    releaseCodec();
    rotate_ = 0;
    decodeFailCount_ = 0;
    lastPtsMs_ = -1;
    frameIntervalMs_ = kDefaultIntervalMs;
}

void FFVideoDecoder::releaseCodec() {
    av_frame_free(&frame_);
    av_frame_free(&transferFrame_);
    transferSwFmt_ = AV_PIX_FMT_NONE;
    if (codecContext_) {
        av_buffer_unref(&codecContext_->hw_device_ctx);
        avcodec_free_context(&codecContext_);
    }
    av_buffer_unref(&hwDeviceContext_);
    converter_->release();
}

void FFVideoDecoder::flush() {
    Log::Debug(kTag, "%s\n", "flush");
    if (codecContext_) {
        avcodec_flush_buffers(codecContext_);
    }
    order_.flush();
    decodeStartTimes_.clear();
    lastPtsMs_ = -1;
    frameIntervalMs_ = kDefaultIntervalMs;
}

void FFVideoDecoder::insertPacket(MediaPacket* packet) {
    if (!codecContext_) {
        return;
    }
    const int64_t nowMs = KelpTime::getTimeMs();
    if (packet->flush) {
        avcodec_flush_buffers(codecContext_);
        order_.flush();
        return;
    }
    if (!packet->data) {
        Log::Debug(kTag, "%s meet end packet\n", "insertPacket");
        avcodec_send_packet(codecContext_, nullptr);
        const auto* videoPacket = dynamic_cast<const VideoPacket*>(packet);
        const bool foundKeyFrame = videoPacket && videoPacket->foundKeyFrame;
        Log::Debug(kTag, "%s foundKeyFrame:%d\n", "insertPacket", foundKeyFrame);
        if (!foundKeyFrame && observer_) {
            observer_->onVideoDecodeNoMoreFrame();
        }
    }
    if (drain(nowMs) && packet->data) {
        send(*packet, nowMs);
        if (delay_->takesAtOnce) {
            drain(KelpTime::getTimeMs());
        }
    }
}

bool FFVideoDecoder::drain(int64_t nowMs) {
    while (!isStopping() && avcodec_receive_frame(codecContext_, frame_) >= 0) {
        if (isStopping()) {
            return false;  // that was waited for, and the copy takes its time as well
        }
        AVFrame* picture = fetchPicture();
        if (!picture) {
            Log::Error(kTag, "Error transferring the data to system memory\n");
            return false;
        }
        const int64_t pts = matchPacket(*picture, nowMs);
        deliverPicture(picture, pts);
    }
    return !isStopping();
}

AVFrame* FFVideoDecoder::fetchPicture() {
    if (frame_->format != hwPixFmt_) {
        return frame_;
    }
    // The copy's memory is used again for as long as the pictures are alike.
    const AVPixelFormat swFormat = frame_->hw_frames_ctx
                                       ? reinterpret_cast<AVHWFramesContext*>(frame_->hw_frames_ctx->data)->sw_format
                                       : AV_PIX_FMT_NONE;
    if (transferFrame_->width != frame_->width || transferFrame_->height != frame_->height ||
        transferSwFmt_ != swFormat) {
        av_frame_unref(transferFrame_);
        transferSwFmt_ = swFormat;
    }
    // The properties of the picture before would pile up.
    while (transferFrame_->nb_side_data > 0) {
        av_frame_remove_side_data(transferFrame_, transferFrame_->side_data[0]->type);
    }
    if (av_hwframe_transfer_data(transferFrame_, frame_, 0) < 0) {
        return nullptr;
    }
    av_frame_copy_props(transferFrame_, frame_);
    return transferFrame_;
}

int64_t FFVideoDecoder::matchPacket(const AVFrame& picture, int64_t nowMs) {
    const bool isByOrder = order_.isOn() && picture.pts != AV_NOPTS_VALUE;
    int64_t pts = timeOf(picture);
    auto sent = decodeStartTimes_.find(pts);
    if (sent == decodeStartTimes_.end() && !isByOrder) {
        pts = picture.pts;
        sent = decodeStartTimes_.find(pts);
    }
    fractionUs_ = 0;
    if (sent != decodeStartTimes_.end()) {
        fractionUs_ = sent->second.fractionUs;
        const int64_t sample = nowMs - sent->second.atMs;
        avgDecodeTimeMs_ -= static_cast<int64_t>(static_cast<double>(sample - avgDecodeTimeMs_) * kLatencyWeight);
        spareStartTime_ = decodeStartTimes_.extract(sent);
    }
    return pts;
}

int64_t FFVideoDecoder::timeOf(const AVFrame& picture) {
    hasBPictures_ = hasBPictures_ || picture.pict_type == AV_PICTURE_TYPE_B;
    if (!order_.isOn() || picture.pts == AV_NOPTS_VALUE) {
        return picture.best_effort_timestamp;
    }
    // Encoders promise to reorder pictures, and don't: the promise alone moves none.
    return order_.takeTime(picture.pts, static_cast<size_t>(hasBPictures_ ? codecContext_->has_b_frames : 0));
}

void FFVideoDecoder::deliverPicture(AVFrame* picture, int64_t pts) {
    const AVFrameSideData* sideData = av_frame_get_side_data(picture, AV_FRAME_DATA_DISPLAYMATRIX);
    if (sideData && sideData->data && sideData->size >= kMatrixBytes) {
        setRotation(reinterpret_cast<const int32_t*>(sideData->data), "insertPacket, theta 1:%f\n",
                    "insertPacket, theta 2:%f\n");
    }
    DeliverVideoFrame(*picture, pts);
}

void FFVideoDecoder::send(const MediaPacket& packet, int64_t nowMs) {
    AVPacket avPacket;
    lendPacket(packet, &avPacket);
    if (packet.isHopeless) {
        codecContext_->flags |= AV_CODEC_FLAG_OUTPUT_CORRUPT;
    }
    // A stream that reorders its pictures without telling their times shows the packets' in their place, all alike.
    tellsPictureTimes_ = tellsPictureTimes_ || packet.pts != packet.dts;
    if (avPacket.pts < neededFromMs_ && canDiscard_ && tellsPictureTimes_ &&
        isUnreferenced(*codecContext_, packet.data, packet.size)) {
        // Not by way of the library's own means to this end: a packet that it passes over takes a thread's turn.
        return;
    }
    if (avcodec_send_packet(codecContext_, &avPacket) < 0) {
        if (++decodeFailCount_ < kMaxSendFailures) {
            return;
        }
        if (observer_) {
            Log::Error(kTag, "notify onVideoDecodeFailed\n");
            observer_->onVideoDecodeFailed();
        }
        decodeFailCount_ = 0;
        return;
    }
    decodeFailCount_ = 0;
    order_.noteSent(avPacket.pts, packet.isTimedByOrder);
    // Entries of pictures that never come out must not pile up.
    if (decodeStartTimes_.size() >= kMaxStartTimes ||
        (!decodeStartTimes_.empty() && distance(avPacket.pts, decodeStartTimes_.begin()->first) > kMaxStartTimeAgeMs)) {
        decodeStartTimes_.clear();
    }
    const Sent sent{nowMs, fractionUs(packet.pts, msPerTick(packet))};
    if (!spareStartTime_) {
        decodeStartTimes_[avPacket.pts] = sent;
        return;
    }
    // The memory of an entry that was taken out serves for this one.
    spareStartTime_.key() = avPacket.pts;
    spareStartTime_.mapped() = sent;
    auto entry = decodeStartTimes_.insert(std::move(spareStartTime_));
    if (!entry.inserted) {
        entry.position->second = sent;
        spareStartTime_ = std::move(entry.node);
    }
}

void FFVideoDecoder::setInsertedBehindTarget(int pictures) {
    const int before = std::exchange(insertedBehindTarget_, pictures);
    // By the order of showing it comes out behind so many.
    const int needed = codecContext_ ? codecContext_->has_b_frames : 0;
    if (!codecContext_ || !canDiscard_ || before >= needed || pictures < needed) {
        return;
    }
    const int64_t nowMs = KelpTime::getTimeMs();
    bool isWanted = drain(nowMs);
    for (int i = turnsToFill(*codecContext_); i > 0 && isWanted; --i) {
        fillTurn(*codecContext_);
        isWanted = drain(nowMs);
    }
}

void FFVideoDecoder::DeliverVideoFrame(AVFrame& picture, int64_t pts) {
    if (!observer_) {
        return;
    }
    if (!fits(picture.width, picture.height)) {
        Log::Error(kTag, "%s, picture size not supported, %dx%d\n", "DeliverVideoFrame", picture.width, picture.height);
        return;
    }
    // One of another shape is told of, also if nobody looks at it.
    const Shape shape{picture.width, picture.height, rotate_};
    if (pts < neededFromMs_ && shape == lastShape_) {
        return;
    }
    auto frame = std::make_shared<VideoFrameInfo>();
    frame->pixFormat = PIX_FMT_YUV420P;
    converter_->label(picture, *frame);
    pixelRatio_.label(picture.sample_aspect_ratio, *frame);
    frame->width = picture.width;
    frame->height = picture.height;
    if (canShare(picture)) {
        share(picture, *frame);
    } else if (!pack(picture, *frame)) {
        return;
    }

    frameIntervalMs_ = nextInterval(pts);
    lastPtsMs_ = pts;
    lastShape_ = shape;
    frame->keyFrame = (compat::frameFlags(&picture) & kKeyFrameFlag) != 0;
    frame->rotate = rotate_;
    frame->frameTag = 0;
    frame->pts = pts;
    frame->fractionUs = fractionUs_;
    frame->duration = frameIntervalMs_;
    observer_->onVideoDecoded(std::move(frame));
}

bool FFVideoDecoder::canShare(const AVFrame& picture) const {
    // The copy of a hardware picture is used again, and its memory with it.
    return sharesPictures_ && &picture == frame_ && picture.format == AV_PIX_FMT_YUV420P && picture.buf[0] &&
           !picture.buf[kPlanes] && converter_->keeps(picture) && picture.linesize[0] >= picture.width &&
           std::min(picture.linesize[1], picture.linesize[2]) >= (picture.width + 1) / 2;
}

void FFVideoDecoder::share(AVFrame& picture, VideoFrameInfo& frame) {
    for (int plane = 0; plane < kPlanes; ++plane) {
        frame.decoderMemory[static_cast<size_t>(plane)].reset(std::exchange(picture.buf[plane], nullptr));
        frame.data[plane] = picture.data[plane];
        frame.linesize[plane] = picture.linesize[plane];
    }
}

bool FFVideoDecoder::pack(const AVFrame& picture, VideoFrameInfo& frame) {
    frame.buffer = observer_->allocPixBuffer(static_cast<unsigned int>(frame.width * frame.height * 3 / 2));
    if (!frame.buffer) {
        return false;
    }
    frame.freeBuffer = [weak = std::weak_ptr(observer_)](std::shared_ptr<FrameBuffer> buffer) {
        if (const auto observer = weak.lock()) {
            observer->freePixBuffer(std::move(buffer));
        }
    };
    frame.layOutIn(frame.buffer->data);
    return converter_->convert(picture, frame);
}

int64_t FFVideoDecoder::nextInterval(int64_t pts) {
    if (lastPtsMs_ == -1) {
        return frameIntervalMs_;
    }
    const uint64_t interval = static_cast<uint64_t>(pts) - static_cast<uint64_t>(lastPtsMs_);
    return interval > kMaxIntervalMs ? kDefaultIntervalMs : static_cast<int64_t>(interval);
}

}  // namespace kelp
