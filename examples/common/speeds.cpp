#include "speeds.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::array kSpeeds = {0.5, 0.75, 1.0, 1.25, 1.5, 2.0, 3.0, 4.0};

}  // namespace

double fasterThan(double speed) {
    const auto next = std::upper_bound(kSpeeds.begin(), kSpeeds.end(), speed);
    return next == kSpeeds.end() ? speed : *next;
}

double slowerThan(double speed) {
    const auto next = std::lower_bound(kSpeeds.begin(), kSpeeds.end(), speed);
    return next == kSpeeds.begin() ? speed : *(next - 1);
}
