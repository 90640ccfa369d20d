#include "subtitle/subtitle_decoder.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "clock/wrapping_math.h"
#include "kelp_player/log.h"
#include "runtime/utf8.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/avstring.h>
#include <libavutil/dict.h>
#include <libavutil/mathematics.h>
}

namespace kelp {

namespace {

constexpr char kTag[] = "SubtitleDecoder";
constexpr char kOldCharset[] = "WINDOWS-1252";
constexpr size_t kColors = 256;
constexpr int kMaxBitmapSide = 8192;              // in pixels
constexpr int64_t kMaxBitmapPixels = 16'000'000;  // of all that one packet brings

struct FreeSubtitle {
    AVSubtitle subtitle{};
    ~FreeSubtitle() { avsubtitle_free(&subtitle); }
};

struct FreeParameters {
    void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
};

bool isUtf8(const AVPacket& packet) {
    const uint8_t* at = packet.data;
    const uint8_t* const end = at + packet.size;
    int32_t code = 0;
    while (at < end) {
        if (av_utf8_decode(&code, &at, end, AV_UTF8_FLAG_ACCEPT_ALL) < 0) {
            return false;
        }
    }
    return true;
}

// Without the first field, by which the library counts.
std::string withoutCount(const char* ass) {
    const char* const comma = std::strchr(ass, ',');
    return comma ? comma + 1 : "";
}

bool isBitmap(const AVSubtitleRect& rect) {
    return rect.type == SUBTITLE_BITMAP && rect.data[0] && rect.data[1] && rect.w > 0 && rect.h > 0 &&
           rect.w <= kMaxBitmapSide && rect.h <= kMaxBitmapSide;
}

SubtitleBitmap copyOf(const AVSubtitleRect& rect) {
    SubtitleBitmap bitmap;
    bitmap.x = rect.x;
    bitmap.y = rect.y;
    bitmap.width = rect.w;
    bitmap.height = rect.h;
    bitmap.indices.reserve(static_cast<size_t>(rect.w) * static_cast<size_t>(rect.h));
    for (int row = 0; row < rect.h; ++row) {
        const uint8_t* const begin = rect.data[0] + static_cast<ptrdiff_t>(row) * rect.linesize[0];
        bitmap.indices.insert(bitmap.indices.end(), begin, begin + rect.w);
    }
    bitmap.palette.resize(kColors);
    const auto colors = std::clamp<size_t>(static_cast<size_t>(std::max(rect.nb_colors, 0)), 0, kColors);
    std::memcpy(bitmap.palette.data(), rect.data[1], colors * sizeof(uint32_t));
    return bitmap;
}

}  // namespace

void SubtitleDecoder::FreeContext::operator()(AVCodecContext* context) const {
    avcodec_free_context(&context);
}

SubtitleDecoder::SubtitleDecoder(Context context, int64_t originUs, std::string charset)
    : context_(std::move(context)), originUs_(originUs), charset_(std::move(charset)) {
}

std::unique_ptr<SubtitleDecoder> SubtitleDecoder::open(const AVCodecParameters& parameters, AVRational timeBase,
                                                       int64_t originUs, std::string charset) {
    Context context = openContext(parameters, timeBase, nullptr);
    if (!context) {
        Log::Error(kTag, "%s, no decoder for %s can be opened\n", "open", avcodec_get_name(parameters.codec_id));
        return nullptr;
    }
    return std::unique_ptr<SubtitleDecoder>(new SubtitleDecoder(std::move(context), originUs, std::move(charset)));
}

SubtitleDecoder::Context SubtitleDecoder::openContext(const AVCodecParameters& parameters, AVRational timeBase,
                                                      const char* charset) {
    const AVCodec* const codec = avcodec_find_decoder(parameters.codec_id);
    Context context(codec ? avcodec_alloc_context3(codec) : nullptr);
    if (!context || codec->type != AVMEDIA_TYPE_SUBTITLE ||
        avcodec_parameters_to_context(context.get(), &parameters) < 0) {
        return nullptr;
    }
    context->pkt_timebase = timeBase;
    AVDictionary* options = nullptr;
    if (charset) {
        av_dict_set(&options, "sub_charenc", charset, 0);
    }
    const int result = avcodec_open2(context.get(), codec, &options);
    av_dict_free(&options);
    return result < 0 ? nullptr : std::move(context);
}

bool SubtitleDecoder::isText() const {
    return context_->codec_descriptor && (context_->codec_descriptor->props & AV_CODEC_PROP_TEXT_SUB) != 0;
}

bool SubtitleDecoder::isStyled() const {
    return context_->codec_id == AV_CODEC_ID_ASS || context_->codec_id == AV_CODEC_ID_SSA;
}

std::string SubtitleDecoder::script() const {
    const auto* const begin = reinterpret_cast<const char*>(context_->subtitle_header);
    return begin ? readableUtf8({begin, static_cast<size_t>(context_->subtitle_header_size)}) : std::string();
}

std::vector<SubtitleEvent> SubtitleDecoder::decode(const AVPacket& packet) {
    std::vector<SubtitleEvent> events;
    FreeSubtitle decoded;
    bool isDecoded = false;
    int result = decodeInto(packet, decoded.subtitle, isDecoded);
    if (result < 0 && changeCharset(packet)) {
        result = decodeInto(packet, decoded.subtitle, isDecoded);
    }
    if (result < 0 && !std::exchange(hasFailed_, true)) {
        char text[AV_ERROR_MAX_STRING_SIZE] = {};
        av_strerror(result, text, sizeof(text));
        Log::Warn(kTag, "%s, a packet of %s is left out: %s\n", "decode", avcodec_get_name(context_->codec_id), text);
    }
    if (result >= 0 && isDecoded) {
        read(decoded.subtitle, packet, events);
    }
    return events;
}

int SubtitleDecoder::decodeInto(const AVPacket& packet, AVSubtitle& subtitle, bool& isDecoded) {
    // Taken by a pointer that isn't const, and not changed.
    AVPacket copy = packet;
    int got = 0;
    const int result = avcodec_decode_subtitle2(context_.get(), &subtitle, &got, &copy);
    isDecoded = got != 0;
    return result;
}

bool SubtitleDecoder::changeCharset(const AVPacket& packet) {
    // What has its text in a form of its own is damaged then.
    const bool isPlainText = isText() && context_->codec_id != AV_CODEC_ID_MOV_TEXT &&
                             context_->codec_id != AV_CODEC_ID_EIA_608 &&
                             context_->codec_id != AV_CODEC_ID_DVB_TELETEXT;
    if (!isPlainText || isRecoded_ || isUtf8(packet)) {
        return false;
    }
    const std::unique_ptr<AVCodecParameters, FreeParameters> parameters(avcodec_parameters_alloc());
    if (!parameters || avcodec_parameters_from_context(parameters.get(), context_.get()) < 0) {
        return false;
    }
    const char* charset = charset_.empty() ? kOldCharset : charset_.c_str();
    Context recoding = openContext(*parameters, context_->pkt_timebase, charset);
    if (!recoding && charset != kOldCharset) {
        Log::Warn(kTag, "%s, there is no charset %s\n", "decode", charset);
        charset = kOldCharset;
        recoding = openContext(*parameters, context_->pkt_timebase, charset);
    }
    if (!recoding) {
        return false;
    }
    Log::Info(kTag, "%s, the text isn't UTF-8 and is taken for %s\n", "decode", charset);
    context_ = std::move(recoding);
    isRecoded_ = true;
    return true;
}

void SubtitleDecoder::read(const AVSubtitle& subtitle, const AVPacket& packet,
                           std::vector<SubtitleEvent>& events) const {
    constexpr AVRational kMicroseconds{1, AV_TIME_BASE};
    int64_t us = subtitle.pts;
    if (us == AV_NOPTS_VALUE) {
        const int64_t ticks = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
        if (ticks == AV_NOPTS_VALUE) {
            return;
        }
        us = av_rescale_q(ticks, context_->pkt_timebase, kMicroseconds);
    }
    // Up to here a time may be anything; in milliseconds it is far from the ends of its type.
    const int64_t timeMs = av_rescale(wrappingSubtract(us, originUs_), 1, 1000);
    SubtitleEvent event;
    event.startMs = timeMs + subtitle.start_display_time;
    if (subtitle.end_display_time > subtitle.start_display_time && subtitle.end_display_time != UINT32_MAX) {
        event.endMs = timeMs + subtitle.end_display_time;
    } else if (isText() && packet.duration > 0) {
        const int64_t lastsMs = av_rescale_q(packet.duration, context_->pkt_timebase, AVRational{1, 1000});
        const int64_t longestMs = SubtitleEvent::kOpenEnd - std::max<int64_t>(timeMs, 0);
        if (lastsMs >= subtitle.start_display_time && lastsMs <= longestMs) {
            event.endMs = timeMs + lastsMs;
        }
    }
    event.canvasWidth = std::max(context_->width, 0);
    event.canvasHeight = std::max(context_->height, 0);
    int64_t pixels = 0;
    for (unsigned int i = 0; i < subtitle.num_rects; ++i) {
        const AVSubtitleRect& rect = *subtitle.rects[i];
        if (isBitmap(rect)) {
            const int64_t size = int64_t{rect.w} * rect.h;
            if (pixels + size <= kMaxBitmapPixels) {
                pixels += size;
                event.bitmaps.push_back(copyOf(rect));
            }
        } else if (rect.ass) {
            SubtitleEvent line = event;
            line.bitmaps.clear();
            line.ass = withoutCount(rect.ass);
            line.order = isStyled() ? std::max(std::atoi(rect.ass), 0) : -1;
            events.push_back(std::move(line));
        }
    }
    if (!isText()) {
        events.push_back(std::move(event));  // one without any is the end of those before
    }
}

void SubtitleDecoder::flush() {
    avcodec_flush_buffers(context_.get());
}

}  // namespace kelp
