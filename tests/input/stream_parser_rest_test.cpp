#include "input/stream_parser_fixture.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// What ends a rest of the parser before its time, with a clock that stands still.
class StreamParserRest : public StreamParserTest {
protected:
    StreamParserRest() {
        hooks().seekFile = [](AVFormatContext*, int, int64_t, int64_t, int64_t, int) { return 0; };
        hooks().readPause = [this](AVFormatContext*) { return ++pauses; };
        hooks().readPlay = [this](AVFormatContext*) { return ++plays; };
        observer->onEvent = [this](const std::string& event) {
            if (event.starts_with("seek start")) {
                observer->videoPackets_ = 0;
            }
        };
    }

    static bool isResting() { return FakeTime::waitForSleepers(1, 0); }

    int pauses = 0;  // written by the parser's thread, read while it rests
    int plays = 0;
};

TEST_F(StreamParserRest, OfAPauseEndsWithThePauseAndNotForASeek) {
    SyntheticInput input;
    input.formatName = "rtsp";
    ASSERT_TRUE(open(input));
    parser->pause(true);
    startStepping();
    parser->seek(1000);
    parser->pause(true);
    FakeTime::advanceMs(3'600'000);
    EXPECT_TRUE(isResting());
    EXPECT_EQ(FakeTime::sleepCount(), 1);
    EXPECT_THAT(observer->events(), IsEmpty());
    parser->pause(false);
    EXPECT_TRUE(observer->waitFor("seek start 1000"));
}

TEST_F(StreamParserRest, WhileTheQueuesAreFullEndsForASeekAndForAPausesChange) {
    ASSERT_TRUE(open());
    observer->videoPackets_ = 200;
    startStepping();
    parser->pause(false);
    EXPECT_TRUE(isResting());
    for (const bool paused : {true, false}) {
        parser->pause(paused);
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
        EXPECT_EQ(pauses, 1);
        EXPECT_EQ(plays, paused ? 0 : 1);
    }
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(100, 100, 100));
    parser->seek(1000);
    EXPECT_TRUE(observer->waitFor("seek completed"));
}

TEST_F(StreamParserRest, WhileTheQueuesAreFullEndsWhenTheyAreDownToAHalf) {
    ASSERT_TRUE(open());
    observer->videoPackets_ = 150;
    observer->audioPackets_ = 60;
    script.audio(0);
    startStepping();
    for (int taken = 0; taken < 109; ++taken) {
        --(taken % 3 == 0 ? observer->audioPackets_ : observer->videoPackets_);
        parser->packetTaken();
    }
    EXPECT_TRUE(isResting());
    EXPECT_EQ(FakeTime::sleepCount(), 1);
    --observer->videoPackets_;
    parser->packetTaken();
    EXPECT_TRUE(observer->waitFor("first audio 0"));
    EXPECT_EQ(FakeTime::nowMs(), 1'000'000);
}

TEST_F(StreamParserRest, AfterTheEndEndsForASeekAndForAPausesEnd) {
    ASSERT_TRUE(open());
    script.endOfFile().audio(0);
    observer->audioFrames_ = 1;
    parser->pause(true);
    startStepping();
    FakeTime::advanceMs(99);
    EXPECT_TRUE(isResting());
    FakeTime::advanceMs(1);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    parser->pause(false);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    parser->pause(true);
    EXPECT_TRUE(isResting());
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(100, 100, 100));
    observer->audioFrames_ = 0;
    FakeTime::advanceMs(100);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(observer->count("completed"), 0);
    const int64_t nowMs = FakeTime::nowMs();
    parser->pause(false);
    EXPECT_TRUE(observer->waitFor("completed"));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(FakeTime::nowMs(), nowMs);

    // There is nothing left to look for.
    const int64_t sleeps = FakeTime::sleepCount();
    parser->pause(true);
    parser->pause(false);
    FakeTime::advanceMs(3'600'000);
    EXPECT_TRUE(isResting());
    EXPECT_EQ(FakeTime::sleepCount(), sleeps);
    parser->seek(1000);
    // With what follows, the rest of a read that failed.
    EXPECT_TRUE(observer->waitFor("first audio 0"));
}

TEST_F(StreamParserRest, AfterAnErrorEndsForASeekAndNotForAPause) {
    ASSERT_TRUE(open());
    script.error(AVERROR(EAGAIN), 2).audio(0);
    startStepping();
    parser->pause(true);
    EXPECT_TRUE(isResting());
    FakeTime::advanceMs(29);
    EXPECT_TRUE(isResting());
    FakeTime::advanceMs(1);
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(30, 30));
    parser->seek(1000);
    EXPECT_TRUE(observer->waitFor("seek completed"));
    EXPECT_TRUE(observer->waitFor("first audio 0"));
}

TEST_F(StreamParserRest, UntilTheQueuesAreEmptyEndsForNoRequest) {
    ASSERT_TRUE(open());
    observer->audioPackets_ = 1;
    script.audio(0);
    parser->seek(1000);
    startStepping();
    parser->seek(2000);
    parser->pause(true);
    EXPECT_TRUE(isResting());
    FakeTime::advanceMs(29);
    EXPECT_TRUE(isResting());
    observer->audioPackets_ = 0;
    FakeTime::advanceMs(1);
    EXPECT_TRUE(observer->waitFor("seek start 2000"));
}

TEST_F(StreamParserRest, EndsForAStop) {
    const std::vector<std::function<void()>> ways{
        [&] { parser->pause(true); },                              // of a pause
        [&] { observer->videoPackets_ = 200; },                    // queues full
        [&] { script.endOfFile(); },                               // after the end
        [&] { script.error(AVERROR(EAGAIN)); },                    // after an error
        [&] { observer->audioPackets_ = 1, parser->seek(1000); },  // until the queues are empty
    };
    for (size_t i = 0; i < ways.size(); ++i) {
        FakeTime::reset();
        observer->videoPackets_ = observer->audioPackets_ = 0;
        SyntheticInput input;
        input.formatName = i == 0 ? "rtsp" : "matroska";
        ASSERT_TRUE(open(input));
        ways[i]();
        startStepping();
        EXPECT_EQ(FakeTime::sleepCount(), 1) << i;
        parser->stop();
        EXPECT_EQ(FakeTime::sleepCount(), 1) << i;
        EXPECT_EQ(FakeTime::nowMs(), 1'000'000) << i;
        parser->close();
    }
}

}  // namespace
}  // namespace kelp::test
