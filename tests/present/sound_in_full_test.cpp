#include <gmock/gmock.h>

#include <algorithm>
#include <memory>
#include <numeric>

#include "present/audio_play_fixture.h"
#include "present/sound_lab.h"

// With exact timing, sound that follows a clock is put into step with it by its tempo alone: all of it is played, once
// and in order. Through AudioPlayThread, the tempo library and a device on the fake time.
namespace kelp {
namespace {

using test::FakeSoundTouch;
using test::FakeTime;

constexpr int kFrameSamples = 1024;
constexpr int kValues = 30'000;  // of the samples, which count up to it again and again

// Runs with the fake time.
class Clock : public SyncObject {
public:
    int64_t getNoSyncThreshold() override { return 10000; }
    bool isForceSync() override { return false; }
    int64_t getSyncPts() override { return getSyncPtsUs() / 1000; }
    int64_t getSyncPtsUs() override { return FakeTime::nowUs() - beginUs_; }
    void setSyncObject(std::shared_ptr<SyncObject>) override {}

    void jump(int64_t ms) { beginUs_ -= ms * 1000; }

private:
    int64_t beginUs_ = FakeTime::nowUs();
};

class Device : public test::LabDevice {
public:
    void flush() override {
        ++flushes;
        LabDevice::flush();
    }

    int flushes = 0;
};

class SoundInFull : public test::AudioPlayFixture {
protected:
    void begin() {
        device = std::make_shared<Device>();
        device->jitterUs = 2000;
        thread = std::make_shared<AudioPlayThread>();
        peer = std::make_unique<AudioPlayThreadPeer>(*thread);
        thread->init(observer);
        thread->setOutputSpec({});
        thread->setOptions({.exactTiming = true});
        peer->useFactory(std::make_shared<test::FakeOutputFactory>(calls, device));
        clock = std::make_shared<Clock>();
        thread->setSyncObject(clock);
        next = 0;
        FakeSoundTouch::calls = &calls;
        FakeSoundTouch::putIn.clear();
        FakeSoundTouch::tempos.clear();
    }

    void play(int ms) {
        for (const int64_t endUs = FakeTime::nowUs() + ms * 1000; FakeTime::nowUs() < endUs;) {
            const auto frame = test::makeAudioFrame(next * 1000 / test::kLabRate, kFrameSamples * 4, 21);
            frame->allocBuffer = test::makeBuffer;
            auto* samples = reinterpret_cast<int16_t*>(frame->buffer->data);
            for (int i = 0; i < kFrameSamples; ++i) {
                samples[2 * i] = samples[2 * i + 1] = static_cast<int16_t>((next + i) % kValues);
            }
            if (peer->output(frame)) {
                next += kFrameSamples;
            } else {
                device->passUs(50'000);
            }
        }
    }

    size_t played() const {
        return std::transform_reduce(device->played.begin(), device->played.end(), size_t{0}, std::plus<>(),
                                     [](const auto& block) { return block.samples.size(); });
    }

    std::shared_ptr<Device> device;
    std::shared_ptr<Clock> clock;
    int64_t next = 0;  // sample
};

TEST_F(SoundInFull, IsPlayedOnceWhereverItsMasterGoes) {
    for (const int64_t jumpMs : {-1500, -300, -60, 60, 300, 1500}) {
        begin();
        play(1500);
        clock->jump(jumpMs);
        play(4000);
        const auto& in = FakeSoundTouch::putIn;
        ASSERT_EQ(in.size(), static_cast<size_t>(2 * next)) << jumpMs;
        for (size_t i = 0; i < in.size(); i += 2) {
            ASSERT_EQ(in[i], static_cast<short>(i / 2 % kValues)) << jumpMs << ", sample " << i / 2;
        }
        EXPECT_EQ(device->flushes, 0) << jumpMs;
        // What the tempos make of it comes out, but for what is on its way.
        ASSERT_EQ(FakeSoundTouch::tempos.size(), static_cast<size_t>(next / kFrameSamples)) << jumpMs;
        double out = 0;
        for (const float tempo : FakeSoundTouch::tempos) {
            out += kFrameSamples / static_cast<double>(tempo);
        }
        EXPECT_NEAR(static_cast<double>(played()), out, 0.2 * test::kLabRate) << jumpMs;
    }
}

}  // namespace
}  // namespace kelp
