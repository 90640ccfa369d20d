#include "input/seek_reach.h"

#include <algorithm>

namespace kelp {

namespace {

constexpr int64_t kFirstStepMs = 1000;  // back; each one is twice as long as the one before
constexpr int64_t kSoundGapMs = 50;     // about a block: where a place for pictures begins, its sound may have begun
constexpr int64_t kBesideMs = 1000;     // streams lie at most so far apart in an input
constexpr int kMostPackets = 2000;      // that are looked at

}  // namespace

void SeekReach::begin(int64_t targetMs, bool hasVideo, bool hasSound, int64_t soundLeadInMs) {
    *this = {};
    isOpen_ = hasVideo || hasSound;
    hasVideo_ = hasVideo;
    hasSound_ = hasSound;
    targetMs_ = targetMs;
    soundTargetMs_ = targetMs - soundLeadInMs;
    backMs_ = kFirstStepMs;
    expect();
}

void SeekReach::again() {
    backMs_ *= 2;
    soundBeforeMs_ = soundMs_;
    expect();
}

void SeekReach::expect() {
    packets_ = 0;
    picture_ = hasVideo_ ? std::nullopt : std::optional(true);
    sound_ = hasSound_ ? std::nullopt : std::optional(true);
    soundMs_ = kNone;
}

SeekReach::Verdict SeekReach::takePicture(bool isKey, int64_t ptsMs, int64_t dtsMs) {
    if (isKey && !picture_) {
        picture_ = ptsMs <= targetMs_;
    }
    if (picture_.value_or(false) && !sound_ && dtsMs > targetMs_ + kBesideMs) {
        sound_ = true;  // there is none near the target
    }
    return verdict();
}

SeekReach::Verdict SeekReach::takeSound(int64_t ptsMs, int64_t durationMs) {
    if (soundMs_ == kNone) {
        soundMs_ = ptsMs;
        // Where going back has brought no more of it, it has its beginning.
        sound_ = ptsMs <= soundTargetMs_ + std::max(durationMs, kSoundGapMs) || ptsMs == soundBeforeMs_;
    }
    return verdict();
}

SeekReach::Verdict SeekReach::takeEnd() {
    picture_ = picture_.value_or(false);
    sound_ = sound_.value_or(true);
    return verdict();
}

SeekReach::Verdict SeekReach::verdict() {
    if (picture_ == false || sound_ == false) {
        return Verdict::TooLate;
    }
    return (picture_ && sound_) || ++packets_ > kMostPackets ? Verdict::Reached : Verdict::Open;
}

}  // namespace kelp
