#include <limits>

#include "present/audio_play_fixture.h"
#include "support/log_capture.h"

// How AudioPlayThread measures its distance to the clock that it follows, and what tempo it makes of it.
namespace kelp {
namespace {

using test::FakeSoundTouch;
using test::FakeTime;
using test::LogCapture;
using test::makeAudioFrame;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kAverage = 20;

class AudioPlaySyncTest : public test::AudioPlayFixture {
protected:
    void open(AudioOutputSpec spec = {}) {
        AudioPlayFixture::open(spec);
        thread->setSyncObject(master);
        peer->seekStart(kPosition);
    }

    // Measures once with the sound `ahead` milliseconds ahead of the master.
    int measure(int64_t ahead, int64_t duration = 21) {
        master->set(kPosition - ahead);
        peer->compute(duration);
        return thread->getUnSyncSamples();
    }

    // The same `count` times; the last result.
    int measureTimes(int count, int64_t ahead, int64_t duration = 21) {
        int samples = 0;
        for (int i = 0; i < count; ++i) {
            samples = measure(ahead, duration);
        }
        return samples;
    }

    static constexpr int kPosition = 100'000;
};

TEST_F(AudioPlaySyncTest, WithoutAMasterNothingIsToBeMadeUpFor) {
    open();
    master->forcing = true;
    EXPECT_EQ(measure(50), 2400);
    thread->setSyncObject(nullptr);
    EXPECT_EQ(measure(50), 0);
}

TEST_F(AudioPlaySyncTest, TheFirst20DifferencesYieldNoCorrection) {
    open();
    for (int i = 0; i < kAverage; ++i) {
        EXPECT_EQ(measure(50), 0) << i;
    }
    EXPECT_EQ(measure(50), 2400);
    EXPECT_EQ(measure(50), 2400);
}

TEST_F(AudioPlaySyncTest, ALagGivesNegativeSamples) {
    open();
    EXPECT_EQ(measureTimes(kAverage + 1, -50), -2400);
}

// After 21 equal differences the mean is 0.99206 of one: 1 - 0.01 ^ (21 / 20).
TEST_F(AudioPlaySyncTest, TheThresholdIsTwiceTheDurationFrom25To100) {
    struct Case {
        int64_t duration;
        int64_t ahead;
        int samples;
    };
    constexpr Case kCases[] = {
        {21, 42, 0},
        {21, 43, 2064},
        {21, -42, 0},
        {21, -43, -2064},
        {5, 25, 0},
        {5, 26, 1248},
        {80, 100, 0},
        {80, 101, 4848},
        {12, 25, 0},
        {12, 26, 1248},
        {13, 26, 0},
        {13, 27, 1296},
        {50, 100, 0},
        {50, 101, 4848},
        {0, 26, 1248},
        {-40, 26, 1248},
        {-40, 25, 0},
        // Doubled in 32 bits.
        {1LL << 30, 26, 1248},
        {1LL << 31, 26, 1248},
        {(1LL << 32) + 21, 42, 0},
        {(1LL << 32) + 21, 43, 2064},
    };
    for (const auto& c : kCases) {
        open();
        EXPECT_EQ(measureTimes(kAverage + 1, c.ahead, c.duration), c.samples) << c.duration << ", " << c.ahead;
    }
}

TEST_F(AudioPlaySyncTest, CorrectsByThePresentDifferenceNotByTheMean) {
    open();
    measureTimes(kAverage, 50);
    EXPECT_EQ(measure(60), 2880);
    // The mean, 39, is still past the threshold of 30.
    EXPECT_EQ(measure(-10, 15), -480);
}

TEST_F(AudioPlaySyncTest, TheMeanDecidesWhetherToCorrect) {
    // A single difference has a weight of 0.2057: 41.96 and 42.16.
    open();
    measureTimes(kAverage, 0);
    EXPECT_EQ(measure(204), 0);
    open();
    measureTimes(kAverage, 0);
    EXPECT_EQ(measure(205), 9840);
}

TEST_F(AudioPlaySyncTest, ClocksThatAreTooFarApartResetTheAverage) {
    open();
    measureTimes(kAverage + 1, 50);
    LogCapture log;
    EXPECT_EQ(measure(12000), 0);
    EXPECT_THAT(log.lines(),
                ElementsAre("[AudioPlayThread]: diff:12000.000000, no sync threshold:10000, out of sync...\n"));
    EXPECT_EQ(measureTimes(kAverage, 50), 0);
    // 49.6, as from the beginning.
    EXPECT_EQ(measure(50, 24), 2400);
    EXPECT_EQ(measure(-12000), 0);
    EXPECT_TRUE(log.has("diff:-12000.000000, "));
    EXPECT_EQ(measureTimes(kAverage, 50), 0);
}

TEST_F(AudioPlaySyncTest, AnAverageThatWasResetHasForgottenWhatWasBefore) {
    open();
    EXPECT_EQ(measureTimes(kAverage + 1, 500), 24'000);
    EXPECT_EQ(measure(12000), 0);
    // A mean of 39.7, below the threshold of 42. With a rest of the 500 it would be 43.6.
    EXPECT_EQ(measureTimes(kAverage, 40), 0);
    EXPECT_EQ(measure(40), 0);
}

TEST_F(AudioPlaySyncTest, TheLimitItselfIsTooFar) {
    open();
    EXPECT_EQ(measureTimes(kAverage + 1, 10000), 0);
    EXPECT_EQ(measureTimes(kAverage + 1, 9999), 479'952);
    EXPECT_EQ(measureTimes(kAverage + 1, -10000), 0);
}

TEST_F(AudioPlaySyncTest, AMasterMayRaiseTheLimitButNotLowerIt) {
    open();
    master->threshold = 20'000;
    EXPECT_EQ(measureTimes(kAverage + 1, 12'000), 576'000);
    open();
    master->threshold = 100;
    EXPECT_EQ(measureTimes(kAverage + 1, 5000), 240'000);
    open();
    master->threshold = -1;
    EXPECT_EQ(measureTimes(kAverage + 1, 5000), 240'000);
}

TEST_F(AudioPlaySyncTest, AForcingMasterIsObeyedAtOnceWhenSoundIsAhead) {
    open();
    master->forcing = true;
    EXPECT_EQ(measure(1), 48);
    EXPECT_EQ(measure(50), 2400);
    EXPECT_EQ(measure(0), 0);
    EXPECT_EQ(measure(-50), 0);
    LogCapture log;
    EXPECT_EQ(measure(12'000), 576'000);
    EXPECT_TRUE(log.has("out of sync"));
}

TEST_F(AudioPlaySyncTest, ALagBehindAForcingMasterIsAveraged) {
    open();
    master->forcing = true;
    EXPECT_EQ(measureTimes(kAverage, -50), 0);
    EXPECT_EQ(measure(-50), -2400);
}

TEST_F(AudioPlaySyncTest, ADistanceThatIsNoIntIsLimited) {
    open();
    master->forcing = true;
    EXPECT_EQ(measure(100'000'000), std::numeric_limits<int>::max());
    master->set(std::numeric_limits<int64_t>::min());
    peer->compute(21);
    EXPECT_EQ(thread->getUnSyncSamples(), std::numeric_limits<int>::max());
    master->set(std::numeric_limits<int64_t>::max());
    master->threshold = std::numeric_limits<int64_t>::max();
    for (int i = 0; i <= kAverage; ++i) {
        peer->compute(21);
    }
    EXPECT_EQ(thread->getUnSyncSamples(), -std::numeric_limits<int>::max());
}

TEST_F(AudioPlaySyncTest, MeasuresFromTheRunningClock) {
    open();
    master->forcing = true;
    FakeTime::advanceMs(50);
    EXPECT_EQ(measure(0), 2400);
}

TEST_F(AudioPlaySyncTest, CountsSamplesOfOneChannelAtTheOutputsRate) {
    AudioOutputSpec spec;
    spec.channels = 1;
    spec.sampleRate = 44100;
    open(spec);
    master->forcing = true;
    EXPECT_EQ(measure(50), 2205);
    // 44.1 cut down.
    EXPECT_EQ(measure(1), 44);
}

// The tempo.

class AudioPlayTempoTest : public AudioPlaySyncTest {
protected:
    void open(AudioOutputSpec spec = {}) {
        AudioPlaySyncTest::open(spec);
        script(1024);
    }

    // The tempo of a frame that comes after many with the same lead of `ahead` milliseconds.
    float tempoAt(int64_t ahead) {
        measureTimes(kAverage + 1, ahead);
        master->set(kPosition - ahead);
        FakeSoundTouch::tempos.clear();
        peer->output(makeAudioFrame(kPosition));
        return FakeSoundTouch::tempos.empty() ? -1000.0f : FakeSoundTouch::tempos.back();
    }
};

TEST_F(AudioPlayTempoTest, ALeadOf50MsInStereoGives095) {
    open();
    EXPECT_EQ(tempoAt(50), -2400.0f / 48000.0f / 2.0f * 2.0f + 1.0f);
    EXPECT_FLOAT_EQ(FakeSoundTouch::tempos.back(), 0.95f);
}

TEST_F(AudioPlayTempoTest, ALeadOf100MsInStereoLowersTheTempoByATenth) {
    open();
    EXPECT_FLOAT_EQ(tempoAt(100), 0.9f);
    EXPECT_FLOAT_EQ(tempoAt(-100), 1.1f);
}

TEST_F(AudioPlayTempoTest, InMonoTheCorrectionIsTwiceAsLarge) {
    AudioOutputSpec spec;
    spec.channels = 1;
    spec.sampleRate = 44100;
    open(spec);
    EXPECT_EQ(tempoAt(50), -2205.0f / 44100.0f / 1.0f * 2.0f + 1.0f);
}

TEST_F(AudioPlayTempoTest, TheCorrectionComesOnTopOfTheSpeed) {
    open();
    thread->setSpeed(1.5f);
    EXPECT_EQ(tempoAt(50), -2400.0f / 48000.0f / 2.0f * 2.0f + 1.5f);
}

TEST_F(AudioPlayTempoTest, HasNoLimits) {
    open();
    EXPECT_EQ(tempoAt(5000), -240'000.0f / 48000.0f / 2.0f * 2.0f + 1.0f);
    EXPECT_EQ(FakeSoundTouch::tempos.back(), -4.0f);
    EXPECT_EQ(tempoAt(-9000), 10.0f);
    EXPECT_EQ(tempoAt(999), -47'952.0f / 48000.0f / 2.0f * 2.0f + 1.0f);
}

// The library never comes back from a tempo of 0.
TEST_F(AudioPlayTempoTest, ALeadThatWouldStopTheSoundLeavesALittleTempo) {
    open();
    EXPECT_EQ(tempoAt(1000), 0.0005f);
    thread->setSpeed(0.0f);
    EXPECT_EQ(tempoAt(0), 0.0005f);
    FakeSoundTouch::scripted = false;
    FakeSoundTouch::calls = nullptr;
    output->written.clear();
    for (int i = 0; i < 1000 && output->written.empty(); ++i) {
        ASSERT_TRUE(peer->output(makeAudioFrame(kPosition, 256)));
    }
    EXPECT_FALSE(output->written.empty());
}

TEST_F(AudioPlayTempoTest, ATempoThatIsNoNumberDoesNoHarm) {
    open();
    FakeSoundTouch::scripted = false;
    for (const float speed : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(), -1.0f}) {
        thread->setSpeed(speed);
        for (int i = 0; i < 20; ++i) {
            ASSERT_TRUE(peer->output(makeAudioFrame(kPosition)));
        }
        // The next tempo that is one gives sound again.
        thread->setSpeed(1.0f);
        output->written.clear();
        for (int i = 0; i < 100 && output->written.empty(); ++i) {
            ASSERT_TRUE(peer->output(makeAudioFrame(kPosition)));
        }
        EXPECT_FALSE(output->written.empty()) << speed;
        EXPECT_EQ(FakeSoundTouch::tempos.back(), 1.0f);
        // The library may have lost its measure; a seek gives it back, and as much comes out as goes in, but for the
        // few blocks that it holds.
        peer->seekStart(kPosition);
        size_t bytes = 0;
        for (int i = 0; i < 100; ++i) {
            output->written.clear();
            ASSERT_TRUE(peer->output(makeAudioFrame(kPosition)));
            bytes += output->written.size();
        }
        EXPECT_GE(bytes, 90U * 4096U) << speed;
        EXPECT_LE(bytes, 100U * 4096U) << speed;
    }
}

TEST_F(AudioPlayTempoTest, SoundThatIsAheadOfAForcingMasterWaits) {
    open();
    master->forcing = true;
    calls.take();
    master->set(kPosition - 50);
    EXPECT_FALSE(peer->output(makeAudioFrame(kPosition)));
    EXPECT_THAT(calls.take(), ElementsAre("st flush", "create 2 48000 1", "init 2 48000 1", "volume 1"));
    // The clock is set anew each time that the frame is offered.
    FakeTime::advanceMs(50);
    output->bufferDurationMs = 21;
    EXPECT_FALSE(peer->output(makeAudioFrame(kPosition)));
    EXPECT_EQ(thread->getSyncPts(), kPosition - 21);
    EXPECT_EQ(thread->getUnSyncSamples(), 29 * 48);
    master->set(kPosition - 21);
    EXPECT_TRUE(peer->output(makeAudioFrame(kPosition)));
    EXPECT_THAT(calls.take(), ElementsAre("tempo", "put 1024", "receive 1024", "fill 4096"));
}

TEST_F(AudioPlayTempoTest, AForcingMasterHoldsSoundBackHoweverFarAheadItIs) {
    open();
    master->forcing = true;
    master->set(kPosition - 12'000);
    calls.take();
    EXPECT_FALSE(peer->output(makeAudioFrame(kPosition)));
    EXPECT_EQ(calls.count("put 1024"), 0);
}

TEST_F(AudioPlayTempoTest, ALeadBeforeAMasterThatDoesNotForceIsPlayed) {
    open();
    tempoAt(50);
    EXPECT_EQ(calls.take().back(), "fill 4096");
}

TEST_F(AudioPlayTempoTest, ALagBehindAForcingMasterIsSpedUp) {
    open();
    master->forcing = true;
    EXPECT_FLOAT_EQ(tempoAt(-50), 1.05f);
    EXPECT_EQ(calls.take().back(), "fill 4096");
}

TEST_F(AudioPlayTempoTest, WithoutTheTempoLibraryTheSamplesAreCountedAllTheSame) {
    FakeSoundTouch::missing = true;
    AudioPlaySyncTest::open();
    measureTimes(kAverage, 50);
    master->set(kPosition - 50);
    EXPECT_TRUE(peer->output(makeAudioFrame(kPosition)));
    EXPECT_EQ(thread->getUnSyncSamples(), 2400);
    EXPECT_EQ(calls.take().back(), "fill 4096");
}

}  // namespace
}  // namespace kelp
