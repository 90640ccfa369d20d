#include <algorithm>
#include <cmath>
#include <memory>

#include "present/audio_play_fixture.h"
#include "present/sound_lab.h"

// Sound of a live source that is to come as soon as can be, through AudioPlayThread, the tempo library and a device on
// the fake time. It follows pictures that are shown 60 ms after they were made.
namespace kelp {
namespace {

using test::FakeTime;
using test::LabDevice;

constexpr int kBlockFrames = 1024;
constexpr double kBlockUs = kBlockFrames * 1e6 / test::kLabRate;
constexpr double kPictureUs = 60'000;

class Pictures : public SyncObject {
public:
    int64_t getNoSyncThreshold() override { return 10000; }
    bool isForceSync() override { return false; }
    int64_t getSyncPts() override { return getSyncPtsUs() / 1000; }
    int64_t getSyncPtsUs() override { return FakeTime::nowUs() - beginUs_ - static_cast<int64_t>(kPictureUs); }
    void setSyncObject(std::shared_ptr<SyncObject>) override {}

    void jump(int64_t ms) { beginUs_ -= ms * 1000; }

private:
    int64_t beginUs_ = FakeTime::nowUs();
};

class LiveSoundTest : public test::AudioPlayFixture {
protected:
    void SetUp() override {
        AudioPlayFixture::SetUp();
        Log::SetLevel(3);
        device->block = 512;
        device->jitterUs = 500;
        thread = std::make_shared<AudioPlayThread>();
        peer = std::make_unique<AudioPlayThreadPeer>(*thread);
        thread->init(observer);
        thread->setOutputSpec({});
        thread->setOptions({.exactTiming = true, .lowLiveDelay = true});
        peer->useFactory(std::make_shared<test::FakeOutputFactory>(calls, device));
        pictures = std::make_shared<Pictures>();
        thread->setSyncObject(pictures);
        test::FakeSoundTouch::calls = &calls;
    }

    // Plays what comes in `ms`: each block as soon as it is made, unless the way takes longer, and none before the
    // device has room for it.
    void play(double ms, double moreUs = 0) {
        for (const double endUs = nowUs() + ms * 1000; nowUs() < endUs;) {
            const double comesUs = static_cast<double>(next_ + 1) * kBlockUs + moreUs;
            if (comesUs > nowUs()) {
                device->passUs(std::llround(comesUs - nowUs()));
            }
            const auto frame =
                test::makeAudioFrame(std::llround(static_cast<double>(next_) * kBlockUs / 1000), kBlockFrames * 4, 21);
            frame->allocBuffer = test::makeBuffer;
            frame->queuedUs = FakeTime::nowUs();
            while (!peer->output(frame)) {
                device->passUs(10'000);
            }
            ++next_;
        }
    }
    // How much later than its picture a sound is heard now.
    double behindPictureMs() { return (nowUs() - kPictureUs - static_cast<double>(thread->getSyncPtsUs())) / 1000; }
    double nowUs() const { return static_cast<double>(FakeTime::nowUs() - beginUs_); }

    std::shared_ptr<LabDevice> device = std::make_shared<LabDevice>();
    std::shared_ptr<Pictures> pictures;

private:
    const int64_t beginUs_ = FakeTime::nowUs();
    int64_t next_ = 0;  // block
};

class LiveSoundOfADeviceTest : public LiveSoundTest, public testing::WithParamInterface<double> {};

// As fast as it says, or slower, or faster.
TEST_P(LiveSoundOfADeviceTest, ComesAsSoonAsItCanAndHasNoGaps) {
    device->pace = GetParam();
    play(5000);
    const int gaps = device->gaps;
    for (int i = 0; i < 20; ++i) {
        play(500);
        EXPECT_LT(behindPictureMs(), 25);
        EXPECT_GT(behindPictureMs(), -15);
    }
    EXPECT_EQ(device->gaps, gaps);
}

INSTANTIATE_TEST_SUITE_P(OfAPace, LiveSoundOfADeviceTest, testing::Values(0.95, 1.0, 1.001, 1.06),
                         [](const auto& one) { return std::to_string(std::lround(one.param * 1000)); });

// The output holds more than it needs, and nothing is in the queue.
TEST_F(LiveSoundTest, IsAsSoonAgainBehindAShortStandstill) {
    play(3000);
    const double usualMs = behindPictureMs();
    device->passUs(60'000);
    test::FakeSoundTouch::tempos.clear();
    play(300);
    EXPECT_GT(behindPictureMs(), usualMs + 20);
    play(4000);
    EXPECT_LT(behindPictureMs(), std::max(usualMs, 10.0) + 10);
    EXPECT_GT(std::ranges::max(test::FakeSoundTouch::tempos), 1.02F) << "by tempo";
}

// The pictures are as much sooner or later all of a sudden as no such tempo makes up for in a second. The device's pace
// is learnt, and isn't quite what it says.
TEST_F(LiveSoundTest, IsPlayedATenthFasterOrSlowerAtTheMost) {
    play(3000);
    for (const int64_t ms : {150, -150}) {
        pictures->jump(ms);
        test::FakeSoundTouch::tempos.clear();
        play(1000);
        const auto [least, most] = std::ranges::minmax(test::FakeSoundTouch::tempos);
        EXPECT_GE(least, 0.899F) << ms;
        EXPECT_LE(most, 1.101F) << ms;
        EXPECT_TRUE(ms > 0 || least < 0.91F) << "it waits for its pictures by its tempo";
        pictures->jump(-ms);
        play(4000);
    }
}

}  // namespace
}  // namespace kelp
