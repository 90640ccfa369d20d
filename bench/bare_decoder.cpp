#include "bare_decoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace kelp::bench {

namespace {

constexpr int kThreads = 4;  // the player's, for the pictures of a file

}  // namespace

BareDecoder::BareDecoder() : packet_(av_packet_alloc()), frame_(av_frame_alloc()), soundFrame_(av_frame_alloc()) {
}

BareDecoder::~BareDecoder() = default;

void BareDecoder::FreeFormat::operator()(AVFormatContext* format) const {
    avformat_close_input(&format);
}

void BareDecoder::FreeContext::operator()(AVCodecContext* context) const {
    avcodec_free_context(&context);
}

void BareDecoder::FreePacket::operator()(AVPacket* packet) const {
    av_packet_free(&packet);
}

void BareDecoder::FreeFrame::operator()(AVFrame* frame) const {
    av_frame_free(&frame);
}

bool BareDecoder::openSource(const std::string& path) {
    AVFormatContext* format = nullptr;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0) {
        return false;
    }
    format_.reset(format);
    if (avformat_find_stream_info(format, nullptr) < 0) {
        return false;
    }
    video_ = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    return video_ >= 0;
}

bool BareDecoder::openDecoders(Sound sound) {
    contexts_.resize(format_->nb_streams);
    for (unsigned int i = 0; i < format_->nb_streams; ++i) {
        const AVCodecParameters* parameters = format_->streams[i]->codecpar;
        const bool isSound = parameters->codec_type == AVMEDIA_TYPE_AUDIO;
        if (static_cast<int>(i) != video_ && (!isSound || sound == Sound::Skip)) {
            continue;
        }
        const AVCodec* codec = avcodec_find_decoder(parameters->codec_id);
        if (codec == nullptr) {
            return false;
        }
        contexts_[i].reset(avcodec_alloc_context3(codec));
        AVCodecContext* context = contexts_[i].get();
        avcodec_parameters_to_context(context, parameters);
        context->thread_count = isSound ? 1 : kThreads;
        if (avcodec_open2(context, codec, nullptr) < 0) {
            return false;
        }
    }
    return true;
}

bool BareDecoder::next() {
    AVCodecContext* video = contexts_[static_cast<size_t>(video_)].get();
    while (avcodec_receive_frame(video, frame_.get()) < 0) {
        if (ended_) {
            return false;
        }
        if (!readPacket()) {
            ended_ = true;
            avcodec_send_packet(video, nullptr);
        }
    }
    return true;
}

bool BareDecoder::readPacket() {
    if (av_read_frame(format_.get(), packet_.get()) < 0) {
        return false;
    }
    if (AVCodecContext* context = contexts_[static_cast<size_t>(packet_->stream_index)].get()) {
        avcodec_send_packet(context, packet_.get());
        if (packet_->stream_index != video_) {
            decodeSound(context);
        }
    }
    av_packet_unref(packet_.get());
    return true;
}

void BareDecoder::decodeSound(AVCodecContext* context) {
    while (avcodec_receive_frame(context, soundFrame_.get()) >= 0) {
        av_frame_unref(soundFrame_.get());
    }
}

bool BareDecoder::seek(int64_t ms) {
    const AVStream* stream = format_->streams[video_];
    const int64_t start = stream->start_time == AV_NOPTS_VALUE ? 0 : stream->start_time;
    const int64_t target = start + av_rescale_q(ms, AVRational{1, 1000}, stream->time_base);
    if (av_seek_frame(format_.get(), video_, target, AVSEEK_FLAG_BACKWARD) < 0) {
        return false;
    }
    for (const auto& context : contexts_) {
        if (context) {
            avcodec_flush_buffers(context.get());
        }
    }
    ended_ = false;
    return true;
}

bool BareDecoder::decodeTo(int64_t ms) {
    const double frameMs = 1000 / rate();
    do {
        if (!next()) {
            return false;
        }
    } while (pictureMs() + frameMs <= static_cast<double>(ms));
    return true;
}

double BareDecoder::pictureMs() const {
    const AVStream* stream = format_->streams[video_];
    const int64_t start = stream->start_time == AV_NOPTS_VALUE ? 0 : stream->start_time;
    return static_cast<double>(frame_->best_effort_timestamp - start) * av_q2d(stream->time_base) * 1000;
}

double BareDecoder::rate() const {
    const AVRational rate = format_->streams[video_]->avg_frame_rate;
    return rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 25;
}

double BareDecoder::durationMs() const {
    return static_cast<double>(format_->duration) * 1000 / AV_TIME_BASE;
}

int BareDecoder::width() const {
    return format_->streams[video_]->codecpar->width;
}

int BareDecoder::height() const {
    return format_->streams[video_]->codecpar->height;
}

}  // namespace kelp::bench
