// The parser outside its thread: options, opening, choice of streams, closing, and what others ask.

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "clock/timestamp_extrapolator.h"
#include "clock/wrapping_math.h"
#include "input/annexb.h"
#include "input/awaited_pipe.h"
#include "input/codec_tables.h"
#include "input/picture_limit.h"
#include "input/stream_choice.h"
#include "input/stream_parser.h"
#include "input/track_list.h"
#include "kelp_player/log.h"
#include "runtime/ffmpeg_compat.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

namespace kelp {
namespace {

constexpr const char* TAG = "StreamParser";

constexpr int64_t kUnknownDurationUs = 36'000'000'000;  // ten hours
constexpr int kDefaultFrameRate = 30;
// A goodbye that the server doesn't take by then isn't sent. The library looks once in 100 ms.
constexpr std::chrono::milliseconds kFarewell{50};

struct Dictionary {
    Dictionary() = default;
    Dictionary(const Dictionary&) = delete;
    Dictionary& operator=(const Dictionary&) = delete;
    ~Dictionary() { av_dict_free(&entries); }

    AVDictionary* entries = nullptr;
};

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

StreamParser::StreamParser(TimestampExtrapolator* extrapolator, std::shared_ptr<PacketOutlet> packets)
    : BaseThread(TAG), extrapolator_(extrapolator), packets_(std::move(packets)) {
    Log::Debug(TAG, "StreamParser()\n");
}

StreamParser::~StreamParser() {
    Log::Debug(TAG, "~StreamParser()\n");
    close();
}

void StreamParser::init(std::shared_ptr<StreamParserObserver> observer) {
    observer_ = std::move(observer);
    std::lock_guard lock(optionsMutex_);
    setDefaultOptions(options_);
}

void StreamParser::setOption(const char* key, const char* value) {
    if (!key || !value) {
        return;
    }
    std::lock_guard lock(optionsMutex_);
    options_[key] = value;
}

void StreamParser::setPlaybackOptions(const PlaybackOptions& options) {
    std::lock_guard lock(mutex_);
    playbackOptions_ = options;
}

bool StreamParser::open(std::string filePath, int64_t seekTimeMs) {
    Log::Info(TAG, "open filePath:%s, seekTimeMs:%lld\n", filePath.c_str(), static_cast<long long>(seekTimeMs));
    std::lock_guard lock(mutex_);
    filePath_ = std::move(filePath);
    choice_ = &StreamChoice::of(playbackOptions_);
    if (!openInput()) {
        return false;
    }
    readTimes();
    if (seekTimeMs > 0) {
        seekAfterOpen(seekTimeMs);
    }
    bool isFound = false;
    bool isTooLarge = false;
    {
        const LargeStreamsHidden hidden(*formatContext_, playbackOptions_.maxPixels);
        isFound = selectStreams();
        isTooLarge = hidden.any();
    }
    if (!isFound) {
        Log::Error(TAG, "No avaliable stream have found\n");
        choice_->explain(filePath_, isTooLarge ? AVERROR(ERANGE) : AVERROR_STREAM_NOT_FOUND,
                         isTooLarge ? nullptr : formatContext_);
        return false;
    }
    Log::Info(TAG, "open filePath:%s succeed\n", filePath_.c_str());
    return true;
}

bool StreamParser::start() {
    std::lock_guard lock(mutex_);
    Log::Info(TAG, "start begin\n");
    videoRead_.reset();
    audioRead_.reset();
    packets_->resetCounts();
    // A context without a stream is what an open that failed has left.
    const bool isOpen = formatContext_ && (videoStreamIndex_ >= 0 || audioStreamIndex_ >= 0);
    if (isOpen && !isStopRequested() && startThread()) {
        Log::Info(TAG, "start end, succeed\n");
        return true;
    }
    Log::Error(TAG, "start end, error, stop requested:%d, context:%p\n", isStopRequested(),
               static_cast<void*>(formatContext_));
    return false;
}

void StreamParser::stop() {
    Log::Info(TAG, "stop\n");
    requestStop();
    joinThread();
}

void StreamParser::close() {
    Log::Info(TAG, "close\n");
    requestStop();
    joinThread();

    std::lock_guard lock(mutex_);
    av_bsf_free(&bsfContext_);
    closeInput();
    static_cast<StreamParserState&>(*this) = {};
    durationUs_ = 0;
    paused_ = false;
    seekAsked_.drop();
    videoAsked_.drop();
    audioAsked_.drop();
    resetStopRequest();
}

std::shared_ptr<CodecInfo> StreamParser::getCodecInfo() {
    std::lock_guard lock(mutex_);
    auto info = std::make_shared<CodecInfo>();
    info->videoCodecType = videoCodecType_;
    info->audioCodecType = audioCodecType_;
    info->width = width_;
    info->height = height_;
    info->pixFormat = pixFormat_;
    info->frameRate = frameRate_;
    info->channels = channels_;
    info->sampleRate = sampleRate_;
    info->sampleFormat = sampleFormat_;
    if (const AVStream* picture = videoStream_ ? videoStream_ : coverStream_; picture && picture->codecpar) {
        info->videoParameters = compat::copyParameters(picture);
    }
    if (audioStream_ && audioStream_->codecpar) {
        info->audioParameters = compat::copyParameters(audioStream_);
    }
    return info;
}

std::shared_ptr<StreamInfo> StreamParser::getStreamInfo() {
    std::lock_guard lock(mutex_);
    auto info = std::make_shared<StreamInfo>();
    info->start_time = startTimeUs_ / 1000;
    info->duration = durationUs_ / 1000;
    info->has_video = videoStreamIndex_ >= 0 || coverStream_;
    info->is_cover = coverStream_ != nullptr;
    info->has_audio = audioStreamIndex_ >= 0;
    info->is_live = isLive_;
    info->seekable = !isLive_;
    if (formatContext_) {
        const int picture = coverStream_ ? coverStream_->index : videoStreamIndex_;
        info->tracks = listTracks(*formatContext_, playbackOptions_);
        for (Track& track : info->tracks) {
            track.isPlayed = track.isPlayable && (track.number == picture || track.number == audioStreamIndex_);
        }
    }
    return info;
}

// Takes no lock: `open` holds mutex_ while it runs.
int StreamParser::interruptCallback(void* opaque) {
    return !opaque || static_cast<StreamParser*>(opaque)->isToGiveUp() ? 1 : 0;
}

bool StreamParser::isToGiveUp() {
    return isStopRequested() && std::chrono::steady_clock::now() >= farewellEnd_;
}

// An RTSP server that isn't told would send on, and keep the session for a minute. The library writes TEARDOWN when it
// closes, if nothing breaks that off, and waits for no answer.
void StreamParser::closeInput() {
    if (formatContext_ && isInputNamed("rtsp")) {
        farewellEnd_ = std::chrono::steady_clock::now() + kFarewell;
    }
    avformat_close_input(&formatContext_);
    farewellEnd_ = {};
}

bool StreamParser::openInput() {
    formatContext_ = avformat_alloc_context();
    if (!formatContext_) {
        Log::Error(TAG, "Could not allocate context.\n");
        return false;
    }
    formatContext_->interrupt_callback.callback = interruptCallback;
    formatContext_->interrupt_callback.opaque = this;

    Dictionary dictionary;
    {
        std::lock_guard lock(optionsMutex_);
        OptionMap options = options_;
        addSourceOptions(options, filePath_);
        if (!playbackOptions_.allCodecs) {
            options_ = options;  // the next source meets what was added, fit or not
        }
        if (playbackOptions_.rtspFallsBack) {
            addRtspFallback(options);
        }
        for (const auto& [key, value] : options) {
            Log::Debug(TAG, "%s, set key:%s, value:%s\n", "open", key.c_str(), value.c_str());
            av_dict_set(&dictionary.entries, key.c_str(), value.c_str(), 0);
        }
    }
    AwaitedPipe pipe(filePath_, [this] { return isStopRequested(); });
    pipe.watchOpenOf(formatContext_);
    int result = avformat_open_input(&formatContext_, filePath_.c_str(), nullptr, &dictionary.entries);
    if (result < 0 || !formatContext_) {
        char text[255] = {};
        av_strerror(result, text, sizeof(text));
        Log::Error(TAG, "open input file %s faield! ret:%d, %s, is stoped:%d\n", filePath_.c_str(), result, text,
                   isStopRequested());
        choice_->explain(filePath_, result, nullptr);
        return false;
    }
    formatContext_->flags |= AVFMT_FLAG_GENPTS;
    ProbeOptions probeOptions(*formatContext_, playbackOptions_.maxPixels);
    result = avformat_find_stream_info(formatContext_, probeOptions.get());
    probeOptions.restoreSizes(*formatContext_);
    if (result < 0) {
        Log::Error(TAG, "find stream info %s failed!\n", filePath_.c_str());
        choice_->explain(filePath_, result, nullptr);
        return false;
    }
    if (formatContext_->pb) {
        formatContext_->pb->eof_reached = 0;
    }
    return true;
}

void StreamParser::readTimes() {
    isLive_ = isInputNamed("rtsp") || isInputNamed("sdp");
    // Where nobody knows a length, the end of a pipe can't be told from the death of who writes.
    const bool isEndless = isLive_ || (isPipe(filePath_) && formatContext_->duration == AV_NOPTS_VALUE);
    readErrors_ = ReadErrors(isEndless && playbackOptions_.closedLiveFails ? ReadErrors::EndIs::Loss
                                                                           : ReadErrors::EndIs::Completion);
    mending_ = InputMending(playbackOptions_.allCodecs && !isLive_);
    if (formatContext_->start_time != AV_NOPTS_VALUE) {
        startTimeUs_ = formatContext_->start_time;
        originUs_ = mending_.originUs(startTimeUs_);
    }
    const bool isDurationKnown = formatContext_->duration != AV_NOPTS_VALUE;
    durationUs_ = isDurationKnown ? mending_.durationUs(*formatContext_) : kUnknownDurationUs;
    Log::Info(TAG, "Start time of this file is %lld us, duration %lld us\n", static_cast<long long>(startTimeUs_),
              static_cast<long long>(durationUs_));
}

void StreamParser::seekAfterOpen(int64_t seekTimeMs) {
    const int64_t target = wrappingAdd(wrappingMultiply(seekTimeMs, 1000), startTimeUs_);
    if (avformat_seek_file(formatContext_, -1, INT64_MIN, target, INT64_MAX, 0) < 0) {
        Log::Warn(TAG, "%s: could not seek to position %0.3f\n", filePath_.c_str(),
                  static_cast<double>(target) / 1000000.0);
    }
}

bool StreamParser::selectStreams() {
    for (unsigned int i = 0; i < formatContext_->nb_streams; ++i) {
        formatContext_->streams[i]->discard = AVDISCARD_ALL;
    }
    const int video = chooseStream(TRACK_KIND_VIDEO, playbackOptions_.videoTrack, -1);
    const int audio = chooseStream(TRACK_KIND_AUDIO, playbackOptions_.audioTrack, video);
    av_dump_format(formatContext_, 0, filePath_.c_str(), 0);
    tellsSoundEnd_ = keepsSideData_ = playbackOptions_.allCodecs;
    videoStreamIndex_ = findStream(video) ? video : -1;
    audioStreamIndex_ = findStream(audio) ? audio : -1;
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

bool StreamParser::isInputNamed(const char* name) const {
    const AVInputFormat* format = formatContext_->iformat;
    return format && format->name && std::string_view(format->name) == name;
}

}  // namespace kelp
