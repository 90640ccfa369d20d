#include "input/stream_choice.h"

#include <cerrno>
#include <filesystem>
#include <memory>

#include "input/codec_tables.h"
#include "input/source_options.h"
#include "kelp_player/log.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

namespace kelp {
namespace {

constexpr const char* TAG = "StreamParser";

bool isEmptyFile(const std::string& name) {
    std::error_code error;
    return std::filesystem::is_regular_file(name, error) && std::filesystem::file_size(name, error) == 0;
}

bool isFromServer(const std::string& name) {
    return isRemote(name) || name.starts_with("rtsp:") || name.starts_with("rtsps:");
}

constexpr const char* kUnreadable = "it ends too early, or can't be read";

// What the system or a server says needs no other words.
const char* plainWords(const std::string& name, int error) {
    if (isEmptyFile(name)) {
        return "it is empty";
    }
    switch (error) {
        case AVERROR_INVALIDDATA:
            return "it is damaged or cut off, or of a kind that isn't known";
        case AVERROR(EIO):
            // Also of a server whose name nobody knows.
            return isFromServer(name) ? "its server can't be found, or doesn't answer as it should" : kUnreadable;
        case AVERROR_EOF:
            return kUnreadable;
        case AVERROR(ERANGE):
            return "its pictures are larger than is allowed";
        default:
            return nullptr;
    }
}

struct FreeContext {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};

constexpr const char* kNoDecoder = "there is no decoder for it";
constexpr const char* kProtected = "it is protected";

class NamedCodecs final : public StreamChoice {
public:
    int best(AVFormatContext* input, AVMediaType kind, int related) const override {
        return av_find_best_stream(input, kind, -1, related, nullptr, 0);
    }
    const char* obstacle(const AVStream& stream) const override {
        const AVCodecParameters& parameters = *stream.codecpar;
        const bool hasName = parameters.codec_type == AVMEDIA_TYPE_VIDEO
                                 ? videoCodecTypeFromId(parameters.codec_id) != VIDEO_CODEC_NONE
                                 : audioCodecTypeFromId(parameters.codec_id) != AUDIO_CODEC_NONE;
        return hasName && avcodec_find_decoder(parameters.codec_id) ? nullptr : kNoDecoder;
    }
    bool isProtected(const AVPacket&) const override { return false; }
    bool isEnd(const AVFormatContext&, int error) const override { return error == AVERROR_EOF; }
    void explain(const std::string&, int, const AVFormatContext*) const override {}
    VideoCodecType videoCodecType(int codecId) const override { return videoCodecTypeFromId(codecId); }
    AudioCodecType audioCodecType(int codecId) const override { return audioCodecTypeFromId(codecId); }
};

class AllCodecs final : public StreamChoice {
public:
    // The library's choice, and if it can't be played, the first one that can.
    int best(AVFormatContext* input, AVMediaType kind, int related) const override {
        const int favourite = av_find_best_stream(input, kind, -1, related, nullptr, 0);
        if (favourite < 0 || accepts(*input, favourite)) {
            return favourite;
        }
        for (int i = 0; i < static_cast<int>(input->nb_streams); ++i) {
            if (i != favourite && av_find_best_stream(input, kind, i, -1, nullptr, 0) == i && accepts(*input, i)) {
                return i;
            }
        }
        return AVERROR_DECODER_NOT_FOUND;
    }
    // That a decoder is there isn't enough: what the file says of the stream may be nothing that it takes. With one
    // thread an open takes less than half a millisecond.
    const char* obstacle(const AVStream& stream) const override {
        const AVMediaType kind = stream.codecpar->codec_type;
        if (kind != AVMEDIA_TYPE_VIDEO && kind != AVMEDIA_TYPE_AUDIO) {
            return "it has neither pictures nor sound";
        }
        const AVCodec* decoder = avcodec_find_decoder(stream.codecpar->codec_id);
        if (!decoder) {
            return kNoDecoder;
        }
        if (av_dict_get(stream.metadata, "enc_key_id", nullptr, 0)) {
            return kProtected;  // as Matroska says it; other containers have it with each packet
        }
        const std::unique_ptr<AVCodecContext, FreeContext> context(avcodec_alloc_context3(decoder));
        if (!context || avcodec_parameters_to_context(context.get(), stream.codecpar) < 0) {
            return "there is no memory for it";
        }
        context->pkt_timebase = stream.time_base;
        context->thread_count = 1;
        return avcodec_open2(context.get(), decoder, nullptr) < 0 ? "its decoder doesn't take what is said of it"
                                                                  : nullptr;
    }
    bool isProtected(const AVPacket& packet) const override {
        return av_packet_get_side_data(&packet, AV_PKT_DATA_ENCRYPTION_INFO, nullptr);
    }
    // Some demuxers take the end for an error.
    bool isEnd(const AVFormatContext& input, int error) const override {
        const AVIOContext* pb = input.pb;
        return error == AVERROR_EOF || (error == AVERROR(EIO) && pb && pb->eof_reached && pb->error == 0);
    }
    void explain(const std::string& name, int error, const AVFormatContext* input) const override {
        const char* words = input ? "it has neither pictures nor sound" : plainWords(name, error);
        for (unsigned int i = 0; input && i < input->nb_streams; ++i) {
            const AVStream& stream = *input->streams[i];
            const AVMediaType kind = stream.codecpar->codec_type;
            if (kind != AVMEDIA_TYPE_VIDEO && kind != AVMEDIA_TYPE_AUDIO) {
                continue;
            }
            const char* const reason = obstacle(stream);
            words = reason ? reason : "too little is known of its streams";
        }
        if (words) {
            Log::Error(TAG, "%s can't be played: %s\n", name.c_str(), words);
        }
    }
    VideoCodecType videoCodecType(int codecId) const override {
        const VideoCodecType type = videoCodecTypeFromId(codecId);
        return type == VIDEO_CODEC_NONE ? VIDEO_CODEC_OTHER : type;
    }
    AudioCodecType audioCodecType(int codecId) const override {
        const AudioCodecType type = audioCodecTypeFromId(codecId);
        return type == AUDIO_CODEC_NONE ? AUDIO_CODEC_OTHER : type;
    }

private:
    bool accepts(const AVFormatContext& input, int index) const {
        const AVStream& stream = *input.streams[index];
        const char* const reason = obstacle(stream);
        if (reason) {
            Log::Warn(TAG, "stream %d (%s) isn't played: %s\n", index, avcodec_get_name(stream.codecpar->codec_id),
                      reason);
        }
        return !reason;
    }
};

}  // namespace

const StreamChoice& StreamChoice::of(const PlaybackOptions& options) {
    static const NamedCodecs named;
    static const AllCodecs all;
    if (options.allCodecs) {
        return all;
    }
    return named;
}

}  // namespace kelp
