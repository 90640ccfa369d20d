#include "subtitle/subtitle_tracks.h"

#include <utility>

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

// Those that are attached to the film; null if there are none.
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
            Log::Warn("SubtitleTracks", "%s, the film's fonts are too large, some are left out\n", "fontsOf");
            break;
        }
        const AVDictionaryEntry* const name = av_dict_get(stream.metadata, "filename", nullptr, 0);
        fonts->push_back({name ? name->value : "font", {begin, begin + size}});
    }
    return fonts->empty() ? nullptr : fonts;
}

}  // namespace

void SubtitleTracks::onSubtitleStream(const AVFormatContext& input, const AVStream& stream, int64_t originUs) {
    reading_ = nullptr;
    decoder_ = SubtitleDecoder::open(*stream.codecpar, stream.time_base, originUs);
    if (!decoder_) {
        return;
    }
    std::lock_guard lock(mutex_);
    auto& track = tracks_[stream.index];
    if (!track) {
        track = std::make_shared<SubtitleTrack>(SubtitleTrack::Head{decoder_->isText(), decoder_->isStyled(),
                                                                    decoder_->script(),
                                                                    decoder_->isText() ? fontsOf(input) : nullptr});
    }
    reading_ = track;
}

void SubtitleTracks::onSubtitlePacket(const AVPacket& packet) {
    if (!decoder_ || !reading_) {
        return;
    }
    for (SubtitleEvent& event : decoder_->decode(packet)) {
        reading_->add(std::move(event));
    }
}

void SubtitleTracks::onSubtitleGap() {
    if (decoder_ && reading_) {
        decoder_->flush();
        reading_->gap();
    }
}

void SubtitleTracks::choose(int number) {
    chosen_ = number;
    isAny_ = isAny_ || number != kNone;
}

void SubtitleTracks::add(int number, std::shared_ptr<SubtitleTrack> track) {
    std::lock_guard lock(mutex_);
    tracks_[number] = std::move(track);
}

std::shared_ptr<const SubtitleTrack> SubtitleTracks::current() const {
    const int number = chosen_;
    if (number == kNone) {
        return nullptr;
    }
    std::lock_guard lock(mutex_);
    const auto found = tracks_.find(number);
    return found == tracks_.end() ? nullptr : found->second;
}

void SubtitleTracks::forget() {
    chosen_ = kNone;
    isAny_ = false;
    decoder_.reset();
    reading_ = nullptr;
    std::lock_guard lock(mutex_);
    tracks_.clear();
}

}  // namespace kelp
