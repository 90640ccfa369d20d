// Which streams the parser takes, and what it learns of them.

#include <memory>

#include "clock/timestamp_extrapolator.h"
#include "clock/wrapping_math.h"
#include "input/annexb.h"
#include "input/codec_tables.h"
#include "input/stream_choice.h"
#include "input/stream_parser.h"
#include "kelp_player/log.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

namespace kelp {
namespace {

constexpr const char* TAG = "StreamParser";

constexpr int kDefaultFrameRate = 30;
constexpr int kMostPicturesPerSecond = 1000;  // of a rate; more are those of a clock

struct CodecContextDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};

struct BsfDeleter {
    void operator()(AVBSFContext* context) const { av_bsf_free(&context); }
};

// Whole frames per second; 0 if unknown.
int wholeRate(AVRational rate) {
    return rate.num != 0 && rate.den != 0 ? static_cast<int>(static_cast<double>(rate.num) / rate.den) : 0;
}

// A time in microseconds as ticks.
int64_t startInTicks(int64_t startUs, AVRational timeBase) {
    if (timeBase.num <= 0) {
        return 0;
    }
    return wrappingMultiply(timeBase.den, startUs) / timeBase.num / 1000000;
}

}  // namespace

bool StreamParser::selectStreams() {
    for (unsigned int i = 0; i < formatContext_->nb_streams; ++i) {
        formatContext_->streams[i]->discard = AVDISCARD_ALL;
    }
    const int video = chooseStream(TRACK_KIND_VIDEO, playbackOptions_.videoTrack, -1);
    const int audio = chooseStream(TRACK_KIND_AUDIO, playbackOptions_.audioTrack, video);
    av_dump_format(formatContext_, 0, filePath_.c_str(), 0);
    tellsSoundEnd_ = keepsSideData_ = leavesOthersOut_ = playbackOptions_.allCodecs;
    videoStreamIndex_ = findStream(video) ? video : -1;
    audioStreamIndex_ = findStream(audio) ? audio : -1;
    chooseSubtitle();
    if (playbackOptions_.allCodecs && audioStreamIndex_ >= 0) {
        setCoverAside();
    }
    return videoStreamIndex_ >= 0 || audioStreamIndex_ >= 0;
}

bool StreamParser::findStream(int index) {
    if (index < 0 || static_cast<unsigned int>(index) >= formatContext_->nb_streams) {
        return false;
    }
    const std::unique_ptr<AVCodecContext, CodecContextDeleter> context(avcodec_alloc_context3(nullptr));
    if (!context) {
        return false;
    }
    AVStream* stream = formatContext_->streams[index];
    if (avcodec_parameters_to_context(context.get(), stream->codecpar) < 0) {
        Log::Error(TAG, "Could not copy codec params\n");
        return false;
    }
    context->pkt_timebase = stream->time_base;
    const AVCodec* decoder = avcodec_find_decoder(context->codec_id);
    if (!decoder) {
        Log::Error(TAG, "No codec could be found with id %d\n", static_cast<int>(context->codec_id));
        return false;
    }
    context->codec_id = decoder->id;
    stream->discard = AVDISCARD_DEFAULT;
    if (context->codec_type == AVMEDIA_TYPE_AUDIO) {
        takeAudioStream(stream, context.get());
    } else if (context->codec_type == AVMEDIA_TYPE_VIDEO) {
        takeVideoStream(stream, context.get());
    }
    return true;
}

void StreamParser::takeAudioStream(AVStream* stream, const AVCodecContext* context) {
    audioStream_ = stream;
    audioCodecType_ = choice_->audioCodecType(context->codec_id);
    startTimeInAudioTimeBase_ = startInTicks(originUs_, stream->time_base);
    channels_ = context->ch_layout.nb_channels;
    sampleRate_ = context->sample_rate;
    sampleFormat_ = sampleFormatFromAv(context->sample_fmt);
    Log::Debug(TAG, "%s, audio startTimeInAudioTimeBase_:%lld, us:%lld\n", "findStream",
               static_cast<long long>(startTimeInAudioTimeBase_), static_cast<long long>(startTimeUs_));
}

void StreamParser::takeVideoStream(AVStream* stream, const AVCodecContext* context) {
    videoStream_ = stream;
    if (auto left = leftBsfs_.extract(stream->index)) {
        bsfContext_ = left.mapped().release();
    } else {
        detectBsf(stream);
    }
    videoCodecType_ = choice_->videoCodecType(context->codec_id);
    pixFormat_ = pixFormatFromAv(context->pix_fmt);
    startTimeInVideoTimeBase_ = startInTicks(originUs_, stream->time_base);
    width_ = context->width;
    height_ = context->height;
    if (isLive_ && playbackOptions_.lowLiveDelay && stream->time_base.den > kMostPicturesPerSecond &&
        av_cmp_q(stream->r_frame_rate, av_inv_q(stream->time_base)) == 0) {
        stream->r_frame_rate = {0,
                                1};  // which stands for a rate that neither the stream tells nor anybody has measured
    }
    frameRate_ = wholeRate(stream->r_frame_rate);
    if (frameRate_ == 0) {
        frameRate_ = wholeRate(av_guess_frame_rate(formatContext_, stream, nullptr));
    }
    if (frameRate_ == 0) {
        frameRate_ = kDefaultFrameRate;
    }
    if (extrapolator_ && isLive_ && stream->time_base.num != 0) {
        extrapolator_->init(stream->time_base.den / stream->time_base.num);
    }
    Log::Debug(TAG, "%s, video startTimeInVideoTimeBase_:%lld, us:%lld\n", "findStream",
               static_cast<long long>(startTimeInVideoTimeBase_), static_cast<long long>(startTimeUs_));
}

bool StreamParser::detectBsf(AVStream* stream) {
    AVCodecParameters* parameters = stream->codecpar;
    const AVInputFormat* format = formatContext_->iformat;
    Log::Debug(TAG, "%s, iformat.name:%s, long_name:%s, codec_id:%d\n", "detectBsf",
               format && format->name ? format->name : "", format && format->long_name ? format->long_name : "",
               static_cast<int>(parameters->codec_id));
    Log::PrintHex(TAG, parameters->extradata, parameters->extradata_size);
    if (parameters->codec_id != AV_CODEC_ID_H264 && parameters->codec_id != AV_CODEC_ID_HEVC) {
        Log::Debug(TAG, "%s succeed\n", "detectBsf");
        return true;
    }
    if (!isLengthPrefixed(parameters->codec_id, parameters->extradata, parameters->extradata_size)) {
        Log::Debug(TAG, "%s succeed, no need\n", "detectBsf");
        return true;
    }
    const bool isH264 = parameters->codec_id == AV_CODEC_ID_H264;
    const AVBitStreamFilter* filter = av_bsf_get_by_name(isH264 ? "h264_mp4toannexb" : "hevc_mp4toannexb");
    if (!filter) {
        Log::Error(TAG, "found not h264_mp4toannexb or hevc_mp4toannexb\n");
        return false;
    }
    AVBSFContext* allocated = nullptr;
    if (av_bsf_alloc(filter, &allocated) < 0) {
        return false;
    }
    std::unique_ptr<AVBSFContext, BsfDeleter> context(allocated);
    if (avcodec_parameters_copy(context->par_in, parameters) < 0 || av_bsf_init(context.get()) < 0) {
        // A filter that isn't set up would hand packets through unchanged: there is none then.
        return false;
    }
    bsfContext_ = context.release();
    // The decoder opens with the converted extra data.
    if (avcodec_parameters_copy(parameters, bsfContext_->par_out) < 0) {
        return false;
    }
    Log::Debug(TAG, "%s succeed\n", "detectBsf");
    return true;
}

}  // namespace kelp
