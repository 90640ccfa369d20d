#include "clock/speed_clock.h"

#include <algorithm>
#include <cmath>

#include "clock/wrapping_math.h"

namespace kelp {

constexpr double kLeastSpeed = 0.0005;  // as the tempo of the sound
constexpr double kMostSpeed = 1000;

double usableSpeed(double speed) {
    return std::isnan(speed) ? 1 : std::clamp(speed, kLeastSpeed, kMostSpeed);
}

void SpeedClock::set(int64_t timeUs, int64_t nowUs) {
    std::lock_guard lock(mutex_);
    timeUs_ = timeUs;
    atUs_ = nowUs;
}

void SpeedClock::run(int64_t nowUs) {
    std::lock_guard lock(mutex_);
    timeUs_ = readLocked(nowUs);
    atUs_ = nowUs;
    isRunning_ = true;
}

void SpeedClock::stand(int64_t nowUs) {
    std::lock_guard lock(mutex_);
    timeUs_ = readLocked(nowUs);
    isRunning_ = false;
}

void SpeedClock::setSpeed(double speed, int64_t nowUs) {
    std::lock_guard lock(mutex_);
    timeUs_ = readLocked(nowUs);
    atUs_ = nowUs;
    speed_ = usableSpeed(speed);
}

double SpeedClock::speed() const {
    std::lock_guard lock(mutex_);
    return speed_;
}

int64_t SpeedClock::read(int64_t nowUs) const {
    std::lock_guard lock(mutex_);
    return readLocked(nowUs);
}

int64_t SpeedClock::readLocked(int64_t nowUs) const {
    if (!isRunning_) {
        return timeUs_;
    }
    const auto passedUs = static_cast<double>(wrappingSubtract(nowUs, atUs_)) * speed_;
    return wrappingAdd(timeUs_, truncated<int64_t>(std::round(passedUs)));
}

}  // namespace kelp
