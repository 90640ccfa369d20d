#include <algorithm>
#include <cstring>
#include <utility>

#include "clock/wrapping_math.h"
#include "decode/audio_frame_info.h"
#include "decode/video_frame_info.h"
#include "input/tick_math.h"
#include "kelp_player/kelp_player.h"
#include "kelp_player/log.h"
#include "playtask/play_task.h"

// What the stages report: what more than the next stage is to know of, and events for the player.

namespace kelp {

void PlayTask::onFirstPakcet(std::shared_ptr<MediaPacket> packet) {
    if (packet->timeBaseDen <= 0) {
        return;
    }
    Log::Info(kTag, "%s, packet.info: %s\n", "onFirstPakcet", packet->toString().c_str());
    const int64_t ptsMs = ticksToMs(packet->pts, packet->timeBaseNum, packet->timeBaseDen);
    if (isHostSeek()) {
        raise(EVENT_FIRST_PACKET, static_cast<int>(ptsMs), 0, 0);
    }
}

int PlayTask::onVideoPacket(std::shared_ptr<VideoPacket> packet) {
    const auto codecInfo = codecInfo_.load();
    if (codecInfo && codecInfo->videoCodecType == VIDEO_CODEC_270) {
        passThrough(*packet);
        return 0;
    }
    auto videoDecode = videoDecodeThread_.load();
    if (!videoDecode) {
        videoDecode = coverDecodeThread_.load();
    }
    return videoDecode ? videoDecode->fillPacket(std::move(packet)) : 0;
}

void PlayTask::passThrough(const VideoPacket& packet) {
    anyDecoded_.store(true, std::memory_order_relaxed);
    const auto videoPlay = videoPlayThread_.load();
    if (!packet.data || packet.size <= 0 || !videoPlay) {
        return;
    }
    const auto frame = std::make_shared<VideoFrameInfo>();
    frame->pixFormat = PIX_FMT_PACKET;
    frame->buffer = allocPixBuffer(static_cast<unsigned int>(packet.size));
    if (!frame->buffer) {
        return;
    }
    // Not the decode thread's way back: this frame may outlive that thread.
    frame->freeBuffer = [weakTask = std::weak_ptr<PlayTask>(shared_from_this())](std::shared_ptr<FrameBuffer> buffer) {
        if (const auto task = weakTask.lock()) {
            task->freePixBuffer(std::move(buffer));
        }
    };
    std::memcpy(frame->buffer->data, packet.data, static_cast<size_t>(packet.size));
    frame->data[0] = frame->buffer->data;
    frame->linesize[0] = packet.size;
    frame->width = 0;
    frame->height = 0;
    frame->frameTag = packet.pts;
    frame->pts = packet.timeBaseDen == 0 ? packet.pts : ticksToMs(packet.pts, packet.timeBaseNum, packet.timeBaseDen);
    if (packet.turn) {
        frame->turnsMs = packet.turn->shiftMs;
        frame->pts = wrappingAdd(frame->pts, frame->turnsMs);
        if (!packet.turn->holds(frame->pts)) {
            return;
        }
    }
    videoPlay->fillFrame(frame);
}

void PlayTask::onVideoDecoded(std::shared_ptr<VideoFrameInfo> frame) {
    anyDecoded_.store(true, std::memory_order_relaxed);
    if (eventCallback_ && frame->width > 0 && frame->height > 0 &&
        detail_.change(frame->width, frame->height, frame->rotate)) {
        raise(EVENT_VIDEO_SIZE_UPDATED, frame->width, frame->height, frame->rotate);
    }
    const auto pictures = pictureThread();
    if (!pictures) {
        return;
    }
    pictures->fillFrame(std::move(frame));
    if (const auto videoDecode = videoDecodeThread_.load()) {
        renderTiming_->setDecoderTimeMs(videoDecode->getAvgDecodeTimeMs());
    }
}

void PlayTask::onVideoDecodeFailed() {
    raise(EVENT_FAILED, ERROR_TYPE_VIDEO_DECODE, enableHwDecoder_, 0);
}

void PlayTask::onVideoDecodeNoMoreFrame() {
    Log::Debug(kTag, "%s\n", "onVideoDecodeNoMoreFrame");
    // No picture will end a seek that landed behind the last key frame.
    seekTurns_.noMoreFrame();
    dropStepOfSeek();
    if (const auto next = seekTurns_.newest()) {
        postReplay(*next);
    } else {
        resumeBehindSeek();
    }
}

void PlayTask::onAudioDecoded(std::shared_ptr<AudioFrameInfo> frame) {
    anyDecoded_.store(true, std::memory_order_relaxed);
    if (const auto audioPlay = audioPlayThread_.load()) {
        audioPlay->fillFrame(std::move(frame));
    }
}

bool PlayTask::isFirstTold(std::atomic<bool>& owed) {
    const bool isOwed = owed.exchange(false);
    return isHostSeek() || (isOwed && seekFor_ == SeekFor::Loop);
}

void PlayTask::firstVideoFrame(int64_t framePtsMs, SeekTurns::FrameOf of) {
    Log::Info(kTag, "%s, framePtsMs:%lld\n", "onFirstVideoFrame", static_cast<long long>(framePtsMs));
    if (isFirstTold(isPictureOwed_)) {
        raise(EVENT_FIRST_VIDEO_FRAME, static_cast<int>(filmMs(framePtsMs)), 0, 0);
    }
    isShowing_ = hasBegun_ = true;
    if (!coverPlayThread_.load()) {
        finishSeek(framePtsMs, of);
    }
}

void PlayTask::firstAudioFrame(int64_t framePtsMs, SeekTurns::FrameOf of) {
    Log::Info(kTag, "%s, framePtsMs:%lld\n", "onFirstAudioFrame", static_cast<long long>(framePtsMs));
    if (isFirstTold(isSoundOwed_) && !isSoundOfStep_) {
        raise(EVENT_FIRST_AUDIO_FRAME, static_cast<int>(filmMs(framePtsMs)), 0, 0);
    }
    isShowing_ = hasBegun_ = true;
    // Video, where there is any, has the say over the clock and the seek.
    if (!videoPlayThread_.load()) {
        finishSeek(framePtsMs, of);
    }
}

// What is on its way to a seek's target, or among steps, is never late.
std::optional<int64_t> PlayTask::onVideoDue() {
    const auto videoPlay = videoPlayThread_.load();
    return videoPlay && seekTurns_.isIdle() && !hasStepped_ ? videoPlay->dueMs() : std::nullopt;
}

void PlayTask::onFileEnd(int64_t maxVideoPtsMs, int64_t maxAudioPtsMs) {
    Log::Debug(kTag, "%s, isSeeking_:%d, seekQueue:%d, max video pts:%lld, audio pts:%lld\n", "onFileEnd",
               seekTurns_.target().has_value(), seekTurns_.waiting(), static_cast<long long>(maxVideoPtsMs),
               static_cast<long long>(maxAudioPtsMs));
    onLastTimes(maxVideoPtsMs, maxAudioPtsMs);
    // The real end overrides what the container said, in both directions.
    const int64_t duration = std::max({maxVideoPtsMs, maxAudioPtsMs, inputLengthMs_});
    if (duration >= 1 && duration != durationMs_) {
        durationMs_ = duration;
        raise(EVENT_DURATION_UPDATED, static_cast<int>(duration), 0, 0);
    }
}

// A stop empties the queues as well, and lets the parser see the request first.
void PlayTask::onPlaybackCompleted() {
    if (isStopping()) {
        return;
    }
    if (loadOptions_.allCodecs && !anyDecoded_) {
        Log::Error(kTag, "%s can't be played: nothing of it could be decoded\n", fileName_.c_str());
        onPlayFailed();
    } else if (endSeeks(&SeekTurns::completed)) {
        raise(EVENT_COMPLETED, 0, 0, 0);
    }
}

void PlayTask::onPlayFailed() {
    if (!isStopping() && endSeeks(&SeekTurns::failed)) {
        raise(EVENT_FAILED, ERROR_TYPE_STREAM, 1, 0);
    }
}

}  // namespace kelp
