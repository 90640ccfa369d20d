#include "input/packet_outlet.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "input/track_list.h"
#include "kelp_player/log.h"
#include "kelp_player/packet_sink.h"
#include "runtime/ffmpeg_compat.h"
#include "runtime/kelp_time.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace kelp {

namespace {

constexpr const char* kTag = "PacketOutlet";

static_assert(Packet::kNoTime == AV_NOPTS_VALUE);

struct FreeCopy {
    void operator()(AVCodecParameters* parameters) const { compat::freeParameters(&parameters); }
};
using ParametersCopy = std::unique_ptr<AVCodecParameters, FreeCopy>;

PacketStream describe(const AVStream& stream, const AVCodecParameters& parameters) {
    PacketStream described;
    described.track = stream.index;
    described.kind = trackKindOf(stream);
    described.codec = avcodec_get_name(parameters.codec_id);
    described.timeBaseNum = stream.time_base.num;
    described.timeBaseDen = stream.time_base.den;
    described.width = parameters.width;
    described.height = parameters.height;
    if (described.kind == TRACK_KIND_VIDEO && stream.avg_frame_rate.den > 0) {
        described.frameRate = av_q2d(stream.avg_frame_rate);
    }
    described.sampleRate = parameters.sample_rate;
    described.channels = parameters.ch_layout.nb_channels;
    described.configuration = parameters.extradata;
    described.configurationSize = parameters.extradata_size;
    described.parameters = &parameters;
    return described;
}

// With the configuration that `asRead` has, if there is such.
ParametersCopy copyOf(const AVStream& stream, const AVCodecParameters* asRead) {
    ParametersCopy copy(compat::copyParameters(&stream));
    if (!copy || !asRead) {
        return copy;
    }
    av_freep(&copy->extradata);
    copy->extradata_size = 0;
    if (asRead->extradata_size > 0) {
        const auto size = static_cast<size_t>(asRead->extradata_size);
        copy->extradata = static_cast<uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
        if (copy->extradata) {
            std::copy_n(asRead->extradata, size, copy->extradata);
            copy->extradata_size = asRead->extradata_size;
        }
    }
    return copy;
}

void tellStreams(ExternPacketSink& sink, const PacketSource& source) {
    std::vector<PacketStream> streams;
    const auto video = source.video ? copyOf(*source.video, source.videoAsRead) : nullptr;
    const auto audio = source.audio ? copyOf(*source.audio, nullptr) : nullptr;
    if (video) {
        streams.push_back(describe(*source.video, *video));
    }
    if (audio) {
        streams.push_back(describe(*source.audio, *audio));
    }
    sink.onStreams(streams);
}

}  // namespace

class PacketOutlet::Call : public SinkSlot<ExternPacketSink>::Call {
public:
    explicit Call(PacketOutlet& outlet)
        : SinkSlot<ExternPacketSink>::Call(outlet.sink_), outlet_(outlet), fromUs_(KelpTime::getTimeUs()) {}
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;
    ~Call() {
        const int64_t us = std::max<int64_t>(KelpTime::getTimeUs() - fromUs_, 0);
        outlet_.busyUs_.add(us);
        outlet_.longestUs_.set(std::max(outlet_.longestUs_.read(), us));
    }

private:
    PacketOutlet& outlet_;
    const int64_t fromUs_;
};

void PacketOutlet::waitUntilUncalled(const ExternPacketSink* sink) {
    if (!sink_.waitUntilUncalled(sink)) {
        Log::Error(kTag, "%s, the host's packet sink is still being called after %d ms, it must not end yet\n",
                   "setPacketSink", static_cast<int>(sink_.kLongestWait.count()));
    }
}

void PacketOutlet::packet(const PacketSource& source, const AVPacket& packet) {
    if (!sink_.isSet()) {
        return;
    }
    const Call call(*this);
    if (!call.sink) {
        return;
    }
    if (const Told now{call.number, source.video, source.audio}; told_ != now) {
        told_ = now;
        tellStreams(*call.sink, source);
    }
    Packet told;
    told.track = packet.stream_index;
    told.kind = source.video && packet.stream_index == source.video->index ? TRACK_KIND_VIDEO : TRACK_KIND_AUDIO;
    told.data = packet.data;
    told.size = packet.size;
    told.pts = packet.pts;
    told.dts = packet.dts;
    told.duration = packet.duration;
    told.isKeyFrame = (packet.flags & AV_PKT_FLAG_KEY) != 0;
    told.packet = &packet;
    call.sink->onPacket(told);
}

void PacketOutlet::gap() {
    tell(told_, &ExternPacketSink::onGap);
}

void PacketOutlet::end() {
    tell(std::exchange(told_, {}), &ExternPacketSink::onEnd);
}

void PacketOutlet::move(const AVStream* video, const AVStream* audio) {
    if (told_.number != 0) {
        told_.video = video;
        told_.audio = audio;
    }
}

void PacketOutlet::tell(const Told& told, void (ExternPacketSink::*what)()) {
    if (!sink_.isSet()) {
        return;
    }
    const Call call(*this);
    if (call.sink && told.number == call.number) {
        (call.sink->*what)();
    }
}

void PacketOutlet::resetCounts() {
    busyUs_.set(0);
    longestUs_.set(0);
}

}  // namespace kelp
