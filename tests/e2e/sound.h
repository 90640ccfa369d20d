#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelp::test {

constexpr int kSoundRate = 48000;

// Makes SDL write what players of this process play into files instead of a device: 2 channels, 48000 Hz, signed 16
// bits. To be called before the first player is made. The next output that is opened writes to `path`.
void recordSoundTo(const std::string& path);

// The same, but nobody keeps it.
void forgetSound();

// What was heard: one channel of a recording and what is measured of it.
struct Heard {
    std::vector<int16_t> samples;  // left channel, from the first to the last sample that isn't silent
    double leadingSilenceMs = 0;
    double lengthMs = 0;
    double toneHz = 0;        // by the zero crossings
    double longestGapMs = 0;  // the longest silence between the first and the last sample
    double rms = 0;           // of the middle half
    bool channelsEqual = false;
};

Heard hear(const std::string& path);

}  // namespace kelp::test
