#include "clock/timestamp_extrapolator.h"

#include <algorithm>
#include <cmath>

#include "clock/wrapping_math.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

constexpr unsigned int kStartUpUpdates = 2;  // the line isn't used, nor a delay change heeded, before
constexpr double kUnknownOffsetVariance = 10000000000.0;
constexpr double kForgettingFactor = 1.0;  // nothing is forgotten
constexpr double kDetectorMaxErrorTicks = 7000.0;
constexpr double kDetectorDriftTicks = 6600.0;
constexpr double kDetectorAlarmTicks = 60000.0;
constexpr int64_t kIdleLimitMs = 10000000;
constexpr uint64_t kJumpLimitSeconds = 10;
constexpr double kJitterPackets = 16.0;   // the mean goes over about so many
constexpr double kSmallestSlope = 0.001;  // ticks per millisecond

// The local time `ms` after `originMs`, the fraction cut off; -1 if that is negative or out of range.
int64_t localTime(int64_t originMs, double ms) {
    constexpr double kLimit = 9223372036854775808.0;  // 2^63
    if (!(ms > -kLimit && ms < kLimit)) {
        return -1;
    }
    return std::max<int64_t>(wrappingAdd(originMs, static_cast<int64_t>(ms)), -1);
}

template <class T>
T get(const std::atomic<T>& value) {
    return value.load(std::memory_order_relaxed);
}

template <class T>
void set(std::atomic<T>& value, T to) {
    value.store(to, std::memory_order_relaxed);
}

}  // namespace

void TimestampExtrapolator::reset(int64_t nowMs) {
    set(w0_, static_cast<double>(get(frequency_)) / 1000.0);
    set(w1_, 0.0);
    p00_ = 1.0;
    p01_ = p10_ = 0.0;
    p11_ = kUnknownOffsetVariance;
    set(startMs_, nowMs);
    set(prevMs_, nowMs);
    set(firstTimestamp_, kNone);
    set(prevTimestamp_, kNone);
    set(packetCount_, 0U);
    set(delayMs_, 0.0);
    set(jitterMs_, 0.0);
    detectorAccumulatorPos_ = detectorAccumulatorNeg_ = 0.0;
}

bool TimestampExtrapolator::needsReset(int64_t timestamp, int64_t nowMs) const {
    if (nowMs - get(prevMs_) > kIdleLimitMs) {
        return true;
    }
    const int64_t frequency = get(frequency_);
    if (get(prevTimestamp_) == kNone || frequency <= 0) {
        return false;
    }
    // The absolute value as unsigned: the lowest number has none of its own type.
    const int64_t jump = wrappingSubtract(timestamp, get(prevTimestamp_));
    const uint64_t ticks = jump < 0 ? uint64_t{0} - static_cast<uint64_t>(jump) : static_cast<uint64_t>(jump);
    return ticks / static_cast<uint64_t>(frequency) > kJumpLimitSeconds;
}

void TimestampExtrapolator::update(int64_t timestamp) {
    const int64_t nowMs = KelpTime::getTimeMs();
    if (needsReset(timestamp, nowMs)) {
        reset(nowMs);
    } else {
        set(prevMs_, nowMs);
    }

    const double t = static_cast<double>(nowMs - get(startMs_));
    if (get(firstTimestamp_) == kNone) {
        set(w1_, -get(w0_) * t);
        set(firstTimestamp_, timestamp);
    }
    const double residual =
        static_cast<double>(timestamp) - static_cast<double>(get(firstTimestamp_)) - t * get(w0_) - get(w1_);
    if (DelayChangeDetection(residual) && get(packetCount_) >= kStartUpUpdates) {
        // The offset may jump to the new delay with the next updates; the slope stays.
        p11_ = kUnknownOffsetVariance;
    }

    // Reordered packets say nothing about the delay.
    if (get(prevTimestamp_) != kNone && timestamp < get(prevTimestamp_)) {
        return;
    }
    noteDelay(residual);

    double k0 = p00_ * t + p01_;
    double k1 = p10_ * t + p11_;
    const double denominator = k0 * t + kForgettingFactor + k1;
    k0 /= denominator;
    k1 /= denominator;

    set(w0_, get(w0_) + k0 * residual);
    set(w1_, get(w1_) + k1 * residual);
    set(prevTimestamp_, timestamp);

    const double p00 = p00_;
    const double p01 = p01_;
    p00_ -= k0 * t * p00 + k0 * p10_;
    p01_ -= k0 * t * p01 + k0 * p11_;
    p10_ -= k1 * t * p00 + k1 * p10_;
    p11_ -= k1 * t * p01 + k1 * p11_;

    if (get(packetCount_) < kStartUpUpdates) {
        set(packetCount_, get(packetCount_) + 1);
    }
}

void TimestampExtrapolator::noteDelay(double residual) {
    if (get(w0_) < kSmallestSlope) {
        return;
    }
    set(delayMs_, -residual / get(w0_));
    set(jitterMs_, get(jitterMs_) + (std::abs(get(delayMs_)) - get(jitterMs_)) / kJitterPackets);
}

bool TimestampExtrapolator::DelayChangeDetection(double error) {
    const double e = error > 0 ? std::min(error, kDetectorMaxErrorTicks) : std::max(error, -kDetectorMaxErrorTicks);
    double& pos = detectorAccumulatorPos_;
    double& neg = detectorAccumulatorNeg_;
    pos = std::max(0.0, pos + e - kDetectorDriftTicks);
    neg = std::min(0.0, neg + e + kDetectorDriftTicks);
    const bool alarm = pos > kDetectorAlarmTicks || neg < -kDetectorAlarmTicks;
    if (alarm) {
        pos = neg = 0.0;
    }
    return alarm;
}

int64_t TimestampExtrapolator::extrapolateLocalTime(int64_t timestamp) {
    const int64_t first = get(firstTimestamp_);
    if (first == kNone) {
        return -1;
    }
    if (get(packetCount_) < kStartUpUpdates) {
        const double ticks = static_cast<double>(wrappingSubtract(timestamp, get(prevTimestamp_)));
        return localTime(get(prevMs_), ticks / (static_cast<double>(get(frequency_)) / 1000.0));
    }
    const double slope = get(w0_);
    if (slope < kSmallestSlope) {
        return get(startMs_);
    }
    const double ticks = static_cast<double>(wrappingSubtract(timestamp, first)) - get(w1_);
    return localTime(get(startMs_), ticks / slope + 0.5);
}

int64_t TimestampExtrapolator::extrapolateLocalTimeMs(int64_t timestampMs) {
    return extrapolateLocalTime(wrappingMultiply(timestampMs, get(frequency_)) / 1000);
}

}  // namespace kelp
