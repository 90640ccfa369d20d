// Loops: where a turn ends the input goes back to its beginning, and what is read carries the next turn.
//
// The stages meet neither an end nor a seek there. Each packet names its turn, so a decoder begins anew between the
// packets of two, whatever happens to the queue.

#include <algorithm>
#include <limits>
#include <utility>

#include "clock/wrapping_math.h"
#include "input/stream_parser.h"
#include "input/tick_math.h"
#include "kelp_player/log.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

namespace kelp {
namespace {

constexpr const char* TAG = "StreamParser";

constexpr int64_t kLongerSoundUs = 1'000'000;  // that goes on so long behind the last picture belongs to the film
constexpr int64_t kSoundLeadInMs = 150;        // sound is right only after some was decoded before it

// Where the stream ends; 0 if there is none.
int64_t endUs(const AVStream* stream, const StreamReach& reach) {
    if (!stream) {
        return 0;
    }
    const AVRational rate = stream->r_frame_rate;
    const bool isLengthKnown = reach.endTicks > reach.endFromTicks || rate.num <= 0 || rate.den <= 0;
    const int64_t lengthUs = isLengthKnown ? 0 : av_rescale_q(1, av_inv_q(rate), AV_TIME_BASE_Q);
    return std::max<int64_t>(av_rescale_q(reach.endTicks, stream->time_base, AV_TIME_BASE_Q) + lengthUs, 0);
}

}  // namespace

void StreamParser::setLoop(std::optional<Loop> loop) {
    loop_.ask(loop);
    endRest();
}

void StreamParser::changeLoop() {
    if (!loop_.take()) {
        return;
    }
    const bool isBeyond = isReadBeyondLoop();
    Log::Debug(TAG, "the loop has changed, on:%d, beyond:%d\n", loop_.isOn(), isBeyond);
    if (observer_ && (isBeyond || loop_.isBent())) {
        observer_->onLoopChanged(isBeyond ? std::numeric_limits<int64_t>::max() : loop_.lastFromMs());
    }
}

bool StreamParser::isReadBeyondLoop() const {
    if (!loop_.isOn()) {
        return false;
    }
    const auto isBeyond = [this](const AVStream* stream, const StreamReach& reach) {
        return stream && av_rescale_q(reach.lastTicks, stream->time_base, AV_TIME_BASE_Q) >= loop_.turn()->toUs;
    };
    return isBeyond(videoStream_, videoReach_) || isBeyond(audioStream_, audioReach_);
}

bool StreamParser::goesRoundFromEnd() {
    changeLoop();
    return loop_.isOn() && !isReadBeyondLoop() && goRound();
}

bool StreamParser::isBehindLoop(const AVPacket& packet) {
    const bool isVideo = packet.stream_index == videoStreamIndex_;
    if (!isVideo && packet.stream_index != audioStreamIndex_) {
        return false;
    }
    const AVStream& stream = isVideo ? *videoStream_ : *audioStream_;
    const int64_t start = isVideo ? startTimeInVideoTimeBase_ : startTimeInAudioTimeBase_;
    const auto [ticks, other] = isVideo ? std::pair(packet.dts, packet.pts) : std::pair(packet.pts, packet.dts);
    const int64_t best = ticks != AV_NOPTS_VALUE ? ticks : other;
    const int64_t orderUs =
        best == AV_NOPTS_VALUE ? 0 : av_rescale_q(wrappingSubtract(best, start), stream.time_base, AV_TIME_BASE_Q);
    return loop_.isBehind(isVideo ? InputLoop::Stream::Pictures : InputLoop::Stream::Sound, orderUs);
}

int64_t StreamParser::statedLengthUs() const {
    return formatContext_->duration == AV_NOPTS_VALUE ? 0 : durationUs_.load();
}

int64_t StreamParser::turnEndUs() const {
    if (loop_.isEndMet()) {
        return loop_.turn()->toUs;
    }
    const int64_t videoUs = endUs(videoStream_, videoReach_);
    const int64_t audioUs = endUs(audioStream_, audioReach_);
    const bool isByPictures = videoUs > 0 && audioUs - videoUs <= kLongerSoundUs;
    const int64_t readUs = isByPictures ? videoUs : std::max(videoUs, audioUs);
    // A track that has just taken the place of the only one may not have been read yet.
    return std::min(readUs > 0 ? readUs : statedLengthUs(), loop_.turn()->toUs);
}

bool StreamParser::goRound() {
    showUnmarked();
    if (!loop_.goRound(turnEndUs(), statedLengthUs())) {
        Log::Warn(TAG, "the loop is given up, there is nothing in it\n");
        return false;
    }
    const int64_t startMs = loop_.loop().startMs;
    Log::Debug(TAG, "the loop begins again at %lld ms\n", static_cast<long long>(startMs));
    forgetReading();
    if (subtitleStreamIndex_ >= 0) {
        subtitles_->onSubtitleTurn();
    }
    foundKeyFrame_ = false;
    seekPosUs_ = startMs * 1000;
    packets_->gap();
    if (!seekInput(seekPosUs_)) {
        loop_.cancelTurn();
        return false;
    }
    clearInputEnd();
    isFarthestBack_ = startMs == 0;
    if (!isFarthestBack_) {
        reach_.begin(startMs, videoStream_ != nullptr, audioStream_ != nullptr, kSoundLeadInMs);
    }
    return true;
}

}  // namespace kelp
