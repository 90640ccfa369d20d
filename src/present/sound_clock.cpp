#include "present/sound_clock.h"

#include <algorithm>
#include <cmath>

#include "clock/wrapping_math.h"

namespace kelp {

void SoundClock::stand(int64_t us, int64_t fromUs) {
    marks_.clear();
    stand_ = {us, fromUs};
}

void SoundClock::start(int64_t nowUs) {
    if (marks_.empty() && stand_ && stand_->fromUs == kNeverUs) {
        stand_->fromUs = nowUs;
    }
}

void SoundClock::add(int64_t frames, int64_t beginUs, int64_t endUs, const HeardSound& heard) {
    if (marks_.empty()) {
        marks_.push_back({handedFrames_, beginUs});
    }
    // One mark stays behind what is heard.
    while (marks_.size() > 1 && static_cast<double>(marks_[1].frames) < heard.frames) {
        marks_.pop_front();
    }
    handedFrames_ += frames;
    marks_.push_back({handedFrames_, endUs});
    stand_.reset();
}

void SoundClock::setSpeed(double speed, const HeardSound& heard, int64_t nowUs) {
    if (hasTime() && isDry(heard) && (!stand_ || nowUs > stand_->fromUs)) {
        stand_ = {read(heard, nowUs), nowUs};
    }
    speed_ = speed;
}

void SoundClock::pause(bool paused, const HeardSound& heard, int64_t nowUs) {
    if (paused && hasTime()) {
        stand_ = {read(heard, nowUs), kNeverUs};
    } else if (!paused && stand_) {
        stand_->fromUs = nowUs;
    }
}

int64_t SoundClock::read(const HeardSound& heard, int64_t nowUs) const {
    if (!isDry(heard)) {
        return position(heard);
    }
    if (stand_) {
        return runOn(*stand_, nowUs);
    }
    return marks_.empty() ? 0 : runOn({marks_.back().us, heard.dryFromUs}, nowUs);
}

int64_t SoundClock::position(const HeardSound& heard) const {
    if (marks_.empty()) {
        return stand_ ? stand_->us : 0;
    }
    const auto to =
        std::ranges::find_if(marks_, [&](const Mark& mark) { return static_cast<double>(mark.frames) > heard.frames; });
    if (to == marks_.end()) {
        return marks_.back().us;
    }
    if (to == marks_.begin()) {
        return to->us;
    }
    const Mark& from = *std::prev(to);
    const double part =
        (heard.frames - static_cast<double>(from.frames)) / static_cast<double>(to->frames - from.frames);
    return wrappingAdd(from.us, std::llround(part * static_cast<double>(wrappingSubtract(to->us, from.us))));
}

int64_t SoundClock::runOn(Stand from, int64_t nowUs) const {
    if (nowUs <= from.fromUs) {
        return from.us;
    }
    return wrappingAdd(from.us, truncated<int64_t>(static_cast<double>(nowUs - from.fromUs) * speed_));
}

}  // namespace kelp
