#include <pthread.h>

#include <cstring>

#include "input/stream_parser_fixture.h"

namespace kelp::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class StreamParserRead : public StreamParserTest {
protected:
    static SyntheticInput inputNamed(const std::string& format) {
        SyntheticInput input;
        input.formatName = format;
        return input;
    }

    // As runScript, for a script that ends with the end of the file.
    void runToTheEnd() {
        observer->onEvent = [this](const std::string& event) {
            if (event == "completed") {
                parser->requestStop();
            }
        };
        script.install();
        ASSERT_TRUE(parser->start());
        ASSERT_TRUE(observer->waitFor("completed"));
        parser->stop();
    }

    // An input with one H.264 stream whose packets go through the filter.
    static SyntheticInput lengthPrefixedInput() {
        SyntheticInput input;
        input.streams = {videoStream()};
        input.streams[0].extraData = {1,    0x42, 0xC0, 0x0A, 0xFF, 0xE1, 0,    4,    0x67, 0x42,
                                      0xC0, 0x0A, 1,    0,    4,    0x68, 0xCE, 0x38, 0x80};
        return input;
    }

    // Counts the pauses and resumes that reach the demuxer.
    void countPauses() {
        hooks().readPause = [this](AVFormatContext*) {
            ++pauses;
            return 0;
        };
        hooks().readPlay = [this](AVFormatContext*) {
            ++plays;
            return 0;
        };
    }

    std::atomic<int> pauses{0};
    std::atomic<int> plays{0};
};

TEST_F(StreamParserRead, HandsPacketsOnInTheirOrder) {
    ASSERT_TRUE(open());
    script.key(0).audio(0).video(3600).audio(1024).key(7200);
    runScript();
    EXPECT_THAT(observer->events(), ElementsAre("video 0 key", "first video 0", "audio 0", "video 3600 found",
                                                "audio 1024", "video 7200 key found"));
}

TEST_F(StreamParserRead, RunsOnAThreadOfItsName) {
    ASSERT_TRUE(open());
    std::string name;
    observer->onEvent = [&](const std::string&) {
        char text[16] = {};
        pthread_getname_np(pthread_self(), text, sizeof(text));
        name = text;
    };
    script.key(0);
    runScript();
    EXPECT_EQ(name, "StreamParser");
    EXPECT_THAT(logLines("Run"),
                ElementsAre("Run...\n", testing::StartsWith("Running... read failed, ret:-11, "), "Run exit...\n"));
}

TEST_F(StreamParserRead, CopiesThePacket) {
    ASSERT_TRUE(open());
    const unsigned char* original = nullptr;
    script.packet([&](AVPacket* packet) {
        av_new_packet(packet, 5);
        std::memcpy(packet->data, "hello", 5);
        original = packet->data;
        packet->stream_index = 0;
        packet->pts = 7200;
        packet->dts = 3600;
        packet->duration = 1800;
        packet->pos = 123456;
        packet->flags = AV_PKT_FLAG_KEY | AV_PKT_FLAG_CORRUPT;
    });
    runScript();
    const auto packets = observer->videoPackets();
    ASSERT_THAT(packets, SizeIs(1));
    EXPECT_NE(packets[0]->data, original);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(packets[0]->data), packets[0]->size), "hello");
    EXPECT_EQ(packets[0]->pts, 7200);
    EXPECT_EQ(packets[0]->dts, 3600);
    EXPECT_EQ(packets[0]->duration, 1800);
    EXPECT_EQ(packets[0]->pos, 123456);
    EXPECT_EQ(packets[0]->timeBaseNum, 1);
    EXPECT_EQ(packets[0]->timeBaseDen, 90000);
    EXPECT_EQ(packets[0]->flags, AV_PKT_FLAG_KEY | AV_PKT_FLAG_CORRUPT);
    EXPECT_TRUE(packets[0]->keyFrame);
    EXPECT_FALSE(packets[0]->foundKeyFrame);
    EXPECT_FALSE(packets[0]->flush);
}

TEST_F(StreamParserRead, GivesAnEmptyPacketAPayloadOfNoBytes) {
    ASSERT_TRUE(open(lengthPrefixedInput()));
    for (const int64_t pts : {0, 3600}) {
        script.packet([=](AVPacket* packet) {
            packet->stream_index = 0;
            packet->pts = packet->dts = pts;
            packet->flags = AV_PKT_FLAG_KEY;
        });
    }
    script.packet([](AVPacket* packet) {
        av_new_packet(packet, 6);
        std::memcpy(packet->data, "\0\0\0\2\x41\x9A", 6);
        packet->stream_index = 0;
        packet->pts = packet->dts = 7200;
    });
    runScript();
    // Not taken for the end packet, by the observer or by the filter.
    EXPECT_THAT(observer->events(),
                ElementsAre("video 0 key", "first video 0", "video 3600 key found", "video 7200 found"));
    EXPECT_THAT(logLines("filter failed"), IsEmpty());
}

TEST_F(StreamParserRead, CountsTimesFromTheStartOfTheInput) {
    SyntheticInput input;
    input.startTimeUs = 1'000'000;
    ASSERT_TRUE(open(input));
    script.timed(0, 97200, 90000).timed(0, AV_NOPTS_VALUE, 93600).timed(0, 97200, AV_NOPTS_VALUE);
    script.timed(0, AV_NOPTS_VALUE, AV_NOPTS_VALUE).timed(1, 44100, 44000);
    runScript();
    std::vector<std::pair<int64_t, int64_t>> times;
    for (const auto& video : observer->videoPackets()) {
        times.emplace_back(video->pts, video->dts);
    }
    for (const auto& audio : observer->audioPackets()) {
        times.emplace_back(audio->pts, audio->dts);
    }
    using Times = std::pair<int64_t, int64_t>;
    EXPECT_THAT(times, ElementsAre(Times(7200, 0), Times(3600, 3600), Times(7200, -90000), Times(-90000, -90000),
                                   Times(0, -100)));
    EXPECT_EQ(observer->audioPackets().at(0)->timeBaseDen, 44100);
}

TEST_F(StreamParserRead, LetsPacketsWithoutTimesFollowThoseOfTheirOwnStream) {
    parser->setPlaybackOptions({.allCodecs = true});
    ASSERT_TRUE(open());
    script.timed(0, 0, 0, 3000).timed(1, 0, 0, 1024);
    for (const int stream : {0, 1, 1, 0}) {
        script.timed(stream, AV_NOPTS_VALUE, AV_NOPTS_VALUE, stream == 0 ? 3000 : 1024);
    }
    runScript();
    EXPECT_THAT(observer->events(), ElementsAre("video 0 key", "first video 0", "audio 0", "video 3000 key found",
                                                "audio 1024", "audio 2048", "video 6000 key found"));
}

TEST_F(StreamParserRead, BearsTimesOfAnySize) {
    SyntheticInput input;
    input.formatName = "mpegts";
    input.startTimeUs = INT64_MAX;
    input.streams[0].timeBase = {1 << 30, 1};
    ASSERT_TRUE(open(input));
    for (const int64_t pts : {INT64_MAX, INT64_MIN + 1, INT64_MAX, INT64_MIN, INT64_C(0)}) {
        script.key(pts).video(pts).audio(pts);
    }
    script.then([this] { parser->seek(1000); }).video(INT64_MAX).key(INT64_MIN + 2).endOfFile();
    hooks().seekFile = [](AVFormatContext*, int, int64_t, int64_t, int64_t, int) { return 0; };
    observer->onEvent = [this](const std::string& event) {
        if (event == "completed") {
            parser->requestStop();
        }
    };
    script.install();
    ASSERT_TRUE(parser->start());
    EXPECT_TRUE(observer->waitFor("completed"));
    parser->stop();
}

TEST_F(StreamParserRead, ReportsTheLargestTimesAtTheEnd) {
    ASSERT_TRUE(open());
    script.key(0).video(10890).video(3600).audio(44100).audio(1024).endOfFile();
    runToTheEnd();
    EXPECT_EQ(observer->count("file end 121 1000"), 1);
}

TEST_F(StreamParserRead, WaitsForAKeyFrameWhileAudioFlows) {
    SyntheticInput input;
    input.startTimeUs = 500'000;
    ASSERT_TRUE(open(input));
    observer->audioPackets_ = 7;
    observer->videoPackets_ = 3;
    script.video(45000).audio(22050).video(48600).key(52200).video(55800);
    runScript();
    EXPECT_THAT(observer->events(), ElementsAre("audio 0", "first audio 0", "video 7200 key", "video 10800 found"));
    EXPECT_THAT(logLines("not key frame"), ElementsAre("not key frame, this_pts:500, start_pts:500, skip pts:0...\n",
                                                       "not key frame, this_pts:540, start_pts:500, skip pts:40...\n"));
    EXPECT_THAT(logLines("found first"), ElementsAre("found first key frame, pts:7200, pts_ms:80, aq:7, vq:3\n"));
}

// What came before is shown as well, when it turns out that none is to be waited for.
TEST_F(StreamParserRead, ShowsPicturesOfAnInputThatMarksNoKeyFrameFromTheFirstOn) {
    parser->setPlaybackOptions({.allCodecs = true});
    ASSERT_TRUE(open());
    script.video(0).audio(0).video(90000).video(180000).video(183600);
    runScript();
    EXPECT_THAT(observer->events(), ElementsAre("audio 0", "first audio 0", "video 0", "video 90000 found",
                                                "video 180000 found", "video 183600 found"));
    EXPECT_THAT(logLines("not key frame"), IsEmpty());
}

TEST_F(StreamParserRead, TellsTheDecoderThatThereIsNoHopeForAKeyFrame) {
    for (const bool isLive : {false, true}) {
        parser->close();
        parser->setPlaybackOptions({.allCodecs = true});
        SyntheticInput input;
        input.formatName = isLive ? "rtsp" : "mpegts";
        ASSERT_TRUE(open(input));
        const size_t before = observer->videoPackets().size();
        ReadScript own(*parser);
        own.video(0).video(180000).video(899999).video(900000).video(903600);
        own.install();
        ASSERT_TRUE(parser->start());
        ASSERT_TRUE(own.waitUntilDone());
        parser->stop();
        std::vector<bool> hopeless;
        for (const auto& packet : observer->videoPackets()) {
            hopeless.push_back(packet->isHopeless);
        }
        hopeless.erase(hopeless.begin(), hopeless.begin() + static_cast<ptrdiff_t>(before));
        if (isLive) {
            EXPECT_THAT(hopeless, ElementsAre(true, true));
        } else {
            EXPECT_THAT(hopeless, ElementsAre(false, false, false, true, true));
        }
    }
}

TEST_F(StreamParserRead, ShowsThemAtTheEndOfAShortInput) {
    parser->setPlaybackOptions({.allCodecs = true});
    ASSERT_TRUE(open());
    script.video(0).video(3600).endOfFile();
    runToTheEnd();
    EXPECT_EQ(observer->count("video 3600 found"), 1);
    EXPECT_EQ(observer->count("file end 40 -1"), 1);
}

TEST_F(StreamParserRead, ShowsNothingBeforeAKeyFrameThatIsMarked) {
    parser->setPlaybackOptions({.allCodecs = true});
    ASSERT_TRUE(open());
    script.video(0).video(3600).key(7200).video(10800);
    runScript();
    EXPECT_THAT(observer->events(), ElementsAre("video 7200 key", "first video 7200", "video 10800 found"));
    EXPECT_THAT(logLines("not key frame"), testing::SizeIs(2));
}

TEST_F(StreamParserRead, DoesNotLogAFirstKeyFrameWithoutTime) {
    ASSERT_TRUE(open());
    script.key(AV_NOPTS_VALUE).video(3600);
    runScript();
    EXPECT_THAT(observer->events(), ElementsAre("video 0 key", "first video 0", "video 3600 found"));
    EXPECT_THAT(logLines("found first"), IsEmpty());
}

TEST_F(StreamParserRead, LogsLaterKeyFramesOfTwoCodecs) {
    for (const auto& [codec, lines] :
         {std::pair(AV_CODEC_ID_H264, 1U), {AV_CODEC_ID_HEVC, 1U}, {AV_CODEC_ID_MPEG4, 0U}}) {
        parser->close();
        log.clear();
        SyntheticInput input;
        input.streams[0].codec = codec;
        ASSERT_TRUE(open(input));
        ReadScript own(*parser);
        own.key(0).video(3600).audio(0).key(7200);
        own.install();
        ASSERT_TRUE(parser->start());
        ASSERT_TRUE(own.waitUntilDone());
        parser->stop();
        EXPECT_EQ(logLines("meet key frame\n").size(), lines) << codec;
    }
}

TEST_F(StreamParserRead, LogsNewExtraData) {
    ASSERT_TRUE(open());
    script.packet([](AVPacket* packet) {
        av_new_packet(packet, 1);
        av_packet_new_side_data(packet, AV_PKT_DATA_NEW_EXTRADATA, 12);
        packet->stream_index = 0;
    });
    script.packet([](AVPacket* packet) {
        av_new_packet(packet, 1);
        av_packet_new_side_data(packet, AV_PKT_DATA_NEW_EXTRADATA, 0);
        packet->stream_index = 0;
    });
    runScript();
    ASSERT_THAT(logLines("extra data"), SizeIs(1));
    EXPECT_THAT(logLines("extra data").at(0), testing::MatchesRegex("Entry meet new extra data:0x[0-9a-f]+ size:12\n"));
}

TEST_F(StreamParserRead, DropsAPacketOfAnUnknownStream) {
    ASSERT_TRUE(open());
    script.packet(5, 0, AV_PKT_FLAG_KEY).key(0);
    runScript();
    EXPECT_THAT(observer->events(), ElementsAre("video 0 key", "first video 0"));
    EXPECT_THAT(logLines("unknown"), ElementsAre("dispatch packet: unknown stream id:5\n"));
}

TEST_F(StreamParserRead, WantsNoKeyFrameWithoutVideo) {
    SyntheticInput input;
    input.streams = {audioStream()};
    ASSERT_TRUE(open(input));
    script.audio(0, 0).audio(1024, 0);
    runScript();
    EXPECT_THAT(observer->events(), ElementsAre("audio 0", "first audio 0", "audio 1024"));
}

TEST_F(StreamParserRead, ConvertsToStartCodes) {
    ASSERT_TRUE(open(lengthPrefixedInput()));
    script.packet([](AVPacket* packet) {
        av_new_packet(packet, 6);
        std::memcpy(packet->data, "\0\0\0\2\x65\x88", 6);
        packet->stream_index = 0;
        packet->pts = 7200;
        packet->dts = 3600;
        packet->flags = AV_PKT_FLAG_KEY;
    });
    runScript();
    const auto packets = observer->videoPackets();
    ASSERT_THAT(packets, SizeIs(1));
    const std::vector<int> bytes(packets[0]->data, packets[0]->data + packets[0]->size);
    // The parameter sets stand before a key frame's slice.
    EXPECT_THAT(bytes, ElementsAre(0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x0A, 0, 0, 0, 1, 0x68, 0xCE, 0x38, 0x80, 0, 0, 1,
                                   0x65, 0x88));
    EXPECT_EQ(packets[0]->pts, 7200);
    EXPECT_EQ(packets[0]->dts, 3600);
    EXPECT_TRUE(packets[0]->keyFrame);
}

TEST_F(StreamParserRead, DropsWhatTheFilterRefuses) {
    ASSERT_TRUE(open(lengthPrefixedInput()));
    int sent = 0;
    hooks().bsfSend = [&](AVBSFContext* context, AVPacket* packet) {
        return ++sent == 1 ? AVERROR(EINVAL) : __real_av_bsf_send_packet(context, packet);
    };
    int received = 0;
    hooks().bsfReceive = [&](AVBSFContext* context, AVPacket* packet) {
        if (++received == 1) {
            __real_av_bsf_receive_packet(context, packet);
            return AVERROR_INVALIDDATA;
        }
        return __real_av_bsf_receive_packet(context, packet);
    };
    for (const int64_t pts : {0, 3600, 7200}) {
        script.packet([=](AVPacket* packet) {
            av_new_packet(packet, 6);
            std::memcpy(packet->data, "\0\0\0\2\x41\x9A", 6);
            packet->stream_index = 0;
            packet->pts = packet->dts = pts;
            packet->flags = AV_PKT_FLAG_KEY;
        });
    }
    runScript();
    EXPECT_THAT(logLines("filter failed"), ElementsAre("h264_mp4toannexb filter failed to send input packet\n",
                                                       "h264_mp4toannexb filter failed to receive output packet\n"));
    // The first key frame is over, though it never arrived.
    EXPECT_THAT(observer->events(), ElementsAre("video 7200 key found", "first video 7200"));
}

TEST_F(StreamParserRead, AcceptsThatTheFilterHasNoMoreForAPacket) {
    for (const int end : {AVERROR(EAGAIN), AVERROR_EOF}) {
        parser->close();
        observer->clearEvents();
        ASSERT_TRUE(open(lengthPrefixedInput()));
        int calls = 0;
        hooks().bsfSend = [](AVBSFContext*, AVPacket*) { return 0; };
        hooks().bsfReceive = [&](AVBSFContext*, AVPacket*) { return ++calls % 2 == 1 ? 0 : end; };
        ReadScript own(*parser);
        own.key(0).video(3600);
        own.install();
        ASSERT_TRUE(parser->start());
        ASSERT_TRUE(own.waitUntilDone());
        parser->stop();
        EXPECT_THAT(observer->events(), ElementsAre("video 0 key", "first video 0", "video 3600 found"));
        EXPECT_EQ(calls, 4);
    }
    EXPECT_THAT(logLines("filter failed"), IsEmpty());
}

TEST_F(StreamParserRead, FeedsTheExtrapolatorOfALiveSource) {
    SyntheticInput input = inputNamed("sdp");
    input.startTimeUs = 1'000'000;
    ASSERT_TRUE(open(input));
    FakeTime::reset(50'000);
    script.audio(0).key(180000);
    runScript();
    // One update with the time counted from the start, at what was now then.
    EXPECT_EQ(extrapolator.extrapolateLocalTime(90000), 50'000);
    EXPECT_EQ(extrapolator.extrapolateLocalTime(180000), 51'000);
}

TEST_F(StreamParserRead, KeepsTheExtrapolatorOutOfAFile) {
    ASSERT_TRUE(open());
    script.key(0).video(3600);
    runScript();
    EXPECT_EQ(extrapolator.extrapolateLocalTime(3600), -1);
}

TEST_F(StreamParserRead, ReadsALiveSourceWithoutExtrapolator) {
    parser = std::make_unique<StreamParser>(nullptr);
    parser->init(observer);
    ASSERT_TRUE(open(inputNamed("rtsp")));
    ReadScript own(*parser);
    own.key(0);
    own.install();
    ASSERT_TRUE(parser->start());
    ASSERT_TRUE(own.waitUntilDone());
    parser->stop();
    EXPECT_EQ(observer->count("video 0 key"), 1);
}

TEST_F(StreamParserRead, RunsWithoutObserver) {
    parser->init(nullptr);
    ASSERT_TRUE(open(inputNamed("rtsp")));
    countPauses();
    script.key(0).audio(0).video(3600).packet(7, 0, 0).then([this] { parser->pause(true); });
    script.key(7200).error(AVERROR(EIO), 2);
    hooks().seekFile = [](AVFormatContext*, int, int64_t, int64_t, int64_t, int) { return 0; };
    startStepping();
    parser->pause(false);
    parser->seek(1000);
    FakeTime::setManual(false);
    EXPECT_TRUE(script.waitUntilDone());
    parser->stop();
    EXPECT_EQ(pauses, 1);
    EXPECT_EQ(plays, 1);
}

TEST_F(StreamParserRead, SaysNothingOfTheEndWithoutObserver) {
    parser->init(nullptr);
    ASSERT_TRUE(open());
    script.endOfFile();
    startStepping();
    step(300);
    EXPECT_THAT(FakeTime::sleeps(), Each(100));
    EXPECT_EQ(script.reads(), 1);
}

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

// Errors and the end.

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
