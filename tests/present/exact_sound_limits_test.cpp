#include <memory>

#include "present/audio_play_fixture.h"
#include "present/exact_sound.h"

// From where on the exact sound stops waiting, or begins to, with an output that hasn't played anything yet.
namespace kelp {
namespace {

using test::FakeTime;

constexpr int kRate = 48000;
constexpr int kFrameMs = 20;
constexpr int kFrameSamples = kRate * kFrameMs / 1000;

class ExactSoundLimits : public test::AudioPlayFixture {
protected:
    void SetUp() override {
        AudioPlayFixture::SetUp();
        sound.setSpec({});
    }

    // How long the frame at `ms` is to wait.
    int64_t beginAt(int64_t ms) {
        return sound.begin(*test::makeAudioFrame(ms, kFrameSamples * 4, kFrameMs), kFrameMs, *output,
                           FakeTime::nowMs());
    }

    ExactSound sound;
};

TEST_F(ExactSoundLimits, TimeStandsForAFifthOfASecondAfterASeekWithoutSound) {
    sound.seek(7000);
    FakeTime::advanceUs(200'000);
    EXPECT_EQ(sound.readUs(), 7'000'000);
    FakeTime::advanceUs(500);
    EXPECT_EQ(sound.readUs(), 7'000'500);
}

TEST_F(ExactSoundLimits, SoundThatPlaysIsSlowedUpToAFifthOfASecondAheadAndStopsBeyond) {
    EXPECT_EQ(beginAt(0), 0);
    sound.handOver(nullptr, kFrameSamples, kFrameSamples);  // on its way: the device isn't dry
    sound.follow(master);
    master->set(kFrameMs - 200);
    EXPECT_EQ(beginAt(kFrameMs), 0);
    EXPECT_FLOAT_EQ(sound.tempo(), 0.5F);
    master->set(kFrameMs - 201);
    EXPECT_EQ(beginAt(kFrameMs), SoundTiming::kRetryUs);
}

}  // namespace
}  // namespace kelp
