#include "present/device_clock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <random>
#include <thread>

namespace kelp {
namespace {

constexpr int kBlock = 1024;
constexpr double kRate = 48000;
constexpr double kBlockUs = kBlock * 1e6 / kRate;

// A device that asks for a block after the other, each of them full unless a test says otherwise.
class DeviceClockTest : public testing::Test {
protected:
    void SetUp() override { clock.open(kBlock, kRate); }

    // Asks `count` times; before each, there is enough for all of it.
    void ask(int count, double jitterUs = 0, double pace = 1) {
        std::uniform_real_distribution<> jitter(-jitterUs, jitterUs);
        for (int i = 0; i < count; ++i) {
            clock.handOver(kBlock);
            clock.take(kBlock, us(nextUs + jitter(random)));
            nextUs += kBlockUs / pace;
        }
    }
    static int64_t us(double time) { return std::llround(time); }
    double heard(double time) const { return clock.heard(us(time)).frames; }
    // Of a device that has played from `beginUs` on, without a gap.
    static double expected(double time, double pace = 1) {
        return (time - kBeginUs - kBlockUs / pace) * pace * kRate / 1e6;
    }

    static constexpr double kBeginUs = 5e6;
    DeviceClock clock;
    double nextUs = kBeginUs;

private:
    std::minstd_rand random{3};
};

TEST_F(DeviceClockTest, NothingIsHeardOfABlockUntilTheNextOneIsAskedFor) {
    ask(1);
    EXPECT_EQ(heard(kBeginUs), 0);
    EXPECT_EQ(heard(kBeginUs + kBlockUs), 0);
    EXPECT_NEAR(heard(kBeginUs + 1.5 * kBlockUs), kBlock / 2.0, 0.1);
    EXPECT_EQ(heard(kBeginUs + 3 * kBlockUs), kBlock);
}

TEST_F(DeviceClockTest, WhatIsHeardMovesOnEvenlyWithinABlock) {
    ask(10);
    for (double part = 0; part <= 1; part += 0.125) {
        const double time = nextUs - kBlockUs + part * kBlockUs;
        EXPECT_NEAR(heard(time), expected(time), 0.1) << part;
    }
}

// Half a block until it asks, one that it takes then, and two more. One of them may just not be whole then.
TEST_F(DeviceClockTest, TellsWhatCouldBeMissingOfWhatWaits) {
    ask(10);
    EXPECT_EQ(clock.heard(us(nextUs - kBlockUs / 2)).spareUs, 0);
    clock.handOver(3 * kBlock);
    const HeardSound heard = clock.heard(us(nextUs - kBlockUs / 2));
    EXPECT_NEAR(static_cast<double>(heard.delayUs), 4.5 * kBlockUs, 2);
    EXPECT_NEAR(static_cast<double>(heard.spareUs), 2.5 * kBlockUs, 2);
}

TEST_F(DeviceClockTest, AnUnsteadyDeviceIsSmoothed) {
    constexpr double kJitterUs = 4000;
    ask(200, kJitterUs);
    double worstUs = 0;
    double last = 0;
    for (int i = 0; i < 500; ++i) {
        ask(1, kJitterUs);
        const double time = nextUs;
        worstUs = std::max(worstUs, std::abs(heard(time) - expected(time)) / kRate * 1e6);
        EXPECT_GE(heard(time), last) << "it went back";
        last = heard(time);
    }
    EXPECT_LT(worstUs, kJitterUs / 2);
}

TEST_F(DeviceClockTest, LearnsTheDevicesOwnPace) {
    constexpr double kPace = 1.02;
    ask(300, 0, kPace);
    EXPECT_NEAR(clock.heard(us(nextUs)).framesPerSecond, kRate * kPace, 10);
    EXPECT_NEAR(heard(nextUs), expected(nextUs, kPace), 10);
}

TEST_F(DeviceClockTest, LearnsNoPaceThatIsFarFromWhatTheDeviceSays) {
    for (const double pace : {0.7, 1.4}) {
        clock.open(kBlock, kRate);
        ask(300, 0, pace);
        const double learnt = clock.heard(us(nextUs)).framesPerSecond;
        EXPECT_GT(learnt, kRate / 1.11) << pace;
        EXPECT_LT(learnt, kRate / 0.89) << pace;
    }
}

TEST_F(DeviceClockTest, StandsWhileTheDeviceGetsNothing) {
    ask(10);
    const auto handed = static_cast<double>(10 * kBlock);
    for (int i = 0; i < 5; ++i, nextUs += kBlockUs) {
        clock.take(0, us(nextUs));
    }
    EXPECT_EQ(heard(nextUs), handed);
    EXPECT_NEAR(static_cast<double>(clock.heard(us(nextUs)).dryFromUs), nextUs - 4 * kBlockUs, 2);
    // What comes now is heard a block after it was taken, and not before.
    ask(2);
    EXPECT_EQ(heard(nextUs - kBlockUs), handed);
    EXPECT_NEAR(heard(nextUs - kBlockUs / 2), handed + kBlock / 2.0, 0.1);
}

TEST_F(DeviceClockTest, TheSilenceAtTheEndOfAShortBlockIsNotHeard) {
    ask(5);
    clock.handOver(256);
    clock.take(256, us(nextUs));
    EXPECT_NEAR(heard(nextUs + 1.1 * kBlockUs), 5 * kBlock + 102.4, 0.1);
    EXPECT_EQ(heard(nextUs + 1.5 * kBlockUs), 5 * kBlock + 256);
    EXPECT_NEAR(static_cast<double>(clock.heard(us(nextUs)).dryFromUs), nextUs + 1.25 * kBlockUs, 2);
}

TEST_F(DeviceClockTest, BeginsAnewAfterADeviceWasSilentForLongerThanABlock) {
    ask(50);
    nextUs += 1.3 * kBlockUs + 100e3;
    ask(1);
    EXPECT_EQ(heard(nextUs - kBlockUs), 50 * kBlock);
    EXPECT_EQ(heard(nextUs), 50 * kBlock);
    EXPECT_NEAR(heard(nextUs + kBlockUs / 4), 50 * kBlock + kBlock / 4.0, 0.1);
}

TEST_F(DeviceClockTest, WhatWasDroppedCountsAsHeardAndIsntTakenTwice) {
    ask(5);
    clock.handOver(3000);
    clock.drop(us(nextUs));
    EXPECT_EQ(heard(nextUs), 5 * kBlock + 3000);
    clock.take(kBlock, us(nextUs));  // read before, told after
    EXPECT_EQ(heard(nextUs + 2 * kBlockUs), 5 * kBlock + 3000);
}

TEST_F(DeviceClockTest, TellsWhenWhatIsHandedOverNowIsHeard) {
    ask(50);
    const double asked = nextUs - kBlockUs;
    // The device asks next in 1 block, and plays that block in 2.
    EXPECT_NEAR(static_cast<double>(clock.heard(us(asked)).delayUs), 2 * kBlockUs, 2);
    EXPECT_NEAR(static_cast<double>(clock.heard(us(asked + 5000)).delayUs), 2 * kBlockUs - 5000, 2);
    clock.handOver(2 * kBlock);
    EXPECT_NEAR(static_cast<double>(clock.heard(us(asked)).delayUs), 4 * kBlockUs, 2);
}

TEST_F(DeviceClockTest, IsReadWhileTheDeviceTakesAndTheWriterDrops) {
    constexpr int kBlocks = 5000;
    std::atomic<int64_t> nowUs{us(kBeginUs)};
    std::atomic<bool> hasEnded{false};
    std::thread device([&] {
        for (int i = 0; i < kBlocks; ++i) {
            nowUs += us(kBlockUs);
            clock.take(kBlock, nowUs);
        }
        hasEnded = true;
    });
    std::thread writer([&] {
        for (int i = 0; !hasEnded; ++i) {
            clock.handOver(i % 100 == 0 ? 10 : kBlock);
            if (i % 100 == 0) {
                clock.drop(nowUs);
            }
        }
    });
    int wrong = 0;
    for (double last = 0; !hasEnded;) {
        const HeardSound heard = clock.heard(nowUs);
        wrong += heard.frames < last - 1 || heard.delayUs < 0 ? 1 : 0;
        last = heard.frames;
    }
    device.join();
    writer.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(DeviceClockTest, WithoutADeviceNothingIsHeard) {
    DeviceClock none;
    none.handOver(100);
    none.take(100, 1000);
    EXPECT_EQ(none.heard(2000).framesPerSecond, 0);
    EXPECT_FALSE(std::isnan(none.heard(2000).frames));
}

}  // namespace
}  // namespace kelp
