#include "clock/render_timing.h"

#include <gtest/gtest.h>

#include <thread>

#include "clock/timestamp_extrapolator.h"
#include "support/fake_time.h"

namespace kelp {
namespace {

using test::FakeTime;

class RenderTimingTest : public testing::Test {
protected:
    void SetUp() override {
        FakeTime::reset(1'700'000'000'000);
        extrapolator_.init(90000);
    }

    TimestampExtrapolator extrapolator_;
    RenderTiming timing_{&extrapolator_};
};

TEST_F(RenderTimingTest, KnowsNothingBeforeThePacketsOfALiveSource) {
    EXPECT_EQ(timing_.renderTime(0), -1);
    EXPECT_EQ(timing_.renderTime(5000), -1);
    timing_.setDecoderTimeMs(100);
    EXPECT_EQ(timing_.renderTime(5000), -1);
}

TEST_F(RenderTimingTest, AddsTenMillisecondsToTheLocalTime) {
    extrapolator_.update(90000);  // one second of the stream's time
    EXPECT_EQ(timing_.renderTime(1000), 1'700'000'000'010);
    EXPECT_EQ(timing_.renderTime(1500), 1'700'000'000'510);
    EXPECT_EQ(timing_.renderTime(400), 1'699'999'999'410);
}

TEST_F(RenderTimingTest, AddsTheDecodeTime) {
    extrapolator_.update(90000);
    timing_.setDecoderTimeMs(25);
    EXPECT_EQ(timing_.renderTime(1000), 1'700'000'000'035);
    timing_.setDecoderTimeMs(3);
    EXPECT_EQ(timing_.renderTime(1000), 1'700'000'000'013);
}

TEST_F(RenderTimingTest, KnowsNothingWhereTheLocalTimeWouldBeNegative) {
    FakeTime::setNowMs(1000);
    extrapolator_.reset(1000);
    extrapolator_.update(180000);  // two seconds of the stream's time
    timing_.setDecoderTimeMs(500);
    EXPECT_EQ(timing_.renderTime(1000), 510);
    EXPECT_EQ(timing_.renderTime(999), -1);
}

TEST_F(RenderTimingTest, ForgetsSourceAndDecodeTimeOnReset) {
    extrapolator_.update(90000);
    timing_.setDecoderTimeMs(25);
    timing_.reset();
    EXPECT_EQ(timing_.renderTime(1000), -1);
    extrapolator_.update(90000);
    EXPECT_EQ(timing_.renderTime(1000), 1'700'000'000'010);
}

TEST_F(RenderTimingTest, StartsTheLocalTimeAtItsReset) {
    // An update less than 10000 s after the reset doesn't start over. The time stamps hardly move, so the line falls
    // flat, and everything belongs to its origin.
    FakeTime::setNowMs(20'000'000);
    timing_.reset();
    for (int i = 0; i < 3; ++i) {
        FakeTime::setNowMs(29'999'999 + i * 500'000);
        extrapolator_.update(9'000'000 + i);
    }
    EXPECT_EQ(timing_.renderTime(0), 20'000'010);
}

TEST_F(RenderTimingTest, IsAskedOnOneThreadWhileOthersFeedIt) {
    FakeTime::setNowMs(1'700'000'000'000);
    extrapolator_.update(0);
    std::thread reader([&] {
        for (int i = 1; i < 2000; ++i) {
            extrapolator_.update(90 * i);
        }
    });
    std::thread decoder([&] {
        for (int i = 0; i < 2000; ++i) {
            timing_.setDecoderTimeMs(i % 50);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        EXPECT_GE(timing_.renderTime(i), -1);
    }
    reader.join();
    decoder.join();
    EXPECT_GE(timing_.renderTime(2000), 1'700'000'000'000);
}

}  // namespace
}  // namespace kelp
