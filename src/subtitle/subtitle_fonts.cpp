#include "subtitle/subtitle_fonts.h"

#include "kelp_player/log.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace kelp {

namespace {

constexpr size_t kMaxFontBytes = size_t{64} << 20;  // of all fonts of a film

bool isFont(const AVStream& stream) {
    const AVCodecParameters& parameters = *stream.codecpar;
    return parameters.codec_type == AVMEDIA_TYPE_ATTACHMENT && parameters.extradata_size > 0 &&
           (parameters.codec_id == AV_CODEC_ID_TTF || parameters.codec_id == AV_CODEC_ID_OTF);
}

}  // namespace

std::shared_ptr<const SubtitleFonts> fontsOf(const AVFormatContext& input) {
    auto fonts = std::make_shared<SubtitleFonts>();
    size_t bytes = 0;
    for (unsigned int i = 0; i < input.nb_streams; ++i) {
        const AVStream& stream = *input.streams[i];
        if (!isFont(stream)) {
            continue;
        }
        const auto* const begin = reinterpret_cast<const char*>(stream.codecpar->extradata);
        const auto size = static_cast<size_t>(stream.codecpar->extradata_size);
        bytes += size;
        if (bytes > kMaxFontBytes) {
            Log::Warn("SubtitleFonts", "%s, the film's fonts are too large, some are left out\n", "fontsOf");
            break;
        }
        const AVDictionaryEntry* const name = av_dict_get(stream.metadata, "filename", nullptr, 0);
        fonts->push_back({name ? name->value : "font", {begin, begin + size}});
    }
    return fonts->empty() ? nullptr : fonts;
}

}  // namespace kelp
