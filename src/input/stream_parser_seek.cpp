// Seeks of the parser: the request, and what its thread does about it.

#include <algorithm>
#include <optional>
#include <utility>

#include "clock/wrapping_math.h"
#include "input/stream_parser.h"
#include "input/tick_math.h"
#include "kelp_player/log.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

namespace kelp {
namespace {

constexpr const char* TAG = "StreamParser";

constexpr int kDrainRestMs = 30;

constexpr int64_t kSeekEndMarginUs = 1'000'000;  // no seek lands nearer to a known end
constexpr int64_t kMaxReserveMs = 15000;         // key frames farther apart than this are not believed
constexpr int64_t kDefaultReserveUs = 10'000'000;

}  // namespace

bool StreamParser::seek(int seekTimeMs, SeekRule rule, int64_t shiftMs) {
    Log::Debug(TAG, "seek to %d ms\n", seekTimeMs);
    const int64_t durationUs = durationUs_;
    const int64_t wantedUs = static_cast<int64_t>(seekTimeMs) * 1000;
    const int64_t seekPosUs = durationUs >= 1 ? std::min(wantedUs, durationUs + shiftMs * 1000) : wantedUs;
    Log::Debug(TAG, "seek to %lld us\n", static_cast<long long>(seekPosUs));
    seekShiftMs_ = shiftMs;
    seekRule_ = rule;  // of one that is older and taken now as well: the newer one is next
    if (!seekAsked_.isPending()) {
        readBreak_ = std::chrono::steady_clock::now() + readGrace_.load();
    }
    seekAsked_.post(seekPosUs);
    endRest();
    return true;
}

// In this order: it is pending until the observer has been told.
std::optional<int64_t> StreamParser::takeSeek() {
    if (!seekAsked_.isPending()) {
        return std::nullopt;
    }
    isSeekTaken_ = true;
    return seekAsked_.take();
}

void StreamParser::processSeekRequest(int64_t lineUs) {
    if (observer_) {
        observer_->onSeekStart(static_cast<int>(lineUs / 1000));
    }
    isSeekTaken_ = false;
    forgetReading();
    if (subtitleStreamIndex_ >= 0) {
        subtitles_->onSubtitleGap();
    }
    const int64_t shiftMs = seekShiftMs_;
    const int64_t seekPosUs = std::max<int64_t>(lineUs - shiftMs * 1000, 0);
    loop_.seek(lineUs / 1000, shiftMs);
    seekPosUs_ = seekPosUs;
    seeksExactly_ = seekRule_ == SeekRule::Exact;
    seekInput(seekPosUs);
    packets_->gap();
    waitQueueDrain();
    if (observer_) {
        observer_->onSeekCompleted();
    }
    // What comes is as after an open; the distance across the seek is none of two key frames.
    foundKeyFrame_ = false;
    firstPacketSent_ = false;
    lastKeyFramePts_ = -1;
    unsure_.clear();
    reach_.end();
    if (seeksExactly_) {
        isFarthestBack_ = seekPosUs == 0;
        reach_.begin(seekPosUs / 1000, videoStream_ != nullptr, audioStream_ != nullptr);
    }
}

bool StreamParser::holdUnsure(const AVPacket& packet) {
    if (!reach_.isOpen()) {
        return false;
    }
    if (HeldPacket copy{av_packet_clone(&packet)}) {
        unsure_.push_back(std::move(copy));
    }
    const auto verdict = judge(packet);
    if (verdict == SeekReach::Verdict::TooLate && !isFarthestBack_) {
        goFartherBack();
    } else if (verdict != SeekReach::Verdict::Open) {
        handOnUnsure();
    }
    return true;
}

SeekReach::Verdict StreamParser::judge(const AVPacket& packet) {
    const bool isVideo = packet.stream_index == videoStreamIndex_;
    if (!isVideo && packet.stream_index != audioStreamIndex_) {
        return SeekReach::Verdict::Open;
    }
    const AVRational base = (isVideo ? videoStream_ : audioStream_)->time_base;
    const int64_t start = isVideo ? startTimeInVideoTimeBase_ : startTimeInAudioTimeBase_;
    // Without a time it may be any.
    const auto timeMs = [&](int64_t ticks, int64_t other) {
        const int64_t best = ticks != AV_NOPTS_VALUE ? ticks : other;
        return best == AV_NOPTS_VALUE ? best : ticksToMs(wrappingSubtract(best, start), base.num, base.den);
    };
    if (!isVideo) {
        return reach_.takeSound(timeMs(packet.pts, packet.dts), ticksToMs(packet.duration, base.num, base.den));
    }
    const bool isKey = (packet.flags & AV_PKT_FLAG_KEY) != 0 || mending_.marksNone();
    return reach_.takePicture(isKey, timeMs(packet.pts, packet.dts), timeMs(packet.dts, packet.pts));
}

bool StreamParser::goesBackFromEnd() {
    if (!reach_.isOpen()) {
        return false;
    }
    if (reach_.takeEnd() == SeekReach::Verdict::TooLate && !isFarthestBack_) {
        goFartherBack();
        return true;
    }
    handOnUnsure();
    return false;
}

void StreamParser::goFartherBack() {
    const int64_t posUs = std::max<int64_t>(seekPosUs_ - reach_.backMs() * 1000, 0);
    unsure_.clear();
    isFarthestBack_ = posUs == 0;
    reach_.again();
    if (!seekInput(posUs)) {
        seekInput(seekPosUs_);
        reach_.end();
    }
    clearInputEnd();
}

void StreamParser::handOnUnsure() {
    reach_.end();
    for (const auto unsure = std::exchange(unsure_, {}); const auto& packet : unsure) {
        handlePacket(packet.get());
    }
}

bool StreamParser::seekInput(int64_t seekPosUs) {
    const int64_t durationUs = durationUs_;
    int64_t target = seekPosUs;
    if (durationUs >= 1 && seekPosUs + kSeekEndMarginUs > durationUs) {
        target = std::max<int64_t>(durationUs - kSeekEndMarginUs, 0);
    }
    if (reopensForSeeks_) {
        Reopened reopened = reopenAt(target);
        const bool isOpen = reopened.context != nullptr;
        isLost_ = !isOpen && !seekAsked_.isPending();
        const std::lock_guard lock(mutex_);
        adopt(std::move(reopened));
        return isOpen;
    }
    const int64_t end = wrappingAdd(originUs_, target);
    const int64_t seekTarget = videoStream_ && isInputNamed("mpegts") ? mpegTsSeekTarget(end, seekPosUs) : end;
    Log::Debug(TAG, "%s, seekPos:%lld, seekTarget:%lld\n", "processSeekRequest", static_cast<long long>(seekPosUs),
               static_cast<long long>(seekTarget));
    const int64_t maxTs = originUs_ != 0 ? end : seekPosUs;
    const int result = mending_.seek(formatContext_, seekTarget, maxTs);
    if (result < 0) {
        Log::Error(TAG, "%s, seek failed, ret:%d\n", "processSeekRequest", result);
    }
    return result >= 0;
}

// The format has no index: a seek aims ahead of `position` by as much as key frames lie apart, so that one comes
// before it.
int64_t StreamParser::mpegTsSeekTarget(int64_t position, int64_t seekPosUs) {
    Log::Debug(TAG, "%s, name:%s, seekPos:%lld, max key frame duration:%d\n", "processSeekRequest",
               formatContext_->iformat->name, static_cast<long long>(seekPosUs),
               static_cast<int>(maxKeyFrameDurationMs_));
    int64_t reserveUs = kDefaultReserveUs;
    if (maxKeyFrameDurationMs_ >= 1 && maxKeyFrameDurationMs_ < kMaxReserveMs) {
        reserveUs = maxKeyFrameDurationMs_ * 1000;
    } else {
        Log::Debug(TAG, "%s, use default seek reserved time 10s\n", "processSeekRequest");
    }
    return std::max(wrappingSubtract(position, reserveUs), std::min<int64_t>(originUs_, 0));
}

// No time limit: the observer empties the queues, as onSeekStart asks it to. What is taken from before the look on is
// counted.
void StreamParser::waitQueueDrain() {
    while (!isStopRequested() && observer_) {
        untilLow_ = 0;
        const int audioQueueSize = observer_->onAudioPacketQueueSize();
        const int videoQueueSize = observer_->onVideoPacketQueueSize();
        if (audioQueueSize == 0 && videoQueueSize == 0) {
            return;
        }
        Log::Debug(TAG, "%s, aq:%d, vq:%d\n", "waitQueueDrain", audioQueueSize, videoQueueSize);
        untilLow_ += audioQueueSize + videoQueueSize;
        rest(kDrainRestMs, [this] { return untilLow_ <= 0; });
    }
}

}  // namespace kelp
