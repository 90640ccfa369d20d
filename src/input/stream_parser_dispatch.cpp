// The hand-over of packets, on the parser's thread: which ones go on, and what a stage gets of what the demuxer has
// read.

#include <algorithm>
#include <cstring>
#include <utility>

#include "clock/timestamp_extrapolator.h"
#include "clock/wrapping_math.h"
#include "input/stream_parser.h"
#include "input/tick_math.h"
#include "kelp_player/log.h"
#include "runtime/kelp_time.h"

extern "C" {
#include <libavcodec/bsf.h>
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

namespace kelp {
namespace {

constexpr const char* TAG = "StreamParser";

bool isKeyFrame(const AVPacket* packet) {
    return (packet->flags & AV_PKT_FLAG_KEY) != 0;
}

// Null if there is nothing in it that a decoder looks at.
std::shared_ptr<const AVPacket> copySideData(const AVPacket& source) {
    const auto isForDecoder = [](const AVPacketSideData& data) { return data.type != AV_PKT_DATA_MPEGTS_STREAM_ID; };
    if (std::none_of(source.side_data, source.side_data + source.side_data_elems, isForDecoder)) {
        return nullptr;
    }
    std::shared_ptr<AVPacket> copy(av_packet_alloc(), [](AVPacket* packet) { av_packet_free(&packet); });
    return copy && av_packet_copy_props(copy.get(), &source) >= 0 ? copy : nullptr;
}

int64_t timeMs(const MediaPacket& packet) {
    return packet.timeBaseDen > 0 ? ticksToMs(packet.pts, packet.timeBaseNum, packet.timeBaseDen) : -1;
}

}  // namespace

void StreamParser::handlePacket(AVPacket* packet) {
    if (coverStream_ && packet->stream_index == coverStream_->index) {
        return;
    }
    if (packet->stream_index == subtitleStreamIndex_) {
        subtitles_->onSubtitlePacket(*packet);
        return;
    }
    size_t size = 0;
    const uint8_t* extraData = av_packet_get_side_data(packet, AV_PKT_DATA_NEW_EXTRADATA, &size);
    if (extraData && size != 0) {
        Log::Debug(TAG, "Entry meet new extra data:%p size:%d\n", static_cast<const void*>(extraData),
                   static_cast<int>(size));
    }
    clearInputEnd();

    if (holdUnsure(*packet) || holdNextVideo(*packet) || isForNobody(*packet) ||
        (loop_.isOn() && isBehindLoop(*packet))) {
        return;
    }
    const bool isVideo = packet->stream_index == videoStreamIndex_;
    if (foundKeyFrame_ || !isVideo) {
        if (isVideo && isKeyFrame(packet) &&
            (videoCodecType_ == VIDEO_CODEC_H264 || videoCodecType_ == VIDEO_CODEC_HEVC)) {
            Log::Debug(TAG, "meet key frame\n");
        }
        disPatchPacket(packet);
    } else if (isKeyFrame(packet)) {
        for (const auto& before : mending_.takeKept()) {
            logDroppedPacket(before.get());
        }
        mending_.setMarked();
        logFirstKeyFrame(packet);
        disPatchPacket(packet);
        foundKeyFrame_ = true;
    } else if (mending_.isShownUnmarked(*packet, *videoStream_)) {
        showUnmarked();
        disPatchPacket(packet);
        foundKeyFrame_ = true;
    } else if (!mending_.keep(*packet)) {
        logDroppedPacket(packet);
    }
}

void StreamParser::showUnmarked() {
    for (const auto& packet : mending_.takeKept()) {
        disPatchPacket(packet.get());
        foundKeyFrame_ = true;
    }
}

void StreamParser::logFirstKeyFrame(const AVPacket* packet) {
    const AVRational base = videoStream_->time_base;
    if (packet->pts == AV_NOPTS_VALUE || !observer_ || base.den <= 0) {
        return;
    }
    const int64_t pts = wrappingSubtract(packet->pts, startTimeInVideoTimeBase_);
    const int audioQueueSize = observer_->onAudioPacketQueueSize();
    const int videoQueueSize = observer_->onVideoPacketQueueSize();
    Log::Info(TAG, "found first key frame, pts:%lld, pts_ms:%lld, aq:%d, vq:%d\n", static_cast<long long>(pts),
              static_cast<long long>(ticksToMs(pts, base.num, base.den)), audioQueueSize, videoQueueSize);
}

void StreamParser::logDroppedPacket(const AVPacket* packet) {
    const AVRational base = videoStream_->time_base;
    const int64_t start = startTimeInVideoTimeBase_;
    Log::Warn(TAG, "not key frame, this_pts:%lld, start_pts:%lld, skip pts:%lld...\n",
              static_cast<long long>(ticksToMs(packet->pts, base.num, base.den)),
              static_cast<long long>(ticksToMs(start, base.num, base.den)),
              static_cast<long long>(ticksToMs(wrappingSubtract(packet->pts, start), base.num, base.den)));
}

void StreamParser::disPatchPacket(AVPacket* packet) {
    if (packet->stream_index == videoStreamIndex_) {
        mending_.fillTime(*packet, *videoStream_, /*isVideo=*/true);
        noteRead(*packet, videoRead_);
        if (!observer_ || dispatchVideo(packet)) {
            measureKeyFrameGap(packet);
        }
    } else if (packet->stream_index == audioStreamIndex_) {
        mending_.fillTime(*packet, *audioStream_, /*isVideo=*/false);
        noteRead(*packet, audioRead_);
        if (observer_) {
            dispatchAudio(packet);
        }
    } else {
        Log::Error(TAG, "dispatch packet: unknown stream id:%d\n", packet->stream_index);
    }
}

void StreamParser::noteRead(const AVPacket& packet, ReadCounts& counts) {
    counts.add(packet.size, KelpTime::getTimeMs());
    packets_->packet({videoStream_, audioStream_, bsfContext_ ? bsfContext_->par_in : nullptr}, packet);
}

void StreamParser::dispatchAudio(const AVPacket* packet) {
    auto audioPacket = std::make_shared<AudioPacket>();
    audioPacket->track = audioTrack_;
    audioPacket->turn = loop_.turn();
    fillMediaPacketInfo(audioPacket, packet, audioStream_, /*isVideo=*/false);
    lastSoundMs_ = timeMs(*audioPacket);
    soundEnded_ = false;
    noteInLoop(*audioPacket);
    observer_->onAudioPakcet(audioPacket);
    sendFirstPacket(audioPacket);
}

bool StreamParser::dispatchVideo(AVPacket* packet) {
    if (bsfContext_ && !convertToAnnexB(packet)) {
        return false;
    }
    auto videoPacket = std::make_shared<VideoPacket>();
    videoPacket->keyFrame = isKeyFrame(packet);
    videoPacket->foundKeyFrame = foundKeyFrame_;
    videoPacket->isHopeless = mending_.isHopeless(*packet, *videoStream_);
    videoPacket->isTimedByOrder = mending_.isTimedByOrder(*packet);
    videoPacket->track = videoTrack_;
    videoPacket->turn = loop_.turn();
    fillMediaPacketInfo(videoPacket, packet, videoStream_, /*isVideo=*/true);
    if (extrapolator_ && isLive_) {
        extrapolator_->update(videoPacket->pts);
    }
    videoEnded_ = false;
    noteInLoop(*videoPacket);
    observer_->onVideoPacket(videoPacket);
    sendFirstPacket(videoPacket);
    return true;
}

void StreamParser::noteInLoop(const MediaPacket& packet) {
    if (loop_.isOn() && packet.timeBaseDen > 0) {
        loop_.noteHandedOn(av_rescale(packet.pts, packet.timeBaseNum * AV_TIME_BASE, packet.timeBaseDen));
    }
}

void StreamParser::sendFirstPacket(const std::shared_ptr<MediaPacket>& packet) {
    if (!firstPacketSent_) {
        observer_->onFirstPakcet(packet);
        firstPacketSent_ = true;
        firstPacketMs_ = std::max<int64_t>(timeMs(*packet), 0);
    }
}

// The filter gives one packet for one; `packet` holds the converted one afterwards.
bool StreamParser::convertToAnnexB(AVPacket* packet) {
    if (packet->size == 0) {
        // Nothing to convert, and the filter would take it for the end of the stream.
        return true;
    }
    int result = av_bsf_send_packet(bsfContext_, packet);
    if (result < 0) {
        Log::Error(TAG, "h264_mp4toannexb filter failed to send input packet\n");
        return false;
    }
    while (result == 0) {
        result = av_bsf_receive_packet(bsfContext_, packet);
    }
    if (result < 0 && result != AVERROR(EAGAIN) && result != AVERROR_EOF) {
        Log::Error(TAG, "h264_mp4toannexb filter failed to receive output packet\n");
        return false;
    }
    return true;
}

void StreamParser::measureKeyFrameGap(const AVPacket* packet) {
    if (!isKeyFrame(packet)) {
        return;
    }
    const int64_t last = std::exchange(lastKeyFramePts_, packet->pts);
    const AVRational base = videoStream_->time_base;
    if (last < 0 || base.den <= 0) {
        return;
    }
    const double ticks = static_cast<double>(packet->pts) - static_cast<double>(last);
    const double gapMs = static_cast<double>(base.num) / base.den * ticks * 1000.0;
    maxKeyFrameDurationMs_ = std::max(maxKeyFrameDurationMs_, truncated<int64_t>(gapMs));
}

void StreamParser::fillMediaPacketInfo(std::shared_ptr<MediaPacket> packet, const AVPacket* source,
                                       const AVStream* stream, bool isVideo) {
    const int64_t start = isVideo ? startTimeInVideoTimeBase_ : startTimeInAudioTimeBase_;
    const int64_t best = source->pts != AV_NOPTS_VALUE ? source->pts : source->dts;
    const bool isBestKnown = best != AV_NOPTS_VALUE;

    packet->data = new unsigned char[source->size];
    if (source->size > 0) {
        std::memcpy(packet->data, source->data, source->size);
    }
    packet->size = source->size;
    packet->pos = source->pos;
    packet->dts = wrappingSubtract(isBestKnown && source->dts != AV_NOPTS_VALUE ? source->dts : 0, start);
    packet->pts = wrappingSubtract(isBestKnown ? best : 0, start);
    packet->duration = source->duration;
    packet->timeBaseNum = stream->time_base.num;
    packet->timeBaseDen = stream->time_base.den;
    packet->flags = source->flags;
    // Behind the filter a configuration in its old form would be misread.
    if (keepsSideData_ && !(isVideo && bsfContext_)) {
        packet->sideData = copySideData(*source);
    }

    const double den = static_cast<double>(packet->timeBaseDen);
    const double factor = den > 0 ? static_cast<double>(packet->timeBaseNum) * 1000.0 / den : 1.0;
    int64_t& maxPtsMs = isVideo ? maxVideoPtsMs_ : maxAudioPtsMs_;
    maxPtsMs = std::max(maxPtsMs, truncated<int64_t>(static_cast<double>(packet->pts) * factor));
    const double end = static_cast<double>(packet->pts) + static_cast<double>(packet->duration);
    int64_t& endMs = isVideo ? videoEndMs_ : audioEndMs_;
    endMs = std::max(endMs, truncated<int64_t>(end * factor));
    (isVideo ? videoReach_ : audioReach_).note(packet->pts, wrappingAdd(packet->pts, packet->duration));
}

}  // namespace kelp
