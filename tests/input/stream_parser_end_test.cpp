// Errors of reading and the end of the input: what the parser forgives, tells and waits for.

#include <atomic>
#include <utility>

#include "input/stream_parser_read_fixture.h"

namespace kelp::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

TEST_F(StreamParserRead, ForgivesFiveErrorsInARow) {
    ASSERT_TRUE(open());
    script.key(0).error(AVERROR(EIO), 5).video(3600).error(AVERROR_INVALIDDATA, 5).video(7200);
    FakeTime::reset();
    runScript();
    EXPECT_THAT(observer->events(),
                ElementsAre("video 0 key", "first video 0", "video 3600 found", "video 7200 found"));
    EXPECT_THAT(FakeTime::sleeps(), Each(30));
    EXPECT_EQ(FakeTime::sleepCount(), 10);
    const auto lines = logLines("read failed");
    ASSERT_THAT(lines, SizeIs(11));
    EXPECT_EQ(lines[0], "Running... read failed, ret:-5, Input/output error, pb->eof_reached:0,error:0\n");
    EXPECT_EQ(lines[5],
              "Running... read failed, ret:-1094995529, Invalid data found when processing input, "
              "pb->eof_reached:0,error:0\n");
}

TEST_F(StreamParserRead, GivesUpAtTheSixthErrorInARow) {
    ASSERT_TRUE(open());
    observer->videoPackets_ = 1;
    script.key(0).error(AVERROR(EIO), 6).video(3600);
    startStepping();
    step(150);
    EXPECT_THAT(FakeTime::sleeps(), ElementsAre(30, 30, 30, 30, 30, 100));
    step(500);
    EXPECT_THAT(observer->events(), ElementsAre("video 0 key", "first video 0"));
    observer->videoPackets_ = 0;
    step(500);
    EXPECT_THAT(observer->events(), ElementsAre("video 0 key", "first video 0", "failed"));
    EXPECT_EQ(script.reads(), 7);
    EXPECT_THAT(logLines("end of file"), IsEmpty());
}

TEST_F(StreamParserRead, DoesNotFailWhilePaused) {
    ASSERT_TRUE(open());
    countPauses();
    script.error(AVERROR(EIO), 6);
    parser->pause(true);
    startStepping();
    step(1000);
    EXPECT_EQ(observer->count("failed"), 0);
    parser->pause(false);
    step(100);
    EXPECT_EQ(observer->count("failed"), 1);
    EXPECT_EQ(observer->count("completed"), 0);
}

TEST_F(StreamParserRead, PollsASourceThatHasNothingYet) {
    ASSERT_TRUE(open());
    FakeTime::reset();
    script.error(AVERROR(EAGAIN), 50).key(0);
    runScript();
    EXPECT_THAT(observer->events(), ElementsAre("video 0 key", "first video 0"));
    EXPECT_THAT(FakeTime::sleeps(), Each(30));
    EXPECT_EQ(FakeTime::sleepCount(), 50);
}

TEST_F(StreamParserRead, CountsErrorsOverAPoll) {
    ASSERT_TRUE(open());
    script.error(AVERROR(EIO), 5).error(AVERROR(EAGAIN), 3).error(AVERROR(EIO)).video(0);
    startStepping();
    step(1000);
    EXPECT_THAT(observer->events(), ElementsAre("failed"));
    EXPECT_EQ(script.reads(), 9);
}

TEST_F(StreamParserRead, LogsAndClearsTheStateOfTheBytes) {
    ASSERT_TRUE(open());
    AVFormatContext* context = nullptr;
    hooks().readFrame = [&](AVFormatContext* opened, AVPacket* packet) {
        if (!std::exchange(context, opened)) {
            opened->pb->eof_reached = 1;
            opened->pb->error = -5;
            return AVERROR(EIO);
        }
        if (opened->pb->error != 0) {
            av_new_packet(packet, 1);
            packet->stream_index = 1;
            return 0;
        }
        parser->requestStop();
        return AVERROR(EAGAIN);
    };
    ASSERT_TRUE(parser->start());
    ASSERT_TRUE(observer->waitFor("first audio 0"));
    parser->stop();
    EXPECT_THAT(logLines("read failed").at(0), testing::EndsWith("pb->eof_reached:1,error:-5\n"));
    EXPECT_EQ(context->pb->eof_reached, 0);
    EXPECT_EQ(context->pb->error, 0);
}

TEST_F(StreamParserRead, LogsZeroesWithoutBytes) {
    SyntheticInput input;
    input.hasPb = false;
    ASSERT_TRUE(open(input));
    script.error(AVERROR(EIO)).audio(0);
    runScript();
    EXPECT_THAT(logLines("read failed").at(0), testing::EndsWith("pb->eof_reached:0,error:0\n"));
    EXPECT_EQ(observer->count("audio 0"), 1);
}

TEST_F(StreamParserRead, EndsAFile) {
    ASSERT_TRUE(open());
    script.key(0).audio(0).endOfFile().video(3600);
    startStepping();
    EXPECT_THAT(observer->events(),
                ElementsAre("video 0 key", "first video 0", "audio 0", "end found", "file end 0 0", "completed"));
    const auto end = observer->videoPackets().at(1);
    EXPECT_EQ(end->data, nullptr);
    EXPECT_EQ(end->size, 0);
    EXPECT_FALSE(end->flush);
    EXPECT_TRUE(end->foundKeyFrame);
    step(1000);
    EXPECT_EQ(observer->count("completed"), 1);
    EXPECT_EQ(script.reads(), 3);
    EXPECT_EQ(FakeTime::sleepCount(), 1);
    EXPECT_THAT(logLines("end of file"), ElementsAre("Running... end of file, foundKeyFrame_:1, stopRequested:0\n"));
}

// Or a seek behind the end would skip the very last one as well.
TEST_F(StreamParserRead, TellsTheLastTimesBeforeTheLastPicturesComeOut) {
    ASSERT_TRUE(open());
    observer->recordLastTimes = true;
    script.key(0).video(3600).audio(0).endOfFile();
    startStepping();
    EXPECT_THAT(observer->events(), ElementsAre("video 0 key", "first video 0", "video 3600 found", "audio 0",
                                                "last times 40 0", "end found", "file end 40 0", "completed"));
}

TEST_F(StreamParserRead, EndsAFileBeforeAnyKeyFrame) {
    ASSERT_TRUE(open());
    script.video(0).endOfFile();
    startStepping();
    EXPECT_THAT(observer->events(), ElementsAre("end", "file end -1 -1", "completed"));
    EXPECT_FALSE(observer->videoPackets().at(0)->foundKeyFrame);
    EXPECT_THAT(logLines("end of file"), ElementsAre("Running... end of file, foundKeyFrame_:0, stopRequested:0\n"));
}

TEST_F(StreamParserRead, EndsAudioWithoutAnEndPacket) {
    SyntheticInput input;
    input.streams = {audioStream()};
    ASSERT_TRUE(open(input));
    script.audio(44100, 0).endOfFile();
    startStepping();
    EXPECT_THAT(observer->events(), ElementsAre("audio 44100", "first audio 44100", "file end -1 1000", "completed"));
}

TEST_F(StreamParserRead, CompletesWhenTheLastQueueIsEmpty) {
    ASSERT_TRUE(open());
    observer->videoPackets_ = observer->audioPackets_ = observer->videoFrames_ = observer->audioFrames_ = 1;
    script.endOfFile();
    startStepping();
    observer->recordPolls = true;
    observer->clearEvents();
    // Each queue is asked for when the ones before it are empty.
    const auto eventsOfAStep = [this] {
        observer->clearEvents();
        step(100);
        return observer->events();
    };
    EXPECT_THAT(eventsOfAStep(), ElementsAre("vq"));
    observer->videoPackets_ = 0;
    EXPECT_THAT(eventsOfAStep(), ElementsAre("vq", "aq"));
    observer->audioPackets_ = 0;
    EXPECT_THAT(eventsOfAStep(), ElementsAre("vq", "aq", "vf"));
    observer->videoFrames_ = 0;
    EXPECT_THAT(eventsOfAStep(), ElementsAre("vq", "aq", "vf", "af"));
    observer->audioFrames_ = 0;
    EXPECT_THAT(eventsOfAStep(), ElementsAre("vq", "aq", "vf", "af", "completed"));
    EXPECT_THAT(eventsOfAStep(), IsEmpty());
}

TEST_F(StreamParserRead, CompletesWhenTheLastPacketIsDecoded) {
    ASSERT_TRUE(open());
    observer->isDecoding_ = true;
    script.endOfFile();
    startStepping();
    step(1000);
    EXPECT_EQ(observer->count("completed"), 0);
    observer->isDecoding_ = false;
    step(100);
    EXPECT_EQ(observer->count("completed"), 1);
}

TEST_F(StreamParserRead, DoesNotCompleteWhilePaused) {
    ASSERT_TRUE(open());
    countPauses();
    script.endOfFile();
    parser->pause(true);
    startStepping();
    step(1000);
    EXPECT_EQ(observer->count("completed"), 0);
    parser->pause(false);
    step(100);
    EXPECT_EQ(observer->count("completed"), 1);
}

TEST_F(StreamParserRead, CompletesAgainAfterASeek) {
    ASSERT_TRUE(open());
    AVFormatContext* context = nullptr;
    hooks().seekFile = [&](AVFormatContext* sought, int, int64_t, int64_t, int64_t, int) {
        context = sought;
        EXPECT_EQ(sought->pb->eof_reached, 0);
        EXPECT_EQ(sought->pb->error, 0);
        return 0;
    };
    script.key(0).audio(0).endOfFile().video(3600).key(7200).endOfFile();
    auto read = std::function<int(AVFormatContext*, AVPacket*)>();
    script.install();
    read = hooks().readFrame;
    hooks().readFrame = [=](AVFormatContext* opened, AVPacket* packet) {
        const int result = read(opened, packet);
        opened->pb->eof_reached = result == AVERROR_EOF;
        opened->pb->error = result == AVERROR_EOF ? -1 : 0;
        return result;
    };
    FakeTime::setManual(true);
    ASSERT_TRUE(parser->start());
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    EXPECT_EQ(observer->count("completed"), 1);
    observer->clearEvents();
    parser->seek(1000);
    step(130);
    EXPECT_THAT(observer->events(), ElementsAre("seek start 1000", "seek completed", "video 7200 key",
                                                "first video 7200", "end found", "file end 80 0", "completed"));
    EXPECT_NE(context, nullptr);
    step(1000);
    EXPECT_EQ(observer->count("completed"), 1);
}

TEST_F(StreamParserRead, ComesBackToLifeAfterFailing) {
    ASSERT_TRUE(open());
    hooks().seekFile = [](AVFormatContext*, int, int64_t, int64_t, int64_t, int) { return 0; };
    script.error(AVERROR(EIO), 6).error(AVERROR(EIO), 5).key(0).endOfFile();
    startStepping();
    step(150);
    EXPECT_THAT(observer->events(), ElementsAre("failed"));
    parser->seek(0);
    // The five errors after it count from none, and what ends now is the file.
    step(1000);
    EXPECT_THAT(observer->events(), ElementsAre("failed", "seek start 0", "seek completed", "video 0 key",
                                                "first video 0", "end found", "file end 0 -1", "completed"));
}

TEST_F(StreamParserRead, StopsInTheWaitAfterTheEnd) {
    ASSERT_TRUE(open());
    script.endOfFile();
    startStepping();
    parser->stop();
    EXPECT_EQ(FakeTime::sleepCount(), 1);
    EXPECT_EQ(script.reads(), 1);
    EXPECT_EQ(logLines("Run exit...\n").size(), 1U);
}

TEST_F(StreamParserRead, DoesNotWaitAtTheEndWhenStopped) {
    ASSERT_TRUE(open());
    FakeTime::reset();
    script.key(0).then([this] { parser->requestStop(); }).endOfFile();
    script.install();
    ASSERT_TRUE(parser->start());
    ASSERT_TRUE(observer->waitFor("file end 0 -1"));
    parser->stop();
    EXPECT_THAT(observer->events(), ElementsAre("video 0 key", "first video 0", "end found", "file end 0 -1"));
    EXPECT_THAT(FakeTime::sleeps(), IsEmpty());
    EXPECT_THAT(logLines("end of file"), ElementsAre("Running... end of file, foundKeyFrame_:1, stopRequested:1\n"));
}

TEST_F(StreamParserRead, StopCutsABlockingReadShort) {
    ASSERT_TRUE(open());
    std::atomic<bool> inRead{false};
    hooks().readFrame = [&](AVFormatContext* context, AVPacket*) {
        inRead = true;
        while (!context->interrupt_callback.callback(context->interrupt_callback.opaque)) {
            std::this_thread::yield();
        }
        return AVERROR_EXIT;
    };
    ASSERT_TRUE(parser->start());
    while (!inRead) {
        std::this_thread::yield();
    }
    parser->stop();
    EXPECT_THAT(logLines("read failed"), SizeIs(1));
}

}  // namespace
}  // namespace kelp::test
