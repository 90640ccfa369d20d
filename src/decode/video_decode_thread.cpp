#include "decode/video_decode_thread.h"

#include <utility>

#include "input/media_packet.h"
#include "kelp_player/log.h"

namespace kelp {

constexpr char kName[] = "VideoDecodeThread";  // of the thread, and the log tag
constexpr int kMaxWaitingFrames = 3;

VideoDecodeThread::VideoDecodeThread()
    : BaseDecodeThread(kName), decoderFactory_(std::make_shared<VideoDecoderFactory>()) {
}

bool VideoDecodeThread::open(VideoCodecType codecType, const void* codecParameters, PixFormat pixFormat, bool enableHw,
                             HwDecodeMode hwDecodeMode, bool isLive,
                             std::shared_ptr<VideoDecodeThreadObserver> observer, const PlaybackOptions& options) {
    observer_ = std::move(observer);
    decoder_ = decoderFactory_->create(codecType);
    if (!decoder_) {
        Log::Debug(kName, "play, failed create video decoder\n");
        return false;
    }
    decoder_->enableHardware(enableHw, hwDecodeMode);
    decoder_->setOptions(options);
    const std::shared_ptr<VideoDecoderObserver> self = shared_from_this();
    if (!decoder_->open(codecType, codecParameters, pixFormat, isLive, self)) {
        Log::Debug(kName, "play, failed open video decoder\n");
        return false;
    }
    return true;
}

bool VideoDecodeThread::checkBuffer(int seekTimeMs) {
    const int64_t lastOutputPtsMs = lastOutputPtsMs_;
    Log::Debug(kName, "%s, seekTimeMs:%d, lastOutputPtsMs:%lld\n", "checkBuffer", seekTimeMs,
               static_cast<long long>(lastOutputPtsMs));
    if (seekTimeMs < lastOutputPtsMs) {
        Log::Debug(kName, "%s, seek time is small than last output pts\n", "checkBuffer");
        return false;
    }
    return BaseDecodeThread::checkBuffer(seekTimeMs);
}

bool VideoDecodeThread::clearBuffer(int seekTimeMs) {
    const int64_t lastOutputPtsMs = lastOutputPtsMs_;
    Log::Debug(kName, "%s, seekTimeMs:%d, lastOutputPtsMs:%lld\n", "clearBuffer", seekTimeMs,
               static_cast<long long>(lastOutputPtsMs));
    if (seekTimeMs < lastOutputPtsMs) {
        const auto lock = queueLock();
        onSeek(seekTimeMs, /*flush=*/false);
        return false;
    }
    return BaseDecodeThread::clearBuffer(seekTimeMs);
}

bool VideoDecodeThread::canDecode() {
    return observer_ && observer_->onVideoFrameQueueSize() < kMaxWaitingFrames;
}

void VideoDecodeThread::decode(std::shared_ptr<MediaPacket> packet) {
    if (observer_) {
        observer_->onVideoPacketTaken();
    }
    if (decoder_) {
        decoder_->setNeededFrom(neededFromMs());
        decoder_->insertPacket(packet.get());
        decoder_->setInsertedBehindTarget(takenBehindTarget());
    }
}

void VideoDecodeThread::onSeek(int seekTimeMs, bool flush) {
    Log::Debug(kName, "%s, seekTimeMs:%d, flush:%d\n", "onSeek", seekTimeMs, flush);
    if (flush && decoder_) {
        decoder_->flush();
    }
    const auto lock = aim(seekTimeMs, flush);
    if (observer_) {
        observer_->onVideoDecodeSeek(seekTimeMs, flush);
    }
}

void VideoDecodeThread::onExit() {
    Log::Debug(kName, "onExit\n");
    if (decoder_) {
        decoder_->close();
        decoder_.reset();
    }
}

void VideoDecodeThread::onVideoDecoded(std::shared_ptr<VideoFrameInfo> frame) {
    lastOutputPtsMs_ = frame->pts;
    if (observer_) {
        observer_->onVideoDecoded(std::move(frame));
    }
}

void VideoDecodeThread::onVideoDecodeFailed() {
    if (observer_) {
        observer_->onVideoDecodeFailed();
    }
}

void VideoDecodeThread::onVideoDecodeNoMoreFrame() {
    Log::Debug(kName, "%s\n", "onVideoDecodeNoMoreFrame");
    if (observer_) {
        observer_->onVideoDecodeNoMoreFrame();
    }
}

std::shared_ptr<FrameBuffer> VideoDecodeThread::allocPixBuffer(unsigned int size) {
    return observer_ ? observer_->allocPixBuffer(size) : nullptr;
}

void VideoDecodeThread::freePixBuffer(std::shared_ptr<FrameBuffer> buffer) {
    if (observer_) {
        observer_->freePixBuffer(std::move(buffer));
    }
}

}  // namespace kelp
