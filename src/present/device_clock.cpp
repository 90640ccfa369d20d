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
    Loop& loop = loop_;
    loop.blockFrames = std::max(blockFrames, 1);
    loop.nominalUs = framesPerSecond > 0 ? loop.blockFrames / framesPerSecond * kSecondUs : 0;
    loop.blockUs = loop.nominalUs;
    const double turn = 2 * std::numbers::pi * kBandwidthHz * loop.nominalUs / kSecondUs;
    loop.gain = std::min(std::numbers::sqrt2 * turn, 1.0);
    loop.paceGain = std::min(turn * turn, loop.gain / 2);
    loop.isLocked = 0;
    loop.playing = loop.next = {loop.taken, 0};
    shown_.write(loop);
}

void DeviceClock::take(int64_t frames, int64_t nowUs) {
    Loop& loop = loop_;
    const auto now = static_cast<double>(nowUs);
    const double late = now - loop.endUs;
    loop.taken = std::max(loop.taken, dropped_.load(std::memory_order_acquire));
    loop.playing = loop.next;
    if (loop.isLocked == 0 || late > kLateBlocks * loop.blockUs || late < -kEarlyBlocks * loop.blockUs) {
        if (loop.isLocked == 0 || late > 0) {
            loop.playing = {loop.taken, 0};
        }
        loop.isLocked = 1;
        loop.beginUs = now;
        loop.endUs = now + loop.blockUs;
    } else {
        loop.beginUs = loop.endUs;
        loop.endUs += loop.gain * late + loop.blockUs;
        loop.blockUs = std::clamp(loop.blockUs + loop.paceGain * late, (1 - kPaceRange) * loop.nominalUs,
                                  (1 + kPaceRange) * loop.nominalUs);
    }
    // What was dropped meanwhile isn't taken a second time.
    frames = std::clamp<int64_t>(frames, 0, handed_.read() - loop.taken);
    loop.next = {loop.taken, frames};
    loop.taken += frames;
    if (frames > 0) {
        loop.dryFromUs =
            static_cast<int64_t>(loop.endUs + loop.blockUs * static_cast<double>(frames) / loop.blockFrames);
    }
    shown_.write(loop);
}

// The device's thread may be in the midst of a step, so its loop is left alone: from here on all that was handed over
// until now counts as taken and heard, whatever the loop says of it.
void DeviceClock::drop(int64_t nowUs) {
    droppedUs_.store(nowUs, std::memory_order_relaxed);
    dropped_.store(handed_.read(), std::memory_order_release);
}

HeardSound DeviceClock::heard(int64_t nowUs) const {
    const Loop loop = shown_.read();
    const int64_t dropped = dropped_.load(std::memory_order_acquire);
    const auto now = static_cast<double>(nowUs);
    const double nextAskUs = loop.isLocked != 0 ? std::max(loop.endUs, now) : now + loop.blockUs;
    // Not below what the loop has taken: that was read first, and its thread had seen it handed over.
    const int64_t waiting = handed_.read() - std::max(loop.taken, dropped);
    const double waitingBlocks = static_cast<double>(waiting) / std::max(loop.blockFrames, 1.0);
    HeardSound heard;
    heard.frames = now < loop.endUs
                       ? heardOf(loop, loop.playing, (now - loop.beginUs) / std::max(loop.endUs - loop.beginUs, 1.0))
                       : heardOf(loop, loop.next, (now - loop.endUs) / std::max(loop.blockUs, 1.0));
    heard.frames = std::max(heard.frames, static_cast<double>(dropped));
    heard.delayUs = std::llround(nextAskUs - now + loop.blockUs * (1 + waitingBlocks));
    heard.overdueUs = loop.isLocked != 0 ? std::max<int64_t>(std::llround(now - loop.endUs), 0) : 0;
    heard.spareUs = std::max<int64_t>(heard.delayUs - std::llround(2 * loop.blockUs), 0);
    heard.dryFromUs = loop.taken > dropped ? loop.dryFromUs : droppedUs_.load(std::memory_order_relaxed);
    heard.framesPerSecond = loop.blockUs > 0 ? loop.blockFrames / loop.blockUs * kSecondUs : 0;
    return heard;
}

double DeviceClock::heardOf(const Loop& loop, const Block& block, double blocks) {
    return static_cast<double>(block.begin) +
           std::clamp(blocks * loop.blockFrames, 0.0, static_cast<double>(block.frames));
}

}  // namespace kelp
