#include "present/sdl_audio_output.h"

#include <gmock/gmock.h>

#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "present/audio_device_fixture.h"
#include "present/audio_output_factory.h"
#include "support/log_capture.h"

namespace kelp::test {

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

class SDLAudioOutputTest : public SDLAudioOutputFixture {};

TEST(AudioOutputFactory, MakesAnSdlOutputForEverySpec) {
    AudioOutputFactory factory;
    EXPECT_TRUE(std::dynamic_pointer_cast<SDLAudioOutput>(factory.create({})));
    EXPECT_TRUE(std::dynamic_pointer_cast<SDLAudioOutput>(factory.create({0, 0, 99})));
}

TEST_F(SDLAudioOutputTest, TakesSmallerBlocksWhereTheDelayIsToBeLow) {
    const auto low = AudioOutputFactory({.lowLiveDelay = true}).create({});
    EXPECT_TRUE(low->init({2, 48000, 1}));
    EXPECT_EQ(audioDevice().wanted.samples, 512);
    EXPECT_EQ(low->getBufferDuration(), 10);
    // Silence counts what a device would hold.
    AudioOutputFactory steady({.lowLiveDelay = true, .neverWaitsForDevice = true});
    EXPECT_EQ(steady.create({})->getBufferDuration(), 10);
}

TEST_F(SDLAudioOutputTest, OpensTheDefaultDeviceAndStartsIt) {
    LogCapture log;
    audioDevice().obtain = [](SDL_AudioSpec* obtained) {
        obtained->channels = 6;
        obtained->freq = 44100;
    };
    EXPECT_TRUE(output->init({2, 48000, 1}));
    EXPECT_THAT(audioDevice().calls, ElementsAre("open default 0 5", "pause 2 0"));
    EXPECT_EQ(audioDevice().wanted.channels, 2);
    EXPECT_EQ(audioDevice().wanted.freq, 48000);
    EXPECT_EQ(audioDevice().wanted.format, 0x8010);
    EXPECT_EQ(audioDevice().wanted.silence, 0);
    EXPECT_EQ(audioDevice().wanted.samples, 1024);
    EXPECT_EQ(audioDevice().wanted.callback, &SDLAudioOutput::sdlAudioCallback);
    EXPECT_EQ(audioDevice().wanted.userdata, output.get());
    EXPECT_THAT(log.lines(),
                ElementsAre("[SDLAudioOutput]: init, ch:2, freg:48000, fmt:1\n",
                            "[SDLAudioOutput]: wanted spec:(2:48000:32784), obtained spec:(6:44100:32784)\n"));
    // What was obtained changes nothing.
    EXPECT_EQ(output->getBufferDuration(), 21);
}

TEST_F(SDLAudioOutputTest, MapsEachSampleFormat) {
    const std::vector<std::pair<int, int>> table = {{0, 0x0008}, {1, 0x8010}, {2, 0x8020}, {3, 0x8120}};
    for (const auto& [number, format] : table) {
        EXPECT_TRUE(std::make_shared<SDLAudioOutput>()->init({2, 48000, number}));
        EXPECT_EQ(audioDevice().wanted.format, format);
    }
}

TEST_F(SDLAudioOutputTest, RefusesASpecThatMakesNoSenseWithoutOpeningADevice) {
    LogCapture log(1);
    EXPECT_FALSE(output->init({0, 48000, 1}));
    EXPECT_FALSE(output->init({2, 0, 1}));
    EXPECT_FALSE(output->init({2, -1, 1}));
    EXPECT_FALSE(output->init({256, 48000, 1}));  // the field has 8 bits
    EXPECT_FALSE(output->init({2, 48000, 4}));
    EXPECT_FALSE(output->init({2, 48000, -1}));
    EXPECT_THAT(audioDevice().calls, IsEmpty());
    const std::string spec = "[SDLAudioOutput]: Invalid sample rate or channel count!\n";
    const std::string format = "[SDLAudioOutput]: Invalid sample format!\n";
    EXPECT_THAT(log.lines(), ElementsAre(spec, spec, spec, spec, format, format));
    EXPECT_EQ(output->getBufferDuration(), 0);
}

TEST_F(SDLAudioOutputTest, FailsWithoutADevice) {
    LogCapture log(1);
    audioDevice().device = 0;
    EXPECT_FALSE(output->init({}));
    EXPECT_THAT(log.lines(), ElementsAre("[SDLAudioOutput]: SDL_OpenAudioDevice failed! no such thing\n"));
    EXPECT_TRUE(output->pause(true));
    output->close();
    EXPECT_THAT(audioDevice().calls, ElementsAre("open default 0 5"));
}

TEST_F(SDLAudioOutputTest, FailsWithAnotherFormatAndKeepsTheDeviceUntilClose) {
    LogCapture log(1);
    audioDevice().obtain = [](SDL_AudioSpec* obtained) { obtained->format = AUDIO_F32LSB; };
    EXPECT_FALSE(output->init({}));
    EXPECT_THAT(log.lines(), ElementsAre("[SDLAudioOutput]: SDL advised audio format 33056 is not supported!\n"));
    EXPECT_THAT(audioDevice().calls, ElementsAre("open default 0 5"));
    output->close();
    EXPECT_THAT(audioDevice().calls, ElementsAre("open default 0 5", "close 2"));
}

TEST_F(SDLAudioOutputTest, PausesTheDeviceAndPlaysSilenceMeanwhile) {
    EXPECT_TRUE(output->pause(false));
    EXPECT_THAT(audioDevice().calls, IsEmpty());
    ASSERT_TRUE(output->init({}));
    ASSERT_TRUE(output->fillFrame(makeFrameOf(100)));
    EXPECT_TRUE(output->pause(true));
    EXPECT_THAT(take(100), Each(0));
    EXPECT_TRUE(output->pause(false));
    EXPECT_THAT(take(100), Each(1));
    EXPECT_THAT(audioDevice().calls, ElementsAre("open default 0 5", "pause 2 0", "pause 2 1", "pause 2 0"));
}

TEST_F(SDLAudioOutputTest, StartsAPausedOutputsDeviceInSilence) {
    EXPECT_TRUE(output->pause(true));
    ASSERT_TRUE(output->init({}));
    EXPECT_THAT(audioDevice().calls, ElementsAre("open default 0 5", "pause 2 0"));
    ASSERT_TRUE(output->fillFrame(makeFrameOf(100)));
    EXPECT_THAT(take(100), Each(0));
}

// The order stands: a pause that comes while the device is being opened is undone at the device, not in the callback.
TEST_F(SDLAudioOutputTest, StartsTheDeviceOverAPauseThatCameMeanwhile) {
    audioDevice().obtain = [this](SDL_AudioSpec*) { output->pause(true); };
    ASSERT_TRUE(output->init({}));
    EXPECT_THAT(audioDevice().calls, ElementsAre("open default 0 5", "pause 2 0"));
    ASSERT_TRUE(output->fillFrame(makeFrameOf(100)));
    EXPECT_THAT(take(100), Each(0));
}

TEST_F(SDLAudioOutputTest, ClosesTheDeviceOnce) {
    ASSERT_TRUE(output->init({}));
    LogCapture log;
    output->close();
    output->close();
    EXPECT_TRUE(output->pause(true));
    EXPECT_THAT(audioDevice().calls, ElementsAre("open default 0 5", "pause 2 0", "close 2"));
    EXPECT_THAT(log.lines(), ElementsAre("[SDLAudioOutput]: close\n", "[SDLAudioOutput]: close\n"));
}

TEST_F(SDLAudioOutputTest, ClosesADeviceThatOpenedAfterTheClose) {
    audioDevice().obtain = [this](SDL_AudioSpec*) { output->close(); };
    output->init({});
    EXPECT_THAT(audioDevice().calls, ElementsAre("open default 0 5", "close 2"));
    EXPECT_TRUE(output->fillFrame(makeFrameOf(9000)));
}

TEST_F(SDLAudioOutputTest, ClosesItsDeviceWhenItDies) {
    ASSERT_TRUE(output->init({}));
    output.reset();
    EXPECT_THAT(audioDevice().calls, ElementsAre("open default 0 5", "pause 2 0", "close 2"));
}

TEST_F(SDLAudioOutputTest, TakesNothingAfterClose) {
    ASSERT_TRUE(output->init({}));
    ASSERT_TRUE(output->fillFrame(makeFrameOf(100)));
    output->close();
    EXPECT_TRUE(output->fillFrame(makeFrameOf(9000)));
    EXPECT_EQ(FakeTime::sleepCount(), 0);
    EXPECT_THAT(take(100), Each(0));
}

TEST_F(SDLAudioOutputTest, PlaysWhatWasFilledInOrder) {
    ASSERT_TRUE(output->init({}));
    EXPECT_EQ(scaled(1.0F, {1, -2, 32767, -32768}), (std::vector<int16_t>{1, -2, 32767, -32768}));
    ASSERT_TRUE(output->fillFrame(makeFrame(std::vector<int16_t>{5, 6})));
    ASSERT_TRUE(output->fillFrame(makeFrame(std::vector<int16_t>{7})));
    EXPECT_THAT(takeSamples(3), ElementsAre(5, 6, 7));
}

TEST_F(SDLAudioOutputTest, FillsAShortageWithSilenceAndLogsIt) {
    ASSERT_TRUE(output->init({}));
    ASSERT_TRUE(output->fillFrame(makeFrameOf(100)));
    LogCapture log;
    const auto bytes = take(4096);
    EXPECT_THAT(std::vector<unsigned char>(bytes.begin(), bytes.begin() + 100), Each(1));
    EXPECT_THAT(std::vector<unsigned char>(bytes.begin() + 100, bytes.end()), Each(0));
    EXPECT_THAT(log.lines(), ElementsAre("[SDLAudioOutput]: sdlAudioCallback, req:4096, got:100\n"));

    log.clear();
    EXPECT_THAT(take(4096), Each(0));
    ASSERT_TRUE(output->fillFrame(makeFrameOf(4096)));
    EXPECT_THAT(take(4096), Each(1));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SDLAudioOutputTest, PlaysSilenceAsZeroInEveryFormatAndWithoutAnOutput) {
    ASSERT_TRUE(output->init({2, 48000, 0}));
    EXPECT_THAT(take(64), Each(0));
    std::vector<unsigned char> bytes(64, 0xEE);
    SDLAudioOutput::sdlAudioCallback(nullptr, bytes.data(), 64);
    EXPECT_THAT(bytes, Each(0));
}

TEST_F(SDLAudioOutputTest, ScalesSamplesTowardZeroWithinTheirRange) {
    ASSERT_TRUE(output->init({}));
    EXPECT_THAT(scaled(0.5F, {1001, -1001, 1, -1}), ElementsAre(500, -500, 0, 0));
    EXPECT_THAT(scaled(2.0F, {20000, -20000, 16383, -16384}), ElementsAre(32767, -32768, 32766, -32768));
    EXPECT_THAT(scaled(0.0F, {32767, -32768}), ElementsAre(0, 0));
    EXPECT_THAT(scaled(-1.0F, {-32768, 32767}), ElementsAre(32767, -32767));
    EXPECT_THAT(scaled(1e30F, {1, -1, 0}), ElementsAre(32767, -32768, 0));
    EXPECT_THAT(scaled(std::numeric_limits<float>::infinity(), {1, -1, 0}), ElementsAre(32767, -32768, 0));
    EXPECT_THAT(scaled(std::nanf(""), {1, -1, 0}), ElementsAre(0, 0, 0));
}

TEST_F(SDLAudioOutputTest, ScalesTheFramesOwnBuffer) {
    ASSERT_TRUE(output->init({}));
    ASSERT_TRUE(output->setVolume(0.5F));
    const auto frame = makeFrame(std::vector<int16_t>{1000, 2000});
    frame->dataSize = 3;  // a half sample more
    ASSERT_TRUE(output->fillFrame(frame));
    std::array<int16_t, 2> samples{};
    std::memcpy(samples.data(), frame->buffer->data, 4);
    EXPECT_THAT(samples, ElementsAre(500, 2000));
}

TEST_F(SDLAudioOutputTest, LeavesOtherFormatsAtTheirVolume) {
    for (const int format : {0, 2, 3}) {
        output = std::make_shared<SDLAudioOutput>();
        ASSERT_TRUE(output->init({2, 48000, format}));
        EXPECT_EQ(scaled(0.5F, {1001, -1001}), (std::vector<int16_t>{1001, -1001}));
    }
}

TEST_F(SDLAudioOutputTest, KeepsAVolumeThatWasSetBeforeInit) {
    EXPECT_TRUE(output->setVolume(0.5F));
    ASSERT_TRUE(output->init({}));
    ASSERT_TRUE(output->fillFrame(makeFrame(std::vector<int16_t>{1000})));
    EXPECT_THAT(takeSamples(1), ElementsAre(500));
}

TEST_F(SDLAudioOutputTest, ReportsWhatLiesBeforeTheLoudspeaker) {
    EXPECT_EQ(output->getBufferDuration(), 0);
    ASSERT_TRUE(output->init({2, 48000, 1}));
    EXPECT_EQ(output->getBufferDuration(), 21);
    ASSERT_TRUE(output->fillFrame(makeFrameOf(8192)));
    EXPECT_EQ(output->getBufferDuration(), 63);
    take(4096);
    EXPECT_EQ(output->getBufferDuration(), 42);  // 21 and 21

    ASSERT_TRUE(output->init({2, 44100, 1}));
    EXPECT_EQ(output->getBufferDuration(), 23);
    ASSERT_TRUE(output->init({1, 8000, 0}));
    ASSERT_TRUE(output->fillFrame(makeFrameOf(8000)));
    EXPECT_EQ(output->getBufferDuration(), 1128);
    ASSERT_TRUE(output->init({2, 48000, 3}));
    ASSERT_TRUE(output->fillFrame(makeFrameOf(8192)));
    EXPECT_EQ(output->getBufferDuration(), 42);
}

// Takes as many bytes per second as the device plays of its own form: here three times 44100 of what was handed over.
TEST_F(SDLAudioOutputTest, TellsWhatIsHeardByWhatWasObtained) {
    audioDevice().obtain = [](SDL_AudioSpec* obtained) {
        obtained->channels = 6;
        obtained->freq = 44100;
        obtained->samples = 512;
    };
    ASSERT_TRUE(output->init({2, 48000, 1}));
    EXPECT_NEAR(output->heard(0).framesPerSecond, 3 * 44100, 1);
    constexpr int64_t kPeriodUs = 512 * 1'000'000 / 44100;
    const int64_t beginUs = FakeTime::nowUs();
    ASSERT_TRUE(output->fillFrame(makeFrameOf(6144)));
    take(6144);
    EXPECT_EQ(output->heard(beginUs).frames, 0);
    EXPECT_NEAR(output->heard(beginUs + kPeriodUs * 3 / 2).frames, 1536 / 2, 1);
    EXPECT_EQ(output->heard(beginUs + 3 * kPeriodUs).frames, 1536);
}

TEST_F(SDLAudioOutputTest, WhatAFlushHasThrownAwayCountsAsHeard) {
    ASSERT_TRUE(output->init({2, 48000, 1}));
    ASSERT_TRUE(output->fillFrame(makeFrameOf(4096)));
    EXPECT_EQ(output->heard(FakeTime::nowUs()).frames, 0);
    output->flush();
    ASSERT_TRUE(output->fillFrame(makeFrameOf(0)));
    EXPECT_EQ(output->heard(FakeTime::nowUs()).frames, 1024);
    // A frame without samples has carried the flush out.
    ASSERT_TRUE(output->fillFrame(makeFrameOf(400, 7)));
    EXPECT_THAT(take(400), Each(7));
}

TEST_F(SDLAudioOutputTest, ReportsNothingForAFormatThatWasRefused) {
    EXPECT_FALSE(output->init({2, 48000, 4}));
    ASSERT_TRUE(output->fillFrame(makeFrameOf(100)));
    EXPECT_EQ(output->getBufferDuration(), 0);
}

TEST_F(SDLAudioOutputTest, StaysSilentFromAFlushToTheNextFrame) {
    ASSERT_TRUE(output->init({}));
    ASSERT_TRUE(output->fillFrame(makeFrameOf(4096)));
    LogCapture log;
    output->flush();
    EXPECT_THAT(log.lines(), ElementsAre("[SDLAudioOutput]: flush\n"));
    // The ring keeps its bytes; the device doesn't get them.
    EXPECT_THAT(take(64), Each(0));
    EXPECT_EQ(output->getBufferDuration(), 42);

    // The next frame empties the ring and goes with it.
    ASSERT_TRUE(output->fillFrame(makeFrameOf(100, 2)));
    EXPECT_EQ(output->getBufferDuration(), 21);
    EXPECT_THAT(take(64), Each(0));
    ASSERT_TRUE(output->fillFrame(makeFrameOf(64, 3)));
    EXPECT_THAT(take(64), Each(3));
}

TEST_F(SDLAudioOutputTest, StaysSilentUntilTheRingIsEmptied) {
    ASSERT_TRUE(output->init({}));
    ASSERT_TRUE(output->fillFrame(makeFrameOf(4096)));
    output->flush();
    int resets = 0;
    audioDevice().onRingReset = [&] {
        ++resets;
        EXPECT_THAT(take(64), Each(0));
    };
    ASSERT_TRUE(output->fillFrame(makeFrameOf(100)));
    ASSERT_TRUE(output->fillFrame(makeFrameOf(100)));
    EXPECT_EQ(resets, 1);
}

TEST_F(SDLAudioOutputTest, CallsTransfersOffBeforeItClosesTheDevice) {
    ASSERT_TRUE(output->init({}));
    audioDevice().onRingAbort = [&] {
        EXPECT_EQ(SDLAudioOutput::cycleBufferWrapperCallback(output.get()), 1);
        audioDevice().calls.push_back("abort");
    };
    output->close();
    EXPECT_THAT(audioDevice().calls, ElementsAre("open default 0 5", "pause 2 0", "abort", "close 2"));
}

TEST_F(SDLAudioOutputTest, TellsTheRingWhenToStop) {
    EXPECT_EQ(SDLAudioOutput::cycleBufferWrapperCallback(nullptr), 0);
    EXPECT_EQ(SDLAudioOutput::cycleBufferWrapperCallback(output.get()), 0);
    output->flush();
    EXPECT_EQ(SDLAudioOutput::cycleBufferWrapperCallback(output.get()), 1);
    ASSERT_TRUE(output->init({}));
    ASSERT_TRUE(output->fillFrame(makeFrameOf(10)));
    EXPECT_EQ(SDLAudioOutput::cycleBufferWrapperCallback(output.get()), 0);
    output->close();
    EXPECT_EQ(SDLAudioOutput::cycleBufferWrapperCallback(output.get()), 1);
    ASSERT_TRUE(output->fillFrame(makeFrameOf(10)));
    EXPECT_EQ(SDLAudioOutput::cycleBufferWrapperCallback(output.get()), 1);
}

TEST_F(SDLAudioOutputTest, CountsAGapWhenTheSoundGoesOn) {
    ASSERT_TRUE(output->init({}));
    take(100);  // nothing has come yet
    output->fillFrame(makeFrameOf(150));
    take(100);
    EXPECT_EQ(output->underruns(), 0);
    take(100);  // half of it is there
    take(100);
    EXPECT_EQ(output->underruns(), 0);  // it may be the end
    output->fillFrame(makeFrameOf(300));
    take(100);
    EXPECT_EQ(output->underruns(), 1);
    take(100);
    EXPECT_EQ(output->underruns(), 1);
}

TEST_F(SDLAudioOutputTest, CountsNoGapThatASeekOrAPauseMakes) {
    ASSERT_TRUE(output->init({}));
    output->fillFrame(makeFrameOf(100));
    take(100);
    output->pause(true);
    take(100);
    output->pause(false);
    output->flush();
    take(100);
    output->fillFrame(makeFrameOf(100));  // goes with the flush
    take(100);
    output->flush();  // as at a seek's first frame
    output->fillFrame(makeFrameOf(100));
    output->fillFrame(makeFrameOf(100));
    take(100);
    EXPECT_EQ(output->underruns(), 0);
}

}  // namespace

}  // namespace kelp::test
