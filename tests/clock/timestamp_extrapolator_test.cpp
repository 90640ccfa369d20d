#include "clock/timestamp_extrapolator.h"

#include <gtest/gtest.h>

#include <limits>
#include <thread>

#include "support/fake_time.h"

namespace kelp {
namespace {

using test::FakeTime;

constexpr int64_t kStart = 1'700'000'000'000;
constexpr int64_t kSecond = 90000;  // ticks
constexpr int64_t kFrame = 3600;    // ticks in 40 ms

// Expected answers of the fit were computed apart from this program, step by step in double precision.
class TimestampExtrapolatorTest : public testing::Test {
protected:
    void SetUp() override {
        FakeTime::reset(kStart);
        extrapolator_.init(90000);
    }

    // Feeds a packet that arrives `afterMs` after the test's start.
    void updateAt(int64_t afterMs, int64_t timestamp) {
        FakeTime::setNowMs(kStart + afterMs);
        extrapolator_.update(timestamp);
    }

    // The answer as milliseconds after the test's start.
    int64_t at(int64_t timestamp) { return extrapolator_.extrapolateLocalTime(timestamp) - kStart; }

    // Feeds ten packets whose arrivals scatter around 40 ms each, and checks the answers after each of them.
    void expectUnevenFit(int64_t afterMs, int64_t timestamp) {
        struct Step {
            int64_t arrivalMs;
            int64_t atStamp, atOneSecond, atTenMinutes;  // answers for this time stamp, and for later ones
        };
        const Step steps[] = {
            {0, 0, 1000, 600000},     {43, 43, 1118, 644991},   {78, 79, 1058, 587135},   {125, 123, 1151, 616877},
            {158, 161, 1158, 598608}, {203, 202, 1208, 604100}, {240, 241, 1242, 600830}, {284, 282, 1289, 604469},
            {317, 321, 1318, 598997}, {361, 361, 1359, 599490},
        };
        for (const Step& step : steps) {
            SCOPED_TRACE(step.arrivalMs);
            updateAt(afterMs + step.arrivalMs, timestamp);
            EXPECT_EQ(at(timestamp), afterMs + step.atStamp);
            EXPECT_EQ(at(timestamp + kSecond), afterMs + step.atOneSecond);
            EXPECT_EQ(at(timestamp + 600 * kSecond), afterMs + step.atTenMinutes);
            timestamp += kFrame;
        }
    }

    // Feeds packets that come on time, 40 ms apart. Time and time stamp of the next one are left in `nowMs` and
    // `timestamp`.
    void train(int packets, int64_t& nowMs, int64_t& timestamp) {
        for (int i = 0; i < packets; ++i, nowMs += 40, timestamp += kFrame) {
            updateAt(nowMs, timestamp);
        }
    }

    TimestampExtrapolator extrapolator_;
};

TEST_F(TimestampExtrapolatorTest, HasNoAnswerBeforeTheFirstTimeStamp) {
    EXPECT_EQ(extrapolator_.extrapolateLocalTime(0), -1);
    EXPECT_EQ(extrapolator_.extrapolateLocalTime(5 * kSecond), -1);
    EXPECT_EQ(extrapolator_.extrapolateLocalTime(-5 * kSecond), -1);
    EXPECT_EQ(extrapolator_.extrapolateLocalTimeMs(5000), -1);
}

TEST_F(TimestampExtrapolatorTest, AnswersAtTheNominalRateAfterOneUpdate) {
    updateAt(0, 1000);
    EXPECT_EQ(at(1000), 0);
    EXPECT_EQ(at(1000 + kSecond), 1000);
    EXPECT_EQ(at(1000 - kSecond), -1000);
    // The fraction is cut off, not rounded.
    EXPECT_EQ(at(1000 + 89), 0);
    EXPECT_EQ(at(1000 + 90), 1);
    EXPECT_EQ(at(1000 - 89), 0);
    EXPECT_EQ(at(1000 - 90), -1);
}

TEST_F(TimestampExtrapolatorTest, CountsFromTheLastArrivalDuringStartUp) {
    updateAt(0, 10 * kSecond);
    // Reordered: moves the arrival on, but stays start-up, and the last time stamp used is still the first one.
    updateAt(500, 10 * kSecond - kFrame);
    EXPECT_EQ(at(10 * kSecond), 500);
    EXPECT_EQ(at(10 * kSecond + kFrame), 540);
}

TEST_F(TimestampExtrapolatorTest, InvertsTheLineFromTheSecondUpdateOn) {
    // On time to the millisecond, so the line keeps exactly 90 ticks per millisecond through the first time stamp.
    updateAt(0, 1000);
    updateAt(40, 1000 + kFrame);
    EXPECT_EQ(at(1000), 0);
    EXPECT_EQ(at(1000 + 100 * kSecond), 100'000);
    // Half a millisecond is added, then the fraction is cut off.
    EXPECT_EQ(at(1000 + 44), 0);
    EXPECT_EQ(at(1000 + 45), 1);
    EXPECT_EQ(at(1000 - 45), 0);
    EXPECT_EQ(at(1000 - 46), 0);
    EXPECT_EQ(at(1000 - 134), 0);
    EXPECT_EQ(at(1000 - 135), -1);
}

TEST_F(TimestampExtrapolatorTest, FitsALineThroughUnevenArrivals) {
    expectUnevenFit(0, 500000);
}

TEST_F(TimestampExtrapolatorTest, FitsTheSameLineAfterItStartedOver) {
    expectUnevenFit(0, 500000);
    // 50 s further on: nothing of the first fit is left.
    expectUnevenFit(400, 5000000);
}

TEST_F(TimestampExtrapolatorTest, LeavesTheLineAloneOnAReorderedPacket) {
    updateAt(0, 500000);
    updateAt(43, 500000 + kFrame);
    updateAt(78, 500000 + 2 * kFrame);
    const int64_t before[] = {at(500000), at(500000 + kSecond), at(500000 + 3600 * kSecond)};
    for (int i = 1; i < 20; ++i) {
        updateAt(78 + i * 100, 500000 + 2 * kFrame - i * 10);
    }
    EXPECT_EQ(at(500000), before[0]);
    EXPECT_EQ(at(500000 + kSecond), before[1]);
    EXPECT_EQ(at(500000 + 3600 * kSecond), before[2]);
}

TEST_F(TimestampExtrapolatorTest, TakesTheSameTimeStampAgainIntoTheFit) {
    updateAt(0, 7000);
    EXPECT_EQ(at(7000 + kSecond), 1000);
    updateAt(1000, 7000);
    // The slope is next to nothing now: every time stamp belongs to the origin.
    EXPECT_EQ(at(7000), 0);
    EXPECT_EQ(at(7000 + kSecond), 0);
    EXPECT_EQ(at(7000 - 100 * kSecond), 0);
    EXPECT_EQ(at(7000 + 100000 * kSecond), 0);
}

TEST_F(TimestampExtrapolatorTest, ReturnsTheOriginForASlopeOfNothingOnly) {
    // One tick per second is a slope of 0.001, the least that is usable.
    extrapolator_.init(1);
    updateAt(0, 100);
    updateAt(1000, 101);
    updateAt(2000, 102);
    EXPECT_EQ(at(103), 3000);
    EXPECT_EQ(at(1102), 1002000);
}

TEST_F(TimestampExtrapolatorTest, JumpsToALongerDelayAfterMoreThan150Updates) {
    int64_t timestamp = 0;
    int64_t nowMs = 0;
    train(500, nowMs, timestamp);
    EXPECT_EQ(at(timestamp), nowMs);

    // From here on everything comes five seconds later. The line only creeps after it, until the alarm.
    nowMs += 5000;
    struct Expected {
        int update;
        int64_t answerBehindMs;
    };
    const Expected expected[] = {{0, 4945},  {1, 4892}, {2, 4838}, {146, 835}, {148, 805},
                                 {149, 791}, {150, 0},  {151, -5}, {152, -9},  {155, -24}};
    const Expected* next = expected;
    for (int i = 0; i < 156; ++i, timestamp += kFrame, nowMs += 40) {
        updateAt(nowMs, timestamp);
        if (i == next->update) {
            EXPECT_EQ(nowMs - at(timestamp), next->answerBehindMs) << "update " << i;
            ++next;
        }
    }
}

TEST_F(TimestampExtrapolatorTest, JumpsToAShorterDelayAndCountsAnew) {
    int64_t timestamp = 0;
    int64_t nowMs = 0;
    train(500, nowMs, timestamp);
    timestamp += 5 * kSecond;
    train(150, nowMs, timestamp);
    EXPECT_EQ(at(timestamp - kFrame) - (nowMs - 40), 986);
    train(1, nowMs, timestamp);
    EXPECT_EQ(at(timestamp - kFrame) - (nowMs - 40), 0);
    // One more change: the alarm's count is back at its start, so the line creeps again.
    timestamp += 5 * kSecond;
    updateAt(nowMs, timestamp);
    EXPECT_EQ(at(timestamp) - nowMs, 2072);
}

// Reordered packets feed the detector but don't move the line, so their errors are exact.
TEST_F(TimestampExtrapolatorTest, SumsUpErrorsAboveTheDriftLimitedToAClamp) {
    struct Case {
        int64_t error;  // ticks
        int packets;
        int64_t answer;  // for a packet 50 ms late that comes after them: its own time only after an alarm
    };
    const Case cases[] = {
        {-7000, 150, 2004},  {-7000, 151, 2050}, {-6800, 300, 2004}, {-6800, 301, 2050},
        {-6600, 5000, 2004}, {-9000, 150, 2004}, {-9000, 151, 2050},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.packets << " packets off by " << c.error);
        extrapolator_.reset(kStart);
        int64_t timestamp = 10 * kSecond;
        int64_t nowMs = 0;
        train(50, nowMs, timestamp);
        for (int i = 0; i < c.packets; ++i) {
            updateAt(nowMs - 40, timestamp - kFrame + c.error);
        }
        updateAt(nowMs + 50, timestamp);
        EXPECT_EQ(at(timestamp), c.answer);
    }
}

TEST_F(TimestampExtrapolatorTest, ForgetsTheSumOfLateErrorsWhenItStartsOver) {
    int64_t timestamp = 10 * kSecond;
    int64_t nowMs = 0;
    train(50, nowMs, timestamp);
    for (int i = 0; i < 150; ++i) {
        updateAt(nowMs - 40, timestamp - kFrame - 7000);
    }
    timestamp += 100 * kSecond;
    train(3, nowMs, timestamp);
    // Together with the first 150 these would raise the alarm, alone they don't.
    for (int i = 0; i < 70; ++i) {
        updateAt(nowMs - 40, timestamp - kFrame - 7000);
    }
    updateAt(nowMs + 50, timestamp);
    EXPECT_EQ(at(timestamp) - nowMs, 39);
    EXPECT_EQ(at(timestamp + kSecond) - nowMs, 1482);
}

TEST_F(TimestampExtrapolatorTest, ForgetsTheSumOfEarlyErrorsWhenItStartsOver) {
    int64_t timestamp = 0;
    int64_t nowMs = 0;
    train(500, nowMs, timestamp);
    timestamp += 5 * kSecond;
    train(150, nowMs, timestamp);
    timestamp += 100 * kSecond;
    train(3, nowMs, timestamp);
    for (int i = 0; i < 60; ++i) {
        timestamp += 4 * kSecond;
        nowMs += 40;
        updateAt(nowMs, timestamp);
    }
    EXPECT_EQ(at(timestamp) - nowMs, 7);
    EXPECT_EQ(at(timestamp + kSecond) - nowMs, 17);
}

TEST_F(TimestampExtrapolatorTest, HeedsNoDelayChangeDuringStartUp) {
    updateAt(0, 10 * kSecond);
    // Reordered packets feed the detector, but don't count as updates: the alarm comes with the 151st, in start-up.
    for (int i = 1; i <= 200; ++i) {
        updateAt(i, 9 * kSecond);
    }
    updateAt(240, 10 * kSecond + kFrame);
    EXPECT_EQ(at(10 * kSecond), 0);
    EXPECT_EQ(at(11 * kSecond), 5999);
    updateAt(280, 10 * kSecond + 2 * kFrame);
    EXPECT_EQ(at(10 * kSecond), 10);
    EXPECT_EQ(at(11 * kSecond), 4104);
    updateAt(320, 10 * kSecond + 3 * kFrame);
    EXPECT_EQ(at(10 * kSecond), 24);
    EXPECT_EQ(at(11 * kSecond), 3124);
}

TEST_F(TimestampExtrapolatorTest, StartsOverAfterAJumpOfMoreThanTenSeconds) {
    updateAt(0, 0);
    updateAt(43, kFrame);
    updateAt(78, 2 * kFrame);
    updateAt(100, 2 * kFrame + 11 * kSecond);
    EXPECT_EQ(at(2 * kFrame + 11 * kSecond), 100);
    EXPECT_EQ(at(2 * kFrame + 12 * kSecond), 1100);
    // Start-up again: nothing is rounded.
    EXPECT_EQ(at(2 * kFrame + 11 * kSecond + 89), 100);
    // And back.
    updateAt(200, 2 * kFrame);
    EXPECT_EQ(at(2 * kFrame), 200);
    EXPECT_EQ(at(2 * kFrame + kSecond), 1200);
}

TEST_F(TimestampExtrapolatorTest, CountsWholeSecondsOfAJump) {
    updateAt(0, 100 * kSecond);
    updateAt(40, 100 * kSecond + kFrame);
    updateAt(80, 111 * kSecond + kFrame - 1);  // 10.99 s
    // Not a new first time stamp: the line now passes between the points.
    EXPECT_EQ(at(100 * kSecond), 13);
    EXPECT_EQ(at(111 * kSecond), 93);
    // Back by the same: reordered, so nothing changes.
    updateAt(120, 100 * kSecond + kFrame);
    EXPECT_EQ(at(100 * kSecond), 13);
}

TEST_F(TimestampExtrapolatorTest, StartsOverAfterASilenceOfMoreThan10000Seconds) {
    updateAt(0, 5 * kSecond);
    updateAt(40, 5 * kSecond + kFrame);
    updateAt(10'000'041, 5 * kSecond + 2 * kFrame);
    EXPECT_EQ(at(5 * kSecond + 2 * kFrame), 10'000'041);
    EXPECT_EQ(at(6 * kSecond + 2 * kFrame), 10'001'041);
}

TEST_F(TimestampExtrapolatorTest, GoesOnAfterASilenceOf10000Seconds) {
    updateAt(0, 5 * kSecond);
    updateAt(40, 5 * kSecond + kFrame);
    updateAt(10'000'040, 5 * kSecond + 2 * kFrame);
    EXPECT_EQ(at(5 * kSecond), 0);  // still the first one: the line has fallen flat
}

TEST_F(TimestampExtrapolatorTest, MeasuresTheSilenceFromReorderedPacketsToo) {
    updateAt(0, 5 * kSecond);
    updateAt(40, 5 * kSecond + kFrame);
    updateAt(9'000'000, 5 * kSecond);
    updateAt(18'000'000, 5 * kSecond);
    updateAt(18'000'040, 5 * kSecond + kFrame - 1);
    EXPECT_EQ(at(5 * kSecond), 0);
    EXPECT_EQ(at(6 * kSecond), 1000);
}

TEST_F(TimestampExtrapolatorTest, KeepsItsLineWhenTheWallClockIsSetBack) {
    updateAt(0, 5 * kSecond);
    updateAt(40, 5 * kSecond + kFrame);
    updateAt(-1000, 5 * kSecond - 1);
    EXPECT_EQ(at(5 * kSecond), 0);
    EXPECT_EQ(at(6 * kSecond), 1000);
}

TEST_F(TimestampExtrapolatorTest, ForgetsAllButTheFrequencyOnReset) {
    updateAt(0, 5 * kSecond);
    updateAt(40, 5 * kSecond + kFrame);
    extrapolator_.reset(kStart + 1000);
    EXPECT_EQ(extrapolator_.extrapolateLocalTime(5 * kSecond), -1);
    updateAt(1500, 700 * kSecond);
    EXPECT_EQ(at(700 * kSecond), 1500);
    EXPECT_EQ(at(701 * kSecond), 2500);
    updateAt(1540, 700 * kSecond + kFrame);
    EXPECT_EQ(at(700 * kSecond), 1500);
    EXPECT_EQ(at(4300 * kSecond), 3601500);
}

TEST_F(TimestampExtrapolatorTest, LaysTheLineThroughTheFirstTimeStampHoweverLateItComes) {
    extrapolator_.reset(kStart);
    updateAt(9'000'000, 700 * kSecond);
    updateAt(9'000'040, 700 * kSecond + kFrame);
    EXPECT_EQ(at(700 * kSecond), 9'000'000);
    EXPECT_EQ(at(4300 * kSecond), 12'600'000);
}

TEST_F(TimestampExtrapolatorTest, ForgetsNothingOnInit) {
    updateAt(0, 5 * kSecond);
    updateAt(40, 5 * kSecond + kFrame);
    extrapolator_.init(45000);
    EXPECT_EQ(at(6 * kSecond), 1000);
    // The new frequency reads time stamps in milliseconds at once.
    EXPECT_EQ(extrapolator_.extrapolateLocalTimeMs(12000), kStart + 1000);
}

TEST_F(TimestampExtrapolatorTest, AnswersMinusOneForANegativeLocalTime) {
    extrapolator_.init(1000);
    FakeTime::setNowMs(1000);
    extrapolator_.reset(1000);
    extrapolator_.update(5000);
    EXPECT_EQ(extrapolator_.extrapolateLocalTime(4000), 0);
    EXPECT_EQ(extrapolator_.extrapolateLocalTime(3999), -1);
    EXPECT_EQ(extrapolator_.extrapolateLocalTime(0), -1);
    FakeTime::setNowMs(1100);
    extrapolator_.update(5100);
    EXPECT_EQ(extrapolator_.extrapolateLocalTime(4000), 1);
    EXPECT_EQ(extrapolator_.extrapolateLocalTime(3999), 0);
    EXPECT_EQ(extrapolator_.extrapolateLocalTime(3998), -1);
    EXPECT_EQ(extrapolator_.extrapolateLocalTime(0), -1);
}

TEST_F(TimestampExtrapolatorTest, MultipliesMillisecondsBeforeItDivides) {
    extrapolator_.init(500);  // half a tick per millisecond
    updateAt(0, 0);
    EXPECT_EQ(extrapolator_.extrapolateLocalTimeMs(1), kStart);
    EXPECT_EQ(extrapolator_.extrapolateLocalTimeMs(3), kStart + 2);
    EXPECT_EQ(extrapolator_.extrapolateLocalTimeMs(-3), kStart - 2);
    EXPECT_EQ(extrapolator_.extrapolateLocalTimeMs(1000), kStart + 1000);
}

TEST_F(TimestampExtrapolatorTest, SurvivesTimeStampsOfAnySize) {
    constexpr int64_t kLowest = std::numeric_limits<int64_t>::min();
    constexpr int64_t kHighest = std::numeric_limits<int64_t>::max();
    const int64_t stamps[] = {0, kLowest, kHighest, -1, kLowest + 1, 1, kHighest, kHighest - 1, kLowest, kLowest};
    int64_t afterMs = 0;
    for (int64_t stamp : stamps) {
        updateAt(afterMs += 40, stamp);
        for (int64_t asked : stamps) {
            EXPECT_GE(extrapolator_.extrapolateLocalTime(asked), -1);
            EXPECT_GE(extrapolator_.extrapolateLocalTimeMs(asked), -1);
        }
    }
}

TEST_F(TimestampExtrapolatorTest, HasNoUsefulAnswerWithoutAFrequency) {
    TimestampExtrapolator extrapolator;
    extrapolator.update(100);
    EXPECT_EQ(extrapolator.extrapolateLocalTime(200), -1);
    FakeTime::advanceMs(40);
    extrapolator.update(100);
    EXPECT_EQ(extrapolator.extrapolateLocalTime(200), kStart);
}

TEST_F(TimestampExtrapolatorTest, IsAskedOnOneThreadWhileAnotherFeedsIt) {
    std::thread reader([&] {
        for (int i = 0; i < 3000; ++i) {
            FakeTime::advanceMs(40);
            extrapolator_.update(i % 1000 * kFrame);  // jumps back 40 s twice
        }
    });
    for (int i = 0; i < 3000; ++i) {
        EXPECT_GE(extrapolator_.extrapolateLocalTimeMs(i * 40), -1);
    }
    reader.join();
    EXPECT_EQ(extrapolator_.extrapolateLocalTime(999 * kFrame), kStart + 3000 * 40);
}

TEST_F(TimestampExtrapolatorTest, TellsHowFarPacketsComeBehindTheirTimes) {
    EXPECT_EQ(extrapolator_.delayMs(), 0);
    int64_t nowMs = 0;
    int64_t timestamp = 0;
    train(200, nowMs, timestamp);
    EXPECT_NEAR(extrapolator_.delayMs(), 0, 0.01);
    EXPECT_NEAR(extrapolator_.jitterMs(), 0, 0.01);
    updateAt(nowMs + 32, timestamp);
    EXPECT_NEAR(extrapolator_.delayMs(), 32, 0.5);
    EXPECT_NEAR(extrapolator_.jitterMs(), 2, 0.1);  // a sixteenth
    updateAt(nowMs + 40 - 16, timestamp + kFrame);
    EXPECT_NEAR(extrapolator_.delayMs(), -16, 1.0);
    EXPECT_NEAR(extrapolator_.jitterMs(), 2.9, 0.2);
    extrapolator_.reset(nowMs);
    EXPECT_EQ(extrapolator_.delayMs(), 0);
    EXPECT_EQ(extrapolator_.jitterMs(), 0);
}

}  // namespace
}  // namespace kelp
