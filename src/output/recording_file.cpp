#include "output/recording_file.h"

#include <algorithm>
#include <array>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "clock/wrapping_math.h"
#include "kelp_player/log.h"
#include "output/parameter_counts.h"
#include "runtime/ffmpeg_compat.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/mathematics.h>
#include <libavutil/mem.h>
}

namespace kelp {

namespace {

constexpr char kTag[] = "Recorder";

constexpr AVRational kMicroseconds{1, AV_TIME_BASE};
constexpr int64_t kLongestInterleavingUs = 1'000'000;  // for which a stream waits for the other
constexpr int64_t kLongestHeaderWaitUs = 2 * kLongestInterleavingUs;
constexpr int64_t kMostHeldBytes = 16 << 20;       // of packets in libavformat, whatever times they tell
constexpr int64_t kReorderedUs = 200'000;          // by which a picture is decoded before its time, where nobody tells
constexpr int64_t kLargestJumpBackUs = 1'000'000;  // a time farther back is on another time line
// So is one so far ahead, in the file's units: libavformat counts from packet to packet with 31 bits, and ends the
// process where that isn't enough.
constexpr int64_t kLargestJumpAhead = std::numeric_limits<int>::max() / 2;

constexpr char kNoMemory[] = "there is no memory";

struct Container {
    const char* ending;
    const char* muxer;
};
constexpr Container kContainers[] = {{".mp4", "mp4"}, {".mov", "mov"}, {".mkv", "matroska"}, {".ts", "mpegts"}};

std::string textOf(int error) {
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(error, text.data(), text.size());
    return text.data();
}

bool isIn(std::initializer_list<AVCodecID> codecs, AVCodecID codec) {
    return std::ranges::count(codecs, codec) > 0;
}

bool isMpegTs(const AVOutputFormat& format) {
    return std::string_view(format.name) == "mpegts";
}

// MPEG-TS has no list that could be asked: it takes any bytes, and gives no player the means to know what they are.
bool canHold(const AVOutputFormat& format, AVCodecID codec) {
    if (isMpegTs(format)) {
        return isIn({AV_CODEC_ID_H264, AV_CODEC_ID_HEVC, AV_CODEC_ID_MPEG4, AV_CODEC_ID_MPEG2VIDEO,
                     AV_CODEC_ID_MPEG1VIDEO, AV_CODEC_ID_AAC, AV_CODEC_ID_MP3, AV_CODEC_ID_MP2, AV_CODEC_ID_AC3,
                     AV_CODEC_ID_EAC3, AV_CODEC_ID_DTS, AV_CODEC_ID_OPUS},
                    codec);
    }
    return avformat_query_codec(&format, codec, FF_COMPLIANCE_NORMAL) == 1;
}

bool isFragmented(const AVOutputFormat& format) {
    const std::string_view name = format.name;
    return name == "mp4" || name == "mov";
}

// A configuration record of HEVC that leaves the parameter sets to the pictures.
bool isEmptyRecord(const AVCodecParameters& parameters) {
    constexpr int kArrays = 22;  // where their number stands
    return parameters.extradata_size > 0 && parameters.extradata[0] == 1 &&
           (parameters.extradata_size <= kArrays || parameters.extradata[kArrays] == 0);
}

struct Options {
    Options() = default;
    Options(const Options&) = delete;
    Options& operator=(const Options&) = delete;
    ~Options() { av_dict_free(&entries); }
    void set(const char* key, const char* value) { av_dict_set(&entries, key, value, 0); }

    AVDictionary* entries = nullptr;
};

}  // namespace

void FreeRecordingFilter::operator()(AVBSFContext* context) const {
    av_bsf_free(&context);
}

const char* RecordingFile::containerOf(const std::string& path) {
    const auto* found =
        std::ranges::find_if(kContainers, [&](const Container& container) { return path.ends_with(container.ending); });
    return found != std::end(kContainers) ? found->muxer : nullptr;
}

RecordingFile::RecordingFile(std::string path, std::shared_ptr<const RecordedStreams> streams)
    : path_(std::move(path)), streams_(std::move(streams)) {
}

RecordingFile::~RecordingFile() {
    if (context_) {
        avio_closep(&context_->pb);
        avformat_free_context(context_);
    }
}

std::string RecordingFile::open(const AVPacket& first) {
    const std::string muxer = containerOf(path_);
    if (avformat_alloc_output_context2(&context_, nullptr, muxer.c_str(), path_.c_str()) < 0) {
        return kNoMemory;
    }
    // What is written is the system's at once.
    context_->flags |= AVFMT_FLAG_FLUSH_PACKETS;
    context_->max_interleave_delta = kLongestInterleavingUs;
    context_->avoid_negative_ts = AVFMT_AVOID_NEG_TS_MAKE_ZERO;
    if (std::string why = addStreams(first); !why.empty()) {
        return why;
    }
    Options options;
    if (isFragmented(*context_->oformat)) {
        // A fragment for each key frame, and for each second where they lie farther apart, or more than one holds. The
        // header, which then knows where each stream begins, comes with the first one.
        options.set("movflags", "frag_keyframe+delay_moov+default_base_moof");
        options.set("frag_duration", "1000000");
        options.set("frag_size", std::to_string(kMostHeldBytes).c_str());
    } else if (muxer == "matroska") {
        options.set("cluster_time_limit", "1000");
    }
    if (const int result = avio_open(&context_->pb, path_.c_str(), AVIO_FLAG_WRITE); result < 0) {
        return textOf(result);
    }
    if (const int result = avformat_write_header(context_, &options.entries); result < 0) {
        return context_->pb->error < 0 ? textOf(context_->pb->error)
                                       : "the container doesn't take the streams: " + textOf(result);
    }
    headerWritten_ = true;
    isHeaderDue_ = isFragmented(*context_->oformat);
    return "";
}

std::string RecordingFile::addStreams(const AVPacket& first) {
    for (const auto& source : streams_->streams()) {
        Track track{.source = &source};
        const AVCodecID codec = source.parameters->codec_id;
        if (canHold(*context_->oformat, codec)) {
            std::string why = addStream(source, track);
            // MPEG-TS says nothing of them.
            if (why.empty() && source.kind == TRACK_KIND_VIDEO && !isMpegTs(*context_->oformat)) {
                why = describePictures(track, first);
            }
            if (!why.empty()) {
                return why;
            }
        } else if (source.kind == TRACK_KIND_VIDEO) {
            return std::string("pictures of ") + avcodec_get_name(codec) + " don't go into this container";
        } else {
            Log::Warn(kTag, "%s, sound of %s doesn't go into it and is left out\n", path_.c_str(),
                      avcodec_get_name(codec));
        }
        tracks_.push_back(std::move(track));
    }
    return context_->nb_streams > 0 ? "" : "none of the streams goes into this container";
}

std::string RecordingFile::addStream(const RecordedStreams::Stream& source, Track& track) {
    track.stream = avformat_new_stream(context_, nullptr);
    if (!track.stream || avcodec_parameters_copy(track.stream->codecpar, source.parameters.get()) < 0) {
        return kNoMemory;
    }
    track.stream->codecpar->codec_tag = 0;  // another one in each container
    track.stream->time_base = source.timeBase;
    track.stream->avg_frame_rate = source.frameRate;
    compat::copySideData(*source.parameters, track.stream);
    // AAC as transport streams have it. The muxer sees to that by itself, but not when it writes fragments.
    if (isFragmented(*context_->oformat) && source.parameters->codec_id == AV_CODEC_ID_AAC &&
        source.parameters->extradata_size == 0) {
        AVBSFContext* filter = nullptr;
        if (av_bsf_alloc(av_bsf_get_by_name("aac_adtstoasc"), &filter) < 0) {
            return kNoMemory;
        }
        track.filter.reset(filter);
        if (avcodec_parameters_copy(filter->par_in, source.parameters.get()) < 0 || av_bsf_init(filter) < 0) {
            return kNoMemory;
        }
    }
    return "";
}

// What the container says of the pictures is written by libavformat, out of the source's configuration; MP4 takes the
// first packet where there is none. Broken parameter sets mustn't get there. In MP4 there are two forms of HEVC: with
// "hvc1", which all players take, the parameter sets stand in the description of the stream. With "hev1" they may stand
// among the pictures alone.
std::string RecordingFile::describePictures(Track& track, const AVPacket& first) {
    AVCodecParameters& parameters = *track.stream->codecpar;
    const bool isInMp4 = isFragmented(*context_->oformat);
    const bool isTaken = isInMp4 && parameters.extradata_size == 0;
    const std::span said = isTaken ? std::span(first.data, static_cast<size_t>(first.size))
                                   : std::span(parameters.extradata, static_cast<size_t>(parameters.extradata_size));
    const bool isSound = areCountsBounded(parameters.codec_id, said);
    const bool isHevcInMp4 = isInMp4 && parameters.codec_id == AV_CODEC_ID_HEVC;
    if (isSound && !isHevcInMp4) {
        return "";
    }
    auto sets = std::make_unique<ParameterSets>(parameters);
    // They may have changed since the source was opened; where they haven't, they needn't stand there.
    std::vector<uint8_t> found = sets->in(first);
    if (found.empty()) {
        found = sets->described();
    }
    if (isHevcInMp4) {
        parameters.codec_tag = isEmptyRecord(parameters) ? MKTAG('h', 'e', 'v', '1') : MKTAG('h', 'v', 'c', '1');
        parameterSets_ = std::move(sets);
        describedSets_ = found;
    }
    if (found.empty()) {
        return isSound ? "" : "the parameter sets of its pictures are broken";
    }
    auto* const copy = static_cast<uint8_t*>(av_mallocz(found.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!copy) {
        return kNoMemory;
    }
    std::ranges::copy(found, copy);
    av_freep(&parameters.extradata);
    parameters.extradata = copy;
    parameters.extradata_size = static_cast<int>(found.size());
    return "";
}

bool RecordingFile::takes(const AVPacket& keyFrame) {
    if (!parameterSets_ || !parameterSets_->canBeFound()) {
        return true;
    }
    const auto sets = parameterSets_->in(keyFrame);
    return sets.empty() || sets == describedSets_;
}

std::string RecordingFile::write(AVPacket& packet) {
    const auto track = std::ranges::find_if(
        tracks_, [&](const Track& candidate) { return candidate.source->track == packet.stream_index; });
    if (track == tracks_.end() || !track->stream || packet.size <= 0) {
        return "";
    }
    // A packet that it can't read is for nobody.
    if (track->filter && (av_bsf_send_packet(track->filter.get(), &packet) < 0 ||
                          av_bsf_receive_packet(track->filter.get(), &packet) < 0)) {
        return "";
    }
    // libavformat reads it like the stream's own.
    size_t size = 0;
    const uint8_t* const said = av_packet_get_side_data(&packet, AV_PKT_DATA_NEW_EXTRADATA, &size);
    if (said && !areCountsBounded(track->source->parameters->codec_id, {said, size})) {
        av_packet_free_side_data(&packet);
    }
    place(packet, *track);
    bytes_ += packet.size;
    heldBytes_ += packet.size;
    int result = av_interleaved_write_frame(context_, &packet);
    // Packets wait for those of other streams by their times, which may stand still.
    const bool isMuch = heldBytes_ >= kMostHeldBytes;
    if (result >= 0 && isMuch) {
        heldBytes_ = 0;
        result = av_interleaved_write_frame(context_, nullptr);
    }
    // The header waits for all streams, but not for one that doesn't come.
    if (result >= 0 && isHeaderDue_ && (isMuch || durationUs_ > kLongestHeaderWaitUs)) {
        isHeaderDue_ = false;
        result = av_write_frame(context_, nullptr);
    }
    return result < 0 ? textOf(result) : "";
}

// Times rise within a stream, whatever the source says: no container takes others.
void RecordingFile::place(AVPacket& packet, Track& track) {
    const int64_t anyTime = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
    if (!hasOrigin_ && anyTime != AV_NOPTS_VALUE) {
        hasOrigin_ = true;
        originUs_ = av_rescale_q(anyTime, track.source->timeBase, kMicroseconds);
    }
    const AVRational base = track.stream->time_base;
    av_packet_rescale_ts(&packet, track.source->timeBase, base);
    packet.duration = std::clamp<int64_t>(packet.duration, 0, kLargestJumpAhead);
    packet.stream_index = track.stream->index;
    packet.time_base = base;
    packet.pos = -1;
    const int64_t origin = av_rescale_q(originUs_, kMicroseconds, base);
    const auto shift = [&](int64_t& time, int64_t by) { time = time == AV_NOPTS_VALUE ? time : wrappingAdd(time, by); };
    const auto shiftBoth = [&](int64_t by) {
        shift(packet.dts, by);
        shift(packet.pts, by);
    };
    shiftBoth(wrappingSubtract(track.shift, origin));
    // The first packets of a live source that was opened in haste have no times, or none of decoding.
    if (packet.dts == AV_NOPTS_VALUE && packet.pts == AV_NOPTS_VALUE) {
        packet.dts = track.hasTime ? track.lastEnd : 0;
    } else if (packet.dts == AV_NOPTS_VALUE) {
        const int64_t earliest = wrappingSubtract(packet.pts, av_rescale_q(kReorderedUs, kMicroseconds, base));
        packet.dts = track.hasTime ? std::min(packet.pts, std::max(track.lastDts + 1, earliest)) : packet.pts;
    }
    if (packet.dts != AV_NOPTS_VALUE) {
        const int64_t next = track.hasTime ? track.lastEnd : av_rescale_q(durationUs_, kMicroseconds, base);
        const int64_t ahead = wrappingSubtract(packet.dts, next);
        const bool isFarBack = track.hasTime ? wrappingSubtract(track.lastDts, packet.dts) >
                                                   av_rescale_q(kLargestJumpBackUs, kMicroseconds, base)
                                             : ahead < -kLargestJumpAhead;
        if (isFarBack || ahead > kLargestJumpAhead) {
            const int64_t by = wrappingSubtract(next, packet.dts);
            track.shift = wrappingAdd(track.shift, by);
            shiftBoth(by);
        }
        packet.dts = track.hasTime ? std::max(packet.dts, track.lastDts + 1) : packet.dts;
        packet.pts = packet.pts == AV_NOPTS_VALUE ? packet.dts : std::max(packet.pts, packet.dts);
    }
    if (const int64_t time = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts; time != AV_NOPTS_VALUE) {
        track.hasTime = true;
        track.lastDts = time;
        track.lastEnd = wrappingAdd(time, std::max<int64_t>(packet.duration, 1));
        durationUs_ = std::max(durationUs_, av_rescale_q(track.lastEnd, base, kMicroseconds));
    }
}

std::string RecordingFile::end() {
    int result = headerWritten_ ? av_write_trailer(context_) : 0;
    const int closed = avio_closep(&context_->pb);
    result = result < 0 ? result : closed;
    return result < 0 ? textOf(result) : "";
}

}  // namespace kelp
