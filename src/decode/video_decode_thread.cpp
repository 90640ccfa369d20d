#include "decode/video_decode_thread.h"

#include <utility>

#include "clock/wrapping_math.h"
#include "input/loop_turn.h"
#include "input/media_packet.h"
#include "kelp_player/codec_info.h"
#include "kelp_player/log.h"
#include "runtime/kelp_time.h"

namespace kelp {

constexpr char kName[] = "VideoDecodeThread";  // of the thread, and the log tag
constexpr int kMaxWaitingFrames = 3;
constexpr int kMaxWaitingInLoop = 8;        // what leads into a turn takes its time
constexpr int64_t kLongestHoleMs = 500;     // at the beginning of a turn, without the picture that stands there
constexpr int64_t kMaxOverlapMs = 5000;     // of two tracks; times farther back have nothing to do with each other
constexpr int64_t kLongestGapUs = 200'000;  // between pictures while others come too late

VideoDecodeThread::VideoDecodeThread()
    : BaseDecodeThread(kName), decoderFactory_(std::make_shared<VideoDecoderFactory>()) {
}

bool VideoDecodeThread::open(VideoCodecType codecType, const void* codecParameters, PixFormat pixFormat, bool enableHw,
                             HwDecodeMode hwDecodeMode, bool isLive,
                             std::shared_ptr<VideoDecodeThreadObserver> observer, const PlaybackOptions& options) {
    observer_ = std::move(observer);
    enableHw_ = enableHw;
    hwDecodeMode_ = hwDecodeMode;
    isLive_ = isLive;
    options_ = options;
    return openDecoder(codecType, codecParameters, pixFormat);
}

bool VideoDecodeThread::openDecoder(VideoCodecType codecType, const void* codecParameters, PixFormat pixFormat) {
    decoder_ = decoderFactory_->create(codecType);
    if (!decoder_) {
        Log::Debug(kName, "play, failed create video decoder\n");
        return false;
    }
    decoder_->enableHardware(enableHw_, hwDecodeMode_);
    decoder_->setOptions(options_);
    const std::shared_ptr<VideoDecoderObserver> self = shared_from_this();
    if (!decoder_->open(codecType, codecParameters, pixFormat, isLive_, self)) {
        Log::Debug(kName, "play, failed open video decoder\n");
        return false;
    }
    counts_.opened(decoder_->name(), decoder_->isHardware());
    return true;
}

void VideoDecodeThread::changeTrack(std::shared_ptr<const CodecInfo> track) {
    track_ = std::move(track);
    if (decoder_) {
        giveOut();
        decoder_->close();
    }
    // The new one may begin before the end of the old one.
    knownToMs_ = deliveredMs_;
    if (!openDecoder(track_->videoCodecType, track_->videoParameters, track_->pixFormat)) {
        Log::Error(kName, "changeTrack, failed open video decoder\n");
        if (decoder_) {
            decoder_->close();
            decoder_.reset();
        }
    }
}

void VideoDecodeThread::giveOut() {
    VideoPacket end;
    end.foundKeyFrame = true;
    decoder_->insertPacket(&end);
}

// A flush that comes between two packets brings the next turn by itself, and its own target.
void VideoDecodeThread::changeTurn(std::shared_ptr<const LoopTurn> turn) {
    const bool follows = !isEmpty_ && turn && turn->shiftMs != (turn_ ? turn_->shiftMs : 0);
    if (follows && decoder_) {
        giveOut();
        deliverLead();
        VideoPacket flush;
        flush.flush = true;
        decoder_->insertPacket(&flush);
    }
    lead_.reset();
    turn_ = std::move(turn);
    if (follows) {
        aim(static_cast<int>(turn_->lineFromMs()), /*flush=*/true);
    }
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
    return observer_ && observer_->onVideoFrameQueueSize() < (turn_ ? kMaxWaitingInLoop : kMaxWaitingFrames);
}

// However slow it is, it gives out a picture now and then.
std::optional<int64_t> VideoDecodeThread::dueMs() {
    const bool isPictureWanted = KelpTime::getSteadyUs() - deliveredUs_ > kLongestGapUs;
    return observer_ && !isPictureWanted ? observer_->onVideoDue() : std::nullopt;
}

void VideoDecodeThread::onLeftOut(int dropped, int undelivered) {
    counts_.late.add(dropped + undelivered);
    for (int i = 0; observer_ && i < dropped; ++i) {
        observer_->onVideoPacketTaken();
    }
}

void VideoDecodeThread::decode(std::shared_ptr<MediaPacket> packet) {
    if (observer_) {
        observer_->onVideoPacketTaken();
    }
    if (packet->track && packet->track != track_) {
        changeTrack(packet->track);
    }
    if (packet->data) {
        if (packet->turn != turn_) {
            changeTurn(packet->turn);
        }
        isEmpty_ = false;
    }
    if (decoder_) {
        decoder_->setNeededFrom(neededFromMs());
        decoder_->insertPacket(packet.get());
        decoder_->setInsertedBehindTarget(takenBehindTarget());
        counts_.isHardware.store(decoder_->isHardware(), std::memory_order_relaxed);
    }
    // A stop has the decoder keep what it still holds.
    if (observer_ && !packet->data && !packet->flush && !isStopRequested()) {
        observer_->onVideoDecodeEnd();
    }
}

void VideoDecodeThread::onSeek(int seekTimeMs, bool flush) {
    Log::Debug(kName, "%s, seekTimeMs:%d, flush:%d\n", "onSeek", seekTimeMs, flush);
    if (flush) {
        deliveredMs_ = knownToMs_ = kNothing;
        isEmpty_ = true;
        lead_.reset();
        if (decoder_) {
            decoder_->flush();
        }
    }
    const auto lock = aim(seekTimeMs, flush);
    if (observer_) {
        observer_->onVideoDecodeSeek(seekTimeMs, flush);
    }
}

void VideoDecodeThread::onExit() {
    Log::Debug(kName, "onExit\n");
    lead_.reset();
    if (decoder_) {
        decoder_->close();
        decoder_.reset();
    }
}

void VideoDecodeThread::onVideoDecoded(std::shared_ptr<VideoFrameInfo> frame) {
    if (frame->pts <= knownToMs_ && wrappingSubtract(knownToMs_, frame->pts) < kMaxOverlapMs) {
        return;
    }
    if (turn_ && turn_->isAhead(frame->pts)) {
        lead_ = std::move(frame);
        return;
    }
    if (turn_ && !turn_->holds(frame->pts)) {
        return;
    }
    if (lead_ && frame->pts - turn_->lineFromMs() > kLongestHoleMs) {
        deliverLead();
    }
    lead_.reset();
    deliver(std::move(frame));
}

void VideoDecodeThread::deliverLead() {
    if (lead_) {
        lead_->pts = turn_->lineFromMs();
        lead_->fractionUs = 0;
        deliver(std::exchange(lead_, nullptr));
    }
}

void VideoDecodeThread::deliver(std::shared_ptr<VideoFrameInfo> frame) {
    if (turn_) {
        frame->turnsMs = turn_->shiftMs;
    }
    knownToMs_ = kNothing;
    deliveredMs_ = lastOutputPtsMs_ = frame->pts;
    deliveredUs_ = KelpTime::getSteadyUs();
    counts_.frames.add();
    if (const auto held = holder(); frame->pts == held.timeMs) {
        frame->lastsToMs = held.targetMs;
    }
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
