#include "control/retry_pace.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "control/option_table.h"

namespace kelp {

namespace {

constexpr double kGrowth = 1.5;
constexpr double kMost = 10;
constexpr double kChance = 0.2;  // of a wait is left out at most
constexpr double kLongestMs = std::numeric_limits<unsigned int>::max();

}  // namespace

void RetryPace::setOption(std::string_view key, std::string_view value) {
    if (const PlaybackOption* const option = findPlaybackOption(key)) {
        option->read(value, options_);
    }
}

void RetryPace::begin() {
    grows_ = options_.closedLiveFails;
    failures_ = 0;
}

unsigned int RetryPace::nextMs(unsigned int intervalMs) {
    if (!grows_) {
        return intervalMs;
    }
    const double intervals = std::min(std::pow(kGrowth, failures_++), kMost);
    const double part = 1 - std::uniform_real_distribution<>(0, kChance)(chance_);
    return static_cast<unsigned int>(std::clamp<double>(intervalMs * intervals * part, 1, kLongestMs));
}

}  // namespace kelp
