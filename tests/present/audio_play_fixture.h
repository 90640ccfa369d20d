#pragma once

#include <gmock/gmock.h>

#include <memory>

#include "kelp_player/log.h"
#include "present/audio_play_fakes.h"
#include "support/fake_time.h"

namespace kelp::test {

// An AudioPlayThread with a recording output behind it, at the form of every playback, on the fake clock. Nothing is
// recorded of the tempo library until `script` or FakeSoundTouch::calls asks for it.
class AudioPlayFixture : public testing::Test {
protected:
    void SetUp() override {
        FakeTime::reset();
        FakeSoundTouch::reset();
        Log::SetLevel(0);
    }
    void TearDown() override {
        FakeTime::setManual(false);
        thread.reset();
        Log::SetLevel(logLevel_);
        EXPECT_EQ(FakeSoundTouch::instances, 0) << "of the tempo library were left";
        FakeSoundTouch::reset();
        FakeTime::reset();
    }

    // Makes the thread as a playback does, all but the start.
    void open(AudioOutputSpec spec = {}) {
        thread = std::make_shared<AudioPlayThread>();
        peer = std::make_unique<AudioPlayThreadPeer>(*thread);
        peer->useFactory(std::make_shared<FakeOutputFactory>(calls, output));
        thread->init(observer);
        thread->setOutputSpec(spec);
    }

    // From now on the tempo library gives `ready` samples per channel for each block and is recorded.
    void script(unsigned int ready) {
        FakeSoundTouch::scripted = true;
        FakeSoundTouch::ready = ready;
        FakeSoundTouch::calls = &calls;
    }

    CallRecord calls;
    std::shared_ptr<FakeAudioOutput> output = std::make_shared<FakeAudioOutput>(calls);
    std::shared_ptr<RecordingObserver> observer = std::make_shared<RecordingObserver>();
    std::shared_ptr<FakeMaster> master = std::make_shared<FakeMaster>();
    std::shared_ptr<AudioPlayThread> thread;
    std::unique_ptr<AudioPlayThreadPeer> peer;

private:
    const int logLevel_ = Log::GetLevel();
};

}  // namespace kelp::test
