#include "kelp_player/stream_muxer.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <span>
#include <utility>

#include "input/codec_tables.h"
#include "kelp_player/codec_info.h"
#include "kelp_player/log.h"
#include "output/parameter_counts.h"
#include "runtime/ffmpeg_compat.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace kelp {

namespace {

constexpr char kTag[] = "StreamMuxer";
constexpr char kFileMuxer[] = "mp4";

constexpr int64_t kNoPts = -1;
constexpr double kMicrosecondsPerSecond = 1000000.0;
constexpr double kLargestTicks = 4611686018427387904.0;  // 2^62: leaves room for the ticks that later frames add

// The muxer's short name for a destination; null for one that isn't served.
const char* muxerName(const std::string& filePath) {
    if (filePath.starts_with("rtsp://")) {
        return "rtsp";
    }
    if (filePath.starts_with("rtp://")) {
        return "rtp";
    }
    return filePath.find(".mp4") != std::string::npos ? kFileMuxer : nullptr;
}

// Another codec is taken with all that its parameters say, but for the tag, which is another one in each container.
void describe(const CodecInfo& info, AVCodecParameters& parameters) {
    const int codecId = codecIdFromType(info.videoCodecType, info.videoParameters);
    const bool isOther = codecId != AV_CODEC_ID_NONE && info.videoCodecType == VIDEO_CODEC_OTHER;
    if (isOther) {
        avcodec_parameters_copy(&parameters, info.videoParameters);
        parameters.codec_tag = 0;
    }
    parameters.codec_type = AVMEDIA_TYPE_VIDEO;
    parameters.codec_id = static_cast<AVCodecID>(codecId);
    parameters.width = info.width;
    parameters.height = info.height;
    if (!isOther || info.pixFormat != PIX_FMT_NONE) {
        parameters.format = avPixelFormatFromPixFormat(info.pixFormat);
    }
}

std::array<char, 255> errorText(int error) {
    std::array<char, 255> text{};
    av_strerror(error, text.data(), text.size());
    return text;
}

struct Dictionary {
    Dictionary() = default;
    Dictionary(const Dictionary&) = delete;
    Dictionary& operator=(const Dictionary&) = delete;
    ~Dictionary() { av_dict_free(&entries); }

    AVDictionary* entries = nullptr;
};

bool writesFile(const AVOutputFormat& format) {
    return std::strcmp(format.name, kFileMuxer) == 0;
}

}  // namespace

StreamMuxer::StreamMuxer() : options_{{"rtsp_transport", "tcp"}, {"stimeout", "500000"}} {
}

StreamMuxer::~StreamMuxer() {
    stop();
    close();
}

void StreamMuxer::setOption(const char* key, const char* value) {
    if (!key || !value) {
        Log::Error(kTag, "%s, no key or value\n", "setOption");
        return;
    }
    options_[key] = value;
}

bool StreamMuxer::open(const std::string& filePath, std::shared_ptr<CodecInfo> codecInfo, int64_t timeBase) {
    const char* const muxer = muxerName(filePath);
    if (!muxer) {
        Log::Error(kTag, "%s, error filePath %s\n", "open", filePath.c_str());
        return false;
    }
    // The MP4 muxer never comes back from a time base below 1.
    if (!codecInfo || timeBase < 1 || timeBase > INT_MAX) {
        Log::Error(kTag, "%s, error codecInfo or timeBase %lld\n", "open", static_cast<long long>(timeBase));
        return false;
    }
    if (formatContext_) {
        close();
    }
    timeBase_ = timeBase;
    if (avformat_alloc_output_context2(&formatContext_, nullptr, muxer, filePath.c_str()) < 0) {
        Log::Error(kTag, "%s, Could not create output context\n", "open");
        return false;
    }
    outputFormat_ = formatContext_->oformat;
    stream_ = avformat_new_stream(formatContext_, nullptr);
    if (!stream_) {
        Log::Error(kTag, "%s, Could not allocate stream\n", "open");
        return false;
    }
    stream_->time_base = {1, static_cast<int>(timeBase)};
    AVCodecParameters& parameters = *stream_->codecpar;
    describe(*codecInfo, parameters);
    Log::Info(kTag, "%s, %dx%d, codec_id:%d\n", "open", parameters.width, parameters.height,
              static_cast<int>(parameters.codec_id));

    const auto said = std::span(parameters.extradata, static_cast<size_t>(parameters.extradata_size));
    if (writesFile(*outputFormat_) && !areCountsBounded(parameters.codec_id, said)) {
        Log::Error(kTag, "%s, broken parameter sets\n", "open");
        return false;
    }
    if (!(outputFormat_->flags & AVFMT_NOFILE) &&
        avio_open(&formatContext_->pb, filePath.c_str(), AVIO_FLAG_WRITE) < 0) {
        Log::Error(kTag, "%s, Could not open output URL '%s'\n", "open", filePath.c_str());
        return false;
    }
    av_dump_format(formatContext_, 0, filePath.c_str(), 1);

    Dictionary dictionary;
    for (const auto& [key, value] : options_) {
        Log::Debug(kTag, "%s, set key:%s, value:%s\n", "open", key.c_str(), value.c_str());
        av_dict_set(&dictionary.entries, key.c_str(), value.c_str(), 0);
    }
    if (avformat_write_header(formatContext_, &dictionary.entries) < 0) {
        Log::Error(kTag, "%s, Error occurred when opening output\n", "open");
        return false;
    }
    headerWritten_ = true;
    Log::Info(kTag, "%s, succeed!\n", "open");
    return true;
}

bool StreamMuxer::start() {
    Log::Info(kTag, "%s, succeed!\n", "start");
    return false;
}

bool StreamMuxer::outputFrame(unsigned char* data, unsigned int size, int64_t ptsUs, bool keyFrame) {
    if (!headerWritten_) {
        Log::Error(kTag, "%s, not open\n", "outputFrame");
        return false;
    }
    if (!data || size == 0 || size > INT_MAX) {
        Log::Error(kTag, "%s, error data, size:%u\n", "outputFrame", size);
        return false;
    }
    // The MP4 muxer makes the description of the stream out of the first one.
    const AVCodecParameters& parameters = *stream_->codecpar;
    const bool describes = stream_->nb_frames == 0 && parameters.extradata_size == 0;
    if (describes && writesFile(*outputFormat_) && !areCountsBounded(parameters.codec_id, {data, size})) {
        Log::Error(kTag, "%s, broken parameter sets\n", "outputFrame");
        return false;
    }
    const double exactTicks = (static_cast<double>(timeBase_) / kMicrosecondsPerSecond) * static_cast<double>(ptsUs);
    const auto ticks = static_cast<int64_t>(std::clamp(exactTicks, -kLargestTicks, kLargestTicks));
    lastPts_ = lastPts_ == kNoPts ? ticks : std::max(ticks, lastPts_ + 1);

    AVPacket packet;
    compat::initPacket(&packet);
    packet.pts = lastPts_;
    packet.dts = lastPts_;
    packet.data = data;
    packet.size = static_cast<int>(size);
    packet.flags = keyFrame ? AV_PKT_FLAG_KEY : 0;
    packet.time_base = {1, static_cast<int>(timeBase_)};

    const int result = av_interleaved_write_frame(formatContext_, &packet);
    if (result < 0) {
        Log::Error(kTag, "%s, av_interleaved_write_frame failed, ret:%d, %s\n", "outputFrame", result,
                   errorText(result).data());
        return false;
    }
    return true;
}

void StreamMuxer::stop() {
    if (!formatContext_) {
        return;
    }
    writeEnd();
    Log::Info(kTag, "%s, succeed!\n", "stop");
}

void StreamMuxer::close() {
    // The streaming muxers give back what they hold, connections included, at their end only.
    if (formatContext_ && !writesFile(*outputFormat_)) {
        writeEnd();
    }
    if (formatContext_ && !(outputFormat_->flags & AVFMT_NOFILE)) {
        avio_close(formatContext_->pb);
    }
    avformat_free_context(formatContext_);
    formatContext_ = nullptr;
    outputFormat_ = nullptr;
    stream_ = nullptr;
    headerWritten_ = false;
    Log::Info(kTag, "%s, succeed!\n", "close");
}

void StreamMuxer::writeEnd() {
    // Without a header, or a second time, the muxer has nothing to end and would crash.
    if (!std::exchange(headerWritten_, false)) {
        return;
    }
    const int result = av_write_trailer(formatContext_);
    if (result < 0) {
        Log::Error(kTag, "%s, av_write_trailer failed, ret:%d, %s\n", "stop", result, errorText(result).data());
    }
}

}  // namespace kelp
