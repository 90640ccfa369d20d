#include "subtitle/subtitle_tracks.h"

#include <utility>

#include "subtitle/subtitle_fonts.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace kelp {

void SubtitleTracks::onSubtitleStream(const AVFormatContext& input, const AVStream& stream, int64_t originUs) {
    reading_.reset();
    auto decoder = SubtitleDecoder::open(*stream.codecpar, stream.time_base, originUs);
    if (!decoder) {
        return;
    }
    std::lock_guard lock(mutex_);
    auto& track = tracks_[stream.index];
    if (!track) {
        track = std::make_shared<SubtitleTrack>(SubtitleTrack::Head{
            decoder->isText(), decoder->isStyled(), decoder->script(), decoder->isText() ? fontsOf(input) : nullptr});
    }
    reading_ = {std::move(decoder), track};
}

void SubtitleTracks::onSubtitlePacket(const AVPacket& packet) {
    if (!reading_) {
        return;
    }
    for (SubtitleEvent& event : reading_->decoder->decode(packet)) {
        reading_->track->add(std::move(event));
    }
}

void SubtitleTracks::onSubtitleGap() {
    if (reading_) {
        reading_->decoder->flush();
        reading_->track->gap();
    }
}

// What is known stays, pictures too: what begins behind the turn isn't shown in it, and what comes again is known.
void SubtitleTracks::onSubtitleTurn() {
    if (reading_) {
        reading_->decoder->flush();
    }
}

void SubtitleTracks::choose(int number) {
    chosen_ = number;
    isAny_ = isAny_ || number != kNone;
}

void SubtitleTracks::add(int number, std::shared_ptr<SubtitleTrack> track) {
    std::lock_guard lock(mutex_);
    tracks_[number] = std::move(track);
    whole_.insert(number);
}

bool SubtitleTracks::isWhole(int number) const {
    std::lock_guard lock(mutex_);
    return whole_.contains(number);
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
    reading_.reset();
    std::lock_guard lock(mutex_);
    tracks_.clear();
    whole_.clear();
}

}  // namespace kelp
