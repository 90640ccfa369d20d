#include "playtask/wanted_loop.h"

#include <algorithm>
#include <utility>

namespace kelp {

const char* WantedLoop::obstacleTo(const Loop& loop, const std::optional<Film>& film) {
    if (loop.endMs <= loop.startMs) {
        return "its end isn't behind its start";
    }
    if (!film) {
        return nullptr;
    }
    if (!film->canGoBack) {
        return "the source can't go back";
    }
    if (film->durationMs > 0 && loop.startMs >= film->durationMs) {
        return "it begins at the film's end or behind it";
    }
    const bool isShort =
        loop.endMs != Loop::kFilmEnd && film->fps > 0 && (loop.endMs - loop.startMs) * film->fps < 1000;
    return isShort ? "it is shorter than a picture" : nullptr;
}

void WantedLoop::want(std::optional<Loop> loop) {
    std::lock_guard lock(mutex_);
    wanted_ = loop;
}

std::optional<Loop> WantedLoop::wanted() const {
    std::lock_guard lock(mutex_);
    return wanted_;
}

std::optional<Loop> WantedLoop::play() {
    std::lock_guard lock(mutex_);
    return played_ = wanted_;
}

void WantedLoop::stop() {
    std::lock_guard lock(mutex_);
    played_.reset();
    unloopedToMs_ = kNone;
}

int WantedLoop::clampLoad(int timeMs) const {
    std::lock_guard lock(mutex_);
    return wanted_ && timeMs >= wanted_->endMs ? static_cast<int>(wanted_->startMs) : timeMs;
}

int WantedLoop::clampSeek(int timeMs, bool isGivenUp) const {
    std::lock_guard lock(mutex_);
    return played_ && timeMs >= played_->endMs && !isGivenUp ? static_cast<int>(played_->startMs) : timeMs;
}

void WantedLoop::noteUnlooped(int64_t lineMs) {
    std::lock_guard lock(mutex_);
    unloopedToMs_ = std::max(unloopedToMs_, lineMs);
}

bool WantedLoop::isAnyUnlooped() const {
    std::lock_guard lock(mutex_);
    return unloopedToMs_ != kNone;
}

bool WantedLoop::takeUnlooped(int64_t lineMs) {
    std::lock_guard lock(mutex_);
    return lineMs < std::exchange(unloopedToMs_, kNone);
}

void WantedLoop::dropUnlooped() {
    std::lock_guard lock(mutex_);
    unloopedToMs_ = kNone;
}

}  // namespace kelp
