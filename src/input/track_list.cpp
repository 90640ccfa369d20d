#include "input/track_list.h"

#include <string>

#include "input/picture_limit.h"
#include "input/stream_choice.h"
#include "runtime/utf8.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

namespace kelp {
namespace {

std::string tag(const AVStream& stream, const char* key) {
    const AVDictionaryEntry* entry = av_dict_get(stream.metadata, key, nullptr, 0);
    return entry ? readableUtf8(entry->value) : std::string();
}

double rateOf(const AVStream& stream) {
    const AVRational rate = stream.avg_frame_rate.num > 0 ? stream.avg_frame_rate : stream.r_frame_rate;
    return rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 0;
}

Track describe(const AVStream& stream, const PlaybackOptions& options) {
    const AVCodecParameters& parameters = *stream.codecpar;
    Track track;
    track.number = stream.index;
    track.kind = trackKindOf(stream);
    track.codec = avcodec_get_name(parameters.codec_id);
    track.language = tag(stream, "language");
    if (track.language == "und") {
        track.language.clear();  // "undetermined", which some containers write for want of a language
    }
    track.title = tag(stream, "title");
    track.isDefault = (stream.disposition & AV_DISPOSITION_DEFAULT) != 0;
    track.isAttachedPicture = (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0;
    track.isPlayable = isPlayable(stream, options);
    if (track.kind == TRACK_KIND_VIDEO) {
        track.width = parameters.width;
        track.height = parameters.height;
        track.frameRate = track.isAttachedPicture ? 0 : rateOf(stream);
    } else if (track.kind == TRACK_KIND_AUDIO) {
        track.sampleRate = parameters.sample_rate;
        track.channels = parameters.ch_layout.nb_channels;
    }
    return track;
}

}  // namespace

TrackKind trackKindOf(const AVStream& stream) {
    switch (stream.codecpar->codec_type) {
        case AVMEDIA_TYPE_VIDEO:
            return TRACK_KIND_VIDEO;
        case AVMEDIA_TYPE_AUDIO:
            return TRACK_KIND_AUDIO;
        case AVMEDIA_TYPE_SUBTITLE:
            return TRACK_KIND_SUBTITLE;
        default:
            return TRACK_KIND_OTHER;
    }
}

bool isPlayable(const AVStream& stream, const PlaybackOptions& options) {
    if (trackKindOf(stream) == TRACK_KIND_SUBTITLE) {
        return avcodec_find_decoder(stream.codecpar->codec_id) != nullptr;
    }
    return isWithin(stream, options.maxPixels) && !StreamChoice::of(options).obstacle(stream);
}

std::vector<Track> listTracks(const AVFormatContext& context, const PlaybackOptions& options) {
    std::vector<Track> tracks;
    for (unsigned int i = 0; i < context.nb_streams; ++i) {
        tracks.push_back(describe(*context.streams[i], options));
    }
    return tracks;
}

}  // namespace kelp
