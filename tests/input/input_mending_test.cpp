#include "input/input_mending.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

#include "input/demuxer_hooks.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

namespace kelp {
namespace {

struct FormatDeleter {
    void operator()(AVFormatContext* context) const { avformat_free_context(context); }
};

// An input of one stream, in ticks of a thousandth of a second.
class InputMendingTest : public testing::Test {
protected:
    InputMendingTest() : input_(avformat_alloc_context()), stream_(avformat_new_stream(input_.get(), nullptr)) {
        stream_->time_base = {1, 1000};
        stream_->r_frame_rate = {25, 1};
        input_->duration_estimation_method = AVFMT_DURATION_FROM_STREAM;
    }

    AVPacket packetAt(int64_t ms) {
        AVPacket packet{};
        packet.pts = packet.dts = ms;
        return packet;
    }

    int64_t filledTime(InputMending& mending, int64_t duration) {
        AVPacket packet = packetAt(AV_NOPTS_VALUE);
        packet.duration = duration;
        mending.fillTime(packet, *stream_, true);
        EXPECT_EQ(packet.pts, AV_NOPTS_VALUE);
        return packet.dts;
    }

    std::unique_ptr<AVFormatContext, FormatDeleter> input_;
    AVStream* stream_;  // input_'s
};

TEST_F(InputMendingTest, LetsPositionsBeginAtANegativeStart) {
    EXPECT_EQ(InputMending(false).originUs(-5000), 0);
    EXPECT_EQ(InputMending(true).originUs(-5000), -5000);
    EXPECT_EQ(InputMending(false).originUs(5000), 5000);
    EXPECT_EQ(InputMending(true).originUs(5000), 5000);
}

TEST_F(InputMendingTest, TakesTheStartOffADurationThatCountsFromZero) {
    input_->start_time = 36'000'000'000;
    input_->duration = 36'002'000'000;
    EXPECT_EQ(InputMending(true).durationUs(*input_), 2'000'000);
    EXPECT_EQ(InputMending(false).durationUs(*input_), 36'002'000'000);
    input_->duration_estimation_method = AVFMT_DURATION_FROM_PTS;
    EXPECT_EQ(InputMending(true).durationUs(*input_), 36'002'000'000);
}

TEST_F(InputMendingTest, KeepsADurationThatIsLikelyToCountFromTheStart) {
    input_->start_time = 10'000'000;
    for (const int64_t durationUs : {5'000'000, 60'000'000}) {
        input_->duration = durationUs;
        EXPECT_EQ(InputMending(true).durationUs(*input_), durationUs);
    }
}

TEST_F(InputMendingTest, WaitsTwoSecondsForAKeyFrameAndThenForNone) {
    InputMending mending(true);
    EXPECT_FALSE(mending.isShownUnmarked(packetAt(7000), *stream_));
    EXPECT_FALSE(mending.isShownUnmarked(packetAt(8999), *stream_));
    EXPECT_TRUE(mending.isShownUnmarked(packetAt(9000), *stream_));
    // Behind a seek.
    EXPECT_TRUE(mending.isShownUnmarked(packetAt(100), *stream_));
}

// What a decoder can't make sense of isn't shown before, as a key frame may come.
TEST_F(InputMendingTest, HopesForAKeyFrameForTenSeconds) {
    InputMending mending(true);
    EXPECT_FALSE(mending.isHopeless(packetAt(7000), *stream_));
    EXPECT_FALSE(mending.isHopeless(packetAt(16'999), *stream_));
    EXPECT_TRUE(mending.isHopeless(packetAt(17'000), *stream_));
    // Behind a seek.
    EXPECT_TRUE(mending.isHopeless(packetAt(100), *stream_));
    AVPacket key = packetAt(20'000);
    key.flags = AV_PKT_FLAG_KEY;
    EXPECT_FALSE(mending.isHopeless(key, *stream_));
    EXPECT_FALSE(mending.isHopeless(packetAt(40'000), *stream_));
    InputMending standard;
    EXPECT_FALSE(standard.isHopeless(packetAt(0), *stream_));
    EXPECT_FALSE(standard.isHopeless(packetAt(60'000), *stream_));
}

// A camera that is met between two key frames has these up to ten seconds apart.
TEST_F(InputMendingTest, WaitsLongerForThoseOfALiveSourceAndMendsNothingElse) {
    InputMending mending(true, /*isLive=*/true);
    EXPECT_FALSE(mending.isWanted());
    EXPECT_FALSE(mending.isShownUnmarked(packetAt(0), *stream_));
    EXPECT_FALSE(mending.keep(packetAt(0)));
    EXPECT_FALSE(mending.isShownUnmarked(packetAt(9999), *stream_));
    EXPECT_TRUE(mending.isShownUnmarked(packetAt(10'000), *stream_));
    EXPECT_TRUE(mending.isHopeless(packetAt(10'000), *stream_));
    InputMending standard(false, true);
    EXPECT_FALSE(standard.isShownUnmarked(packetAt(0), *stream_));
    EXPECT_FALSE(standard.isShownUnmarked(packetAt(60'000), *stream_));
}

TEST_F(InputMendingTest, WaitsForKeyFramesWhereThereAreSome) {
    InputMending mending(true);
    mending.setMarked();
    EXPECT_FALSE(mending.isShownUnmarked(packetAt(0), *stream_));
    EXPECT_FALSE(mending.isShownUnmarked(packetAt(60'000), *stream_));
    InputMending standard;
    EXPECT_FALSE(standard.isShownUnmarked(packetAt(0), *stream_));
    EXPECT_FALSE(standard.isShownUnmarked(packetAt(60'000), *stream_));
}

TEST_F(InputMendingTest, WaitsByTheTimesOfDecoding) {
    InputMending mending(true);
    AVPacket packet = packetAt(9000);
    packet.dts = 7000;
    EXPECT_FALSE(mending.isShownUnmarked(packet, *stream_));
    packet.dts = AV_NOPTS_VALUE;
    EXPECT_TRUE(mending.isShownUnmarked(packet, *stream_)) << "there is no other time";
}

TEST_F(InputMendingTest, SeeksAheadOfAPlaceWhereNoPictureIsAKeyFrame) {
    std::vector<std::pair<int64_t, int>> calls;
    int failures = 0;
    test::hooks().seekFile = [&](AVFormatContext*, int, int64_t, int64_t ts, int64_t maxTs, int flags) {
        EXPECT_EQ(maxTs, 40'000'000);
        calls.emplace_back(ts, flags);
        return std::ssize(calls) <= failures ? -1 : 0;
    };
    const auto placesFor = [&](InputMending& mending, int64_t targetUs) {
        calls.clear();
        EXPECT_EQ(mending.seek(input_.get(), targetUs, 40'000'000), 0);
        return calls;
    };
    using Places = std::vector<std::pair<int64_t, int>>;
    InputMending mending(true);
    EXPECT_EQ(placesFor(mending, 30'000'000), (Places{{30'000'000, 0}}));
    mending.isShownUnmarked(packetAt(0), *stream_);
    mending.isShownUnmarked(packetAt(2000), *stream_);
    EXPECT_EQ(placesFor(mending, 30'000'000), (Places{{20'000'000, AVSEEK_FLAG_ANY}}));
    EXPECT_EQ(placesFor(mending, 3'000'000), (Places{{0, AVSEEK_FLAG_ANY}}));
    input_->start_time = 1'000'000;
    EXPECT_EQ(placesFor(mending, 3'000'000), (Places{{1'000'000, AVSEEK_FLAG_ANY}}));
    failures = 1;
    EXPECT_EQ(placesFor(mending, 30'000'000), (Places{{20'000'000, AVSEEK_FLAG_ANY}, {30'000'000, 0}}));
    test::resetHooks();
}

TEST_F(InputMendingTest, BelievesAnIndexThatHasNoKeyFrame) {
    ASSERT_GE(av_add_index_entry(stream_, 0, 0, 1, 0, 0), 0);
    EXPECT_TRUE(InputMending(true).isShownUnmarked(packetAt(0), *stream_));
    ASSERT_GE(av_add_index_entry(stream_, 9, 40, 1, 0, AVINDEX_KEYFRAME), 0);
    EXPECT_FALSE(InputMending(true).isShownUnmarked(packetAt(0), *stream_));
}

TEST_F(InputMendingTest, GivesPacketsWithoutTimesThoseAtWhichTheOnesBeforeEnd) {
    InputMending mending(true);
    EXPECT_EQ(filledTime(mending, 30), 0);
    EXPECT_EQ(filledTime(mending, 0), 30);  // as long as the rate says
    EXPECT_EQ(filledTime(mending, 30), 70);
    AVPacket packet = packetAt(500);
    packet.duration = 20;
    mending.fillTime(packet, *stream_, true);
    EXPECT_EQ(packet.dts, 500);
    EXPECT_EQ(filledTime(mending, 30), 520);
    InputMending standard;
    EXPECT_EQ(filledTime(standard, 30), AV_NOPTS_VALUE);
}

TEST_F(InputMendingTest, TellsAPictureWhoseTimeIsThatOfItsDecoding) {
    for (const bool isWanted : {true, false}) {
        InputMending mending(isWanted);
        const auto isTimedByOrder = [&](int64_t pts, int64_t dts, bool isVideo = true) {
            AVPacket packet = packetAt(pts);
            packet.dts = dts;
            mending.fillTime(packet, *stream_, isVideo);
            return mending.isTimedByOrder(packet);
        };
        EXPECT_EQ(isTimedByOrder(AV_NOPTS_VALUE, AV_NOPTS_VALUE), isWanted);
        EXPECT_EQ(isTimedByOrder(80, 80), isWanted);
        EXPECT_FALSE(isTimedByOrder(80, 0));
        EXPECT_FALSE(isTimedByOrder(80, AV_NOPTS_VALUE));
        EXPECT_FALSE(isTimedByOrder(AV_NOPTS_VALUE, 80));
    }
    InputMending live(true, /*isLive=*/true);
    EXPECT_FALSE(live.isTimedByOrder(packetAt(80)));
}

}  // namespace
}  // namespace kelp
