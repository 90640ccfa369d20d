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

TEST_F(StreamParserRest, WhileTheQueuesAreFullEndsForALoop) {
    ASSERT_TRUE(open());
    observer->videoPackets_ = 200;
    startStepping();
    for (const auto& loop : {std::optional(Loop{0, 2000}), std::optional<Loop>()}) {
        parser->setLoop(loop);
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
    }
    EXPECT_EQ(logLines("the loop has changed").size(), 2U);
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(100, 100, 100));
    EXPECT_EQ(FakeTime::nowMs(), 1'000'000);
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

class StreamParserAhead : public StreamParserRest {
protected:
    void openAhead(const std::string& path) {
        parser->setPlaybackOptions({.readAheadMs = 10'000});
        ASSERT_TRUE(open({}, path));
    }

    // Whether the demuxer is told to give up the first read, in which a seek comes. That one brings sound at 1 s, the
    // next one at 2 s.
    bool isReadBrokenOff(const PlaybackOptions& options, const std::string& path) {
        parser->setPlaybackOptions(options);
        EXPECT_TRUE(open({}, path));
        bool isBroken = false;
        hooks().readFrame = [&, reads = 0](AVFormatContext* context, AVPacket* packet) mutable {
            if (++reads > 2) {
                return AVERROR(EAGAIN);
            }
            if (reads == 1) {
                parser->seek(1000);
                isBroken = context->interrupt_callback.callback(context->interrupt_callback.opaque) != 0;
            }
            av_new_packet(packet, 4);
            packet->stream_index = 1;
            packet->pts = packet->dts = reads * 44100;
            return 0;
        };
        EXPECT_TRUE(parser->start());
        EXPECT_TRUE(observer->waitFor("audio 88200"));
        parser->stop();
        return isBroken;
    }
};

TEST_F(StreamParserAhead, ReadsARemoteSourceUntilSoMuchTimeWaits) {
    openAhead("http://127.0.0.1/film");
    observer->videoPackets_ = 5000;
    observer->waitingMs_ = 9999;
    script.audio(0).then([&] { observer->waitingMs_ = 10'000; }).audio(44100).audio(88200);
    EXPECT_FALSE(parser->isReading());
    startStepping();
    EXPECT_EQ(observer->count("audio 44100"), 1);
    EXPECT_EQ(observer->count("audio 88200"), 0);
    EXPECT_FALSE(parser->isReading());
    observer->waitingMs_ = 9999;
    FakeTime::advanceMs(100);
    EXPECT_TRUE(observer->waitFor("audio 88200"));
}

TEST_F(StreamParserAhead, ReadsNoFurtherThanMemoryAllows) {
    openAhead("http://127.0.0.1/film");
    observer->videoPackets_ = 10;
    observer->waitingBytes_ = ReadAhead::kMaxBytes;
    script.audio(0);
    startStepping();
    EXPECT_THAT(observer->events(), IsEmpty());
    observer->waitingBytes_ = ReadAhead::kMaxBytes - 1;
    FakeTime::advanceMs(100);
    EXPECT_TRUE(observer->waitFor("first audio 0"));
}

TEST_F(StreamParserAhead, ReadsAFileAsEver) {
    openAhead("film");
    observer->videoPackets_ = 200;
    script.audio(0);
    startStepping();
    EXPECT_THAT(observer->events(), IsEmpty());
}

TEST_F(StreamParserAhead, BreaksOffAReadForASeekAndDropsWhatItBrought) {
    EXPECT_TRUE(isReadBrokenOff({.rebufferMs = 1000}, "http://127.0.0.1/film"));
    EXPECT_EQ(observer->count("audio 44100"), 0);
    EXPECT_EQ(observer->count("seek completed"), 1);
    EXPECT_THAT(logLines("Immediate exit"), IsEmpty());
}

TEST_F(StreamParserAhead, BreaksOffNoReadWhereThatIsNotWanted) {
    EXPECT_FALSE(isReadBrokenOff({}, "http://127.0.0.1/film"));
    EXPECT_EQ(observer->count("audio 44100"), 1);
}

TEST_F(StreamParserAhead, BreaksOffNoReadOfAFile) {
    EXPECT_FALSE(isReadBrokenOff({.readAheadMs = 10'000, .rebufferMs = 1000}, "film"));
    EXPECT_EQ(observer->count("audio 44100"), 1);
}

TEST_F(StreamParserAhead, IsNotReadingBehindTheEnd) {
    openAhead("http://127.0.0.1/film");
    script.audio(0).then([&] { EXPECT_TRUE(parser->isReading()); }).endOfFile();
    observer->audioFrames_ = 1;
    startStepping();
    EXPECT_FALSE(parser->isReading());
    EXPECT_EQ(observer->count("completed"), 0);
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

TEST_F(StreamParserRest, UntilTheQueuesAreEmptyEndsWhenTheLastPacketIsTaken) {
    ASSERT_TRUE(open());
    observer->audioPackets_ = 2;
    parser->seek(1000);
    startStepping();
    observer->audioPackets_ = 1;
    parser->packetTaken();
    EXPECT_TRUE(isResting());
    EXPECT_EQ(FakeTime::sleepCount(), 1);
    observer->audioPackets_ = 0;
    parser->packetTaken();
    EXPECT_TRUE(observer->waitFor("seek completed"));
    EXPECT_EQ(FakeTime::nowMs(), 1'000'000);
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
