#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "present/audio_play_fakes.h"
#include "support/fake_time.h"

namespace kelp::test {

constexpr int kLabRate = 48000;

// An output with a device on the fake time: takes blocks of samples out of a ring of 2048, and plays each while it
// takes the next one. Asks a little early or late; what it plays is even all the same. A full ring moves the time on.
class LabDevice : public IAudioOutput {
public:
    // What came out, when: the first channel, from the true time of its first sample on.
    struct Played {
        double fromUs = 0;
        std::vector<int16_t> samples;
    };

    bool init(AudioOutputSpec spec) override {
        clock_.open(block, kLabRate);
        channels_ = static_cast<size_t>(spec.channels);
        nextUs_ = static_cast<double>(FakeTime::nowUs()) + 5000;
        return true;
    }
    bool fillFrame(std::shared_ptr<AudioFrameInfo> frame) override {
        catchUp();
        const size_t count = frame->dataSize / 2 / channels_;
        clock_.handOver(static_cast<int64_t>(count));
        for (size_t i = 0; i < count; ++i) {
            int16_t sample = 0;
            std::memcpy(&sample, frame->buffer->data + i * 2 * channels_, sizeof(sample));
            ring_.push_back(sample);
        }
        while (ring_.size() > kRing && !flush_) {
            passUs(1000);
        }
        if (std::exchange(flush_, false)) {
            ring_.clear();
            clock_.drop(FakeTime::nowUs());
        }
        return true;
    }
    int getBufferDuration() override { return 0; }
    bool pause(bool paused) override {
        catchUp();
        paused_ = paused;
        return true;
    }
    void close() override {}
    void flush() override { flush_ = true; }
    bool setVolume(float) override { return true; }
    HeardSound heard(int64_t nowUs) override {
        catchUp();
        return clock_.heard(nowUs);
    }

    bool isOpen() const { return nextUs_ < kNeverUs; }

    // Lets time pass.
    void passUs(int64_t us) {
        const int64_t endUs = FakeTime::nowUs() + us;
        while (FakeTime::nowUs() < endUs) {
            FakeTime::advanceUs(std::min<int64_t>(1000, endUs - FakeTime::nowUs()));
            catchUp();
            onStep();
        }
    }

    int block = 1024;     // before it is open
    double pace = 1;      // of the device's clock
    double jitterUs = 0;  // by which it asks early or late at most
    int gaps = 0;         // blocks that weren't whole
    std::function<void()> onStep = [] {};
    std::vector<Played> played;

private:
    static constexpr size_t kRing = 2048;
    static constexpr double kNeverUs = 1e18;

    double blockUs() const { return block * 1e6 / kLabRate / pace; }

    void catchUp() {
        while (askUs() <= static_cast<double>(FakeTime::nowUs())) {
            ask();
        }
    }
    double askUs() const { return nextUs_ + lateUs_; }
    void ask() {
        const bool isSilent = paused_ || flush_;
        gaps += !isSilent && ring_.size() < static_cast<size_t>(block);
        const size_t count = isSilent ? 0 : std::min<size_t>(static_cast<size_t>(block), ring_.size());
        const auto last = ring_.begin() + static_cast<std::ptrdiff_t>(count);
        if (!paused_) {
            clock_.take(static_cast<int64_t>(count), std::llround(askUs()));
        }
        if (count > 0) {
            played.push_back({nextUs_ + blockUs(), {ring_.begin(), last}});
            ring_.erase(ring_.begin(), last);
        }
        nextUs_ += blockUs();
        lateUs_ = jitterUs * std::uniform_real_distribution<>(-1, 1)(random_);
    }

    DeviceClock clock_;
    size_t channels_ = 2;
    std::deque<int16_t> ring_;
    bool paused_ = false;
    bool flush_ = false;
    double nextUs_ = kNeverUs;  // when it asks, and begins to play the block before
    double lateUs_ = 0;
    std::minstd_rand random_{7};
};

}  // namespace kelp::test
