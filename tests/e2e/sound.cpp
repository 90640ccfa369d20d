#include "e2e/sound.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "sound_drain.h"

namespace kelp::test {

namespace {

// Below this a sample counts as silent. A codec leaves some noise around a tone; the tone itself swings past this
// within a fraction of a millisecond.
constexpr int kSilent = 40;

// The frequency between the first and the last rising zero crossing, each placed between two samples by interpolation.
double toneOf(const std::vector<int16_t>& samples) {
    double first = -1;
    double last = -1;
    int crossings = 0;
    for (size_t i = 1; i < samples.size(); ++i) {
        if (samples[i - 1] < 0 && samples[i] >= 0) {
            const double below = -static_cast<double>(samples[i - 1]);
            last = static_cast<double>(i - 1) + below / (below + samples[i]);
            first = first < 0 ? last : first;
            ++crossings;
        }
    }
    return crossings < 2 ? 0 : (crossings - 1) * kSoundRate / (last - first);
}

}  // namespace

void recordSoundTo(const std::string& path) {
    setenv("SDL_AUDIODRIVER", "disk", 1);
    setenv("SDL_DISKAUDIOFILE", path.c_str(), 1);
}

void forgetSound() {
    recordSoundTo(soundDrain());
}

Heard hear(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    Heard heard;
    heard.channelsEqual = true;
    std::vector<int16_t> left;
    for (size_t i = 0; i + 4 <= bytes.size(); i += 4) {
        const auto sample = [&](size_t at) {
            return static_cast<int16_t>(static_cast<uint8_t>(bytes[at]) | static_cast<uint8_t>(bytes[at + 1]) << 8);
        };
        left.push_back(sample(i));
        heard.channelsEqual = heard.channelsEqual && sample(i) == sample(i + 2);
    }
    const auto loud = [](int16_t sample) { return std::abs(sample) >= kSilent; };
    const auto begin = std::find_if(left.begin(), left.end(), loud);
    const auto end = std::find_if(left.rbegin(), left.rend(), loud).base();
    if (begin >= end) {
        return heard;
    }
    heard.leadingSilenceMs = 1000.0 * static_cast<double>(begin - left.begin()) / kSoundRate;
    heard.samples.assign(begin, end);
    heard.lengthMs = 1000.0 * static_cast<double>(heard.samples.size()) / kSoundRate;
    int silent = 0;
    int longest = 0;
    for (const int16_t sample : heard.samples) {
        silent = loud(sample) ? 0 : silent + 1;
        longest = std::max(longest, silent);
    }
    heard.longestGapMs = 1000.0 * longest / kSoundRate;
    const size_t quarter = heard.samples.size() / 4;
    const std::vector<int16_t> middle(heard.samples.begin() + static_cast<ptrdiff_t>(quarter),
                                      heard.samples.end() - static_cast<ptrdiff_t>(quarter));
    heard.toneHz = toneOf(middle);
    double sum = 0;
    for (const int16_t sample : middle) {
        sum += static_cast<double>(sample) * sample;
    }
    heard.rms = middle.empty() ? 0 : std::sqrt(sum / static_cast<double>(middle.size()));
    return heard;
}

}  // namespace kelp::test
