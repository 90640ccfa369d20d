// When the parser's read loop holds still: full queues, and a pause of files and of live sources.

#include "input/stream_parser_read_fixture.h"

namespace kelp::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

// Back-pressure.

TEST_F(StreamParserRead, AsksForTheQueueSizesOnEveryPass) {
    ASSERT_TRUE(open());
    observer->recordPolls = true;
    script.audio(0).error(AVERROR(EAGAIN));
    runScript();
    EXPECT_THAT(observer->events(), ElementsAre("vq", "aq", "vf", "af", "audio 0", "first audio 0", "vq", "aq", "vf",
                                                "af", "vq", "aq", "vf", "af"));
}

TEST_F(StreamParserRead, ReadsBelow200QueuedPacketsOnly) {
    ASSERT_TRUE(open());
    observer->videoPackets_ = 150;
    observer->audioPackets_ = 49;
    observer->videoFrames_ = 1000;
    observer->audioFrames_ = 1000;
    script.key(0).then([] { ADD_FAILURE() << "read with full queues"; });
    observer->onEvent = [this](const std::string& event) {
        if (event == "video 0 key") {
            observer->audioPackets_ = 50;
        }
    };
    startStepping();
    EXPECT_EQ(script.reads(), 1);
    step(1000);
    EXPECT_EQ(script.reads(), 1);
    EXPECT_THAT(FakeTime::sleeps(), Each(100));
    EXPECT_EQ(FakeTime::sleepCount(), 11);
}

TEST_F(StreamParserRead, ReadsOnWhenTheQueuesFall) {
    ASSERT_TRUE(open());
    observer->videoPackets_ = 200;
    script.key(0).then([this] { observer->videoPackets_ = 0; }).audio(0);
    startStepping();
    EXPECT_EQ(script.reads(), 0);
    observer->videoPackets_ = 199;
    FakeTime::advanceMs(99);
    EXPECT_EQ(script.reads(), 0);
    FakeTime::advanceMs(1);
    EXPECT_TRUE(observer->waitFor("first video 0"));
    EXPECT_TRUE(observer->waitFor("audio 0"));
}

TEST_F(StreamParserRead, ReadsAPausedFileUntilTheQueuesAreFull) {
    ASSERT_TRUE(open());
    countPauses();
    observer->onEvent = [this](const std::string& event) {
        if (event.starts_with("audio")) {
            ++observer->audioPackets_;
        }
    };
    for (int i = 0; i < 250; ++i) {
        script.audio(i);
    }
    parser->pause(true);
    startStepping();
    step(500);
    EXPECT_EQ(script.reads(), 200);
    EXPECT_THAT(FakeTime::sleeps(), Each(100));
    EXPECT_EQ(pauses, 1);
    EXPECT_EQ(plays, 0);
    parser->pause(false);
    step(500);
    EXPECT_EQ(pauses, 1);
    EXPECT_EQ(plays, 1);
    // A file goes on where it was.
    EXPECT_EQ(observer->count("flush"), 0);
}

// Pause and resume.

TEST_F(StreamParserRead, ReadsNothingOfAPausedRtspSource) {
    ASSERT_TRUE(open(inputNamed("rtsp")));
    countPauses();
    script.key(0).video(3600).then([this] { parser->pause(true); }).video(7200).video(10800);
    startStepping();
    step(1000);
    EXPECT_EQ(script.reads(), 3);
    EXPECT_EQ(pauses, 1);
    EXPECT_EQ(FakeTime::sleepCount(), 1);
    EXPECT_EQ(observer->count("video 7200 found"), 1);
}

TEST_F(StreamParserRead, DoesNotSeekWhileAnRtspSourceIsPaused) {
    ASSERT_TRUE(open(inputNamed("rtsp")));
    hooks().seekFile = [](AVFormatContext*, int, int64_t, int64_t, int64_t, int) { return 0; };
    script.key(0).video(3600);
    parser->pause(true);
    parser->seek(1000);
    startStepping();
    step(500);
    EXPECT_THAT(observer->events(), IsEmpty());
    parser->pause(false);
    FakeTime::setManual(false);
    EXPECT_TRUE(script.waitUntilDone());
    EXPECT_THAT(observer->events(), ElementsAre("flush", "seek start 1000", "seek completed", "video 0 key",
                                                "first video 0", "video 3600 found"));
}

TEST_F(StreamParserRead, HoldsAPausedMmsSourceThatHasBytes) {
    SyntheticInput input;
    ASSERT_TRUE(open(input, "mmsh://127.0.0.1/x"));
    script.audio(0);
    parser->pause(true);
    startStepping();
    step(200);
    EXPECT_EQ(script.reads(), 0);
    EXPECT_EQ(FakeTime::sleepCount(), 1);
}

TEST_F(StreamParserRead, ReadsOtherPausedSourcesOn) {
    for (const auto& [format, path, hasPb] : {std::tuple("sdp", "rtsp://127.0.0.1/x", true),
                                              {"asf", "mmsh://127.0.0.1/x", false},
                                              {"asf", "http://mmsh:/", true},
                                              {"mov,mp4", "film", true}}) {
        parser->close();
        observer->clearEvents();
        SyntheticInput input = inputNamed(format);
        input.hasPb = hasPb;
        ASSERT_TRUE(open(input, path));
        ReadScript own(*parser);
        own.audio(0).audio(1024);
        own.install();
        parser->pause(true);
        ASSERT_TRUE(parser->start());
        EXPECT_TRUE(own.waitUntilDone()) << format;
        parser->stop();
        EXPECT_EQ(own.reads(), 2) << format;
    }
}

TEST_F(StreamParserRead, RestartsALiveSourceAtAKeyFrame) {
    ASSERT_TRUE(open(inputNamed("sdp")));
    countPauses();
    script.key(0).video(3600);
    script.then([this] { parser->pause(true); }).video(7200);
    script.then([this] { parser->pause(false); }).video(10800).video(14400).audio(0).key(18000).video(21600);
    runScript();
    EXPECT_THAT(observer->events(),
                ElementsAre("video 0 key", "first video 0", "video 3600 found", "video 7200 found", "video 10800 found",
                            "flush", "audio 0", "video 18000 key", "video 21600 found"));
    EXPECT_EQ(pauses, 1);
    EXPECT_EQ(plays, 1);
    const auto flush = observer->videoPackets().at(4);
    EXPECT_TRUE(flush->flush);
    EXPECT_EQ(flush->data, nullptr);
    EXPECT_EQ(flush->size, 0);
}

TEST_F(StreamParserRead, RestartsLiveAudioAsItIs) {
    SyntheticInput input = inputNamed("sdp");
    input.streams = {audioStream()};
    ASSERT_TRUE(open(input));
    script.audio(0, 0).then([this] { parser->pause(true); }).audio(1, 0);
    script.then([this] { parser->pause(false); }).audio(2, 0).audio(3, 0);
    runScript();
    EXPECT_THAT(observer->events(), ElementsAre("audio 0", "first audio 0", "audio 1", "audio 2", "audio 3"));
}

TEST_F(StreamParserRead, ForgetsPauseAndTimesOnClose) {
    ASSERT_TRUE(open(inputNamed("sdp")));
    countPauses();
    script.key(90000).audio(88200).then([this] { parser->pause(true); }).audio(0).audio(1);
    runScript();
    EXPECT_EQ(pauses, 1);
    parser->close();
    observer->clearEvents();

    ASSERT_TRUE(open(inputNamed("sdp")));
    ReadScript second(*parser);
    second.video(0).audio(44100).endOfFile();
    second.install();
    ASSERT_TRUE(parser->start());
    ASSERT_TRUE(observer->waitFor("completed"));
    parser->stop();
    EXPECT_EQ(plays, 0);
    EXPECT_THAT(observer->events(),
                ElementsAre("audio 44100", "first audio 44100", "end", "file end -1 1000", "completed"));
}

TEST_F(StreamParserRead, TellsTheDemuxerOfAPauseOnce) {
    ASSERT_TRUE(open());
    countPauses();
    script.audio(0).then([this] {
        parser->pause(true);
        parser->pause(true);
    });
    script.audio(1).audio(2).then([this] {
        parser->pause(false);
        parser->pause(true);
    });
    script.audio(3).audio(4);
    runScript();
    EXPECT_EQ(pauses, 1);
    EXPECT_EQ(plays, 0);
}

}  // namespace
}  // namespace kelp::test
