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
#include "input/open_sessions.h"
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
// A goodbye that the server doesn't take by then isn't sent. The library looks once in 100 ms.
constexpr std::chrono::milliseconds kFarewell{50};
// FFmpeg's reading of DASH loses 32 KiB where the opening of a segment is broken off, and a server that is well gives
// one sooner.
constexpr std::chrono::milliseconds kDashReadGrace{500};

// A host that asks for either of these wants to get through what a network does.
bool isBuffered(const PlaybackOptions& options) {
    return options.readAheadMs > 0 || options.rebufferMs > 0;
}

}  // namespace

StreamParser::StreamParser(TimestampExtrapolator* extrapolator, std::shared_ptr<PacketOutlet> packets,
                           std::shared_ptr<SubtitleTaker> subtitles)
    : BaseThread(TAG), extrapolator_(extrapolator), packets_(std::move(packets)), subtitles_(std::move(subtitles)) {
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

OptionMap StreamParser::options() {
    std::lock_guard lock(optionsMutex_);
    return options_;
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
        isThreadThere_ = true;
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
    OpenSessions::remove(*this);

    std::lock_guard lock(mutex_);
    isThreadThere_ = false;
    closeInput();
    durationUs_ = 0;
    paused_ = false;
    reading_ = false;
    seekAsked_.drop();
    loop_.forget();
    videoAsked_.drop();
    audioAsked_.drop();
    subtitleAsked_.drop();
    resetStopRequest();
}

bool StreamParser::leave() {
    leaves_ = true;
    prepareStop();
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock.owns_lock() || isThreadThere_) {
        return false;
    }
    closeInput();
    return true;
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
    info->is_remote = isRemote_;
    info->seekable = !isLive_;
    if (formatContext_) {
        const int picture = coverStream_ ? coverStream_->index : videoStreamIndex_;
        info->tracks = listTracks(*formatContext_, playbackOptions_);
        for (Track& track : info->tracks) {
            track.isPlayed = track.isPlayable && (track.number == picture || track.number == audioStreamIndex_ ||
                                                  track.number == subtitleStreamIndex_);
        }
    }
    return info;
}

// Takes no lock: `open` holds mutex_ while it runs.
int StreamParser::interruptCallback(void* opaque) {
    return !opaque || static_cast<StreamParser*>(opaque)->isToGiveUp() ? 1 : 0;
}

bool StreamParser::isToGiveUp() {
    return isReadBroken() || (isStopRequested() && std::chrono::steady_clock::now() >= farewellEnd_);
}

// An RTSP server that isn't told would send on, and keep the session for a minute. The library writes TEARDOWN when it
// closes, if nothing breaks that off, and waits for no answer.
void StreamParser::closeInput() {
    if (formatContext_ && isInputNamed("rtsp")) {
        farewellEnd_ = std::chrono::steady_clock::now() + kFarewell;
    }
    av_bsf_free(&bsfContext_);
    avformat_close_input(&formatContext_);
    static_cast<StreamParserState&>(*this) = {};
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

    {
        std::lock_guard lock(optionsMutex_);
        OptionMap options = options_;
        if (playbackOptions_.allCodecs || playbackOptions_.lowLiveDelay) {
            addOwnOptions(options, filePath_, playbackOptions_.lowLiveDelay);
        } else {
            addSourceOptions(kept_, filePath_);
            options.insert(kept_.begin(), kept_.end());
        }
        if (playbackOptions_.rtspFallsBack) {
            addRtspFallback(options);
        }
        if (isBuffered(playbackOptions_)) {
            addReconnect(options, filePath_);
        }
        inputOptions_ = std::move(options);
    }
    if (isBuffered(playbackOptions_) && isRemote(filePath_)) {
        parts_ = std::make_unique<InputParts>(inputOptions_);
        parts_->watch(*formatContext_);
    }
    AwaitedPipe pipe(filePath_, [this] { return isStopRequested(); });
    pipe.watchOpenOf(formatContext_);
    int result = openContext(&formatContext_, inputOptions_);
    if (result < 0 || !formatContext_) {
        char text[255] = {};
        av_strerror(result, text, sizeof(text));
        Log::Error(TAG, "open input file %s faield! ret:%d, %s, is stoped:%d\n", filePath_.c_str(), result, text,
                   isStopRequested());
        choice_->explain(filePath_, result, nullptr);
        return false;
    }
    if (isInputNamed("rtsp")) {
        OpenSessions::add(*this);
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

int StreamParser::openContext(AVFormatContext** context, const OptionMap& options) {
    AVDictionary* entries = nullptr;
    for (const auto& [key, value] : options) {
        Log::Debug(TAG, "%s, set key:%s, value:%s\n", "open", key.c_str(), value.c_str());
        av_dict_set(&entries, key.c_str(), value.c_str(), 0);
    }
    const int result = avformat_open_input(context, filePath_.c_str(), nullptr, &entries);
    av_dict_free(&entries);
    return result;
}

void StreamParser::readTimes() {
    isLive_ = isInputNamed("rtsp") || isInputNamed("sdp");
    isRemote_ = !isLive_ && isRemote(filePath_);
    isReadBreakable_ = isRemote_ && isBuffered(playbackOptions_);
    reopensForSeeks_ = (isBuffered(playbackOptions_) || playbackOptions_.allCodecs) && needsReopening();
    readGrace_ = isInputNamed("dash") ? kDashReadGrace : std::chrono::milliseconds(0);
    readAhead_ = ReadAhead(isRemote_ ? playbackOptions_.readAheadMs : 0);
    // Where nobody knows a length, the end of a pipe can't be told from the death of who writes.
    const bool isEndless = isLive_ || (isPipe(filePath_) && formatContext_->duration == AV_NOPTS_VALUE);
    readErrors_ = ReadErrors(isEndless && playbackOptions_.closedLiveFails ? ReadErrors::EndIs::Loss
                                                                           : ReadErrors::EndIs::Completion);
    mending_ = InputMending(playbackOptions_.allCodecs, isLive_);
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
    const int64_t seekTimeUs = wrappingMultiply(seekTimeMs, 1000);
    if (reopensForSeeks_) {
        adopt(reopenAt(seekTimeUs));
        return;
    }
    const int64_t target = wrappingAdd(seekTimeUs, startTimeUs_);
    if (avformat_seek_file(formatContext_, -1, INT64_MIN, target, INT64_MAX, 0) < 0) {
        Log::Warn(TAG, "%s: could not seek to position %0.3f\n", filePath_.c_str(),
                  static_cast<double>(target) / 1000000.0);
    }
}

bool StreamParser::isInputNamed(const char* name) const {
    const AVInputFormat* format = formatContext_->iformat;
    return format && format->name && std::string_view(format->name) == name;
}

}  // namespace kelp
