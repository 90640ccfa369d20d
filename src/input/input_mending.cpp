#include "input/input_mending.h"

#include <algorithm>
#include <string_view>
#include <utility>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

#include "clock/wrapping_math.h"

namespace kelp {

namespace {

constexpr int64_t kPatienceUs = 2'000'000;     // with pictures that come before the first key frame
constexpr int64_t kLongestGapUs = 10'000'000;  // of key frames, where a stream is met in its midst
constexpr int64_t kLeadInUs = 10'000'000;      // in which a decoder finds its way without one

// Where an input has an index, it is one of pictures, and tells the key frames.
bool hasIndexWithoutKeyFrame(const AVStream& stream) {
    // The library's calls take the stream for one to be changed; they change nothing.
    auto* asked = const_cast<AVStream*>(&stream);
    const int entries = avformat_index_get_entries_count(asked);
    for (int i = 0; i < entries; ++i) {
        if ((avformat_index_get_entry(asked, i)->flags & AVINDEX_KEYFRAME) != 0) {
            return false;
        }
    }
    return entries > 0;
}

int64_t packetDuration(const AVPacket& packet, const AVStream& stream) {
    if (packet.duration > 0) {
        return packet.duration;
    }
    const AVRational rate = stream.r_frame_rate;
    return rate.num > 0 && rate.den > 0 ? std::max<int64_t>(av_rescale_q(1, av_inv_q(rate), stream.time_base), 1) : 1;
}

}  // namespace

int64_t InputMending::durationUs(const AVFormatContext& input) const {
    const int64_t startUs = input.start_time;
    // Headers that count from 0, where the input begins hours later: the length would be more hours than it has.
    const bool countsFromZero = isWanted_ && startUs != AV_NOPTS_VALUE &&
                                input.duration_estimation_method == AVFMT_DURATION_FROM_STREAM &&
                                startUs < input.duration && startUs > input.duration / 2;
    return countsFromZero ? input.duration - startUs : input.duration;
}

int64_t InputMending::unmarkedUs(const AVPacket& packet, const AVStream& video) {
    const int64_t ticks = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
    const int64_t nowUs = av_rescale_q(ticks, video.time_base, AV_TIME_BASE_Q);
    if (unmarkedSinceUs_ == kNone) {
        unmarkedSinceUs_ = nowUs;
        marksNone_ = isHopeless_ = hasIndexWithoutKeyFrame(video);
    }
    return wrappingSubtract(nowUs, unmarkedSinceUs_);
}

bool InputMending::isShownUnmarked(const AVPacket& packet, const AVStream& video) {
    if (!showsUnmarked_ || isMarked_) {
        return false;
    }
    const int64_t sinceUs = unmarkedUs(packet, video);
    marksNone_ = marksNone_ || sinceUs >= (isLive_ ? kLongestGapUs : kPatienceUs);
    return marksNone_;
}

bool InputMending::isHopeless(const AVPacket& packet, const AVStream& video) {
    hasKeyFrame_ = hasKeyFrame_ || (packet.flags & AV_PKT_FLAG_KEY) != 0;
    if (!showsUnmarked_ || isMarked_ || hasKeyFrame_) {
        return false;
    }
    isHopeless_ = isHopeless_ || unmarkedUs(packet, video) >= kLongestGapUs;
    return isHopeless_;
}

bool InputMending::keep(const AVPacket& packet) {
    if (!isWanted_ || isMarked_) {
        return false;
    }
    if (HeldPacket copy{av_packet_clone(&packet)}) {
        kept_.push_back(std::move(copy));
    }
    return true;
}

std::vector<HeldPacket> InputMending::takeKept() {
    return std::exchange(kept_, {});
}

void InputMending::fillTime(AVPacket& packet, const AVStream& stream, bool isVideo) {
    if (!isWanted_) {
        return;
    }
    int64_t& end = endTicks_[isVideo ? 1 : 0];
    const bool hasNone = packet.pts == AV_NOPTS_VALUE && packet.dts == AV_NOPTS_VALUE;
    if (hasNone) {
        packet.dts = end;
    }
    if (isVideo) {
        isVideoTimeFilled_ = hasNone;
    }
    const int64_t begin = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
    end = wrappingAdd(begin, packetDuration(packet, stream));
}

// Containers of the one time alone, as AVI, keep to the library's: their sound was laid beside it.
bool InputMending::isTimedByOrder(const AVPacket& packet) const {
    return isWanted_ && (isVideoTimeFilled_ || (packet.pts != AV_NOPTS_VALUE && packet.pts == packet.dts));
}

int InputMending::seek(AVFormatContext* input, int64_t targetUs, int64_t maxUs) {
    kept_.clear();
    if (marksNone_) {
        const int64_t startUs = input->start_time == AV_NOPTS_VALUE ? 0 : input->start_time;
        const int64_t aheadUs = std::max(wrappingSubtract(targetUs, kLeadInUs), std::min(targetUs, startUs));
        const int result = avformat_seek_file(input, -1, INT64_MIN, aheadUs, maxUs, AVSEEK_FLAG_ANY);
        if (result >= 0) {
            return result;
        }
    }
    const int result = avformat_seek_file(input, -1, INT64_MIN, targetUs, maxUs, 0);
    if (result >= 0 && isWanted_ && input->pb && std::string_view(input->iformat->name) == "image2") {
        avio_seek(input->pb, 0, SEEK_SET);  // it begins to read where the picture before has ended
    }
    if (result >= 0 || !isWanted_) {
        return result;
    }
    endTicks_ = {};
    return av_seek_frame(input, -1, 0, AVSEEK_FLAG_BYTE);
}

}  // namespace kelp
