#include "decode/audio_decode_thread.h"

#include <utility>

#include "decode/audio_decoder_factory.h"
#include "decode/audio_frame_info.h"
#include "input/loop_turn.h"
#include "input/media_packet.h"
#include "kelp_player/codec_info.h"
#include "kelp_player/log.h"
#include "runtime/kelp_time.h"

namespace kelp {

constexpr char kTag[] = "AudioDecodeThread";
constexpr int kMaxWaitingFrames = 20;
// In which any decoder's sound becomes what it would be had it decoded all before: an MP3 frame may use bits of many
// frames before it.
constexpr int64_t kLeadInMs = 500;
constexpr int64_t kMaxUnseenRoomMs = 30;

AudioDecodeThread::AudioDecodeThread()
    : BaseDecodeThread(kTag, kLeadInMs), decoderFactory_(std::make_shared<AudioDecoderFactory>()) {
}

bool AudioDecodeThread::open(AudioCodecType codecType, const void* codecParameters, AudioOutputSpec spec,
                             std::shared_ptr<AudioDecodeThreadObserver> observer, const PlaybackOptions& options) {
    observer_ = std::move(observer);
    spec_ = spec;
    loopSound_.setSpec(spec);
    options_ = options;
    return openDecoder(codecType, codecParameters);
}

bool AudioDecodeThread::openDecoder(AudioCodecType codecType, const void* codecParameters) {
    decoder_ = decoderFactory_->create(codecType);
    if (decoder_) {
        decoder_->setOptions(options_);
    }
    const std::shared_ptr<AudioDecoderObserver> self = shared_from_this();
    if (!decoder_ || !decoder_->open(codecType, codecParameters, self)) {
        Log::Error(kTag, "play, failed open audio decoder\n");
        return false;
    }
    decoder_->setOutputSpec(spec_);
    counts_.opened(decoder_->name(), /*onHardware=*/false);
    return true;
}

bool AudioDecodeThread::openSync(bool open) {
    syncOpen_ = open;
    return decoder_ && decoder_->openSync(open);
}

// The flag goes before the count that ends the rest, so the look that follows sees it.
void AudioDecodeThread::readAgain() {
    dropPackets();
    isHurried_ = true;
    BaseDecodeThread::framesTaken();
}

void AudioDecodeThread::changeTrack(std::shared_ptr<const CodecInfo> track) {
    track_ = std::move(track);
    if (decoder_) {
        decoder_->close();
    }
    if (openDecoder(track_->audioCodecType, track_->audioParameters)) {
        decoder_->openSync(syncOpen_);
    } else if (decoder_) {
        decoder_->close();
        decoder_.reset();
    }
    if (observer_) {
        observer_->onAudioDecodeTrack();
    }
    isHurried_ = false;
}

// As VideoDecodeThread::changeTurn.
void AudioDecodeThread::changeTurn(std::shared_ptr<const LoopTurn> turn) {
    const bool follows = !isEmpty_ && turn && turn->shiftMs != (turn_ ? turn_->shiftMs : 0);
    if (follows && decoder_) {
        if (!isDrained_) {
            AudioPacket end;  // makes it give out what it still holds
            decoder_->insertPacket(&end);
        }
        decoder_->flush();
    }
    turn_ = std::move(turn);
    if (follows) {
        loopSound_.follow(turn_, observer_ ? observer_->seenMs() : -1);
        aim(static_cast<int>(turn_->lineFromMs()), /*flush=*/true);
    } else {
        loopSound_.setTurn(turn_);
    }
}

bool AudioDecodeThread::checkBuffer(int seekTimeMs) {
    const int64_t lastOutputPtsMs = lastOutputPtsMs_;
    Log::Debug(kTag, "%s, seekTimeMs:%d, lastOutputPtsMs:%lld\n", "checkBuffer", seekTimeMs,
               static_cast<long long>(lastOutputPtsMs));
    if (seekTimeMs < lastOutputPtsMs) {
        Log::Debug(kTag, "%s, seek time is small than last output pts\n", "checkBuffer");
        return false;
    }
    return BaseDecodeThread::checkBuffer(seekTimeMs);
}

bool AudioDecodeThread::clearBuffer(int seekTimeMs) {
    const int64_t lastOutputPtsMs = lastOutputPtsMs_;
    Log::Debug(kTag, "%s, seekTimeMs:%d, lastOutputPtsMs:%lld\n", "clearBuffer", seekTimeMs,
               static_cast<long long>(lastOutputPtsMs));
    if (seekTimeMs < lastOutputPtsMs) {
        const auto lock = queueLock();
        onSeek(seekTimeMs, /*flush=*/false);
        return false;
    }
    return BaseDecodeThread::clearBuffer(seekTimeMs);
}

void AudioDecodeThread::framesTaken(int left) {
    const int64_t nowMs = KelpTime::getTimeMs();
    const int64_t nextMs = nowMs + (nowMs - lastTakenMs_.exchange(nowMs));  // when another one is likely to go
    if (left == kMaxWaitingFrames - 1) {
        roomSinceMs_ = nowMs;
    }
    const bool isOverdue = left < kMaxWaitingFrames && nextMs - roomSinceMs_ > kMaxUnseenRoomMs;
    if (isOverdue || left <= kMaxWaitingFrames / 2) {
        BaseDecodeThread::framesTaken();
    }
}

bool AudioDecodeThread::canDecode() {
    return observer_ && (isHurried_ || observer_->onAudioFrameQueueSize() < kMaxWaitingFrames);
}

void AudioDecodeThread::decode(std::shared_ptr<MediaPacket> packet) {
    if (observer_) {
        observer_->onAudioPacketTaken();
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
    isDrained_ = !packet->data;
    if (decoder_) {
        decoder_->setNeededFrom(neededFromMs());
        decoder_->insertPacket(packet.get());
    }
    if (observer_ && !packet->data) {
        observer_->onAudioDecodeEnd();
    }
}

void AudioDecodeThread::onSeek(int seekTimeMs, bool flush) {
    Log::Debug(kTag, "%s\n", "onSeek");
    if (flush) {
        isEmpty_ = true;
        loopSound_.reset();
        if (decoder_) {
            decoder_->flush();
        }
    }
    const auto lock = aim(seekTimeMs, flush);
    if (observer_) {
        observer_->onAudioDecodeSeek(seekTimeMs, flush);
    }
}

void AudioDecodeThread::onExit() {
    Log::Debug(kTag, "onExit\n");
    if (decoder_) {
        decoder_->close();
        decoder_.reset();
    }
}

void AudioDecodeThread::onAudioDecoded(std::shared_ptr<AudioFrameInfo> frame) {
    if (turn_) {
        loopSound_.take(std::move(frame));
    } else {
        deliver(std::move(frame));
    }
}

void AudioDecodeThread::deliver(std::shared_ptr<AudioFrameInfo> frame) {
    lastOutputPtsMs_ = frame->pts;
    counts_.frames.add();
    if (observer_) {
        observer_->onAudioDecoded(std::move(frame));
    }
}

int AudioDecodeThread::onSpeedUpSamples() {
    return observer_ ? observer_->onSpeedUpSamples() : 0;
}

std::shared_ptr<FrameBuffer> AudioDecodeThread::allocPcmBuffer(unsigned int size) {
    return observer_ ? observer_->allocPcmBuffer(size) : nullptr;
}

void AudioDecodeThread::freePcmBuffer(std::shared_ptr<FrameBuffer> buffer) {
    if (observer_) {
        observer_->freePcmBuffer(std::move(buffer));
    }
}

}  // namespace kelp
