#include "present/silent_device.h"

#include <algorithm>

namespace kelp {

constexpr int64_t kJumpUs = 1'000'000;

void SilentDevice::begin(int64_t endUs, int64_t nowUs) {
    endUs_ = endUs;
    lastUs_ = nowUs;
    isBehind_ = endUs < nowUs;
}

void SilentDevice::add(int64_t us, int64_t nowUs) {
    look(nowUs);
    if (!isBehind_) {
        endUs_ = std::max(endUs_, nowUs);
    }
    endUs_ += us;
    isBehind_ = isBehind_ && endUs_ < nowUs;
}

void SilentDevice::clear(int64_t nowUs) {
    begin(nowUs, nowUs);
}

void SilentDevice::pause(bool paused, int64_t nowUs) {
    look(nowUs);
    isPaused_ = paused;
}

int64_t SilentDevice::leftUs(int64_t nowUs) {
    look(nowUs);
    return std::max<int64_t>(endUs_ - nowUs, 0);
}

void SilentDevice::look(int64_t nowUs) {
    if (const int64_t us = nowUs - lastUs_; isPaused_ || us < 0 || us > kJumpUs) {
        endUs_ += us;
    }
    lastUs_ = nowUs;
}

}  // namespace kelp
