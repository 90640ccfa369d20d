#include "clock/exact_clock.h"

#include "clock/wrapping_math.h"
#include "runtime/kelp_time.h"

namespace kelp {

ExactClock::ExactClock(double speed) {
    const int64_t nowUs = KelpTime::getSteadyUs();
    time_.set(0, nowUs);
    time_.setSpeed(speed, nowUs);
}

int64_t ExactClock::getSyncPtsUs() {
    return time_.read(KelpTime::getSteadyUs());
}

void ExactClock::save(int64_t pts) {
    time_.stand(KelpTime::getSteadyUs());
    if (pts >= 0) {
        rebase(pts);
    }
}

void ExactClock::restore() {
    time_.run(KelpTime::getSteadyUs());
}

void ExactClock::rebase(int64_t pts) {
    time_.set(wrappingMultiply(pts, 1000), KelpTime::getSteadyUs());
}

void ExactClock::setSpeed(double speed) {
    time_.setSpeed(speed, KelpTime::getSteadyUs());
}

}  // namespace kelp
