#include "present/pace_meter.h"

#include <cmath>

#include "clock/wrapping_math.h"

namespace kelp {

namespace {

constexpr int64_t kWindowUs = 400'000;
constexpr int64_t kShortestUs = 100'000;  // readings of less tell nothing: they may be whole milliseconds
constexpr double kJumpUs = 40'000;        // off what the last reading let expect: the clock was set
constexpr double kStepUs = 5'000;         // readings that are closer aren't looked at
constexpr double kAnother = 0.1;          // a ratio that is so much off is another one, at once
constexpr double kWeight = 0.25;          // of a new measurement
constexpr double kSlowest = 0.05;         // to what is expected; a clock that is slower stands
constexpr double kFastest = 20;

}  // namespace

void PaceMeter::expect(double pace) {
    if (std::abs(pace - expected_) > 1e-9) {
        expected_ = pace;
        restart();
    }
}

// A clock that was set is off its pace once, one that was given another speed is so again and again.
void PaceMeter::read(int64_t us, int64_t nowUs) {
    if (expected_ <= 0) {
        return;
    }
    if (!readings_.empty()) {
        const Reading& last = readings_.back();
        const auto passedUs = static_cast<double>(nowUs - last.atUs);
        if (passedUs >= 0 && passedUs < kStepUs) {
            return;
        }
        const auto movedUs = static_cast<double>(wrappingSubtract(us, last.us));
        const bool isUsual = std::abs(movedUs - pace() * passedUs) < kJumpUs;
        const bool isAgain = std::abs(movedUs - lastPace_ * passedUs) < kJumpUs;
        lastPace_ = movedUs / passedUs;
        if (passedUs < 0 || passedUs > kWindowUs || !(isUsual || isAgain)) {
            restart();
        }
    }
    readings_.push_back({us, nowUs});
    while (nowUs - readings_.front().atUs > kWindowUs) {
        readings_.pop_front();
    }
    const auto spanUs = static_cast<double>(nowUs - readings_.front().atUs);
    if (spanUs < kShortestUs) {
        return;
    }
    const double ratio = static_cast<double>(wrappingSubtract(us, readings_.front().us)) / spanUs / expected_;
    if (ratio < kSlowest || ratio > kFastest) {
        ratio_ = 1;
    } else if (std::abs(ratio - ratio_) > kAnother) {
        ratio_ = ratio;
    } else {
        ratio_ += kWeight * (ratio - ratio_);
    }
}

}  // namespace kelp
