#include "playtask/rebuffer.h"

#include <algorithm>

namespace kelp {

namespace {

constexpr int64_t kDryMs = 100;
constexpr int64_t kMostApartMs = 1000;

constexpr int64_t kPlentyMs = 2000;
constexpr int kRestOnPlentyMs = 200;
constexpr int kRestMs = 20;
constexpr int kStandingRestMs = 50;

}  // namespace

Rebuffer::Rebuffer(int64_t enoughMs)
    : enoughMs_(std::max<int64_t>(enoughMs, 1)), dryMs_(std::min(kDryMs, enoughMs / 2)) {
}

Rebuffer::Step Rebuffer::look(const DataLevel& level) {
    percent_ = static_cast<int>(std::clamp<int64_t>(level.waitingMs, 0, enoughMs_) * 100 / enoughMs_);
    restMs_ = isStanding_ ? kStandingRestMs : level.waitingMs > kPlentyMs ? kRestOnPlentyMs : kRestMs;
    if (isStanding_) {
        return !level.isMoreAwaited || level.waitingMs >= enoughMs_ ? end() : Step::None;
    }
    const bool isDry = level.isPlaying && level.isMoreAwaited && level.waitingMs <= dryMs_;
    isStanding_ = isDry && wasDry_;
    wasDry_ = isDry && !isStanding_;
    return isStanding_ ? Step::Stand : Step::None;
}

Rebuffer::Step Rebuffer::end() {
    const bool wasStanding = isStanding_;
    isStanding_ = false;
    return wasStanding ? Step::GoOn : Step::None;
}

int64_t Rebuffer::together(std::optional<int64_t> videoMs, std::optional<int64_t> soundMs) {
    if (!videoMs || !soundMs) {
        return videoMs.value_or(soundMs.value_or(0));
    }
    const auto [shorter, longer] = std::minmax(*videoMs, *soundMs);
    return std::max(shorter, longer - kMostApartMs);
}

}  // namespace kelp
