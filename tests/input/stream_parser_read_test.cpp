// What the parser's read loop makes of packets: their order, times, key frames, start codes, and what is dropped.

#include <pthread.h>

#include <cstring>
#include <string>
#include <vector>

#include "input/stream_parser_read_fixture.h"

namespace kelp::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

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

}  // namespace
}  // namespace kelp::test
