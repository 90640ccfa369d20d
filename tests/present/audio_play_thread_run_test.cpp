#include <SDL.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "present/audio_play_fixture.h"
#include "present/sdl_audio_output.h"
#include "support/log_capture.h"
#include "support/sanitizers.h"

// AudioPlayThread with its thread running: over the recording output, and over the real one with SDL's device replaced.
namespace {

// What SDL_OpenAudioDevice gives: 0 for no device, anything else for one that never takes a sample, as if paused.
std::atomic<SDL_AudioDeviceID> device{0};
std::atomic<int> openDevices{0};
std::atomic<bool> devicePaused{false};
std::function<void()> onOpenDevice = [] {};
std::atomic<void*> callbackArgument{nullptr};
std::atomic<void*> openedFor{nullptr};  // the same, from when the device asks for sound: it opens paused

}  // namespace

extern "C" {

SDL_AudioDeviceID __wrap_SDL_OpenAudioDevice(const char* /*name*/, int /*capture*/, const SDL_AudioSpec* desired,
                                             SDL_AudioSpec* obtained, int /*allowed*/) {
    onOpenDevice();
    *obtained = *desired;
    openDevices += device != 0;
    openedFor = nullptr;
    callbackArgument = desired->userdata;
    return device;
}

// The real one keeps memory for each thread that asks.
const char* __wrap_SDL_GetError() {
    return "no device";
}

void __wrap_SDL_PauseAudioDevice(SDL_AudioDeviceID /*id*/, int paused) {
    devicePaused = paused != 0;
    if (paused == 0) {
        openedFor = callbackArgument.load();
    }
}

void __wrap_SDL_CloseAudioDevice(SDL_AudioDeviceID /*id*/) {
    --openDevices;
}

}  // extern "C"

namespace kelp {
namespace {

using test::FakeSoundTouch;
using test::FakeTime;
using test::LogCapture;
using test::makeAudioFrame;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

constexpr auto kPatience = std::chrono::seconds(20);
constexpr unsigned int kMoreThanTheRing = 9000;

// Whether `condition` came true, in real time.
bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

class AudioPlayThreadRunTest : public test::AudioPlayFixture {};

TEST_F(AudioPlayThreadRunTest, PlaysTheFramesInOrderAndClosesTheOutputAtTheEnd) {
    open();
    script(1024);
    LogCapture log;
    ASSERT_TRUE(thread->start());
    for (int i = 0; i < 3; ++i) {
        thread->fillFrame(makeAudioFrame(1000 + 21 * i));
    }
    ASSERT_TRUE(calls.waitFor("fill 4096", 3));
    EXPECT_TRUE(eventually([&] { return thread->getFrameQueueSize() == 0; }));
    EXPECT_EQ(thread->getCurrentTime(), 1042);
    thread->stop();
    auto made = calls.take();
    // The flush of `stop` and the end of the thread cross.
    ASSERT_GE(made.size(), 2U);
    EXPECT_THAT(std::vector(made.end() - 2, made.end()), UnorderedElementsAre("flush", "close"));
    made.resize(made.size() - 2);
    EXPECT_THAT(made, ElementsAre("create 2 48000 1", "init 2 48000 1", "volume 1",  //
                                  "tempo", "put 1024", "receive 1024", "fill 4096",  //
                                  "tempo", "put 1024", "receive 1024", "fill 4096",  //
                                  "tempo", "put 1024", "receive 1024", "fill 4096"));
    EXPECT_THAT(observer->firstFrames(), ElementsAre(1000));
    EXPECT_EQ(log.count("[AudioPlayThread], Run\n"), 1);
    EXPECT_EQ(log.count("] requestStop\n"), 1);
    EXPECT_EQ(log.count("] joinThread\n"), 1);
    EXPECT_EQ(log.count("] joinThread end\n"), 1);
    EXPECT_EQ(log.count("onExit\n"), 1);
}

TEST_F(AudioPlayThreadRunTest, AFrameThatTheTempoChangeKeepsIsPoppedAsDone) {
    open();
    script(0);
    thread->start();
    thread->fillFrame(makeAudioFrame(1000));
    thread->fillFrame(makeAudioFrame(1021));
    ASSERT_TRUE(calls.waitFor("put 1024", 2));
    EXPECT_TRUE(eventually([&] { return thread->getFrameQueueSize() == 0; }));
    thread->stop();
    EXPECT_EQ(calls.count("fill 4096"), 0);
}

TEST_F(AudioPlayThreadRunTest, SetSpeedOfARunningThreadLeavesTheLibraryToIt) {
    open();
    script(1024);
    thread->start();
    thread->setSpeed(2.0f);
    EXPECT_EQ(calls.count("tempo"), 0);
    thread->fillFrame(makeAudioFrame(1000));
    ASSERT_TRUE(calls.waitFor("fill 4096"));
    thread->stop();
    EXPECT_EQ(calls.count("tempo"), 1);
    EXPECT_THAT(FakeSoundTouch::tempos, ElementsAre(2.0f));
}

TEST_F(AudioPlayThreadRunTest, APausedThreadKeepsTheFrameUntilThePauseEnds) {
    FakeTime::setManual(true);
    open();
    script(1024);
    thread->start();
    thread->fillFrame(makeAudioFrame(1000));
    ASSERT_TRUE(calls.waitFor("fill 4096"));
    thread->pause(true);
    thread->fillFrame(makeAudioFrame(1021));
    ASSERT_TRUE(FakeTime::runFor(500, 1));
    EXPECT_EQ(calls.count("put 1024"), 1);
    EXPECT_EQ(thread->getCurrentTime(), 1000);
    EXPECT_EQ(thread->getSyncPts(), 1500);
    thread->pause(false);
    ASSERT_TRUE(calls.waitFor("fill 4096", 2));
    EXPECT_EQ(FakeTime::nowMs(), 1'000'500);
}

TEST_F(AudioPlayThreadRunTest, APauseIsOneRestUntilASeekItsEndOrAStop) {
    FakeTime::setManual(true);
    open();
    script(1024);
    thread->pause(true);
    thread->fillFrame(makeAudioFrame(1000));
    thread->start();
    ASSERT_TRUE(FakeTime::runFor(60'000, 1));
    EXPECT_EQ(FakeTime::sleepCount(), 1);

    // The frame at its target is held by the same pause.
    thread->seek(5000, /*needFlush=*/true);
    ASSERT_TRUE(eventually([&] { return thread->getCurrentTime() == 5000; }));
    thread->fillFrame(makeAudioFrame(5000));
    ASSERT_TRUE(FakeTime::runFor(60'000, 1));
    EXPECT_EQ(FakeTime::sleepCount(), 2);
    EXPECT_THAT(observer->firstFrames(), ElementsAre(5000));

    thread->pause(false);
    ASSERT_TRUE(calls.waitFor("fill 4096"));
    thread->pause(true);
    thread->fillFrame(makeAudioFrame(5021));
    ASSERT_TRUE(FakeTime::runFor(60'000, 1));
    EXPECT_EQ(FakeTime::sleepCount(), 3);

    thread->stop();
    EXPECT_EQ(calls.count("fill 4096"), 1);
    EXPECT_EQ(FakeTime::nowMs(), 1'180'000);
}

TEST_F(AudioPlayThreadRunTest, AForcingMasterIsAskedAgainEvery50Ms) {
    FakeTime::setManual(true);
    open();
    script(1024);
    master->forcing = true;
    master->set(900);
    thread->setSyncObject(master);
    thread->fillFrame(makeAudioFrame(1000));
    thread->start();
    ASSERT_TRUE(FakeTime::runFor(150, 1));
    EXPECT_EQ(calls.count("put 1024"), 0);
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(50, 50, 50, 50));
    master->set(1000);
    FakeTime::advanceMs(50);
    ASSERT_TRUE(calls.waitFor("fill 4096"));
}

TEST_F(AudioPlayThreadRunTest, ASeekBeforeTheFirstFrameFlushesTheTempoChangeOnly) {
    open();
    script(1024);
    thread->seek(5000, /*needFlush=*/true);
    thread->fillFrame(makeAudioFrame(5000));
    thread->start();
    ASSERT_TRUE(calls.waitFor("fill 4096"));
    EXPECT_THAT(calls.take(), ElementsAre("st flush", "create 2 48000 1", "init 2 48000 1", "volume 1", "tempo",
                                          "put 1024", "receive 1024", "fill 4096"));
    EXPECT_THAT(observer->firstFrames(), ElementsAre(5000));
    thread->stop();
}

TEST_F(AudioPlayThreadRunTest, ASeekReleasesABlockedWriteAndIsServed) {
    open();
    script(1024);
    output->blocking = true;
    thread->start();
    thread->fillFrame(makeAudioFrame(0));
    thread->fillFrame(makeAudioFrame(21));
    ASSERT_TRUE(calls.waitFor("fill 4096"));
    thread->pause(true);
    thread->seek(5000, /*needFlush=*/true);
    EXPECT_TRUE(eventually([&] { return thread->getCurrentTime() == 5000; }));
    thread->fillFrame(makeAudioFrame(5000));
    EXPECT_TRUE(observer->waitForFirstFrame(5000));
    EXPECT_EQ(calls.count("fill 4096"), 1);
    thread->stop();
    EXPECT_THAT(observer->firstFrames(), ElementsAre(0, 5000));
}

TEST_F(AudioPlayThreadRunTest, ASeekAmongItsFramesReleasesABlockedWriteToo) {
    open();
    script(1024);
    output->blocking = true;
    thread->setSeekRule(SeekRule::Exact);
    thread->start();
    for (const int64_t pts : {0, 21, 42, 63}) {
        thread->fillFrame(makeAudioFrame(pts));
    }
    ASSERT_TRUE(calls.waitFor("fill 4096"));
    EXPECT_TRUE(thread->seekInQueue(42, [] {}));
    EXPECT_TRUE(observer->waitForFirstFrame(42));
    thread->stop();
}

TEST_F(AudioPlayThreadRunTest, ABlockedWriteEndsAheadOfTheStop) {
    open();
    script(1024);
    output->blocking = true;
    thread->start();
    thread->fillFrame(makeAudioFrame(0));
    ASSERT_TRUE(calls.waitFor("fill 4096"));
    thread->prepareStop();
    ASSERT_TRUE(calls.waitFor("close"));
    thread->stop();
}

TEST_F(AudioPlayThreadRunTest, FlushesItsOutputOnceForOneStop) {
    open();
    script(1024);
    ASSERT_TRUE(peer->output(makeAudioFrame(0)));
    thread->prepareStop();
    thread->stop();
    EXPECT_EQ(calls.count("flush"), 1);
}

TEST_F(AudioPlayThreadRunTest, StopReleasesABlockedWriteAndNoOtherIsMade) {
    open();
    script(1024);
    output->blocking = true;
    std::atomic<bool> closed{false};
    output->onFlush = [&] {
        // Time for the loop to get to the next frame, if it were still allowed to.
        closed = eventually([&] { return calls.count("close") == 1 || calls.count("fill 4096") == 2; });
    };
    thread->start();
    for (int i = 0; i < 5; ++i) {
        thread->fillFrame(makeAudioFrame(21 * i));
    }
    ASSERT_TRUE(calls.waitFor("fill 4096"));
    thread->stop();
    EXPECT_EQ(calls.count("fill 4096"), 1);
    EXPECT_TRUE(closed);
    EXPECT_EQ(thread->getFrameQueueSize(), 0);
}

TEST_F(AudioPlayThreadRunTest, StopWhileTheOutputIsOpenedMakesNoWrite) {
    open();
    script(1024);
    output->blocking = true;
    LogCapture log;
    std::promise<void> opening;
    output->onInit = [&] {
        opening.set_value();
        // Until `stop` has looked for an output, found none, and waits.
        eventually([&] { return log.has("] joinThread\n"); });
    };
    thread->start();
    thread->fillFrame(makeAudioFrame(0));
    opening.get_future().wait();
    thread->stop();
    EXPECT_EQ(calls.count("flush"), 0);
    EXPECT_EQ(calls.count("fill 4096"), 0);
    EXPECT_EQ(calls.count("close"), 1);
}

TEST_F(AudioPlayThreadRunTest, TheLastOfManyPausesWhileTheOutputIsOpenedIsTheOutputs) {
    open();
    for (int i = 0; i < 500; ++i) {
        const bool last = i % 2 == 0;
        output = std::make_shared<test::FakeAudioOutput>(calls);
        open();
        std::promise<void> opening;
        std::atomic<bool> opened{false};
        output->onInit = [&] {
            opening.set_value();
            while (!opened) {
            }
        };
        thread->start();
        thread->fillFrame(makeAudioFrame(0));
        opening.get_future().wait();
        opened = true;
        for (std::atomic<int> spin = 0; spin < i * 10; ++spin) {
        }
        thread->pause(!last);
        thread->pause(last);
        ASSERT_TRUE(last || calls.waitFor("volume 1"));
        thread->stop();
        auto made = calls.take();
        std::erase_if(made, [](const auto& call) { return !call.starts_with("pause"); });
        ASSERT_EQ(!made.empty() && made.back() == "pause 1", last) << "round " << i;
    }
}

TEST_F(AudioPlayThreadRunTest, ADestroyedThreadStopsFirst) {
    open();
    script(1024);
    output->blocking = true;
    thread->start();
    thread->fillFrame(makeAudioFrame(0));
    ASSERT_TRUE(calls.waitFor("fill 4096"));
    thread.reset();
    EXPECT_EQ(calls.count("close"), 1);
    EXPECT_EQ(FakeSoundTouch::instances, 0);
}

TEST_F(AudioPlayThreadRunTest, ThreadsThatFollowEachOtherDoNotKeepEachOtherAlive) {
    open();
    const auto first = thread;
    open();
    first->setSyncObject(thread);
    thread->setSyncObject(first);
    const std::weak_ptr<AudioPlayThread> second = thread;
    thread->start();
    thread->stop();
    EXPECT_EQ(first.use_count(), 1);
    thread.reset();
    first->stop();
    EXPECT_TRUE(second.expired());
}

// Every operation of the control side while frames are played: for the thread sanitizer. The sound comes through it.
TEST_F(AudioPlayThreadRunTest, TheControlSideMayCallAtAnyTime) {
    open();
    thread->setSyncObject(master);
    thread->start();
    std::atomic<bool> running{true};
    std::thread control([&] {
        for (int i = 0; running; ++i) {
            thread->setSpeed(0.5f + 0.1f * static_cast<float>(i % 5));
            thread->setVolume(0.5f);
            thread->setSyncObject(i % 3 == 0 ? nullptr : master);
            thread->setMaxPtsMs(i);
            thread->pause(i % 7 == 0);
            if (i % 50 == 0) {
                thread->seek(i, /*needFlush=*/i % 100 == 0);
            }
            thread->clearBuffer(static_cast<int>(thread->getCurrentTime()));
            master->set(i);
        }
    });
    std::thread reader([&] {
        int64_t sum = 0;
        while (running) {
            sum += thread->getSyncPts() + thread->getUnSyncSamples() + thread->getCurrentTime() +
                   thread->isSupportSpeedAdjust() + thread->getFrameQueueSize() + thread->checkBuffer(5);
        }
        EXPECT_NE(sum, -1);
    });
    const auto makeFrame = [](int i) {
        // More comes out of the tempo change than goes in.
        auto frame = makeAudioFrame(21 * i, 512);
        frame->allocBuffer = [](unsigned int size) { return test::makeBuffer(size); };
        return frame;
    };
    for (int i = 0; i < 2000; ++i) {
        while (thread->getFrameQueueSize() >= 20) {
            std::this_thread::yield();
        }
        thread->fillFrame(makeFrame(i));
    }
    running = false;
    control.join();
    reader.join();

    // From the last seek on it plays as ever.
    thread->setSyncObject(nullptr);
    thread->setSpeed(1.0f);
    thread->pause(false);
    thread->seek(0, /*needFlush=*/true);
    EXPECT_THAT(calls.take(), testing::Not(testing::Contains("close")));
    std::vector<std::string> made;
    bool written = false;
    for (int i = 0; i < 1000 && !written; ++i) {
        thread->fillFrame(makeFrame(i));
        ASSERT_TRUE(eventually([&] { return thread->getFrameQueueSize() == 0; }));
        const auto more = calls.take();
        made.insert(made.end(), more.begin(), more.end());
        written = std::any_of(made.begin(), made.end(), [](const auto& call) { return call.rfind("fill ", 0) == 0; });
    }
    EXPECT_TRUE(written);
    thread->stop();
    const auto last = calls.take();
    made.insert(made.end(), last.begin(), last.end());
    EXPECT_EQ(std::count(made.begin(), made.end(), "close"), 1);
}

// Over the real output.

// A log that takes its time while it lives, which lets threads cross between the steps that log.
class SlowLog {
public:
    SlowLog() : level_(Log::GetLevel()) {
        Log::SetLogCallback([](const char*) {
            for (int i = 0; i < 3; ++i) {
                std::this_thread::yield();
            }
        });
        Log::SetLevel(4);
    }
    ~SlowLog() {
        Log::SetLevel(level_);
        Log::SetLogCallback(nullptr);
    }

private:
    const int level_;
};

class AudioPlayRealOutputTest : public test::AudioPlayFixture {
protected:
    void SetUp() override {
        AudioPlayFixture::SetUp();
        device = 0;
        onOpenDevice = [] {};
        // The tempo library would hold samples back.
        FakeSoundTouch::missing = true;
    }
    void TearDown() override {
        onOpenDevice = [] {};
        AudioPlayFixture::TearDown();
        EXPECT_EQ(openDevices, 0);
    }

    void openReal() {
        open();
        peer->useFactory(nullptr);
    }
};

TEST_F(AudioPlayRealOutputTest, StopWhileTheDeviceIsOpenedDoesNotHangWithoutOne) {
    openReal();
    std::promise<void> opening;
    onOpenDevice = [&] {
        opening.set_value();
        eventually([&] { return peer->stopRequested(); });
    };
    thread->start();
    thread->fillFrame(makeAudioFrame(0, kMoreThanTheRing));
    opening.get_future().wait();
    thread->stop();
    EXPECT_EQ(thread->getFrameQueueSize(), 0);
}

TEST_F(AudioPlayRealOutputTest, ASeekWhileTheDeviceIsOpenedIsServedWithoutOne) {
    openReal();
    std::promise<void> opening;
    std::promise<void> sought;
    onOpenDevice = [&] {
        opening.set_value();
        sought.get_future().wait();
    };
    thread->start();
    thread->fillFrame(makeAudioFrame(0, kMoreThanTheRing));
    opening.get_future().wait();
    thread->seek(5000, /*needFlush=*/true);
    sought.set_value();
    EXPECT_TRUE(eventually([&] { return thread->getCurrentTime() == 5000; }));
    thread->stop();
}

TEST_F(AudioPlayRealOutputTest, APauseWhileTheDeviceIsOpenedPausesIt) {
    device = 7;
    openReal();
    onOpenDevice = [&] { thread->pause(true); };
    thread->start();
    thread->fillFrame(makeAudioFrame(0));
    EXPECT_TRUE(eventually([] { return devicePaused.load(); }));
    thread->pause(false);
    EXPECT_FALSE(devicePaused);
    thread->stop();
}

TEST_F(AudioPlayRealOutputTest, StopsHundredsOfTimesInAnyInterleaving) {
    constexpr int kRuns = test::roundsWithThreadSanitizer(2000);
    const SlowLog log;
    for (int i = 0; i < kRuns; ++i) {
        device = i % 2 == 0 ? 0 : 7;
        openReal();
        thread->start();
        for (int frame = 0; frame < 3; ++frame) {
            thread->fillFrame(makeAudioFrame(21 * frame, 3000U + 2000U * static_cast<unsigned int>(i % 4)));
        }
        if (i % 3 == 0) {
            // The write, in a full ring; nothing else sleeps here.
            ASSERT_TRUE(FakeTime::waitForSleepers(1));
        }
        for (int spin = 0; spin < i % 40; ++spin) {
            std::this_thread::yield();
        }
        if (i % 5 == 0) {
            thread->pause(true);
        }
        if (i % 7 == 0) {
            thread->seek(21, /*needFlush=*/false);
        }
        thread->stop();
        ASSERT_EQ(thread->getFrameQueueSize(), 0);
    }
}

TEST_F(AudioPlayRealOutputTest, ServesHundredsOfSeeksInAnyInterleaving) {
    constexpr int kLastTarget = 1000 * test::roundsWithThreadSanitizer(1000);
    const SlowLog log;
    openReal();
    thread->start();
    std::atomic<int> position{0};
    std::atomic<bool> running{true};
    std::thread filler([&] {
        while (running) {
            const int base = position;
            for (int i = 0; i < 3 && thread->getFrameQueueSize() < 20; ++i) {
                thread->fillFrame(makeAudioFrame(base + i, 6000, 1));
            }
            std::this_thread::yield();
        }
    });
    std::thread pauser([&] {
        for (int i = 0; running; ++i) {
            thread->pause(i % 2 == 0);
            std::this_thread::yield();
        }
    });
    bool served = true;
    for (int target = 1000; served && target <= kLastTarget; target += 1000) {
        thread->seek(target, /*needFlush=*/target % 2000 == 0);
        position = target;
        // The end of the seek, at the first or at a later frame of the three.
        served = eventually([&] {
            const auto frames = observer->firstFrames();
            return !frames.empty() && frames.back() >= target;
        });
        EXPECT_TRUE(served) << "lost: " << target;
    }
    running = false;
    filler.join();
    pauser.join();
    thread->stop();
}

// The device, the control side and a follower of the exact clock at the same time: for the thread sanitizer. The clock
// tells the truth at the end.
TEST_F(AudioPlayRealOutputTest, TheExactClockMayBeReadAtAnyTime) {
    FakeSoundTouch::missing = false;
    device = 2;
    openedFor = nullptr;
    openReal();
    PlaybackOptions options;
    options.exactTiming = true;
    thread->setOptions(options);
    thread->start();
    std::atomic<bool> isDevicePlaying{true};
    std::thread deviceThread([&] {
        std::vector<unsigned char> block(4096);
        while (isDevicePlaying) {
            FakeTime::advanceUs(21'333);
            if (void* const opened = openedFor) {
                SDLAudioOutput::sdlAudioCallback(opened, block.data(), static_cast<int>(block.size()));
            }
            std::this_thread::yield();
        }
    });
    std::atomic<bool> running{true};
    std::thread control([&] {
        for (int i = 0; running; ++i) {
            thread->setSpeed(0.5f + 0.25f * static_cast<float>(i % 5));
            thread->setSyncObject(i % 3 == 0 ? nullptr : master);
            thread->pause(i % 7 == 0);
            if (i % 50 == 0) {
                thread->seek(i, /*needFlush=*/i % 100 == 0);
            }
            master->set(i);
        }
    });
    std::thread reader([&] {
        int64_t sum = 0;
        while (running) {
            sum += thread->getSyncPtsUs() + thread->getCurrentTime() + thread->hasTime();
        }
        EXPECT_NE(sum, -1);
    });
    const auto fill = [&](int64_t pts) {
        while (thread->getFrameQueueSize() >= 20) {
            std::this_thread::yield();
        }
        auto frame = makeAudioFrame(pts);
        frame->allocBuffer = [](unsigned int size) { return test::makeBuffer(size); };
        thread->fillFrame(frame);
    };
    for (int i = 0; i < 500; ++i) {
        fill(21 * i);
    }
    running = false;
    control.join();
    reader.join();

    thread->setSyncObject(nullptr);
    thread->setSpeed(1.0f);
    thread->pause(false);
    constexpr int kTarget = 500'000;
    thread->seek(kTarget, /*needFlush=*/true);
    for (int i = 0; i < 50; ++i) {
        fill(kTarget + 64 * i / 3);
    }
    EXPECT_TRUE(eventually([&] { return thread->getCurrentTime() > kTarget + 800; }));
    EXPECT_LT(thread->getCurrentTime(), kTarget + 1100);
    isDevicePlaying = false;
    deviceThread.join();
    thread->stop();
}

}  // namespace
}  // namespace kelp
