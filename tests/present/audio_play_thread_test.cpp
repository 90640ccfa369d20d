#include "present/audio_play_thread.h"

#include <future>
#include <limits>
#include <thread>

#include "decode/video_frame_info.h"
#include "kelp_player/statistics.h"
#include "present/audio_play_fixture.h"
#include "support/log_capture.h"

// The steps of AudioPlayThread, one by one and without a thread.
namespace kelp {
namespace {

using test::FakeOutputFactory;
using test::FakeSoundTouch;
using test::FakeTime;
using test::LogCapture;
using test::makeAudioFrame;
using test::makeBuffer;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

class AudioPlayThreadTest : public test::AudioPlayFixture {};

// Set-up.

TEST_F(AudioPlayThreadTest, GivesTheFormOfTheSamplesToTheTempoLibrary) {
    open();
    FakeSoundTouch::calls = &calls;
    AudioOutputSpec spec;
    spec.channels = 1;
    spec.sampleRate = 44100;
    thread->setOutputSpec(spec);
    EXPECT_THAT(calls.take(), ElementsAre("sampleRate 44100", "channels 1", "pitch 1", "tempo"));
    EXPECT_THAT(FakeSoundTouch::tempos, ElementsAre(1.0f));
    EXPECT_TRUE(thread->isSupportSpeedAdjust());
}

TEST_F(AudioPlayThreadTest, GoesOnWithoutTheTempoLibrary) {
    FakeSoundTouch::missing = true;
    FakeSoundTouch::calls = &calls;
    open();
    EXPECT_FALSE(thread->isSupportSpeedAdjust());
    thread->setSpeed(2.0f);
    const auto frame = makeAudioFrame(1000, 4098);
    const auto buffer = frame->buffer;
    EXPECT_TRUE(peer->output(frame));
    EXPECT_THAT(calls.take(), ElementsAre("create 2 48000 1", "init 2 48000 1", "volume 1", "fill 4098"));
    EXPECT_EQ(frame->buffer, buffer);
    thread->seek(0, /*needFlush=*/true);
    peer->seekStart(0);
    EXPECT_TRUE(peer->output(frame));
    EXPECT_THAT(calls.take(), ElementsAre("flush", "flush", "fill 4098"));
    peer->exit();
    EXPECT_THAT(calls.take(), ElementsAre("close"));
}

TEST_F(AudioPlayThreadTest, ADestroyedThreadThatNeverRanLeavesNothingOfTheTempoLibrary) {
    open();
    EXPECT_EQ(FakeSoundTouch::instances, 1);
    thread->init(observer);
    EXPECT_EQ(FakeSoundTouch::instances, 1);
    thread.reset();
    EXPECT_EQ(FakeSoundTouch::instances, 0);
}

TEST_F(AudioPlayThreadTest, SetSpeedBeforeTheStartReachesTheLibraryAtOnce) {
    open();
    FakeSoundTouch::calls = &calls;
    thread->setSpeed(1.5f);
    EXPECT_THAT(calls.take(), ElementsAre("tempo"));
    EXPECT_THAT(FakeSoundTouch::tempos, ElementsAre(1.5f));
}

TEST_F(AudioPlayThreadTest, SpeedIsTheTempoFromTheNextFrameOn) {
    open();
    script(1024);
    peer->output(makeAudioFrame(0));
    thread->setSpeed(1.25f);
    FakeSoundTouch::tempos.clear();
    peer->output(makeAudioFrame(21));
    EXPECT_THAT(FakeSoundTouch::tempos, ElementsAre(1.25f));
}

// One frame.

TEST_F(AudioPlayThreadTest, MakesTheOutputAtTheFirstFrame) {
    AudioOutputSpec spec;
    spec.channels = 1;
    spec.sampleRate = 44100;
    spec.sampleFormat = 3;
    open(spec);
    script(2048);
    EXPECT_TRUE(peer->output(makeAudioFrame(1000)));
    EXPECT_THAT(calls.take(), ElementsAre("create 1 44100 3", "init 1 44100 3", "volume 1", "tempo", "put 2048",
                                          "receive 2048", "fill 4096"));
    EXPECT_TRUE(peer->output(makeAudioFrame(1021)));
    EXPECT_THAT(calls.take(), ElementsAre("tempo", "put 2048", "receive 2048", "fill 4096"));
}

TEST_F(AudioPlayThreadTest, DropsAFrameOfAnotherClass) {
    open();
    script(1024);
    const auto picture = std::make_shared<VideoFrameInfo>();
    picture->pts = 1000;
    EXPECT_TRUE(peer->output(picture));
    EXPECT_THAT(calls.take(), IsEmpty());
    EXPECT_THAT(observer->firstFrames(), IsEmpty());
    EXPECT_EQ(thread->getSyncPts(), 0);
}

TEST_F(AudioPlayThreadTest, ReportsTheFirstFrameOnce) {
    open();
    peer->output(makeAudioFrame(1000));
    peer->output(makeAudioFrame(1021));
    EXPECT_THAT(observer->firstFrames(), ElementsAre(1000));
}

TEST_F(AudioPlayThreadTest, ReportsTheFirstFrameAgainWhileItsTimeIsThatOfTheWallClock) {
    open();
    FakeTime::setNowMs(5000);
    peer->output(makeAudioFrame(5000));
    EXPECT_EQ(thread->getSyncPts(), 0);
    peer->output(makeAudioFrame(5021));
    EXPECT_THAT(observer->firstFrames(), ElementsAre(5000, 5021));
}

TEST_F(AudioPlayThreadTest, WorksWithoutAnObserver) {
    observer = nullptr;
    open();
    EXPECT_TRUE(peer->output(makeAudioFrame(1000)));
    peer->seekFinish(1000);
    EXPECT_EQ(thread->getCurrentTime(), 1000);
}

TEST_F(AudioPlayThreadTest, TheClockNamesTheSampleAtTheLoudspeaker) {
    open();
    output->bufferDurationMs = 63;
    EXPECT_EQ(thread->getSyncPts(), 0);
    EXPECT_EQ(thread->getCurrentTime(), 0);
    peer->output(makeAudioFrame(1000));
    EXPECT_EQ(thread->getCurrentTime(), 937);
    EXPECT_EQ(thread->getSyncPts(), 937);
    FakeTime::advanceMs(40);
    EXPECT_EQ(thread->getCurrentTime(), 937);
    EXPECT_EQ(thread->getSyncPts(), 977);
}

// The block was due when the device was asked for, not when it came.
TEST_F(AudioPlayThreadTest, TheClockCountsTheTimeThatTheDeviceTakesToOpen) {
    open();
    output->onInit = [] { FakeTime::advanceMs(300); };
    output->bufferDurationMs = 21;
    peer->output(makeAudioFrame(1000));
    EXPECT_EQ(thread->getCurrentTime(), 979);
    EXPECT_EQ(thread->getSyncPts(), 979 + 300);
    peer->output(makeAudioFrame(1021));
    EXPECT_EQ(thread->getCurrentTime(), 1000);
    EXPECT_EQ(thread->getSyncPts(), 1000);
    EXPECT_THAT(observer->firstFrames(), ElementsAre(1000));
}

TEST_F(AudioPlayThreadTest, ADeviceThatOpensLateMakesUpForItInAStepForAForcingMaster) {
    open();
    script(1024);
    master->forcing = true;
    master->set(1000);
    thread->setSyncObject(master);
    output->onInit = [&] {
        FakeTime::advanceMs(300);
        calls.take();
    };
    // By its clock the sound is ahead by the time that the opening took, though the master stands where it stood.
    EXPECT_FALSE(peer->output(makeAudioFrame(1000)));
    EXPECT_THAT(calls.take(), ElementsAre("volume 1"));
    EXPECT_EQ(thread->getUnSyncSamples(), 300 * 48);
    EXPECT_TRUE(peer->output(makeAudioFrame(1000)));
    EXPECT_EQ(thread->getUnSyncSamples(), 0);
}

TEST_F(AudioPlayThreadTest, APauseWhileTheDeviceIsOpenedReachesIt) {
    open();
    script(1024);
    output->onInit = [&] { thread->pause(true); };
    EXPECT_TRUE(peer->output(makeAudioFrame(1000)));
    EXPECT_THAT(calls.take(), ElementsAre("create 2 48000 1", "init 2 48000 1", "volume 1", "pause 1", "tempo",
                                          "put 1024", "receive 1024", "fill 4096"));
    EXPECT_FALSE(peer->output(makeAudioFrame(1021)));
    thread->pause(false);
    EXPECT_THAT(calls.take(), ElementsAre("pause 0"));
}

TEST_F(AudioPlayThreadTest, APauseThatEndsWhileItIsPassedOnEndsAtTheDeviceToo) {
    open();
    output->onInit = [&] { thread->pause(true); };
    output->onPause = [&](bool paused) {
        if (paused) {
            output->onPause = [](bool) {};
            thread->pause(false);
        }
    };
    peer->output(makeAudioFrame(1000));
    const auto made = calls.take();
    EXPECT_EQ(made.back(), "pause 0");
}

TEST_F(AudioPlayThreadTest, TheClockIsNeverBelowZero) {
    open();
    output->bufferDurationMs = 63;
    for (const int64_t pts : {int64_t{62}, int64_t{0}, int64_t{-5000}, std::numeric_limits<int64_t>::min()}) {
        peer->output(makeAudioFrame(pts));
        EXPECT_EQ(thread->getCurrentTime(), 0) << pts;
        EXPECT_EQ(thread->getSyncPts(), 0) << pts;
    }
    peer->output(makeAudioFrame(64));
    EXPECT_EQ(thread->getCurrentTime(), 1);
}

TEST_F(AudioPlayThreadTest, TakesAnyTimesOfADamagedFile) {
    open();
    thread->setSyncObject(master);
    peer->output(makeAudioFrame(std::numeric_limits<int64_t>::max(), 4096, std::numeric_limits<int64_t>::max()));
    EXPECT_EQ(thread->getCurrentTime(), std::numeric_limits<int64_t>::max());
    FakeTime::advanceMs(100);
    thread->getSyncPts();
    peer->output(makeAudioFrame(std::numeric_limits<int64_t>::min(), 4096, std::numeric_limits<int64_t>::min()));
    EXPECT_EQ(thread->getCurrentTime(), 0);
}

TEST_F(AudioPlayThreadTest, WhilePausedNoSampleMovesAndTheClockRunsOnWithTheWall) {
    open();
    script(1024);
    peer->output(makeAudioFrame(1000));
    calls.take();
    thread->pause(true);
    FakeTime::advanceMs(500);
    EXPECT_FALSE(peer->output(makeAudioFrame(1021)));
    EXPECT_THAT(calls.take(), ElementsAre("pause 1"));
    EXPECT_EQ(thread->getCurrentTime(), 1000);
    EXPECT_EQ(thread->getSyncPts(), 1500);
    thread->pause(false);
    EXPECT_TRUE(peer->output(makeAudioFrame(1021)));
    EXPECT_THAT(calls.take(), ElementsAre("pause 0", "tempo", "put 1024", "receive 1024", "fill 4096"));
    EXPECT_EQ(thread->getCurrentTime(), 1021);
}

TEST_F(AudioPlayThreadTest, APauseBeforeTheFirstFrameMakesNoOutput) {
    open();
    script(1024);
    EXPECT_TRUE(thread->pause(true));
    EXPECT_FALSE(peer->output(makeAudioFrame(1000)));
    EXPECT_THAT(calls.take(), IsEmpty());
    EXPECT_THAT(observer->firstFrames(), IsEmpty());
}

// Through the tempo library.

TEST_F(AudioPlayThreadTest, WritesWhatComesOutOfTheTempoChange) {
    open();
    script(100);
    FakeSoundTouch::value = 77;
    const auto frame = makeAudioFrame(0, 4096);
    EXPECT_TRUE(peer->output(frame));
    EXPECT_EQ(calls.take().back(), "fill 400");
    EXPECT_EQ(FakeSoundTouch::putIn.size(), 2048U);
    EXPECT_EQ(FakeSoundTouch::putIn.front(), 1);
    EXPECT_EQ(FakeSoundTouch::putIn.back(), 2048);
    EXPECT_EQ(frame->dataSize, 400U);
    ASSERT_EQ(output->written.size(), 400U);
    EXPECT_EQ(reinterpret_cast<const short*>(output->written.data())[199], 77);
}

TEST_F(AudioPlayThreadTest, AFrameThatTheTempoChangeKeepsLeavesTheOutputAlone) {
    open();
    script(0);
    EXPECT_TRUE(peer->output(makeAudioFrame(0)));
    EXPECT_THAT(calls.take(), ElementsAre("create 2 48000 1", "init 2 48000 1", "volume 1", "tempo", "put 1024"));
}

TEST_F(AudioPlayThreadTest, NothingReceivedLeavesTheOutputAlone) {
    open();
    script(10);
    // No room for a single sample, and no pool to get more from.
    EXPECT_TRUE(peer->output(makeAudioFrame(0, 2, 21, 3)));
    EXPECT_THAT(calls.take(),
                ElementsAre("create 2 48000 1", "init 2 48000 1", "volume 1", "tempo", "put 0", "receive 0"));
}

TEST_F(AudioPlayThreadTest, FetchesALargerBufferWhereMoreComesOutThanFits) {
    open();
    script(2000);
    const auto frame = makeAudioFrame(0, 4096);
    std::vector<unsigned int> asked;
    int given = 0;
    frame->allocBuffer = [&](unsigned int size) {
        asked.push_back(size);
        return makeBuffer(size + 100);
    };
    frame->freeBuffer = [&](std::shared_ptr<FrameBuffer>) { ++given; };
    EXPECT_TRUE(peer->output(frame));
    EXPECT_THAT(asked, ElementsAre(8000U));
    EXPECT_EQ(given, 1);
    // What the new buffer holds, not only what was asked for.
    EXPECT_THAT(calls.take(), ElementsAre("create 2 48000 1", "init 2 48000 1", "volume 1", "tempo", "put 1024",
                                          "receive 2025", "fill 8000"));
}

TEST_F(AudioPlayThreadTest, KeepsTheBufferWhereItIsLargeEnough) {
    open();
    script(2000);
    const auto frame = makeAudioFrame(0, 4096, 21, 8000);
    frame->allocBuffer = [](unsigned int size) {
        ADD_FAILURE() << "asked for " << size;
        return makeBuffer(size);
    };
    EXPECT_TRUE(peer->output(frame));
    EXPECT_EQ(calls.take().back(), "fill 8000");
}

TEST_F(AudioPlayThreadTest, TakesWhatFitsWhereThereIsNoLargerBuffer) {
    open();
    script(2000);
    const auto frame = makeAudioFrame(0, 4096);
    frame->allocBuffer = [](unsigned int) { return nullptr; };
    EXPECT_TRUE(peer->output(frame));
    EXPECT_EQ(calls.take().back(), "fill 4096");
}

TEST_F(AudioPlayThreadTest, CountsWholeSamplesOf16BitsWhateverTheFormSays) {
    AudioOutputSpec spec;
    spec.channels = 2;
    spec.sampleFormat = 2;
    open(spec);
    script(1);
    EXPECT_TRUE(peer->output(makeAudioFrame(0, 4099)));
    const auto made = calls.take();
    EXPECT_EQ(made[4], "put 1024");
    EXPECT_EQ(made.back(), "fill 4");
}

TEST_F(AudioPlayThreadTest, AFrameWithoutABufferIsDropped) {
    for (const bool stretched : {true, false}) {
        FakeSoundTouch::missing = !stretched;
        open();
        script(1024);
        const auto noBuffer = makeAudioFrame(1000);
        noBuffer->buffer = nullptr;
        EXPECT_TRUE(peer->output(noBuffer));
        const auto noBytes = makeAudioFrame(1021);
        noBytes->buffer = std::make_shared<FrameBuffer>();
        EXPECT_TRUE(peer->output(noBytes));
        EXPECT_THAT(calls.take(), ElementsAre("create 2 48000 1", "init 2 48000 1", "volume 1"));
        EXPECT_EQ(thread->getCurrentTime(), 1021);
        thread.reset();
    }
}

TEST_F(AudioPlayThreadTest, AFrameThatClaimsMoreThanItsBufferHoldsIsCut) {
    open();
    script(100);
    EXPECT_TRUE(peer->output(makeAudioFrame(1000, 100'000, 21, 400)));
    EXPECT_EQ(calls.take()[4], "put 100");

    FakeSoundTouch::missing = true;
    open();
    EXPECT_TRUE(peer->output(makeAudioFrame(1000, 100'000, 21, 400)));
    EXPECT_EQ(calls.take().back(), "fill 400");
}

TEST_F(AudioPlayThreadTest, AFormWithoutChannelsGoesPastTheTempoChange) {
    AudioOutputSpec spec;
    spec.channels = 0;
    open(spec);
    script(100);
    EXPECT_TRUE(peer->output(makeAudioFrame(1000)));
    EXPECT_EQ(calls.take().back(), "fill 4096");
}

TEST_F(AudioPlayThreadTest, TheTempoLibraryHalvesTheSoundAtDoubleSpeed) {
    for (const float speed : {1.0f, 2.0f}) {
        open();
        thread->setSpeed(speed);
        size_t bytes = 0;
        for (int i = 0; i < 100; ++i) {
            output->written.clear();
            ASSERT_TRUE(peer->output(makeAudioFrame(i * 21)));
            bytes += output->written.size();
        }
        // It holds back less than 100 ms.
        EXPECT_LE(bytes, 409'600 / speed);
        EXPECT_GE(bytes, 409'600 / speed - 19'200);
    }
}

// Seeks.

TEST_F(AudioPlayThreadTest, TheFirstFrameAfterASeekFlushesFirst) {
    for (const bool needFlush : {true, false}) {
        open();
        script(1024);
        peer->output(makeAudioFrame(0));
        calls.take();
        LogCapture log;
        thread->seek(5000, needFlush);
        EXPECT_THAT(calls.take(), ElementsAre("flush"));
        EXPECT_EQ(log.lines().front(),
                  std::string("[AudioPlayThread]: seek, seekTimeMs:5000, needFlush:") + (needFlush ? "1\n" : "0\n"));
        peer->seekStart(5000);
        peer->output(makeAudioFrame(5000));
        EXPECT_THAT(calls.take(), ElementsAre("flush", "st flush", "tempo", "put 1024", "receive 1024", "fill 4096"));
        peer->output(makeAudioFrame(5021));
        EXPECT_THAT(calls.take(), ElementsAre("tempo", "put 1024", "receive 1024", "fill 4096"));
    }
}

TEST_F(AudioPlayThreadTest, AFrameFromBeforeTheSeekDoesNotUseUpItsFlush) {
    open();
    script(1024);
    peer->output(makeAudioFrame(0));
    thread->seek(5000, /*needFlush=*/true);
    peer->output(makeAudioFrame(21));
    peer->seekStart(5000);
    calls.take();
    peer->output(makeAudioFrame(5000));
    EXPECT_THAT(calls.take(), ElementsAre("flush", "st flush", "tempo", "put 1024", "receive 1024", "fill 4096"));
}

// At 48 samples a millisecond, of two channels.
TEST_F(AudioPlayThreadTest, CutsOffWhatLiesBeforeTheTarget) {
    open();
    const auto frame = makeAudioFrame(1000);
    const auto* const samples = reinterpret_cast<const short*>(frame->buffer->data);
    peer->cut(*frame, 1010);
    EXPECT_EQ(frame->pts, 1010);
    EXPECT_EQ(frame->duration, 11);
    EXPECT_EQ(frame->dataSize, 4096U - 480 * 4);
    EXPECT_EQ(samples[0], 961);
    EXPECT_EQ(samples[2047 - 960], 2048);
    // Behind its end: less than a millisecond is left, so that there is something to play.
    for (int i = 0; i < 2; ++i) {
        peer->cut(*frame, 9000);
        EXPECT_EQ(frame->pts, 1021);
        EXPECT_EQ(frame->dataSize, 64U);
        EXPECT_EQ(samples[31], 2048);
    }
    DecodedFrame other;
    peer->cut(other, 9000);
}

TEST_F(AudioPlayThreadTest, AnExactSeekBeginsAtItsTarget) {
    open();
    script(1024);
    thread->setSeekRule(SeekRule::Exact);
    thread->seek(5010, /*needFlush=*/true);
    const auto frame = makeAudioFrame(5000);
    frame->lastsToMs = 5020;
    thread->fillFrame(frame);
    thread->start();
    EXPECT_TRUE(observer->waitForFirstFrame(5010));
    thread->stop();
    EXPECT_THAT(observer->firstFrames(), ElementsAre(5010));
}

TEST_F(AudioPlayThreadTest, ASeekWhileTheOutputIsOpenedFlushesIt) {
    open();
    script(1024);
    output->onInit = [&] { thread->seek(5000, /*needFlush=*/true); };
    peer->output(makeAudioFrame(0));
    EXPECT_THAT(calls.take(), ElementsAre("create 2 48000 1", "init 2 48000 1", "volume 1", "flush", "tempo",
                                          "put 1024", "receive 1024", "fill 4096"));
}

TEST_F(AudioPlayThreadTest, ASeekThatCrossesTheMakingOfTheOutputFlushesIt) {
    open();
    script(1024);
    // The seek stands still at its second line, and goes on while the output is opened.
    std::promise<void> reached;
    std::promise<void> released;
    Log::SetLogCallback([&](const char* line) {
        if (std::string(line).find("[AudioPlayThread], seek, seekTimeMs:5000") != std::string::npos) {
            reached.set_value();
            released.get_future().wait();
        }
    });
    Log::SetLevel(4);
    std::thread seeker([&] { thread->seek(5000, /*needFlush=*/true); });
    reached.get_future().wait();
    output->onInit = [&] {
        released.set_value();
        seeker.join();
    };
    peer->output(makeAudioFrame(0));
    Log::SetLogCallback(nullptr);
    EXPECT_THAT(calls.take(), ElementsAre("create 2 48000 1", "init 2 48000 1", "volume 1", "flush", "tempo",
                                          "put 1024", "receive 1024", "fill 4096"));
    peer->seekStart(5000);
    peer->output(makeAudioFrame(5000));
    EXPECT_THAT(calls.take(), ElementsAre("flush", "st flush", "tempo", "put 1024", "receive 1024", "fill 4096"));
}

TEST_F(AudioPlayThreadTest, ThePositionIsTheTargetFromTheStartOfASeekOn) {
    open();
    LogCapture log;
    EXPECT_EQ(thread->getSyncPts(), 0);
    peer->seekStart(5000);
    EXPECT_EQ(thread->getCurrentTime(), 5000);
    EXPECT_EQ(thread->getSyncPts(), 5000);
    FakeTime::advanceMs(30);
    EXPECT_EQ(thread->getCurrentTime(), 5000);
    EXPECT_EQ(thread->getSyncPts(), 5030);
    EXPECT_THAT(log.lines(), ElementsAre("[AudioPlayThread]: onSeekStart, seekTimeMs:5000\n"));
    // There is a time already: the end of the seek reports the frame.
    peer->output(makeAudioFrame(5000));
    EXPECT_THAT(observer->firstFrames(), IsEmpty());
}

TEST_F(AudioPlayThreadTest, TheEndOfASeekReportsItsFrame) {
    open();
    LogCapture log;
    peer->seekFinish(5010);
    EXPECT_THAT(observer->firstFrames(), ElementsAre(5010));
    EXPECT_THAT(log.lines(), ElementsAre("[AudioPlayThread]: onSeekFinish, seekTimeMs:5010\n"));
}

// The rest of the control side.

TEST_F(AudioPlayThreadTest, AVolumeBeforeTheFirstFrameIsInForceFromThatFrameOn) {
    open();
    EXPECT_FALSE(thread->setVolume(0.25f));
    peer->output(makeAudioFrame(0));
    EXPECT_EQ(calls.take()[2], "volume 0.25");
}

TEST_F(AudioPlayThreadTest, AVolumeGoesToTheOutputAtOnceAndHasItsResult) {
    open();
    peer->output(makeAudioFrame(0));
    calls.take();
    EXPECT_TRUE(thread->setVolume(0.5f));
    output->volumeResult = false;
    EXPECT_FALSE(thread->setVolume(2.0f));
    EXPECT_THAT(calls.take(), ElementsAre("volume 0.5", "volume 2"));
}

TEST_F(AudioPlayThreadTest, AVolumeThatComesWhileTheOutputIsMadeIsNotLost) {
    open();
    output->onInit = [&] { EXPECT_FALSE(thread->setVolume(0.5f)); };
    bool first = true;
    output->onSetVolume = [&] {
        if (std::exchange(first, false)) {
            EXPECT_TRUE(thread->setVolume(0.25f));
        }
    };
    peer->output(makeAudioFrame(0));
    EXPECT_EQ(output->volume, 0.25f);
    EXPECT_THAT(calls.take(), testing::Contains("volume 0.5"));
}

TEST_F(AudioPlayThreadTest, GivesTheOutputTheDeviceAndTheMuteThatWereAskedForBeforeAndWhileItIsMade) {
    open();
    EXPECT_TRUE(thread->setDevice("Headset"));
    output->onInit = [&] {
        EXPECT_EQ(output->device, "Headset");
        EXPECT_TRUE(thread->setDevice("Hall"));
        thread->setMuted(true);
    };
    peer->output(makeAudioFrame(0));
    EXPECT_EQ(output->device, "Hall");
    EXPECT_TRUE(output->isMuted);
    EXPECT_FALSE(thread->setDevice("missing"));
    thread->setMuted(false);
    EXPECT_FALSE(output->isMuted);
}

TEST_F(AudioPlayThreadTest, AVolumeThatIsNoNumberEndsNowhereElse) {
    open();
    thread->setVolume(std::numeric_limits<float>::quiet_NaN());
    EXPECT_TRUE(peer->output(makeAudioFrame(0)));
}

TEST_F(AudioPlayThreadTest, PausesTheOutputAndThenTheLoop) {
    open();
    peer->output(makeAudioFrame(0));
    calls.take();
    LogCapture log;
    EXPECT_TRUE(thread->pause(true));
    EXPECT_TRUE(thread->pause(false));
    EXPECT_THAT(calls.take(), ElementsAre("pause 1", "pause 0"));
    EXPECT_THAT(log.lines(),
                ElementsAre("[AudioPlayThread]: pause:1\n", "[BasePlayThread]: [AudioPlayThread], pause:1\n",
                            "[AudioPlayThread]: pause:0\n", "[BasePlayThread]: [AudioPlayThread], pause:0\n"));
}

TEST_F(AudioPlayThreadTest, AsksTheQueueForATarget) {
    open();
    thread->fillFrame(makeAudioFrame(1000));
    EXPECT_EQ(thread->fillFrame(makeAudioFrame(1021)), 2);
    LogCapture log;
    EXPECT_TRUE(thread->checkBuffer(1021));
    EXPECT_EQ(log.lines().front(), "[AudioPlayThread]: checkBuffer, seekTimeMs:1021\n");
    log.clear();
    EXPECT_TRUE(thread->clearBuffer(1021));
    EXPECT_EQ(log.lines().front(), "[AudioPlayThread]: clearBuffer, seekTimeMs:1021\n");
    EXPECT_EQ(thread->getFrameQueueSize(), 1);
    EXPECT_FALSE(thread->clearBuffer(5000));
    EXPECT_EQ(thread->getFrameQueueSize(), 0);
}

TEST_F(AudioPlayThreadTest, AnEmptyQueueNeedsNothing) {
    open();
    script(1024);
    peer->idle();
    EXPECT_THAT(calls.take(), IsEmpty());
}

TEST_F(AudioPlayThreadTest, ExitClosesTheOutputAndEndsTheTempoChange) {
    open();
    peer->output(makeAudioFrame(0));
    calls.take();
    LogCapture log;
    const std::weak_ptr<test::FakeAudioOutput> left = output;
    peer->useFactory(nullptr);
    output = nullptr;
    peer->exit();
    EXPECT_THAT(calls.take(), ElementsAre("close"));
    EXPECT_TRUE(left.expired());
    EXPECT_EQ(FakeSoundTouch::instances, 0);
    EXPECT_FALSE(thread->isSupportSpeedAdjust());
    EXPECT_FALSE(thread->setVolume(1.0f));
    peer->exit();
    EXPECT_THAT(log.lines(), Each("[AudioPlayThread]: onExit\n"));
}

TEST_F(AudioPlayThreadTest, IsAClockThatInsistsOnNothing) {
    open();
    SyncObject& clock = *thread;
    EXPECT_EQ(clock.getNoSyncThreshold(), 10000);
    EXPECT_FALSE(clock.isForceSync());
}

TEST_F(AudioPlayThreadTest, CountsWhatItHandsToTheOutput) {
    open();
    EXPECT_EQ(thread->counts().output.read(), SOUND_OUTPUT_NONE);
    script(1024);
    output->gaps = 2;
    peer->output(makeAudioFrame(0));
    EXPECT_EQ(thread->counts().output.read(), SOUND_OUTPUT_DEVICE);
    EXPECT_EQ(thread->counts().blocks.read(), 1);
    EXPECT_EQ(thread->counts().underruns.read(), 2);
    EXPECT_EQ(thread->counts().aheadOfMasterMs.read(), 0);
    master->set(300);
    thread->setSyncObject(master);
    peer->output(makeAudioFrame(21));
    EXPECT_EQ(thread->counts().blocks.read(), 2);
    EXPECT_EQ(thread->counts().aheadOfMasterMs.read(), 21 - 300);
}

TEST_F(AudioPlayThreadTest, TellsWhetherTheSoundIsSilent) {
    open();
    output->silent = true;
    peer->output(makeAudioFrame(0));
    EXPECT_EQ(thread->counts().output.read(), SOUND_OUTPUT_SILENCE);
    output->silent = false;
    peer->output(makeAudioFrame(21));
    EXPECT_EQ(thread->counts().output.read(), SOUND_OUTPUT_DEVICE);
}

TEST_F(AudioPlayThreadTest, TellsThatThereIsNoDevice) {
    open();
    output->hasDevice = false;
    peer->output(makeAudioFrame(0));
    EXPECT_EQ(thread->counts().output.read(), SOUND_OUTPUT_NONE);
}

// Some seconds of sound in time, then three more of it at once.
TEST_F(AudioPlayThreadTest, LeavesOutWhatIsTooFarBehindTheNewestWithALowDelay) {
    open();
    thread->setOptions({.lowLiveDelay = true});
    peer->useFactory(std::make_shared<FakeOutputFactory>(calls, output));
    const auto offer = [this](int64_t pts) {
        const auto frame = makeAudioFrame(pts);
        frame->queuedUs = FakeTime::nowMs() * 1000;
        EXPECT_TRUE(peer->output(frame));
        return calls.count("fill 4096") + calls.count("flush");
    };
    script(1024);
    int64_t pts = 0;
    for (int i = 0; i < 100; ++i, pts += 21) {
        FakeTime::advanceMs(21);
        EXPECT_EQ(offer(pts), i + 1);
    }
    FakeTime::advanceMs(3000);
    for (int64_t later = pts; later < pts + 3000; later += 21) {
        thread->fillFrame(makeAudioFrame(later));
    }
    EXPECT_EQ(offer(pts), 100);
    EXPECT_EQ(offer(pts + 1000), 100);
    // The newest is played, and what was on its way goes.
    EXPECT_EQ(offer(pts + 2982), 102);
    for (const float tempo : FakeSoundTouch::tempos) {
        EXPECT_TRUE(tempo >= 0.9F && tempo <= 1.1F);
    }
}

}  // namespace
}  // namespace kelp
