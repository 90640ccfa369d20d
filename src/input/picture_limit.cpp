#include "input/picture_limit.h"

#include <algorithm>
#include <limits>

#include "kelp_player/log.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

namespace kelp {

constexpr int64_t kMostPixels = std::numeric_limits<int>::max();  // that the library's option takes

ProbeOptions::ProbeOptions(const AVFormatContext& input, int64_t maxPixels) {
    streams_.resize(input.nb_streams);
    for (unsigned int i = 0; i < input.nb_streams; ++i) {
        if (input.streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
            av_dict_set(&streams_[i], "skip_loop_filter", "all", 0);
        }
        if (maxPixels == 0) {
            continue;
        }
        av_dict_set_int(&streams_[i], "max_pixels", std::min<int64_t>(maxPixels, kMostPixels), 0);
        stated_.push_back({input.streams[i]->codecpar->width, input.streams[i]->codecpar->height});
    }
}

void ProbeOptions::restoreSizes(const AVFormatContext& input) const {
    for (size_t i = 0; i < stated_.size(); ++i) {
        AVCodecParameters& parameters = *input.streams[i]->codecpar;
        if (parameters.width == 0) {
            parameters.width = stated_[i].width;
            parameters.height = stated_[i].height;
        }
    }
}

ProbeOptions::~ProbeOptions() {
    for (AVDictionary*& options : streams_) {
        av_dict_free(&options);
    }
}

bool isWithin(const AVStream& stream, int64_t maxPixels) {
    const AVCodecParameters& parameters = *stream.codecpar;
    return maxPixels == 0 || parameters.codec_type != AVMEDIA_TYPE_VIDEO ||
           int64_t{parameters.width} * parameters.height <= maxPixels;
}

LargeStreamsHidden::LargeStreamsHidden(const AVFormatContext& input, int64_t maxPixels) {
    for (unsigned int i = 0; i < input.nb_streams; ++i) {
        AVStream* const stream = input.streams[i];
        if (isWithin(*stream, maxPixels)) {
            continue;
        }
        AVCodecParameters& parameters = *stream->codecpar;
        Log::Error("StreamParser", "stream %u (%s) is left out: %dx%d is more than %lld pixels\n", i,
                   avcodec_get_name(parameters.codec_id), parameters.width, parameters.height,
                   static_cast<long long>(maxPixels));
        hidden_.push_back(stream);
        parameters.codec_type = AVMEDIA_TYPE_UNKNOWN;
    }
}

LargeStreamsHidden::~LargeStreamsHidden() {
    for (AVStream* const stream : hidden_) {
        stream->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
    }
}

}  // namespace kelp
