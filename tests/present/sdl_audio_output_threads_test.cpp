#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

#include "present/audio_device_fixture.h"
#include "runtime/allocation_counter.h"
#include "support/log_capture.h"
#include "support/temp_files.h"

namespace kelp::test {

namespace {

using testing::Each;
using testing::ElementsAre;

class SDLAudioOutputThreadsTest : public SDLAudioOutputFixture {};

TEST_F(SDLAudioOutputThreadsTest, HoldsExactly8192Bytes) {
    ASSERT_TRUE(output->init({}));
    ASSERT_TRUE(output->fillFrame(makeFrameOf(8192)));
    EXPECT_EQ(FakeTime::sleepCount(), 0);

    FakeTime::setManual(true);
    std::thread writer([this] { output->fillFrame(makeFrameOf(1, 7)); });
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_THAT(take(1), Each(1));
    writer.join();
    EXPECT_EQ(FakeTime::sleepCount(), 1);
    EXPECT_THAT(take(8191), Each(1));
    EXPECT_THAT(take(1), Each(7));
}

TEST_F(SDLAudioOutputThreadsTest, AWriteWakesOnceForEachBlockThatTheDeviceTakes) {
    ASSERT_TRUE(output->init({}));
    FakeTime::setManual(true);
    std::thread writer([this] { output->fillFrame(makeFrameOf(20000)); });
    for (int blocks = 1; blocks <= 3; ++blocks) {
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
        FakeTime::advanceMs(21);
        EXPECT_EQ(FakeTime::sleepCount(), blocks);
        EXPECT_THAT(take(4096), Each(1));
    }
    writer.join();
    EXPECT_EQ(FakeTime::sleepCount(), 3);
}

TEST_F(SDLAudioOutputThreadsTest, TheDevicesCallAllocatesNothingAlsoIfItWakesAWrite) {
    ASSERT_TRUE(output->init({}));
    FakeTime::setManual(true);
    std::thread writer([this] { output->fillFrame(makeFrameOf(20000)); });
    std::array<unsigned char, 4096> block{};
    const auto allocations = [&] {
        const int64_t before = AllocationCounter::count();
        SDLAudioOutput::sdlAudioCallback(output.get(), block.data(), block.size());
        return AllocationCounter::count() - before;
    };
    for (int blocks = 1; blocks <= 3; ++blocks) {
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
        EXPECT_EQ(allocations(), 0);
    }
    writer.join();
    for (const bool paused : {true, false}) {
        output->pause(paused);
        EXPECT_EQ(allocations(), 0);
    }
}

// Nobody empties the ring: without a device, or while it is paused.
class SDLAudioOutputBlockedWriteTest : public SDLAudioOutputFixture, public testing::WithParamInterface<bool> {
protected:
    void block() {
        const bool paused = GetParam();
        audioDevice().device = paused ? 2 : 0;
        EXPECT_EQ(output->init({}), paused);
        output->pause(paused);
        FakeTime::setManual(true);
        writer = std::thread([this] {
            output->fillFrame(makeFrameOf(20000));
            written = true;
        });
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
        if (paused) {
            EXPECT_THAT(take(4096), Each(0));
        }
        ASSERT_TRUE(FakeTime::runFor(60'000, 1));
        EXPECT_EQ(FakeTime::sleepCount(), 1);
        EXPECT_FALSE(written);
    }

    std::atomic<bool> written{false};
    std::thread writer;
};

TEST_P(SDLAudioOutputBlockedWriteTest, EndsByAFlushAtOnce) {
    block();
    output->flush();
    writer.join();
    EXPECT_TRUE(written);
    EXPECT_EQ(output->getBufferDuration(), 21);
}

TEST_P(SDLAudioOutputBlockedWriteTest, EndsByACloseAtOnce) {
    block();
    output->close();
    writer.join();
    EXPECT_TRUE(written);
}

INSTANTIATE_TEST_SUITE_P(Causes, SDLAudioOutputBlockedWriteTest, testing::Values(false, true),
                         [](const auto& cause) { return cause.param ? "Paused" : "NoDevice"; });

// One that says when its device is gone.
class SDLAudioOutputWatchTest : public SDLAudioOutputFixture {
protected:
    SDLAudioOutputWatchTest() {
        output = std::make_shared<SDLAudioOutput>(SDLAudioOutput::Device::Watched);
        EXPECT_TRUE(output->init({}));
        FakeTime::setManual(true);
    }
    ~SDLAudioOutputWatchTest() override {
        output->close();
        if (writer.joinable()) {
            writer.join();
        }
    }

    void write(size_t bytes) {
        writer = std::thread([this, bytes] { outcome = output->fillFrame(makeFrameOf(bytes)) ? 1 : 0; });
        EXPECT_TRUE(FakeTime::waitForSleepers(1));
    }
    int written() {
        writer.join();
        return outcome;
    }

    std::atomic<int> outcome{-1};
    std::thread writer;
};

TEST_F(SDLAudioOutputWatchTest, TellsOfADeviceThatAsksForNothingForAQuarterOfASecond) {
    write(20000);
    FakeTime::advanceMs(249);
    EXPECT_THAT(take(4096), Each(1));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    ASSERT_TRUE(FakeTime::runFor(249, 1));
    FakeTime::advanceMs(1);
    EXPECT_EQ(written(), 0);
}

TEST_F(SDLAudioOutputWatchTest, TellsOfADeviceThatSdlHasLostAndAsksForAllTheSame) {
    EXPECT_TRUE(output->fillFrame(makeFrameOf(100)));
    audioDevice().status = SDL_AUDIO_STOPPED;
    EXPECT_FALSE(output->fillFrame(makeFrameOf(100)));
}

TEST_F(SDLAudioOutputWatchTest, DoesNotCountAPause) {
    write(20000);
    FakeTime::advanceMs(200);
    output->pause(true);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    ASSERT_TRUE(FakeTime::runFor(60'000, 1));
    output->pause(false);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    ASSERT_TRUE(FakeTime::runFor(249, 1));
    EXPECT_EQ(outcome, -1);
    FakeTime::advanceMs(1);
    EXPECT_EQ(written(), 0);
}

TEST_F(SDLAudioOutputWatchTest, TakesAFlushForNoLoss) {
    write(20000);
    output->flush();
    EXPECT_EQ(written(), 1);
}

TEST_F(SDLAudioOutputThreadsTest, SaysNothingOfAnAttemptThatIsMadeAgain) {
    LogCapture log;
    audioDevice().device = 0;
    EXPECT_FALSE(SDLAudioOutput(SDLAudioOutput::Device::TriedAgain).init({}));
    EXPECT_THAT(log.lines(), testing::IsEmpty());
}

TEST_F(SDLAudioOutputThreadsTest, TakesCallsFromAllThreadsAtOnce) {
    ASSERT_TRUE(output->init({}));
    std::atomic<bool> done{false};
    std::thread device([&] {
        while (!done) {
            take(1024);
        }
    });
    std::thread control([&] {
        for (int i = 0; i < 300; ++i) {
            output->setVolume(static_cast<float>(i));
            output->pause(i % 7 == 0);
            if (i % 10 == 0) {
                output->flush();
            }
            std::this_thread::yield();
        }
        output->pause(false);
        done = true;
        output->close();
    });
    for (int i = 0; i < 300; ++i) {
        output->fillFrame(makeFrameOf(1000));
        EXPECT_GE(output->getBufferDuration(), 21);
    }
    control.join();
    device.join();
    EXPECT_EQ(audioDevice().calls.back(), "close 2");
}

// A close and an init that meet leave no device open.
TEST_F(SDLAudioOutputThreadsTest, LeavesNoDeviceOpenWhenCloseMeetsInit) {
    for (int i = 0; i < 200; ++i) {
        audioDevice() = {};
        output = std::make_shared<SDLAudioOutput>();
        std::thread play([&] { output->init({}); });
        output->close();
        play.join();
        EXPECT_EQ(audioDevice().calls.back(), "close 2");
    }
}

// Real time: SDL's own thread calls, through the driver that writes a file.
TEST_F(SDLAudioOutputThreadsTest, PlaysThroughARealDevice) {
    const TempFolder folder;
    const std::string file = folder.path("sound.raw");
    setenv("SDL_DISKAUDIOFILE", file.c_str(), 1);
    setenv("SDL_DISKAUDIODELAY", "1", 1);
    ASSERT_EQ(SDL_AudioInit("disk"), 0) << SDL_GetError();
    audioDevice().real = true;

    // A ramp that never repeats and is never 0, much longer than the ring.
    constexpr int kSamples = 30000;
    ASSERT_TRUE(output->init({2, 48000, 1}));
    int16_t next = 1;
    for (int i = 0; i < kSamples / 1000; ++i) {
        std::vector<int16_t> samples(1000);
        for (auto& sample : samples) {
            sample = next++;
        }
        output->fillFrame(makeFrame(samples));
    }
    while (output->getBufferDuration() > 21) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    output->close();
    SDL_AudioQuit();

    std::ifstream in(file, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), {});
    int16_t expected = 1;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
        int16_t sample;
        std::memcpy(&sample, &bytes[i], sizeof(sample));
        // Silence between the frames is a matter of timing; order and values are not.
        if (sample != 0) {
            ASSERT_EQ(sample, expected);
            ++expected;
        }
    }
    EXPECT_EQ(expected, kSamples + 1);
}

}  // namespace

}  // namespace kelp::test
