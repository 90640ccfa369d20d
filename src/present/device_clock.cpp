#include "present/device_clock.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace kelp {

namespace {

constexpr double kSecondUs = 1e6;
constexpr double kBandwidthHz =
    0.5;                           // of the loop: slower movements than that are the device's, faster ones are jitter
constexpr double kLateBlocks = 1;  // a device that is so late has played all it had
constexpr double kEarlyBlocks = 0.75;  // one that is so early has begun anew
constexpr double kPaceRange = 0.1;     // by how much a device's pace may differ from what it says

}  // namespace

void DeviceClock::open(int blockFrames, double framesPerSecond) {
    blockFrames_ = std::max(blockFrames, 1);
    nominalUs_ = framesPerSecond > 0 ? blockFrames_ / framesPerSecond * kSecondUs : 0;
    blockUs_ = nominalUs_;
    const double turn = 2 * std::numbers::pi * kBandwidthHz * nominalUs_ / kSecondUs;
    gain_ = std::min(std::numbers::sqrt2 * turn, 1.0);
    paceGain_ = std::min(turn * turn, gain_ / 2);
    isLocked_ = false;
    playing_ = next_ = {taken_, 0};
}

void DeviceClock::take(int64_t frames, int64_t nowUs) {
    const auto now = static_cast<double>(nowUs);
    const double late = now - endUs_;
    playing_ = next_;
    if (!isLocked_ || late > kLateBlocks * blockUs_ || late < -kEarlyBlocks * blockUs_) {
        if (!isLocked_ || late > 0) {
            playing_ = {taken_, 0};
        }
        isLocked_ = true;
        beginUs_ = now;
        endUs_ = now + blockUs_;
    } else {
        beginUs_ = endUs_;
        endUs_ += gain_ * late + blockUs_;
        blockUs_ =
            std::clamp(blockUs_ + paceGain_ * late, (1 - kPaceRange) * nominalUs_, (1 + kPaceRange) * nominalUs_);
    }
    // What was dropped meanwhile isn't taken a second time.
    frames = std::clamp<int64_t>(frames, 0, handed_ - taken_);
    next_ = {taken_, frames};
    taken_ += frames;
    if (frames > 0) {
        dryFromUs_ = static_cast<int64_t>(endUs_ + blockUs_ * static_cast<double>(frames) / blockFrames_);
    }
}

void DeviceClock::drop(int64_t nowUs) {
    taken_ = handed_;
    playing_ = next_ = {taken_, 0};
    dryFromUs_ = nowUs;
}

HeardSound DeviceClock::heard(int64_t nowUs) const {
    const auto now = static_cast<double>(nowUs);
    const double nextAskUs = isLocked_ ? std::max(endUs_, now) : now + blockUs_;
    const double waitingBlocks = static_cast<double>(handed_ - taken_) / std::max(blockFrames_, 1.0);
    HeardSound heard;
    heard.frames = now < endUs_ ? heardOf(playing_, (now - beginUs_) / std::max(endUs_ - beginUs_, 1.0))
                                : heardOf(next_, (now - endUs_) / std::max(blockUs_, 1.0));
    heard.delayUs = std::llround(nextAskUs - now + blockUs_ * (1 + waitingBlocks));
    heard.dryFromUs = dryFromUs_;
    heard.framesPerSecond = blockUs_ > 0 ? blockFrames_ / blockUs_ * kSecondUs : 0;
    return heard;
}

double DeviceClock::heardOf(const Block& block, double blocks) const {
    return static_cast<double>(block.begin) + std::clamp(blocks * blockFrames_, 0.0, static_cast<double>(block.frames));
}

}  // namespace kelp
