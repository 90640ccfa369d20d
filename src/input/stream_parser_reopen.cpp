// Inputs of segments that can't be sought: they are opened anew, beginning with another segment.

#include <algorithm>
#include <utility>

#include "input/stream_parser.h"
#include "kelp_player/log.h"

extern "C" {
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

namespace kelp {
namespace {

constexpr const char* TAG = "StreamParser";

constexpr uint32_t kFirstOfFourLetters = 1U << 24U;  // MPEG-TS has smaller ones, and most raw streams none

bool hasSameExtradata(const AVCodecParameters& a, const AVCodecParameters& b) {
    return std::equal(a.extradata, a.extradata + a.extradata_size, b.extradata, b.extradata + b.extradata_size);
}

}  // namespace

// MP4 alone has tags of four letters for its codecs. A list whose beginning goes can't be sought; one that grows can,
// though nobody knows its length.
bool StreamParser::needsReopening() const {
    if (!isInputNamed("hls") || (formatContext_->ctx_flags & AVFMTCTX_UNSEEKABLE) != 0) {
        return false;
    }
    AVStream** const streams = formatContext_->streams;
    return std::any_of(streams, streams + formatContext_->nb_streams,
                       [](const AVStream* stream) { return stream->codecpar->codec_tag >= kFirstOfFourLetters; });
}

StreamParser::Reopened StreamParser::reopenAt(int64_t posUs) {
    Reopened reopened{std::make_unique<InputParts>(inputOptions_, posUs), avformat_alloc_context()};
    if (!reopened.context) {
        return {};
    }
    reopened.context->interrupt_callback = formatContext_->interrupt_callback;
    reopened.parts->watch(*reopened.context);
    OptionMap options = inputOptions_;
    options["http_persistent"] = "0";
    options["live_start_index"] = "0";  // of a list that grows
    inBreakableRead_ = isReadBreakable_;
    const int result = openContext(&reopened.context, options);
    inBreakableRead_ = false;
    if (result >= 0 && isSameFilm(*reopened.context)) {
        reopened.context->flags |= AVFMT_FLAG_GENPTS;
        return reopened;
    }
    if (!isStopRequested() && !seekAsked_.isPending()) {
        Log::Error(TAG, "%s, seek failed, ret:%d\n", "processSeekRequest", result);
    }
    avformat_close_input(&reopened.context);
    return {};
}

bool StreamParser::isSameFilm(const AVFormatContext& context) const {
    if (context.nb_streams != formatContext_->nb_streams) {
        return false;
    }
    for (int i = 0; i < static_cast<int>(context.nb_streams); ++i) {
        const AVStream& before = *formatContext_->streams[i];
        const AVStream& now = *context.streams[i];
        const auto left = leftBsfs_.find(i);
        const AVBSFContext* const bsf = left != leftBsfs_.end()  ? left->second.get()
                                        : i == videoStreamIndex_ ? bsfContext_
                                                                 : nullptr;
        const AVCodecParameters& asRead = bsf ? *bsf->par_in : *before.codecpar;
        if (now.codecpar->codec_id != asRead.codec_id || av_cmp_q(now.time_base, before.time_base) != 0 ||
            !hasSameExtradata(*now.codecpar, asRead)) {
            return false;
        }
    }
    return true;
}

void StreamParser::adopt(Reopened reopened) {
    if (!reopened.context) {
        return;
    }
    for (unsigned int i = 0; i < reopened.context->nb_streams; ++i) {
        const AVStream& before = *formatContext_->streams[i];
        AVStream& now = *reopened.context->streams[i];
        now.discard = before.discard;
        now.avg_frame_rate = before.avg_frame_rate;
        now.r_frame_rate = before.r_frame_rate;
        avcodec_parameters_copy(now.codecpar, before.codecpar);
    }
    const auto streamAt = [&](int index) { return index >= 0 ? reopened.context->streams[index] : nullptr; };
    videoStream_ = streamAt(videoStreamIndex_);
    audioStream_ = streamAt(audioStreamIndex_);
    coverStream_ = streamAt(coverStream_ ? coverStream_->index : -1);
    packets_->move(videoStream_, audioStream_);
    std::swap(formatContext_, reopened.context);
    std::swap(parts_, reopened.parts);
    avformat_close_input(&reopened.context);
}

}  // namespace kelp
