#include "decode/loop_sound.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "decode/audio_frame_info.h"

namespace kelp {

namespace {

constexpr int64_t kJitterMs = 40;           // by which a frame's time may be wrong
constexpr int64_t kMostOverlapSeconds = 2;  // times that go farther back begin anew
constexpr int64_t kMostSilenceSeconds = 1;  // a longer gap is one of the film
constexpr int64_t kMostSeamSeconds = 60;    // or, at the seam of two turns, too much to be held
constexpr int64_t kJoinMs = 5;
constexpr int64_t kSilentBlock = 1024;
constexpr int kLoudest = 32767;

}  // namespace

int64_t LoopSound::placeOf(int64_t us) const {
    return (us / 1'000'000) * spec_.sampleRate + ((us % 1'000'000) * spec_.sampleRate + 500'000) / 1'000'000;
}

int64_t LoopSound::beginOf(const AudioFrameInfo& frame) const {
    const int64_t filmPlace = placeOf((frame.pts - turn_->shiftMs) * 1000);
    const int64_t place = turn_->isEntered() ? placeOf(turn_->lineFromUs()) + filmPlace - placeOf(turn_->fromUs)
                                             : filmPlace + placeOf(turn_->shiftUs);
    const int64_t jitter = kJitterMs * spec_.sampleRate / 1000;
    return next_ != kUnknown && std::abs(place - next_) < jitter ? next_ : place;
}

void LoopSound::follow(std::shared_ptr<const LoopTurn> turn, int64_t shownMs) {
    if (canCut() && done_ != kUnknown) {
        shown_ = placeOf(shownMs * 1000);
        fillSeam(placeOf(turn->lineFromUs()));
    }
    isSeam_ = true;
    turn_ = std::move(turn);
    next_ = kUnknown;
    isJoinDue_ = true;
}

void LoopSound::reset() {
    next_ = done_ = kUnknown;
    isSeam_ = false;
    last_.clear();
    joinLeft_ = 0;
}

void LoopSound::take(std::shared_ptr<AudioFrameInfo> frame) {
    const auto frameBytes = static_cast<int64_t>(sizeof(short)) * spec_.channels;
    if (!turn_ || !canCut() || !frame->buffer || frame->dataSize < frameBytes) {
        output_(std::move(frame));
        return;
    }
    const int64_t count = frame->dataSize / frameBytes;
    const int64_t place = beginOf(*frame);
    next_ = place + count;
    if (done_ != kUnknown && done_ - place > kMostOverlapSeconds * spec_.sampleRate) {
        done_ = kUnknown;
    }
    int64_t begin = std::max(place, done_);
    begin = turn_->isEntered() ? std::max(begin, placeOf(turn_->lineFromUs())) : begin;
    const int64_t end = turn_->toUs == LoopTurn::kOpen ? next_ : std::min(next_, placeOf(turn_->toUs + turn_->shiftUs));
    if (begin >= end) {
        return;
    }
    if (!pattern_) {
        pattern_ = std::make_shared<AudioFrameInfo>();
        pattern_->allocBuffer = frame->allocBuffer;
        pattern_->freeBuffer = frame->freeBuffer;
    }
    if (const bool isSeam = std::exchange(isSeam_, false); done_ != kUnknown) {
        isSeam ? fillSeam(begin) : fillTo(begin, kMostSilenceSeconds);
    }
    if (begin > place || end < next_ || turn_->isEntered()) {
        frame->dataSize = static_cast<unsigned int>((end - begin) * frameBytes);
        std::memmove(frame->buffer->data, frame->buffer->data + (begin - place) * frameBytes, frame->dataSize);
        frame->pts = begin * 1000 / spec_.sampleRate;
        frame->duration = (end - begin) * 1000 / spec_.sampleRate;
        frame->lastsToMs = frame->pts + frame->duration - 1;
    }
    join(reinterpret_cast<short*>(frame->buffer->data), end - begin);
    done_ = end;
    output_(std::move(frame));
}

// Silence that comes late would hold up the pictures where they follow the sound.
void LoopSound::fillSeam(int64_t place) {
    if (place - done_ > kMostSilenceSeconds * spec_.sampleRate) {
        done_ = std::clamp(shown_, done_, place);
    }
    fillTo(place, kMostSeamSeconds);
}

void LoopSound::fillTo(int64_t place, int64_t seconds) {
    int64_t samples = place - done_;
    if (samples <= 0 || samples > seconds * spec_.sampleRate || !pattern_ || !pattern_->allocBuffer) {
        isJoinDue_ = isJoinDue_ || samples > 0;
        return;
    }
    isJoinDue_ = true;
    const auto frameBytes = static_cast<int64_t>(sizeof(short)) * spec_.channels;
    while (samples > 0) {
        const int64_t count = std::min(samples, kSilentBlock);
        auto frame = std::make_shared<AudioFrameInfo>();
        frame->buffer = pattern_->allocBuffer(static_cast<unsigned int>(count * frameBytes));
        if (!frame->buffer) {
            return;
        }
        frame->dataSize = static_cast<unsigned int>(count * frameBytes);
        std::memset(frame->buffer->data, 0, frame->dataSize);
        frame->allocBuffer = pattern_->allocBuffer;
        frame->freeBuffer = pattern_->freeBuffer;
        frame->pts = done_ * 1000 / spec_.sampleRate;
        frame->duration = count * 1000 / spec_.sampleRate;
        frame->lastsToMs = frame->pts + frame->duration - 1;
        join(reinterpret_cast<short*>(frame->buffer->data), count);
        done_ += count;
        samples -= count;
        output_(std::move(frame));
    }
    isJoinDue_ = true;
}

void LoopSound::join(short* samples, int64_t count) {
    const auto channels = static_cast<size_t>(spec_.channels);
    const int64_t length = std::max<int64_t>(kJoinMs * spec_.sampleRate / 1000, 1);
    if (std::exchange(isJoinDue_, false) && last_.size() == channels) {
        offsets_.resize(channels);
        for (size_t channel = 0; channel < channels; ++channel) {
            offsets_[channel] = last_[channel] - samples[channel];
        }
        joinLeft_ = length;
    }
    short* sample = samples;
    for (int64_t i = 0; i < count && joinLeft_ > 0; ++i, --joinLeft_) {
        for (size_t channel = 0; channel < channels; ++channel, ++sample) {
            const int64_t faded = *sample + offsets_[channel] * joinLeft_ / length;
            *sample = static_cast<short>(std::clamp<int64_t>(faded, -kLoudest - 1, kLoudest));
        }
    }
    const short* const end = samples + count * spec_.channels;
    last_.assign(end - spec_.channels, end);
}

}  // namespace kelp
