#include <array>

#include "input/stream_parser_fixture.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// What reached avformat_seek_file.
struct SeekCall {
    int stream;
    int64_t minTs;
    int64_t ts;
    int64_t maxTs;
    int flags;

    bool operator==(const SeekCall&) const = default;
    friend void PrintTo(const SeekCall& call, std::ostream* out) {
        *out << "{" << call.ts << ", " << call.maxTs << "}";
    }
};

// With what doesn't change from seek to seek.
SeekCall seekCall(int64_t ts, int64_t maxTs) {
    return {-1, INT64_MIN, ts, maxTs, 0};
}

class StreamParserSeek : public StreamParserTest {
protected:
    StreamParserSeek() {
        hooks().seekFile = [this](AVFormatContext*, int stream, int64_t minTs, int64_t ts, int64_t maxTs, int flags) {
            calls.push_back({stream, minTs, ts, maxTs, flags});
            return seekResult;
        };
    }

    static SyntheticInput input(int64_t durationUs, int64_t startTimeUs = 0, const std::string& format = "matroska") {
        SyntheticInput made;
        made.formatName = format;
        made.durationUs = durationUs;
        made.startTimeUs = startTimeUs;
        return made;
    }

    // What one seek to `ms` asks of the demuxer.
    SeekCall callOf(const SyntheticInput& source, int ms) {
        parser->close();
        calls.clear();
        EXPECT_TRUE(open(source));
        ReadScript own(*parser);
        own.audio(0).then([this, ms] { parser->seek(ms); }).audio(1).audio(2);
        own.install();
        EXPECT_TRUE(parser->start());
        EXPECT_TRUE(own.waitUntilDone());
        parser->stop();
        EXPECT_EQ(calls.size(), 1U);
        return calls.empty() ? SeekCall() : calls.front();
    }

    // Where a seek to 30 s aims in an MPEG-TS file whose key frames were met at `keyFrames`, in ticks of 1:1000.
    int64_t tsTargetAfter(const std::vector<int64_t>& keyFrames) {
        parser->close();
        calls.clear();
        SyntheticInput source = input(60'000'000, 0, "mpegts");
        source.streams[0].timeBase = {1, 1000};
        EXPECT_TRUE(open(source));
        ReadScript own(*parser);
        for (const int64_t pts : keyFrames) {
            own.key(pts).video(pts + 10);
        }
        own.then([this] { parser->seek(30'000); }).audio(0).audio(1);
        own.install();
        EXPECT_TRUE(parser->start());
        EXPECT_TRUE(own.waitUntilDone());
        parser->stop();
        EXPECT_EQ(calls.size(), 1U);
        return calls.empty() ? -1 : calls.front().ts;
    }

    std::vector<SeekCall> calls;
    int seekResult = 0;
};

TEST_F(StreamParserSeek, AimsAtThePosition) {
    EXPECT_EQ(callOf(input(60'000'000), 30'000), seekCall(30'000'000, 30'000'000));
    EXPECT_EQ(callOf(input(60'000'000), 59'000), seekCall(59'000'000, 59'000'000));
    EXPECT_EQ(callOf(input(60'000'000), 0), seekCall(0, 0));
    EXPECT_EQ(observer->count("seek start 30000"), 1);
}

TEST_F(StreamParserSeek, NeverLandsInTheLastSecond) {
    // The limit is the position as it came.
    EXPECT_EQ(callOf(input(60'000'000), 59'500), seekCall(59'000'000, 59'500'000));
    EXPECT_EQ(observer->count("seek start 59500"), 1);
    EXPECT_EQ(callOf(input(60'000'000), 59'001), seekCall(59'000'000, 59'001'000));
}

TEST_F(StreamParserSeek, CutsAPositionBehindTheEnd) {
    EXPECT_EQ(callOf(input(60'000'000), 70'000), seekCall(59'000'000, 60'000'000));
    EXPECT_EQ(observer->count("seek start 60000"), 1);
    EXPECT_THAT(logLines("seek to"), ElementsAre("seek to 70000 ms\n", "seek to 60000000 us\n"));
}

TEST_F(StreamParserSeek, GoesToTheStartOfAShortInput) {
    EXPECT_EQ(callOf(input(500'000), 0), seekCall(0, 0));
    EXPECT_EQ(callOf(input(500'000), 300), seekCall(0, 300'000));
    EXPECT_EQ(callOf(input(500'000), 10'000), seekCall(0, 500'000));
    EXPECT_EQ(callOf(input(1), 10'000), seekCall(0, 1));
}

TEST_F(StreamParserSeek, CutsNothingWithoutADuration) {
    EXPECT_EQ(callOf(input(0), 70'000), seekCall(70'000'000, 70'000'000));
    EXPECT_EQ(callOf(input(-5), 70'000), seekCall(70'000'000, 70'000'000));
    EXPECT_EQ(callOf(input(AV_NOPTS_VALUE), 36'000'001), seekCall(35'999'000'000, 36'000'000'000));
}

TEST_F(StreamParserSeek, CountsFromTheStartOfTheInput) {
    EXPECT_EQ(callOf(input(60'000'000, 1'400'000), 30'000), seekCall(31'400'000, 31'400'000));
    // Here the limit follows the target.
    EXPECT_EQ(callOf(input(60'000'000, 1'400'000), 59'500), seekCall(60'400'000, 60'400'000));
    EXPECT_EQ(callOf(input(60'000'000, 1), 59'500), seekCall(59'000'001, 59'000'001));
    EXPECT_EQ(callOf(input(60'000'000, -23'000), 30'000), seekCall(30'000'000, 30'000'000));
}

TEST_F(StreamParserSeek, LogsItsWay) {
    SyntheticInput source = input(60'000'000, 1'400'000, "mpegts");
    EXPECT_EQ(callOf(source, 30'000), seekCall(21'400'000, 31'400'000));
    EXPECT_THAT(logLines("seek"),
                ElementsAre(testing::StartsWith("open filePath"), "seek to 30000 ms\n", "seek to 30000000 us\n",
                            "processSeekRequest, name:mpegts, seekPos:30000000, max key frame duration:0\n",
                            "processSeekRequest, use default seek reserved time 10s\n",
                            "processSeekRequest, seekPos:30000000, seekTarget:21400000\n"));
}

// MPEG-TS.

TEST_F(StreamParserSeek, AimsTenSecondsAheadWhileNoGapIsKnown) {
    const SyntheticInput source = input(60'000'000, 0, "mpegts");
    EXPECT_EQ(callOf(source, 25'000), seekCall(15'000'000, 25'000'000));
    EXPECT_EQ(callOf(source, 4000), seekCall(0, 4'000'000));
    EXPECT_EQ(callOf(source, 70'000), seekCall(49'000'000, 60'000'000));
}

TEST_F(StreamParserSeek, AimsAheadByTheMeasuredGap) {
    EXPECT_EQ(tsTargetAfter({0, 2000}), 28'000'000);
    EXPECT_EQ(logLines("max key frame duration").at(0),
              "processSeekRequest, name:mpegts, seekPos:30000000, max key frame duration:2000\n");
    EXPECT_THAT(logLines("use default"), IsEmpty());
}

TEST_F(StreamParserSeek, KeepsTheLargestGap) {
    EXPECT_EQ(tsTargetAfter({0, 500, 3500, 4000}), 27'000'000);
    EXPECT_EQ(tsTargetAfter({5000, 1000, 2000}), 29'000'000);
}

TEST_F(StreamParserSeek, BelievesGapsBelowFifteenSeconds) {
    EXPECT_EQ(tsTargetAfter({0, 1}), 29'999'000);
    EXPECT_EQ(tsTargetAfter({0, 14'999}), 15'001'000);
    EXPECT_EQ(tsTargetAfter({0, 15'000}), 20'000'000);
    EXPECT_EQ(tsTargetAfter({0, 60'000}), 20'000'000);
}

TEST_F(StreamParserSeek, MeasuresNoGapFromAKeyFrameWithoutTime) {
    EXPECT_EQ(tsTargetAfter({AV_NOPTS_VALUE, 2000}), 20'000'000);
    EXPECT_EQ(tsTargetAfter({0, AV_NOPTS_VALUE, 3000}), 20'000'000);
    EXPECT_EQ(tsTargetAfter({-3000, 2000}), 20'000'000);
}

TEST_F(StreamParserSeek, MeasuresGapsWithoutObserver) {
    parser->init(nullptr);
    EXPECT_EQ(tsTargetAfter({0, 2000}), 28'000'000);
}

TEST_F(StreamParserSeek, ForgetsTheGapOnClose) {
    EXPECT_EQ(tsTargetAfter({0, 2000}), 28'000'000);
    EXPECT_EQ(tsTargetAfter({4000}), 20'000'000);
}

TEST_F(StreamParserSeek, MeasuresNoGapAcrossASeek) {
    SyntheticInput source = input(60'000'000, 0, "mpegts");
    source.streams[0].timeBase = {1, 1000};
    ASSERT_TRUE(open(source));
    script.key(0).key(2000);
    script.then([this] { parser->seek(30'000); }).audio(0).key(30'000).key(31'000);
    script.then([this] { parser->seek(40'000); }).audio(1).audio(2);
    runScript();
    EXPECT_THAT(calls, ElementsAre(seekCall(28'000'000, 30'000'000), seekCall(38'000'000, 40'000'000)));
}

TEST_F(StreamParserSeek, AimsAtThePositionInMpegTsWithoutVideo) {
    SyntheticInput source = input(60'000'000, 0, "mpegts");
    source.streams = {audioStream(), audioStream()};
    EXPECT_EQ(callOf(source, 30'000), seekCall(30'000'000, 30'000'000));
}

TEST_F(StreamParserSeek, TakesNoOtherNameForMpegTs) {
    EXPECT_EQ(callOf(input(60'000'000, 0, "mpegtsraw"), 30'000), seekCall(30'000'000, 30'000'000));
    EXPECT_EQ(callOf(input(60'000'000, 0, "mpeg"), 30'000), seekCall(30'000'000, 30'000'000));
}

// The course of a seek.

TEST_F(StreamParserSeek, StartsAnewBehindIt) {
    ASSERT_TRUE(open(input(60'000'000)));
    script.key(0).video(3600).audio(0).then([this] { parser->seek(10'000); }).video(7200);
    script.audio(44100).video(900'000).key(903'600).video(907'200);
    runScript();
    EXPECT_THAT(observer->events(), ElementsAre("video 0 key", "first video 0", "video 3600 found", "audio 0",
                                                "video 7200 found", "seek start 10000", "seek completed", "audio 44100",
                                                "first audio 44100", "video 903600 key", "video 907200 found"));
}

TEST_F(StreamParserSeek, KeepsTheLargestTimesOfBefore) {
    ASSERT_TRUE(open(input(60'000'000)));
    script.key(900'000).then([this] { parser->seek(0); }).audio(44'100).key(0).endOfFile();
    startStepping();
    EXPECT_EQ(observer->count("file end 10000 1000"), 1);
}

TEST_F(StreamParserSeek, WantsNoKeyFrameInAudio) {
    SyntheticInput source = input(60'000'000);
    source.streams = {audioStream()};
    ASSERT_TRUE(open(source));
    script.audio(0, 0).then([this] { parser->seek(10'000); }).audio(1024, 0).audio(441'000, 0);
    runScript();
    EXPECT_THAT(observer->events(), ElementsAre("audio 0", "first audio 0", "audio 1024", "seek start 10000",
                                                "seek completed", "audio 441000", "first audio 441000"));
}

TEST_F(StreamParserSeek, GoesOnAfterAFailure) {
    seekResult = -1;
    ASSERT_TRUE(open(input(60'000'000)));
    script.key(0).then([this] { parser->seek(10'000); }).video(3600).video(7200).key(10'800);
    runScript();
    EXPECT_THAT(observer->events(), ElementsAre("video 0 key", "first video 0", "video 3600 found", "seek start 10000",
                                                "seek completed", "video 10800 key", "first video 10800"));
    EXPECT_THAT(logLines("seek failed"), ElementsAre("processSeekRequest, seek failed, ret:-1\n"));
}

TEST_F(StreamParserSeek, TakesTheNewestPositionOnly) {
    ASSERT_TRUE(open(input(60'000'000)));
    script.audio(0).then([this] {
        parser->seek(10'000);
        parser->seek(30'000);
        parser->seek(20'000);
    });
    script.audio(1).audio(2);
    runScript();
    EXPECT_THAT(calls, ElementsAre(seekCall(20'000'000, 20'000'000)));
}

TEST_F(StreamParserSeek, LosesNoRequestThatComesDuringASeek) {
    for (const std::string during : {"seek start 10000", "seek completed"}) {
        parser->close();
        observer->clearEvents();
        calls.clear();
        ASSERT_TRUE(open(input(60'000'000)));
        bool sought = false;
        observer->onEvent = [&](const std::string& event) {
            if (event == during && !std::exchange(sought, true)) {
                parser->seek(20'000);
            }
        };
        ReadScript own(*parser);
        own.then([this] { parser->seek(10'000); }).audio(0).audio(1).audio(2);
        own.install();
        ASSERT_TRUE(parser->start());
        ASSERT_TRUE(own.waitUntilDone());
        parser->stop();
        // The first one goes where it said.
        EXPECT_THAT(calls, ElementsAre(seekCall(10'000'000, 10'000'000), seekCall(20'000'000, 20'000'000))) << during;
        EXPECT_THAT(observer->events(),
                    ElementsAre("audio 0", "first audio 0", "seek start 10000", "seek completed", "audio 1",
                                "first audio 1", "seek start 20000", "seek completed", "audio 2", "first audio 2"))
            << during;
    }
}

TEST_F(StreamParserSeek, WaitsForBothPacketQueues) {
    ASSERT_TRUE(open(input(60'000'000)));
    observer->audioPackets_ = 3;
    observer->videoPackets_ = 2;
    observer->videoFrames_ = 1;
    parser->seek(10'000);
    script.audio(0).then([this] { parser->requestStop(); });
    startStepping();
    EXPECT_THAT(calls, SizeIs(1));
    step(60);
    observer->audioPackets_ = 0;
    step(30);
    EXPECT_EQ(observer->count("seek completed"), 0);
    EXPECT_THAT(logLines("waitQueueDrain"),
                ElementsAre("waitQueueDrain, aq:3, vq:2\n", "waitQueueDrain, aq:3, vq:2\n",
                            "waitQueueDrain, aq:3, vq:2\n", "waitQueueDrain, aq:0, vq:2\n"));
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(30, 30, 30, 30));
    EXPECT_EQ(script.reads(), 0);
    observer->videoPackets_ = 0;
    FakeTime::setManual(false);
    EXPECT_TRUE(observer->waitFor("first audio 0"));
}

TEST_F(StreamParserSeek, AsksForTheAudioQueueFirst) {
    ASSERT_TRUE(open(input(60'000'000)));
    observer->recordPolls = true;
    parser->seek(0);
    script.then([] {});
    runScript();
    EXPECT_THAT(observer->events(), ElementsAre("seek start 0", "aq", "vq", "seek completed", "vq", "aq", "vf", "af"));
}

TEST_F(StreamParserSeek, StopEndsTheWaitForTheQueues) {
    ASSERT_TRUE(open(input(60'000'000)));
    observer->audioPackets_ = 300;
    parser->seek(10'000);
    script.audio(0);
    startStepping();
    parser->stop();
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(30));
    EXPECT_THAT(observer->events(), ElementsAre("seek start 10000", "seek completed"));
    EXPECT_EQ(script.reads(), 0);
}

TEST_F(StreamParserSeek, DoesNotWaitForTheQueuesWhenStopped) {
    ASSERT_TRUE(open(input(60'000'000)));
    observer->audioPackets_ = 300;
    observer->onEvent = [this](const std::string& event) {
        if (event.starts_with("seek start")) {
            parser->requestStop();
        }
    };
    parser->seek(10'000);
    script.audio(0);
    script.install();
    ASSERT_TRUE(parser->start());
    EXPECT_TRUE(observer->waitFor("seek completed"));
    parser->stop();
    EXPECT_THAT(FakeTime::sleeps(), IsEmpty());
    EXPECT_EQ(observer->count("seek completed"), 1);
}

TEST_F(StreamParserSeek, ForgetsARequestOnClose) {
    ASSERT_TRUE(open(input(60'000'000)));
    parser->seek(10'000);
    parser->pause(true);
    parser->close();
    ASSERT_TRUE(open(input(60'000'000)));
    int pauses = 0;
    hooks().readPause = [&](AVFormatContext*) { return ++pauses; };
    script.audio(0);
    runScript();
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_EQ(pauses, 0);
}

}  // namespace
}  // namespace kelp::test
