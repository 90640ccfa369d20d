#include "e2e/numbered.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "e2e/recording_sink.h"
#include "e2e/sound.h"

namespace kelp::test {

namespace {

constexpr int kBits = 10;
constexpr int kWhite = 160;  // and above; a codec leaves some noise
constexpr int kBlack = 96;   // and below

constexpr double kFirstHz = 400;
constexpr double kHzPerSecond = 100;
constexpr size_t kHalfWindow = kSoundRate / 100;
// Between the halves of a window the tone rises by 1 Hz; a cut between them, or a codec's noise, by far more.
constexpr double kSteadyHz = 12;

// Mean of the middle of a block.
int meanAround(const uint8_t* luma, int linesize, int x, int y) {
    int sum = 0;
    for (int row = -4; row < 4; ++row) {
        for (int column = -4; column < 4; ++column) {
            sum += luma[static_cast<ptrdiff_t>(y + row) * linesize + x + column];
        }
    }
    return sum / 64;
}

// By the rising zero crossings of `count` samples, each placed by interpolation; 0 for silence.
double pitchOf(const int16_t* samples, size_t count) {
    double first = -1;
    double last = -1;
    int crossings = 0;
    int loudest = 0;
    for (size_t i = 1; i < count; ++i) {
        loudest = std::max(loudest, std::abs(static_cast<int>(samples[i])));
        if (samples[i - 1] < 0 && samples[i] >= 0) {
            const double below = -static_cast<double>(samples[i - 1]);
            last = static_cast<double>(i - 1) + below / (below + samples[i]);
            first = first < 0 ? last : first;
            ++crossings;
        }
    }
    return crossings < 3 || loudest < 4000 ? 0 : (crossings - 1) * kSoundRate / (last - first);
}

}  // namespace

int numberOf(const uint8_t* luma, int linesize, int width, int height) {
    int number = 0;
    for (int bit = 0; bit < kBits; ++bit) {
        const int x = (2 * bit + 1) * width / (2 * kBits);
        const int upper = meanAround(luma, linesize, x, height / 4);
        const int lower = meanAround(luma, linesize, x, height * 3 / 4);
        if (upper >= kWhite && lower <= kBlack) {
            number |= 1 << bit;
        } else if (upper > kBlack || lower < kWhite) {
            return -1;
        }
    }
    return number;
}

std::vector<NumberedFrame> NumberSink::frames() {
    std::lock_guard lock(mutex_);
    return frames_;
}

int NumberSink::frameCount() {
    std::lock_guard lock(mutex_);
    return static_cast<int>(frames_.size());
}

NumberedFrame NumberSink::shown() {
    std::lock_guard lock(mutex_);
    return frames_.empty() ? NumberedFrame() : frames_.back();
}

int NumberSink::repaints() {
    std::lock_guard lock(mutex_);
    return repaints_;
}

void NumberSink::clear() {
    std::lock_guard lock(mutex_);
    frames_.clear();
}

bool NumberSink::waitForFrames(int count, int timeoutMs) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return static_cast<int>(frames_.size()) >= count; });
}

bool NumberSink::waitUntilStill(int repaints, int timeoutMs) {
    std::unique_lock lock(mutex_);
    // From now on, whatever was painted before.
    repaints_ = 0;
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return repaints_ >= repaints; });
}

void NumberSink::onVideoSize(int width, int height, int) {
    std::lock_guard lock(mutex_);
    width_ = width;
    height_ = height;
}

bool NumberSink::onVideoFrame(int, int64_t pts, uint8_t** data, int* linesize, int, int64_t) {
    std::lock_guard lock(mutex_);
    const int number = numberOf(data[0], linesize[0], width_, height_);
    if (!frames_.empty() && frames_.back().pts == pts && frames_.back().number == number) {
        ++repaints_;
    } else {
        repaints_ = 0;
        frames_.push_back({number, pts, steadyUs()});
    }
    changed_.notify_all();
    return true;
}

std::vector<SoundMoment> soundMoments(const std::string& recording) {
    std::ifstream file(recording, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::vector<int16_t> left;
    left.reserve(bytes.size() / 4);
    for (size_t i = 0; i + 4 <= bytes.size(); i += 4) {
        left.push_back(static_cast<int16_t>(static_cast<uint8_t>(bytes[i]) | static_cast<uint8_t>(bytes[i + 1]) << 8));
    }
    std::vector<SoundMoment> moments;
    for (size_t at = 0; at + 2 * kHalfWindow <= left.size(); at += kHalfWindow) {
        const double before = pitchOf(&left[at], kHalfWindow);
        const double after = pitchOf(&left[at + kHalfWindow], kHalfWindow);
        if (before <= 0 || after <= 0 || std::abs(before - after) > kSteadyHz) {
            continue;
        }
        const double hz = pitchOf(&left[at], 2 * kHalfWindow);
        moments.push_back({static_cast<int64_t>((at + kHalfWindow) * 1000 / kSoundRate),
                           std::llround((hz - kFirstHz) / kHzPerSecond * 1000)});
    }
    return moments;
}

}  // namespace kelp::test
