// The choice of a sound device, and its change while it plays.

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "present/audio_device_fixture.h"
#include "present/audio_device_list.h"
#include "present/audio_output_factory.h"
#include "support/log_capture.h"

namespace kelp::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

class SoundDeviceTest : public SDLAudioOutputFixture {
protected:
    // Plays on device 2; the next one is 3.
    void play() {
        EXPECT_TRUE(output->init({}));
        audioDevice().device = 3;
        audioDevice().calls.clear();
    }

    LogCapture log{2};  // Warn and Error
};

TEST_F(SoundDeviceTest, OpensTheOneThatWasChosenBefore) {
    EXPECT_TRUE(output->setDevice("Headset"));
    EXPECT_TRUE(output->init({}));
    EXPECT_THAT(audioDevice().calls, ElementsAre("open Headset 0 5", "pause 2 0"));
}

TEST_F(SoundDeviceTest, TakesTheDefaultOneWhereTheChosenOneIsMissing) {
    audioDevice().missing = "Headset";
    EXPECT_TRUE(output->setDevice("Headset"));
    EXPECT_TRUE(output->init({}));
    EXPECT_THAT(audioDevice().calls, ElementsAre("open Headset 0 5", "open default 0 5", "pause 2 0"));
    EXPECT_THAT(log.lines(), ElementsAre("[SDLAudioOutput]: the sound device \"Headset\" can't be opened: no such "
                                         "thing, taking the default one\n"));
}

TEST_F(SoundDeviceTest, TriesAgainTheOneThatWasMissingAtFirst) {
    audioDevice().missing = "Headset";
    EXPECT_TRUE(output->setDevice("Headset"));
    EXPECT_TRUE(output->init({}));
    audioDevice().device = 3;
    audioDevice().calls.clear();
    EXPECT_FALSE(output->setDevice("Headset"));
    EXPECT_THAT(audioDevice().calls, ElementsAre("open Headset 0 5"));
    audioDevice().missing.clear();
    EXPECT_TRUE(output->setDevice("Headset"));
    EXPECT_EQ(audioDevice().calls.back(), "close 2");
    audioDevice().calls.clear();
    EXPECT_TRUE(output->setDevice("Headset"));
    EXPECT_THAT(audioDevice().calls, IsEmpty());
}

TEST_F(SoundDeviceTest, ChangesToAnotherOneWithTheSoundThatWaits) {
    play();
    EXPECT_TRUE(output->fillFrame(makeFrameOf(8192, 7)));
    EXPECT_THAT(take(4096), Each(7));
    EXPECT_TRUE(output->setDevice("Headset"));
    EXPECT_THAT(audioDevice().calls, ElementsAre("open Headset 0 5", "pause 2 1", "pause 3 0", "close 2"));
    EXPECT_THAT(take(4096), Each(7));
    EXPECT_THAT(log.lines(), IsEmpty());
    // And back to the default one.
    EXPECT_TRUE(output->setDevice(""));
    EXPECT_EQ(audioDevice().calls[4], "open default 0 5");
}

TEST_F(SoundDeviceTest, ItsClockGoesOnWithTheNextOne) {
    play();
    EXPECT_TRUE(output->fillFrame(makeFrameOf(8192)));
    take(4096);
    audioDevice().obtain = [](SDL_AudioSpec* obtained) { obtained->freq = 44100; };
    EXPECT_TRUE(output->setDevice("Headset"));
    EXPECT_NEAR(output->heard(FakeTime::nowUs()).framesPerSecond, 44100, 1);
    take(4096);
    EXPECT_GE(output->heard(FakeTime::nowUs()).frames, 1024);
    EXPECT_EQ(output->heard(FakeTime::nowUs() + 60'000).frames, 2048);
}

TEST_F(SoundDeviceTest, KeepsWhatPlaysWhereTheOtherOneCantBeOpened) {
    play();
    audioDevice().missing = "Headset";
    EXPECT_FALSE(output->setDevice("Headset"));
    EXPECT_THAT(audioDevice().calls, ElementsAre("open Headset 0 5"));
    EXPECT_THAT(log.lines(), ElementsAre("[SDLAudioOutput]: the sound device \"Headset\" can't be opened: no such "
                                         "thing, going on as before\n"));
    // It may be there later.
    audioDevice().missing.clear();
    EXPECT_TRUE(output->setDevice("Headset"));
    EXPECT_EQ(audioDevice().calls.back(), "close 2");
}

TEST_F(SoundDeviceTest, KeepsWhatPlaysWhereTheOtherOneTakesOtherSamples) {
    play();
    audioDevice().obtain = [](SDL_AudioSpec* obtained) { obtained->format = AUDIO_F32LSB; };
    EXPECT_FALSE(output->setDevice("Headset"));
    EXPECT_THAT(audioDevice().calls, ElementsAre("open Headset 0 5", "close 3"));
}

TEST_F(SoundDeviceTest, DoesNothingForTheOneThatPlays) {
    play();
    EXPECT_TRUE(output->setDevice(""));
    EXPECT_TRUE(output->setDevice("Headset"));
    audioDevice().calls.clear();
    EXPECT_TRUE(output->setDevice("Headset"));
    EXPECT_THAT(audioDevice().calls, IsEmpty());
}

TEST_F(SoundDeviceTest, StandsStillInAPause) {
    play();
    output->pause(true);
    EXPECT_TRUE(output->setDevice("Headset"));
    EXPECT_THAT(audioDevice().calls, ElementsAre("pause 2 1", "open Headset 0 5", "pause 2 1", "pause 3 1", "close 2"));
    output->pause(false);
    EXPECT_EQ(audioDevice().calls.back(), "pause 3 0");
}

TEST_F(SoundDeviceTest, PlaysOnAnotherOneWhereThereWasNone) {
    audioDevice().device = 0;
    EXPECT_FALSE(output->init({}));
    audioDevice().device = 3;
    audioDevice().calls.clear();
    EXPECT_TRUE(output->setDevice("Headset"));
    EXPECT_THAT(audioDevice().calls, ElementsAre("open Headset 0 5", "pause 3 0"));
}

TEST_F(SoundDeviceTest, LeavesNoneOpenBehindAClose) {
    play();
    output->close();
    audioDevice().calls.clear();
    EXPECT_TRUE(output->setDevice("Headset"));
    EXPECT_THAT(audioDevice().calls, ElementsAre("open Headset 0 5", "close 3"));
}

// The first one is opened here, and the second one by the change: whoever comes last, neither stays open.
TEST_F(SoundDeviceTest, LeavesNoneOpenWhenAChangeMeetsAClose) {
    for (int i = 0; i < 200; ++i) {
        audioDevice() = {};
        output = std::make_shared<SDLAudioOutput>();
        EXPECT_TRUE(output->init({}));
        const auto before = audioDevice().calls.size();
        std::atomic<bool> isOpening{false};
        audioDevice().obtain = [&](SDL_AudioSpec*) { isOpening = true; };
        audioDevice().device = 3;
        std::thread control([&] { output->setDevice("Headset"); });
        while (!isOpening) {
            std::this_thread::yield();
        }
        output->close();
        control.join();
        const std::vector<std::string> calls(audioDevice().calls.begin() + static_cast<ptrdiff_t>(before),
                                             audioDevice().calls.end());
        EXPECT_THAT(calls, testing::IsSupersetOf({"close 2", "close 3"}));
        audioDevice().obtain = nullptr;
    }
}

TEST_F(SoundDeviceTest, MutesAndKeepsTheVolume) {
    play();
    output->setMuted(true);
    EXPECT_THAT(scaled(0.5F, {1000, 1000}), ElementsAre(0, 0));
    output->setMuted(false);
    EXPECT_TRUE(output->fillFrame(makeFrame(std::vector<int16_t>(960, 1000))));
    EXPECT_THAT(takeSamples(960), testing::Contains(500));
}

TEST_F(SoundDeviceTest, RampsTheVolumeWithExactTimingAlone) {
    for (const bool isExact : {false, true}) {
        AudioOutputFactory factory({.exactTiming = isExact});
        output = std::dynamic_pointer_cast<SDLAudioOutput>(factory.create({}));
        ASSERT_TRUE(output->init({}));
        EXPECT_THAT(scaled(1, {1000, 1000}), ElementsAre(1000, 1000));
        EXPECT_EQ(scaled(0.5F, {1000, 1000}).back(), isExact ? 998 : 500);
    }
}

// Through SDL, with a driver that has one device.
TEST(AudioDeviceNames, AreThoseOfTheSoundSystem) {
    SDL_AudioQuit();
    EXPECT_THAT(audioDeviceNames(), IsEmpty());
    ASSERT_EQ(SDL_AudioInit("dummy"), 0) << SDL_GetError();
    const auto names = audioDeviceNames();
    SDL_AudioQuit();
    ASSERT_EQ(names.size(), 1U);
    EXPECT_FALSE(names[0].empty());
}

}  // namespace
}  // namespace kelp::test
