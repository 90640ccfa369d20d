#include "clock/clock_line.h"

#include <algorithm>
#include <cmath>

#include "clock/wrapping_math.h"

namespace kelp {

namespace {

constexpr double kFadeMs = 1000;      // a reading counts 1/e of its weight when it is so old
constexpr double kFullWeightMs = 10;  // since the reading before; readings that come thick and fast count less
constexpr double kLeastWeight = 0.01;
constexpr double kFarOffMs = 8;             // of the wall clock, where it runs faster
constexpr double kTrustInSpeedBefore = 10;  // as much as the readings of some 5 ms
constexpr double kMostSpeed = 16;
constexpr double kHalfStepMs = 0.5;  // of the wall clock, too: what is told is the last whole one that has passed
constexpr double kStandingSpeed = 0.02;

}  // namespace

void ClockLine::add(int64_t readingMs, int64_t nowUs) {
    const double time = std::max<double>(0, static_cast<double>(wrappingSubtract(nowUs, lastUs_)) / 1000);
    const auto reading = static_cast<double>(wrappingSubtract(readingMs, lastMs_));
    // Two readings alone say how fast it runs.
    const double farOffMs = kFarOffMs * std::max(1.0, slope()) + (readings_ < 2 ? kMostSpeed * time : 0);
    if (readings_ > 0 && std::abs(reading - offsetMs() - slope() * time) > farOffMs) {
        const double before = slope();
        const bool wasKnown = isSpeedKnown_;
        restart();
        speedBefore_ = before;
        isSpeedKnown_ = wasKnown;
    }
    // Onto the present origin, from back to front as each needs those before it.
    sumProducts_ += -time * sumReadings_ - reading * sumTimes_ + time * reading * sum_;
    sumSquares_ += -2 * time * sumTimes_ + time * time * sum_;
    sumTimes_ -= time * sum_;
    sumReadings_ -= reading * sum_;

    const double fade = std::exp(-time / kFadeMs);
    for (double* const sum : {&sum_, &sumTimes_, &sumSquares_, &sumReadings_, &sumProducts_}) {
        *sum *= fade;
    }
    // The present reading, at time 0 and with a value of 0, counts in this one alone.
    sum_ += sum_ > 0 ? std::clamp(time / kFullWeightMs, kLeastWeight, 1.0) : 1;
    isSpeedKnown_ = isSpeedKnown_ || (readings_ > 0 && time > 1);
    readings_ = std::min(readings_ + 1, 2);
    lastMs_ = readingMs;
    lastUs_ = nowUs;
}

double ClockLine::slope() const {
    if (sum_ <= 0) {
        return speedBefore_;
    }
    const double variance = sumSquares_ - sumTimes_ * sumTimes_ / sum_;
    const double covariance = sumProducts_ - sumTimes_ * sumReadings_ / sum_;
    const double found =
        (covariance + kTrustInSpeedBefore * speedBefore_) / (std::max(0.0, variance) + kTrustInSpeedBefore);
    return std::clamp(found, -kMostSpeed, kMostSpeed);
}

double ClockLine::offsetMs() const {
    return sum_ > 0 ? (sumReadings_ - slope() * sumTimes_) / sum_ : 0;
}

int64_t ClockLine::timeUs() const {
    const double offsetUs = (offsetMs() + kHalfStepMs * std::max(1.0, slope())) * 1000;
    return wrappingAdd(wrappingMultiply(lastMs_, 1000), truncated<int64_t>(std::round(offsetUs)));
}

std::optional<double> ClockLine::speed() const {
    if (!isSpeedKnown_) {
        return std::nullopt;
    }
    const double found = slope();
    return found > kStandingSpeed ? found : 0;
}

}  // namespace kelp
