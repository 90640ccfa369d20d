#include <gmock/gmock.h>

#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "decode/ff_video_decoder_fixture.h"

// What becomes of packets: order of the calls, times, latency, failures. The pictures are in another file.
namespace kelp {
namespace {

using test::FakeTime;
using test::makeEndPacket;
using test::makeFlushPacket;
using test::makePicture;
using test::makeVideoPacket;
using test::videoFakes;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr int64_t kStartMs = 1'000'000;

class FFVideoDecoderTest : public test::FFVideoDecoderFixture {
protected:
    void SetUp() override { openScripted(); }

    // A packet goes in at `sentMs`, its picture comes out at `readyMs`; the smoothed latency then.
    int64_t latencyAfter(int64_t sentMs, int64_t readyMs) {
        pts_ += 40;
        FakeTime::setNowMs(kStartMs + sentMs);
        send(pts_);
        FakeTime::setNowMs(kStartMs + readyMs);
        show(makePicture(pts_));
        return decoder_->getAvgDecodeTime();
    }

    // Whether the picture of this time is measured: a second in the decoder would move the latency.
    bool isMeasured(int64_t pts) {
        const int64_t before = decoder_->getAvgDecodeTime();
        FakeTime::advanceMs(before + 1000);
        show(makePicture(pts));
        return decoder_->getAvgDecodeTime() != before;
    }

    int64_t pts_ = 0;
};

TEST_F(FFVideoDecoderTest, SendsPacketsInMillisecondsWithoutACopy) {
    auto packet = makeVideoPacket(0, 3);
    std::memcpy(packet->data, "abc", 3);
    packet->pts = 900;
    packet->dts = 810;
    packet->duration = 179;
    packet->timeBaseNum = 1;
    packet->timeBaseDen = 90000;
    packet->pos = 4711;
    packet->flags = AV_PKT_FLAG_KEY;
    decoder_->insertPacket(packet.get());
    ASSERT_THAT(videoFakes().sent, SizeIs(1));
    const auto& sent = videoFakes().sent[0];
    EXPECT_EQ(sent.bytes, (std::vector<uint8_t>{'a', 'b', 'c'}));
    EXPECT_FALSE(sent.hasBuffer);
    EXPECT_EQ(sent.pts, 10);
    EXPECT_EQ(sent.dts, 9);
    EXPECT_EQ(sent.duration, 1);
    EXPECT_EQ(sent.pos, 4711);
    EXPECT_EQ(sent.flags, AV_PKT_FLAG_KEY);

    packet->timeBaseDen = 0;
    decoder_->insertPacket(packet.get());
    EXPECT_EQ(videoFakes().sent[1].pts, 900);
}

TEST_F(FFVideoDecoderTest, DeliversAllReadyPicturesBeforeItSends) {
    send(0);
    std::vector<size_t> deliveredAtSend;
    videoFakes().send = [&](const AVPacket*) {
        deliveredAtSend.push_back(observer_->frames.size());
        return 0;
    };
    videoFakes().pictures.push_back(makePicture(0));
    videoFakes().pictures.push_back(makePicture(40));
    send(80);
    EXPECT_THAT(deliveredAtSend, ElementsAre(2));
    EXPECT_THAT(observer_->times(), ElementsAre(0, 40));
}

TEST_F(FFVideoDecoderTest, DecodesNothingMoreOnceAPictureHasBroughtAStop) {
    observer_->stopsWhen = [this] { return !observer_->frames.empty(); };
    videoFakes().pictures.push_back(makePicture(0));
    videoFakes().pictures.push_back(makePicture(40));
    send(80);
    EXPECT_THAT(observer_->times(), ElementsAre(0));
    EXPECT_THAT(videoFakes().pictures, SizeIs(1));
    EXPECT_THAT(videoFakes().sent, IsEmpty());
}

TEST_F(FFVideoDecoderTest, CopiesNoPictureThatAStopHasWaitedFor) {
    observer_->stopsWhen = [] { return videoFakes().pictures.empty(); };
    videoFakes().pictures.push_back(makePicture(0));
    send(80);
    EXPECT_THAT(videoFakes().pictures, IsEmpty());
    EXPECT_THAT(observer_->sizesAsked, IsEmpty());
    EXPECT_THAT(observer_->frames, IsEmpty());
    EXPECT_THAT(videoFakes().sent, IsEmpty());
}

TEST_F(FFVideoDecoderTest, DeliversWhatAPacketBringsAtOnceWhereALowDelayIsWanted) {
    decoder_->close();
    decoder_ = std::make_shared<FFVideoDecoder>();
    decoder_->enableHardware(false, HW_DECODE_NONE);
    decoder_->setOptions({.lowLiveDelay = true});
    ASSERT_TRUE(open(VIDEO_CODEC_MPEG4, nullptr, true));
    script();
    videoFakes().send = [](const AVPacket* packet) {
        FakeTime::advanceMs(100);  // in which it is decoded
        videoFakes().pictures.push_back(makePicture(packet->pts));
        return 0;
    };
    for (const int64_t pts : {0, 40, 80}) {
        send(pts);
        ASSERT_FALSE(observer_->frames.empty());
        EXPECT_EQ(observer_->frames.back()->pts, pts);
    }
    EXPECT_THAT(observer_->times(), ElementsAre(0, 40, 80));
    EXPECT_GT(decoder_->getAvgDecodeTime(), 0);
}

TEST_F(FFVideoDecoderTest, FlushesTheCodecForAFlushPacketAndNothingElse) {
    send(0);
    videoFakes().calls.clear();
    videoFakes().sent.clear();
    videoFakes().pictures.push_back(makePicture(7));
    auto flush = makeFlushPacket();
    flush->pts = 500;
    flush->timeBaseDen = 1000;
    decoder_->insertPacket(flush.get());
    EXPECT_THAT(videoFakes().calls, ElementsAre("flush"));
    EXPECT_THAT(videoFakes().sent, IsEmpty());
    EXPECT_THAT(observer_->frames, IsEmpty());
    // The packet that was sent before is remembered, and this one isn't.
    EXPECT_TRUE(isMeasured(0));
    videoFakes().pictures.clear();
    EXPECT_FALSE(isMeasured(500));
}

TEST_F(FFVideoDecoderTest, KeepsLatencyFailuresAndTimesOverAFlushPacket) {
    EXPECT_EQ(latencyAfter(0, 100), 5);
    send(80);
    videoFakes().send = [](const AVPacket*) { return AVERROR_INVALIDDATA; };
    for (int i = 0; i < 100; ++i) {
        send(i);
    }
    log_.clear();
    decoder_->insertPacket(makeFlushPacket().get());
    EXPECT_THAT(log_.lines(), IsEmpty());
    EXPECT_EQ(decoder_->getAvgDecodeTime(), 5);
    send(0);
    EXPECT_EQ(observer_->failures, 1);
    // The first frame after it, too, lasts as long as the distance to the one before.
    script();
    show(makePicture(pts_ + 60));
    EXPECT_THAT(observer_->durations(), ElementsAre(40, 60));
}

TEST_F(FFVideoDecoderTest, FlushForgetsPacketsAndTimes) {
    send(0);
    send(40);
    show(makePicture(0));
    show(makePicture(60));
    EXPECT_THAT(observer_->durations(), ElementsAre(40, 60));
    log_.clear();
    videoFakes().calls.clear();
    decoder_->flush();
    EXPECT_THAT(videoFakes().calls, ElementsAre("flush"));
    EXPECT_THAT(log_.lines(), ElementsAre("[FFVideoDecoder]: flush\n"));
    EXPECT_FALSE(isMeasured(40));
    // The first frame has the default, the second the real distance.
    show(makePicture(65));
    EXPECT_THAT(observer_->durations(), ElementsAre(40, 60, 40, 25));
}

TEST_F(FFVideoDecoderTest, FlushKeepsLatencyAndFailures) {
    EXPECT_EQ(latencyAfter(0, 100), 5);
    // Showing a picture was a failure too; a good send starts afresh.
    send(80);
    videoFakes().send = [](const AVPacket*) { return AVERROR_INVALIDDATA; };
    for (int i = 0; i < 100; ++i) {
        send(i);
    }
    decoder_->flush();
    EXPECT_EQ(decoder_->getAvgDecodeTime(), 5);
    send(0);
    EXPECT_EQ(observer_->failures, 1);
}

TEST_F(FFVideoDecoderTest, DrainsTheCodecAtTheEnd) {
    log_.clear();
    videoFakes().pictures.push_back(makePicture(0));
    videoFakes().pictures.push_back(makePicture(40));
    decoder_->insertPacket(makeEndPacket(true).get());
    ASSERT_THAT(videoFakes().sent, SizeIs(1));
    EXPECT_TRUE(videoFakes().sent[0].end);
    EXPECT_THAT(observer_->times(), ElementsAre(0, 40));
    EXPECT_EQ(observer_->noMoreFrames, 0);
    EXPECT_THAT(log_.lines(), ElementsAre("[FFVideoDecoder]: insertPacket meet end packet\n",
                                          "[FFVideoDecoder]: insertPacket foundKeyFrame:1\n"));
}

TEST_F(FFVideoDecoderTest, SaysThatNoPictureWillComeWithoutAKeyFrame) {
    videoFakes().send = [](const AVPacket*) { return AVERROR_EOF; };
    log_.clear();
    decoder_->insertPacket(makeEndPacket(false).get());
    EXPECT_EQ(observer_->noMoreFrames, 1);
    EXPECT_TRUE(log_.has("[FFVideoDecoder]: insertPacket foundKeyFrame:0\n"));
    // The result of the end is of no interest.
    EXPECT_EQ(observer_->failures, 0);
    for (int i = 0; i < 200; ++i) {
        decoder_->insertPacket(makeEndPacket(true).get());
    }
    EXPECT_EQ(observer_->failures, 0);
    EXPECT_EQ(observer_->noMoreFrames, 1);
}

TEST_F(FFVideoDecoderTest, ForgivesAHundredFailuresBeforeAGoodSend) {
    for (int round = 0; round < 3; ++round) {
        videoFakes().send = [](const AVPacket*) { return AVERROR(EAGAIN); };
        for (int i = 0; i < 100; ++i) {
            send(i);
        }
        videoFakes().send = [](const AVPacket*) { return 0; };
        send(100);
    }
    EXPECT_EQ(observer_->failures, 0);
    EXPECT_FALSE(log_.has("notify"));
    // Each was sent once.
    EXPECT_THAT(videoFakes().sent, SizeIs(303));
}

TEST_F(FFVideoDecoderTest, ReportsEvery101stFailureInARow) {
    videoFakes().send = [](const AVPacket*) { return AVERROR_INVALIDDATA; };
    std::vector<int> reports;
    for (int i = 1; i <= 202; ++i) {
        const int before = observer_->failures;
        send(i);
        if (observer_->failures != before) {
            reports.push_back(i);
        }
    }
    EXPECT_THAT(reports, ElementsAre(101, 202));
    EXPECT_EQ(observer_->failures, 2);
    EXPECT_EQ(log_.count("[FFVideoDecoder]: notify onVideoDecodeFailed\n"), 2);
}

TEST_F(FFVideoDecoderTest, CountsFailuresAfreshAfterAClose) {
    videoFakes().send = [](const AVPacket*) { return AVERROR_INVALIDDATA; };
    for (int i = 0; i < 100; ++i) {
        send(i);
    }
    decoder_->close();
    videoFakes().send = nullptr;
    openScripted();
    videoFakes().send = [](const AVPacket*) { return AVERROR_INVALIDDATA; };
    send(100);
    EXPECT_EQ(observer_->failures, 0);
}

TEST_F(FFVideoDecoderTest, SmoothsTheLatency) {
    EXPECT_EQ(latencyAfter(0, 100), 5);
    EXPECT_EQ(latencyAfter(200, 305), 10);
    // Less than 20 ms away: no move.
    EXPECT_EQ(latencyAfter(400, 429), 10);
    EXPECT_EQ(latencyAfter(500, 530), 11);
    EXPECT_EQ(latencyAfter(600, 600), 11);
    // 30 ms below.
    EXPECT_EQ(latencyAfter(700, 681), 10);
    EXPECT_EQ(latencyAfter(1000, 11010), 510);
    EXPECT_EQ(latencyAfter(20000, 20000), 485);
}

TEST_F(FFVideoDecoderTest, KeepsTheLatencyOverAClose) {
    EXPECT_EQ(latencyAfter(0, 100), 5);
    decoder_->close();
    EXPECT_EQ(decoder_->getAvgDecodeTime(), 5);
}

TEST_F(FFVideoDecoderTest, MeasuresAPictureOnce) {
    send(0);
    EXPECT_TRUE(isMeasured(0));
    EXPECT_FALSE(isMeasured(0));
}

TEST_F(FFVideoDecoderTest, MeasuresFromTheLaterOfTwoPacketsOfOneTime) {
    send(0);
    FakeTime::advanceMs(100);
    send(0);
    FakeTime::advanceMs(19);
    show(makePicture(0));
    EXPECT_EQ(decoder_->getAvgDecodeTime(), 0);
}

TEST_F(FFVideoDecoderTest, MeasuresFromTheLaterOfTwoAlsoBehindAPicture) {
    send(0);
    send(40);
    show(makePicture(0));
    FakeTime::advanceMs(100);
    send(40);
    send(80);
    FakeTime::advanceMs(19);
    show(makePicture(40));
    EXPECT_EQ(decoder_->getAvgDecodeTime(), 0);
    EXPECT_TRUE(isMeasured(80));
    EXPECT_FALSE(isMeasured(40));
}

TEST_F(FFVideoDecoderTest, DoesNotMeasureAPacketThatFailed) {
    videoFakes().send = [](const AVPacket*) { return AVERROR_INVALIDDATA; };
    send(0);
    EXPECT_FALSE(isMeasured(0));
}

TEST_F(FFVideoDecoderTest, TakesTheBestEffortTimeWhereAPacketHadIt) {
    send(0);
    send(40);
    auto picture = makePicture(40);
    picture->best_effort_timestamp = 0;
    FakeTime::advanceMs(100);
    show(std::move(picture));
    EXPECT_THAT(observer_->times(), ElementsAre(0));
    EXPECT_EQ(decoder_->getAvgDecodeTime(), 5);
    EXPECT_FALSE(isMeasured(0));
    // The packet of the picture's own time is still to come out.
    EXPECT_TRUE(isMeasured(40));
}

TEST_F(FFVideoDecoderTest, TakesThePicturesTimeWhereOnlyThatWasSent) {
    send(40);
    auto picture = makePicture(40);
    picture->best_effort_timestamp = 111;
    FakeTime::advanceMs(100);
    show(std::move(picture));
    EXPECT_THAT(observer_->times(), ElementsAre(40));
    EXPECT_EQ(decoder_->getAvgDecodeTime(), 5);
}

TEST_F(FFVideoDecoderTest, TakesThePicturesTimeWhereNeitherWasSent) {
    send(40);
    auto picture = makePicture(50);
    picture->best_effort_timestamp = 111;
    FakeTime::advanceMs(100);
    show(std::move(picture));
    EXPECT_THAT(observer_->times(), ElementsAre(50));
    EXPECT_EQ(decoder_->getAvgDecodeTime(), 0);
}

TEST_F(FFVideoDecoderTest, RemembersAHundredAndOnePackets) {
    for (int i = 0; i <= 100; ++i) {
        send(i);
    }
    EXPECT_TRUE(isMeasured(0));
}

TEST_F(FFVideoDecoderTest, ForgetsThemAllWithTheNext) {
    for (int i = 0; i <= 101; ++i) {
        send(i);
    }
    EXPECT_FALSE(isMeasured(0));
    EXPECT_FALSE(isMeasured(100));
    EXPECT_TRUE(isMeasured(101));
}

TEST_F(FFVideoDecoderTest, RemembersPacketsFiveSecondsApart) {
    send(0);
    send(5000);
    EXPECT_TRUE(isMeasured(0));
}

TEST_F(FFVideoDecoderTest, ForgetsPacketsMoreThanFiveSecondsApart) {
    send(0);
    send(4000);
    send(5001);
    EXPECT_FALSE(isMeasured(0));
    EXPECT_FALSE(isMeasured(4000));
    EXPECT_TRUE(isMeasured(5001));
}

TEST_F(FFVideoDecoderTest, ForgetsPacketsAfterAJumpBack) {
    send(9000);
    send(8000);
    send(2999);
    EXPECT_FALSE(isMeasured(8000));
    EXPECT_TRUE(isMeasured(2999));
}

TEST_F(FFVideoDecoderTest, TakesAnyTimeOfADamagedStream) {
    for (const int64_t pts : {std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max(), int64_t{0},
                              std::numeric_limits<int64_t>::min()}) {
        auto packet = makeVideoPacket(pts);
        packet->timeBaseDen = 0;
        decoder_->insertPacket(packet.get());
        show(makePicture(pts));
    }
    EXPECT_THAT(observer_->frames, SizeIs(4));
    EXPECT_THAT(observer_->durations(), ElementsAre(40, 40, 40, 40));
}

TEST_F(FFVideoDecoderTest, GivesEachFrameTheDistanceToTheOneBefore) {
    for (const int64_t pts : {0, 40, 120, 270, 370, 370, 300, 301, 402}) {
        show(makePicture(pts));
    }
    // 150 ms are too long, 100 are not; a repeated time has none, and one that went back the default.
    EXPECT_THAT(observer_->durations(), ElementsAre(40, 40, 80, 40, 100, 0, 40, 1, 40));
}

TEST_F(FFVideoDecoderTest, StartsIntervalsAfreshAfterAFlush) {
    show(makePicture(0));
    show(makePicture(80));
    decoder_->flush();
    show(makePicture(90));
    show(makePicture(150));
    EXPECT_THAT(observer_->durations(), ElementsAre(40, 80, 40, 60));
}

TEST_F(FFVideoDecoderTest, MeasuresIntervalsBetweenDeliveredFramesOnly) {
    show(makePicture(0));
    observer_->refuseBuffers = true;
    show(makePicture(40));
    observer_->refuseBuffers = false;
    videoFakes().refuseScaler = [] { return true; };
    show(makePicture(60, 32, 32));
    videoFakes().refuseScaler = nullptr;
    show(makePicture(90));
    EXPECT_THAT(observer_->times(), ElementsAre(0, 90));
    EXPECT_THAT(observer_->durations(), ElementsAre(40, 90));
}

TEST_F(FFVideoDecoderTest, ReleasesEverythingOnceAndAgain) {
    show(makePicture(0));
    log_.clear();
    decoder_->close();
    EXPECT_THAT(log_.lines(), ElementsAre(testing::StartsWith("[FFVideoDecoder]: close, hwDeviceContext_:")));
    EXPECT_EQ(videoFakes().liveContexts, 0);
    decoder_->close();
    decoder_->flush();
    send(0);
}

// Real packets through the real codec, and into nothing: no interleaving of packets, seeks and ends may trip it.
TEST_F(FFVideoDecoderTest, SurvivesFlushesAndEndsAnywhere) {
    videoFakes() = {};
    decoder_->close();
    decoder_ = std::make_shared<FFVideoDecoder>();
    const auto stream = test::makeVideoStream("-c:v libx264 -bf 2 -g 5", "mp4", 64, 48, 20);
    videoFakes() = {};
    decoder_->enableHardware(false, HW_DECODE_NONE);
    ASSERT_TRUE(open(stream.codecType, stream.parameters.get()));
    unsigned int random = 1;
    size_t pictures = 0;
    for (int i = 0; i < 2000; ++i) {
        random = random * 1664525U + 1013904223U;
        const unsigned int what = (random >> 16) % 40;
        if (what == 0) {
            decoder_->flush();
        } else if (what == 1) {
            decoder_->insertPacket(makeFlushPacket().get());
        } else if (what == 2) {
            decoder_->insertPacket(makeEndPacket(random & 1).get());
        } else {
            auto packet = stream.packets[(random >> 8) % stream.packets.size()];
            decoder_->insertPacket(packet.get());
        }
        pictures += observer_->frames.size();
        observer_->frames.clear();
    }
    EXPECT_GT(pictures, 0U);
    EXPECT_EQ(observer_->tailsWrittenTo, 0);
}

}  // namespace
}  // namespace kelp
