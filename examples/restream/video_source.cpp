#include "video_source.h"

#include <array>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

namespace {

constexpr char kReadTimeoutUs[] = "10000000";
constexpr AVRational kMicroseconds{1, 1000000};

std::string errorText(int code) {
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(code, text.data(), text.size());
    return text.data();
}

kelp::VideoCodecType codecType(AVCodecID id) {
    switch (id) {
        case AV_CODEC_ID_MSMPEG4V1:
            return kelp::VIDEO_CODEC_MSMPEG4V1;
        case AV_CODEC_ID_MSMPEG4V2:
            return kelp::VIDEO_CODEC_MSMPEG4V2;
        case AV_CODEC_ID_MSMPEG4V3:
            return kelp::VIDEO_CODEC_MSMPEG4V3;
        case AV_CODEC_ID_H264:
            return kelp::VIDEO_CODEC_H264;
        case AV_CODEC_ID_HEVC:
            return kelp::VIDEO_CODEC_HEVC;
        case AV_CODEC_ID_MPEG4:
            return kelp::VIDEO_CODEC_MPEG4;
        case AV_CODEC_ID_MJPEG:
            return kelp::VIDEO_CODEC_MJPEG;
        default:
            return kelp::VIDEO_CODEC_OTHER;  // the parameters name it
    }
}

kelp::PixFormat pixFormat(int format) {
    switch (format) {
        case AV_PIX_FMT_YUV420P:
            return kelp::PIX_FMT_YUV420P;
        case AV_PIX_FMT_YUYV422:
            return kelp::PIX_FMT_YUYV422;
        case AV_PIX_FMT_YUV422P:
            return kelp::PIX_FMT_YUV422P;
        case AV_PIX_FMT_YUV420P10LE:
            return kelp::PIX_FMT_YUV420P10;
        default:
            return kelp::PIX_FMT_NONE;
    }
}

// What brings a stream's frames into the form that is wanted.
const char* filterName(const AVCodecParameters& parameters) {
    // Extra data that begins with a start code, or with none at all, is from a stream that has start codes.
    const bool lengths = parameters.extradata_size > 0 && parameters.extradata[0] == 1;
    if (lengths && parameters.codec_id == AV_CODEC_ID_H264) {
        return "h264_mp4toannexb";
    }
    if (lengths && parameters.codec_id == AV_CODEC_ID_HEVC) {
        return "hevc_mp4toannexb";
    }
    const bool headers = parameters.codec_id == AV_CODEC_ID_H264 || parameters.codec_id == AV_CODEC_ID_HEVC ||
                         parameters.codec_id == AV_CODEC_ID_MPEG4;
    return headers && parameters.extradata_size > 0 ? "dump_extra" : "null";
}

}  // namespace

VideoSource::VideoSource(std::function<bool()> interrupted)
    : interrupted_(std::move(interrupted)), packet_(av_packet_alloc()) {
}

VideoSource::~VideoSource() {
    av_packet_free(&packet_);
    av_bsf_free(&filter_);
    avformat_close_input(&format_);
}

bool VideoSource::open(const std::string& url, int track, std::string& error) {
    format_ = avformat_alloc_context();
    format_->interrupt_callback = {
        [](void* self) { return static_cast<int>(static_cast<VideoSource*>(self)->interrupted_()); }, this};
    AVDictionary* options = nullptr;
    if (url.starts_with("rtsp://")) {
        av_dict_set(&options, "rtsp_transport", "tcp", 0);
        av_dict_set(&options, "timeout", kReadTimeoutUs, 0);
    }
    int result = avformat_open_input(&format_, url.c_str(), nullptr, &options);
    av_dict_free(&options);
    if (result >= 0) {
        result = avformat_find_stream_info(format_, nullptr);
    }
    if (result < 0) {
        error = errorText(result);
        return false;
    }
    const int index = av_find_best_stream(format_, AVMEDIA_TYPE_VIDEO, track, -1, nullptr, 0);
    if (index < 0) {
        error = track < 0 ? "there is no video in it" : "there is no video of that number in it";
        return false;
    }
    for (unsigned int i = 0; i < format_->nb_streams; ++i) {
        format_->streams[i]->discard = static_cast<int>(i) == index ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    }
    stream_ = format_->streams[index];
    const AVCodecParameters& parameters = *stream_->codecpar;
    codecInfo_->videoCodecType = codecType(parameters.codec_id);
    codecInfo_->width = parameters.width;
    codecInfo_->height = parameters.height;
    codecInfo_->pixFormat = pixFormat(parameters.format);
    codecInfo_->videoParameters = avcodec_parameters_alloc();
    if (codecInfo_->videoParameters == nullptr) {
        error = errorText(AVERROR(ENOMEM));
        return false;
    }
    avcodec_parameters_copy(codecInfo_->videoParameters, &parameters);
    return openFilter(error);
}

bool VideoSource::openFilter(std::string& error) {
    int result = av_bsf_alloc(av_bsf_get_by_name(filterName(*stream_->codecpar)), &filter_);
    if (result >= 0) {
        result = avcodec_parameters_copy(filter_->par_in, stream_->codecpar);
    }
    if (result >= 0) {
        filter_->time_base_in = stream_->time_base;
        result = av_bsf_init(filter_);
    }
    if (result < 0) {
        error = errorText(result);
    }
    return result >= 0;
}

int64_t VideoSource::durationMs() const {
    return format_->duration == AV_NOPTS_VALUE ? 0 : format_->duration / 1000;
}

bool VideoSource::reordered() const {
    return stream_->codecpar->video_delay > 0;
}

int VideoSource::read() {
    int result = av_bsf_receive_packet(filter_, packet_);
    while (result == AVERROR(EAGAIN)) {
        result = av_read_frame(format_, packet_);
        if (result < 0) {
            return result;
        }
        if (packet_->stream_index != stream_->index) {
            av_packet_unref(packet_);
            result = AVERROR(EAGAIN);
            continue;
        }
        result = av_bsf_send_packet(filter_, packet_);
        if (result >= 0) {
            result = av_bsf_receive_packet(filter_, packet_);
        }
    }
    return result;
}

bool VideoSource::next(std::string& error) {
    do {
        av_packet_unref(packet_);
        const int result = read();
        if (result < 0) {
            if (result != AVERROR_EOF && result != AVERROR_EXIT) {
                error = errorText(result);
            }
            return false;
        }
        started_ = started_ || keyFrame();
    } while (!started_ || packet_->size == 0);
    noteTime();
    return true;
}

void VideoSource::noteTime() {
    const int64_t ticks =
        packet_->dts != AV_NOPTS_VALUE && (reordered() || packet_->pts == AV_NOPTS_VALUE) ? packet_->dts : packet_->pts;
    if (ticks == AV_NOPTS_VALUE) {
        // The frame follows the one before it; the muxer writes it right behind.
        return;
    }
    const int64_t us = av_rescale_q(ticks, stream_->time_base, kMicroseconds);
    if (firstUs_ == INT64_MIN) {
        firstUs_ = us;
    }
    timeUs_ = us - firstUs_;
}

unsigned char* VideoSource::data() const {
    return packet_->data;
}

unsigned int VideoSource::size() const {
    return static_cast<unsigned int>(packet_->size);
}

bool VideoSource::keyFrame() const {
    return (packet_->flags & AV_PKT_FLAG_KEY) != 0;
}
