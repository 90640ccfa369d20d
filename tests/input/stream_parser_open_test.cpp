#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <future>
#include <thread>

#include "e2e/free_ports.h"
#include "input/stream_parser_fixture.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class StreamParserOpen : public StreamParserTest {
protected:
    // The keys and values that reached avformat_open_input, in order.
    std::vector<std::string> optionsOf(const std::string& path) {
        SyntheticInput().install();
        std::vector<std::string> found;
        auto make = hooks().openInput;
        hooks().openInput = [&found, make](AVFormatContext** context, const char* name, AVDictionary** dictionary) {
            const AVDictionaryEntry* entry = nullptr;
            while ((entry = av_dict_get(*dictionary, "", entry, AV_DICT_IGNORE_SUFFIX))) {
                found.push_back(std::string(entry->key) + "=" + entry->value);
            }
            return make(context, name, dictionary);
        };
        EXPECT_TRUE(parser->open(path, 0));
        return found;
    }

    // Opens an input with one H.264 video stream that has `extraData`.
    bool openVideo(std::vector<uint8_t> extraData, AVCodecID codec = AV_CODEC_ID_H264) {
        SyntheticInput input;
        input.streams = {videoStream(codec)};
        input.streams[0].extraData = std::move(extraData);
        return open(input);
    }

    static constexpr const char* kDefaults[] = {"buffer_size=-1", "max_delay=1000000", "reorder_queue_size=1200",
                                                "rtsp_transport=tcp", "stimeout=500000"};
};

// A configuration record of H.264 with one sequence and one picture parameter set.
const std::vector<uint8_t> kAvcRecord = {1,    0x42, 0xC0, 0x0A, 0xFF, 0xE1, 0,    4,    0x67, 0x42,
                                         0xC0, 0x0A, 1,    0,    4,    0x68, 0xCE, 0x38, 0x80};

// Listens on a port of this machine, lets peers connect and says nothing.
class SilentServer {
public:
    SilentServer() : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        const timeval limit = {20, 0};
        setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        bind(socket_, reinterpret_cast<sockaddr*>(&address), size);
        listen(socket_, 4);
        getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size);
        port_ = ntohs(address.sin_port);
    }
    SilentServer(const SilentServer&) = delete;
    SilentServer& operator=(const SilentServer&) = delete;
    ~SilentServer() {
        ::close(peer_);
        ::close(socket_);
    }

    // Waits until a peer has connected, for twenty seconds at most.
    void accept() {
        peer_ = ::accept(socket_, nullptr, nullptr);
        EXPECT_GE(peer_, 0);
    }
    std::string url() const { return "rtsp://127.0.0.1:" + std::to_string(port_) + "/x"; }

private:
    int socket_;
    int peer_ = -1;
    int port_ = 0;
};

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST_F(StreamParserOpen, LogsItsLife) {
    log.clear();
    { StreamParser other(nullptr); }
    EXPECT_THAT(log.lines(), ElementsAre("[StreamParser]: StreamParser()\n", "[StreamParser]: ~StreamParser()\n",
                                         "[StreamParser]: close\n", "[BaseThread]: [StreamParser] requestStop\n",
                                         "[BaseThread]: [StreamParser] joinThread\n",
                                         "[BaseThread]: [StreamParser] joinThread end\n"));
}

TEST_F(StreamParserOpen, LogsTheOptionsInKeyOrder) {
    EXPECT_TRUE(open());
    EXPECT_THAT(logLines("set key"),
                ElementsAre("open, set key:buffer_size, value:-1\n", "open, set key:max_delay, value:1000000\n",
                            "open, set key:reorder_queue_size, value:1200\n",
                            "open, set key:rtsp_transport, value:tcp\n", "open, set key:stimeout, value:500000\n"));
}

TEST_F(StreamParserOpen, LogsTheOptionsOfAnSdpSource) {
    EXPECT_TRUE(open({}, "/videos/my.sdp.d/film"));
    EXPECT_THAT(logLines("set key"),
                ElementsAre("open, set key:buffer_size, value:-1\n", "open, set key:fflags, value:nobuffer\n",
                            "open, set key:max_delay, value:1000000\n",
                            "open, set key:protocol_whitelist, value:file,udp,rtp\n",
                            "open, set key:reorder_queue_size, value:1200\n",
                            "open, set key:rtsp_transport, value:tcp\n", "open, set key:stimeout, value:500000\n"));
}

TEST_F(StreamParserOpen, HandsTheOptionsToTheDemuxer) {
    EXPECT_THAT(optionsOf("film"), testing::ElementsAreArray(kDefaults));
}

TEST_F(StreamParserOpen, AddsNoBufferForRtsp) {
    EXPECT_THAT(optionsOf("rtsp://127.0.0.1/x"),
                ElementsAre("buffer_size=-1", "fflags=nobuffer", "max_delay=1000000", "reorder_queue_size=1200",
                            "rtsp_transport=tcp", "stimeout=500000"));
}

TEST_F(StreamParserOpen, KeepsTheHostsValues) {
    parser->setOption("fflags", "discardcorrupt");
    parser->setOption("fflags", "genpts");
    parser->setOption("rtsp_transport", "udp");
    parser->setOption("a", "1");
    EXPECT_THAT(optionsOf("rtsp://127.0.0.1/x"),
                ElementsAre("a=1", "buffer_size=-1", "fflags=genpts", "max_delay=1000000", "reorder_queue_size=1200",
                            "rtsp_transport=udp", "stimeout=500000"));
}

TEST_F(StreamParserOpen, InitPutsTheDefaultsBack) {
    parser->setOption("rtsp_transport", "udp");
    parser->init(observer);
    EXPECT_THAT(optionsOf("film"), testing::ElementsAreArray(kDefaults));
}

TEST_F(StreamParserOpen, IgnoresAnOptionWithoutKeyOrValue) {
    parser->setOption(nullptr, "1");
    parser->setOption("fflags", nullptr);
    EXPECT_THAT(optionsOf("film"), testing::ElementsAreArray(kDefaults));
}

TEST_F(StreamParserOpen, HasNoOptionsBeforeInit) {
    parser = std::make_unique<StreamParser>(nullptr);
    EXPECT_THAT(optionsOf("film"), IsEmpty());
}

TEST_F(StreamParserOpen, KeepsItsOptionsOverAClose) {
    parser->setOption("user_agent", "kelp");
    optionsOf("rtsp://127.0.0.1/x");
    parser->close();
    EXPECT_THAT(optionsOf("film"),
                ElementsAre("buffer_size=-1", "fflags=nobuffer", "max_delay=1000000", "reorder_queue_size=1200",
                            "rtsp_transport=tcp", "stimeout=500000", "user_agent=kelp"));
}

TEST_F(StreamParserOpen, AddsNothingToTheNextSourceWhereAllIsPlayed) {
    parser->setPlaybackOptions({.allCodecs = true});
    EXPECT_THAT(optionsOf("/videos/camera.sdp"), testing::Contains("protocol_whitelist=file,udp,rtp"));
    parser->close();
    EXPECT_THAT(optionsOf("film"), testing::ElementsAreArray(kDefaults));
    parser->close();
    parser->setOption("fflags", "genpts");
    optionsOf("rtsp://127.0.0.1/x");
    parser->close();
    EXPECT_THAT(optionsOf("film"), testing::Contains("fflags=genpts")) << "the host's stays";
}

TEST_F(StreamParserOpen, StartsALiveSourceOfLowDelayAtOnceAndLeavesTheNextOneAlone) {
    parser->setPlaybackOptions({.lowLiveDelay = true});
    EXPECT_THAT(optionsOf("rtsp://127.0.0.1/x"),
                ElementsAre("buffer_size=-1", "fpsprobesize=0", "max_delay=1000000", "reorder_queue_size=1200",
                            "rtsp_transport=tcp", "stimeout=500000"));
    parser->close();
    EXPECT_THAT(optionsOf("film"), testing::ElementsAreArray(kDefaults));
}

TEST_F(StreamParserOpen, AddsNothingOfTheLastSourceUnlessAllIsStandard) {
    for (const PlaybackOptions& options : {PlaybackOptions{.allCodecs = true}, PlaybackOptions{.lowLiveDelay = true}}) {
        parser->setPlaybackOptions({});
        optionsOf("/videos/camera.sdp");
        parser->close();
        parser->setPlaybackOptions(options);
        EXPECT_THAT(optionsOf("film"), testing::ElementsAreArray(kDefaults));
        parser->close();
        EXPECT_THAT(optionsOf("rtsp://127.0.0.1/x.sdp"), testing::Not(testing::Contains(testing::HasSubstr("udp"))));
        parser->close();
    }
    parser->setPlaybackOptions({});
    EXPECT_THAT(optionsOf("film"), testing::Contains("protocol_whitelist=file,udp,rtp")) << "as ever";
    EXPECT_EQ(parser->options().count("protocol_whitelist"), 0U) << "for what is opened beside it";
}

TEST_F(StreamParserOpen, HasAServerThatDropsTheConnectionBeAskedAgainWhereThatIsWanted) {
    const auto isReconnected = testing::Contains("reconnect=1");
    for (const PlaybackOptions& options : {PlaybackOptions{.readAheadMs = 1}, PlaybackOptions{.rebufferMs = 1}}) {
        parser->setPlaybackOptions(options);
        EXPECT_THAT(optionsOf("http://127.0.0.1/film"), isReconnected);
        parser->close();
        EXPECT_THAT(optionsOf("film"), testing::ElementsAreArray(kDefaults)) << "it went with that source";
        parser->close();
    }
    parser->setPlaybackOptions({});
    EXPECT_THAT(optionsOf("http://127.0.0.1/film"), testing::ElementsAreArray(kDefaults));
}

TEST_F(StreamParserOpen, TellsARemoteSourceFromOthers) {
    const auto isRemote = [&](const char* formatName, const char* path) {
        parser->close();
        SyntheticInput input;
        input.formatName = formatName;
        EXPECT_TRUE(open(input, path));
        return parser->getStreamInfo()->is_remote;
    };
    EXPECT_TRUE(isRemote("mpegts", "http://127.0.0.1/film.ts"));
    EXPECT_FALSE(isRemote("mpegts", "film.ts"));
    EXPECT_FALSE(isRemote("sdp", "http://127.0.0.1/camera.sdp")) << "a live one";
}

TEST_F(StreamParserOpen, LogsTheWayOfAnOpen) {
    SyntheticInput input;
    input.startTimeUs = 1'400'000;
    EXPECT_TRUE(open(input, "film.ts"));
    const auto lines = logLines("");
    EXPECT_THAT(
        std::vector(lines.end() - 13, lines.end()),
        ElementsAre("open filePath:film.ts, seekTimeMs:0\n", StartsWith("open, set key:buffer_size"),
                    StartsWith("open, set key:max_delay"), StartsWith("open, set key:reorder_queue_size"),
                    StartsWith("open, set key:rtsp_transport"), StartsWith("open, set key:stimeout"),
                    "Start time of this file is 1400000 us, duration 60000000 us\n",
                    "detectBsf, iformat.name:mov,mp4,m4a,3gp,3g2,mj2, long_name:Synthetic, codec_id:27\n", "",
                    "detectBsf succeed, no need\n", "findStream, video startTimeInVideoTimeBase_:126000, us:1400000\n",
                    "findStream, audio startTimeInAudioTimeBase_:61740, us:1400000\n",
                    "open filePath:film.ts succeed\n"));
}

TEST_F(StreamParserOpen, GeneratesTimeStampsAndForgetsTheEndThatProbingMet) {
    SyntheticInput().install();
    AVFormatContext* opened = nullptr;
    hooks().findStreamInfo = [&](AVFormatContext* context) {
        opened = context;
        EXPECT_NE(context->flags & AVFMT_FLAG_GENPTS, 0);
        context->pb->eof_reached = 1;
        return 0;
    };
    EXPECT_TRUE(parser->open("film", 0));
    EXPECT_EQ(opened->pb->eof_reached, 0);
}

TEST_F(StreamParserOpen, AnswersTheInterruptCallback) {
    SyntheticInput().install();
    AVFormatContext* opened = nullptr;
    hooks().findStreamInfo = [&](AVFormatContext* context) {
        opened = context;
        return 0;
    };
    EXPECT_TRUE(parser->open("film", 0));
    const AVIOInterruptCB callback = opened->interrupt_callback;
    EXPECT_EQ(callback.opaque, parser.get());
    EXPECT_EQ(callback.callback(nullptr), 1);
    EXPECT_EQ(callback.callback(callback.opaque), 0);
    parser->requestStop();
    EXPECT_EQ(callback.callback(callback.opaque), 1);
}

TEST_F(StreamParserOpen, FailsWithoutAContext) {
    hooks().allocContext = [] { return nullptr; };
    EXPECT_FALSE(parser->open("film", 0));
    EXPECT_EQ(logLines("allocate"), std::vector<std::string>{"Could not allocate context.\n"});
}

TEST_F(StreamParserOpen, FailsOnAFileThatIsNotThere) {
    EXPECT_FALSE(parser->open("/nowhere/film.mp4", 0));
    EXPECT_EQ(logLines("faield"),
              std::vector<std::string>{"open input file /nowhere/film.mp4 faield! ret:-2, No such file or directory, "
                                       "is stoped:0\n"});
    EXPECT_FALSE(parser->start());
}

TEST_F(StreamParserOpen, FailsWhenTheStreamsCannotBeRead) {
    SyntheticInput().install();
    hooks().findStreamInfo = [](AVFormatContext*) { return AVERROR(EIO); };
    EXPECT_FALSE(parser->open("film", 0));
    EXPECT_EQ(logLines("failed"), std::vector<std::string>{"find stream info film failed!\n"});
    EXPECT_FALSE(parser->getStreamInfo()->has_video);
    EXPECT_EQ(parser->getCodecInfo()->videoParameters, nullptr);
    // The context that is left doesn't count as open.
    EXPECT_FALSE(parser->start());
}

TEST_F(StreamParserOpen, TellsTimesInMilliseconds) {
    SyntheticInput input;
    input.startTimeUs = 1'400'999;
    input.durationUs = 59'999'999;
    EXPECT_TRUE(open(input));
    const auto info = parser->getStreamInfo();
    EXPECT_EQ(info->start_time, 1400);
    EXPECT_EQ(info->duration, 59999);
    EXPECT_TRUE(info->has_video);
    EXPECT_TRUE(info->has_audio);
    EXPECT_FALSE(info->is_live);
    EXPECT_TRUE(info->seekable);
}

TEST_F(StreamParserOpen, TakesAnUnknownDurationForTenHours) {
    SyntheticInput input;
    input.startTimeUs = AV_NOPTS_VALUE;
    input.durationUs = AV_NOPTS_VALUE;
    EXPECT_TRUE(open(input));
    EXPECT_EQ(parser->getStreamInfo()->duration, 36'000'000);
    EXPECT_EQ(parser->getStreamInfo()->start_time, 0);
    EXPECT_EQ(logLines("Start time").at(0), "Start time of this file is 0 us, duration 36000000000 us\n");
}

TEST_F(StreamParserOpen, SeeksToTheFirstPosition) {
    SyntheticInput input;
    input.startTimeUs = 1'400'000;
    input.install();
    std::vector<int64_t> seek;
    hooks().seekFile = [&](AVFormatContext*, int stream, int64_t minTs, int64_t ts, int64_t maxTs, int flags) {
        seek = {stream, minTs, ts, maxTs, flags};
        return 0;
    };
    EXPECT_TRUE(parser->open("film", 2500));
    EXPECT_THAT(seek, ElementsAre(-1, INT64_MIN, 3'900'000, INT64_MAX, 0));
    EXPECT_THAT(logLines("could not seek"), IsEmpty());
}

TEST_F(StreamParserOpen, GoesOnWhenTheFirstPositionCannotBeReached) {
    SyntheticInput().install();
    hooks().seekFile = [](AVFormatContext*, int, int64_t, int64_t, int64_t, int) { return -1; };
    EXPECT_TRUE(parser->open("film", 2500));
    EXPECT_EQ(logLines("seek to"), std::vector<std::string>{"film: could not seek to position 2.500\n"});
}

TEST_F(StreamParserOpen, DoesNotSeekToTheStart) {
    SyntheticInput().install();
    int seeks = 0;
    hooks().seekFile = [&](AVFormatContext*, int, int64_t, int64_t, int64_t, int) { return ++seeks; };
    EXPECT_TRUE(parser->open("film", 0));
    parser->close();
    EXPECT_TRUE(parser->open("film", -5));
    EXPECT_EQ(seeks, 0);
}

TEST_F(StreamParserOpen, ReadsOneStreamOfEachKind) {
    SyntheticInput input;
    input.streams = {audioStream(), videoStream(), videoStream(), audioStream()};
    input.streams[2].width = 640;
    input.streams[2].height = 480;
    input.install();
    AVFormatContext* opened = nullptr;
    hooks().findStreamInfo = [&](AVFormatContext* context) {
        opened = context;
        return 0;
    };
    EXPECT_TRUE(parser->open("film", 0));
    std::vector<int> discarded;
    for (unsigned int i = 0; i < opened->nb_streams; ++i) {
        discarded.push_back(opened->streams[i]->discard);
    }
    int read = 0;
    for (const int discard : discarded) {
        EXPECT_TRUE(discard == AVDISCARD_ALL || discard == AVDISCARD_DEFAULT);
        read += discard == AVDISCARD_DEFAULT;
    }
    EXPECT_EQ(read, 2);
}

TEST_F(StreamParserOpen, OpensAudioAlone) {
    SyntheticInput input;
    input.streams = {audioStream(AV_CODEC_ID_MP3)};
    EXPECT_TRUE(open(input));
    EXPECT_FALSE(parser->getStreamInfo()->has_video);
    EXPECT_TRUE(parser->getStreamInfo()->has_audio);
    const auto info = parser->getCodecInfo();
    EXPECT_EQ(info->videoCodecType, VIDEO_CODEC_NONE);
    EXPECT_EQ(info->pixFormat, PIX_FMT_NONE);
    EXPECT_EQ(info->videoParameters, nullptr);
    EXPECT_EQ(info->audioCodecType, AUDIO_CODEC_MP3);
    ASSERT_NE(info->audioParameters, nullptr);
    EXPECT_EQ(info->audioParameters->codec_id, AV_CODEC_ID_MP3);
}

TEST_F(StreamParserOpen, OpensVideoAlone) {
    SyntheticInput input;
    input.streams = {videoStream(AV_CODEC_ID_MPEG4)};
    EXPECT_TRUE(open(input));
    EXPECT_TRUE(parser->getStreamInfo()->has_video);
    EXPECT_FALSE(parser->getStreamInfo()->has_audio);
    EXPECT_EQ(parser->getCodecInfo()->audioParameters, nullptr);
}

TEST_F(StreamParserOpen, LeavesAStreamWithoutDecoder) {
    for (const AVCodecID missing : {AV_CODEC_ID_H264, AV_CODEC_ID_AAC}) {
        parser->close();
        log.clear();
        SyntheticInput().install();
        hooks().findDecoder = [=](AVCodecID id) { return id == missing ? nullptr : __real_avcodec_find_decoder(id); };
        EXPECT_TRUE(parser->open("film", 0));
        EXPECT_EQ(parser->getStreamInfo()->has_video, missing != AV_CODEC_ID_H264);
        EXPECT_EQ(parser->getStreamInfo()->has_audio, missing != AV_CODEC_ID_AAC);
        EXPECT_EQ(logLines("No codec"),
                  std::vector<std::string>{"No codec could be found with id " + std::to_string(missing) + "\n"});
    }
}

TEST_F(StreamParserOpen, FailsWhenTheOnlyStreamHasNoDecoder) {
    SyntheticInput input;
    input.streams = {videoStream()};
    hooks().findDecoder = [](AVCodecID) { return nullptr; };
    EXPECT_FALSE(open(input));
    EXPECT_EQ(logLines("avaliable"), std::vector<std::string>{"No avaliable stream have found\n"});
    EXPECT_FALSE(parser->start());
}

TEST_F(StreamParserOpen, FailsWithoutAnyStream) {
    SyntheticInput input;
    input.streams = {};
    EXPECT_FALSE(open(input));
    EXPECT_THAT(logLines("No avaliable stream have found\n"), testing::SizeIs(1));
}

TEST_F(StreamParserOpen, LeavesAStreamWhoseParametersCannotBeRead) {
    hooks().parametersToContext = [](AVCodecContext*, const AVCodecParameters*) { return AVERROR(ENOMEM); };
    EXPECT_FALSE(open());
    EXPECT_THAT(logLines("Could not copy codec params\n"), testing::SizeIs(2));
    hooks().parametersToContext = nullptr;
    hooks().allocCodecContext = [] { return nullptr; };
    parser->close();
    EXPECT_FALSE(open());
}

TEST_F(StreamParserOpen, DescribesTheStreams) {
    SyntheticInput input;
    input.streams[0].format = AV_PIX_FMT_YUV420P10LE;
    input.streams[0].rFrameRate = {30000, 1001};
    input.streams[1].channels = 6;
    input.streams[1].sampleRate = 48000;
    EXPECT_TRUE(open(input));
    const auto info = parser->getCodecInfo();
    EXPECT_EQ(info->videoCodecType, VIDEO_CODEC_H264);
    EXPECT_EQ(info->audioCodecType, AUDIO_CODEC_AAC);
    EXPECT_EQ(info->width, 320);
    EXPECT_EQ(info->height, 240);
    EXPECT_EQ(info->pixFormat, PIX_FMT_YUV420P10);
    EXPECT_EQ(info->frameRate, 29);
    EXPECT_EQ(info->channels, 6);
    EXPECT_EQ(info->sampleRate, 48000);
    EXPECT_EQ(info->sampleFormat, 4);
}

TEST_F(StreamParserOpen, PlaysAStreamOfACodecThatHasNoNumber) {
    SyntheticInput input;
    input.streams = {videoStream(AV_CODEC_ID_VP9), audioStream(AV_CODEC_ID_OPUS)};
    input.streams[1].format = AV_SAMPLE_FMT_S16P;
    EXPECT_TRUE(open(input));
    EXPECT_TRUE(parser->getStreamInfo()->has_video);
    const auto info = parser->getCodecInfo();
    EXPECT_EQ(info->videoCodecType, VIDEO_CODEC_NONE);
    EXPECT_EQ(info->audioCodecType, AUDIO_CODEC_NONE);
    EXPECT_EQ(info->sampleFormat, -1);
    EXPECT_NE(info->videoParameters, nullptr);
}

TEST_F(StreamParserOpen, TakesTheTimeBaseForNoRateOfALiveSourceOfLowDelay) {
    for (const bool isLow : {false, true}) {
        parser->setPlaybackOptions({.lowLiveDelay = isLow});
        SyntheticInput input;
        input.formatName = "rtsp";
        input.streams = {videoStream()};
        input.streams[0].timeBase = {1, 90000};
        input.streams[0].rFrameRate = {90000, 1};
        hooks().guessFrameRate = [](AVStream* stream) { return stream->r_frame_rate; };
        EXPECT_TRUE(open(input));
        EXPECT_EQ(parser->getCodecInfo()->frameRate, isLow ? 30 : 90000);
        parser->close();
    }
}

TEST_F(StreamParserOpen, FallsBackForTheFrameRate) {
    const auto rate = [this](AVRational real, AVRational guessed) {
        SyntheticInput input;
        input.streams = {videoStream()};
        input.streams[0].rFrameRate = real;
        hooks().guessFrameRate = [guessed](AVStream*) { return guessed; };
        EXPECT_TRUE(open(input));
        const int found = parser->getCodecInfo()->frameRate;
        parser->close();
        return found;
    };
    EXPECT_EQ(rate({50, 1}, {25, 1}), 50);
    EXPECT_EQ(rate({60000, 1001}, {25, 1}), 59);
    EXPECT_EQ(rate({0, 1}, {24000, 1001}), 23);
    EXPECT_EQ(rate({15, 0}, {12, 1}), 12);
    // Less than one frame per second counts as unknown.
    EXPECT_EQ(rate({1, 2}, {12, 1}), 12);
    EXPECT_EQ(rate({1, 2}, {1, 2}), 30);
    EXPECT_EQ(rate({0, 0}, {0, 1}), 30);
    EXPECT_EQ(rate({0, 0}, {1, 0}), 30);
}

TEST_F(StreamParserOpen, TruncatesTheStartAtEachDivision) {
    SyntheticInput input;
    input.startTimeUs = 1'234'566;
    input.streams[0].timeBase = {1001, 30000};
    input.streams[1].timeBase = {1, 48000};
    EXPECT_TRUE(open(input));
    EXPECT_EQ(logLines("startTimeIn"),
              (std::vector<std::string>{"findStream, video startTimeInVideoTimeBase_:36, us:1234566\n",
                                        "findStream, audio startTimeInAudioTimeBase_:59259, us:1234566\n"}));
}

TEST_F(StreamParserOpen, HasNoStartInTicksForANegativeStart) {
    SyntheticInput input;
    input.startTimeUs = -23'000;
    EXPECT_TRUE(open(input));
    EXPECT_EQ(logLines("startTimeIn"),
              (std::vector<std::string>{"findStream, video startTimeInVideoTimeBase_:0, us:-23000\n",
                                        "findStream, audio startTimeInAudioTimeBase_:0, us:-23000\n"}));
    EXPECT_EQ(parser->getStreamInfo()->start_time, -23);
}

TEST_F(StreamParserOpen, TakesRtspAndSdpAloneForLive) {
    const auto isLive = [this](const std::string& format) {
        SyntheticInput input;
        input.formatName = format;
        EXPECT_TRUE(open(input, "rtsp://127.0.0.1/x"));
        const auto info = parser->getStreamInfo();
        EXPECT_NE(info->is_live, info->seekable);
        parser->close();
        return info->is_live;
    };
    EXPECT_TRUE(isLive("rtsp"));
    EXPECT_TRUE(isLive("sdp"));
    EXPECT_FALSE(isLive("rtp"));
    EXPECT_FALSE(isLive("rtsp2"));
    EXPECT_FALSE(isLive("mpegts"));
    EXPECT_FALSE(isLive(""));
}

TEST_F(StreamParserOpen, TellsTheExtrapolatorTheTicksOfALiveSource) {
    SyntheticInput input;
    input.formatName = "rtsp";
    input.streams[0].timeBase = {2, 90001};
    FakeTime::setNowMs(5000);
    EXPECT_TRUE(open(input));
    // Before the second update the answer follows the nominal rate: 45000 ticks to the second.
    extrapolator.update(0);
    EXPECT_EQ(extrapolator.extrapolateLocalTime(45000), 6000);
    EXPECT_EQ(extrapolator.extrapolateLocalTime(90000), 7000);
}

TEST_F(StreamParserOpen, TellsTheExtrapolatorNothingOfAFile) {
    extrapolator.init(1000);
    FakeTime::setNowMs(5000);
    EXPECT_TRUE(open());
    extrapolator.update(0);
    EXPECT_EQ(extrapolator.extrapolateLocalTime(1000), 6000);
}

TEST_F(StreamParserOpen, OpensALiveSourceWithoutExtrapolator) {
    parser = std::make_unique<StreamParser>(nullptr);
    SyntheticInput input;
    input.formatName = "rtsp";
    EXPECT_TRUE(open(input));
}

TEST_F(StreamParserOpen, ConvertsTheExtraDataForTheDecoder) {
    EXPECT_TRUE(openVideo(kAvcRecord));
    EXPECT_EQ(logLines("detectBsf succeed"), std::vector<std::string>{"detectBsf succeed\n"});
    EXPECT_EQ(logLines("42 c0 0a ff").at(0), "01 42 c0 0a ff e1 00 04 67 42 c0 0a 01 00 04 68 ce 38 80 ");
    const auto info = parser->getCodecInfo();
    const AVCodecParameters* parameters = info->videoParameters;
    const std::vector<uint8_t> extraData(parameters->extradata, parameters->extradata + parameters->extradata_size);
    EXPECT_THAT(extraData, ElementsAre(0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x0A, 0, 0, 0, 1, 0x68, 0xCE, 0x38, 0x80));
}

TEST_F(StreamParserOpen, NeedsNoFilterForStartCodes) {
    hooks().bsfByName = [](const char*) -> const AVBitStreamFilter* {
        ADD_FAILURE() << "asked for a filter";
        return nullptr;
    };
    EXPECT_TRUE(openVideo({}));
    parser->close();
    EXPECT_TRUE(openVideo({0, 0, 1, 0x67}));
    parser->close();
    EXPECT_TRUE(openVideo({0, 0, 0, 1, 0x67}));
    parser->close();
    EXPECT_TRUE(openVideo(std::vector<uint8_t>(22, 1), AV_CODEC_ID_HEVC));
    EXPECT_THAT(logLines("detectBsf succeed, no need\n"), testing::SizeIs(4));
    parser->close();
    EXPECT_TRUE(openVideo(kAvcRecord, AV_CODEC_ID_MPEG4));
    EXPECT_EQ(logLines("detectBsf succeed\n").size(), 1U);
}

TEST_F(StreamParserOpen, AsksForTheFilterOfTheCodec) {
    std::vector<std::string> names;
    hooks().bsfByName = [&](const char* name) {
        names.push_back(name);
        return __real_av_bsf_get_by_name(name);
    };
    EXPECT_TRUE(openVideo({1, 2, 3}));
    parser->close();
    EXPECT_TRUE(openVideo(std::vector<uint8_t>(23, 1), AV_CODEC_ID_HEVC));
    EXPECT_THAT(names, ElementsAre("h264_mp4toannexb", "hevc_mp4toannexb"));
}

TEST_F(StreamParserOpen, PlaysVideoWhoseFilterIsMissing) {
    hooks().bsfByName = [](const char*) { return nullptr; };
    EXPECT_TRUE(openVideo(kAvcRecord));
    EXPECT_EQ(logLines("found not"), std::vector<std::string>{"found not h264_mp4toannexb or hevc_mp4toannexb\n"});
    EXPECT_TRUE(parser->getStreamInfo()->has_video);
}

TEST_F(StreamParserOpen, PlaysVideoWhoseFilterDoesNotStart) {
    const auto openQuietly = [this] {
        log.clear();
        EXPECT_TRUE(openVideo(kAvcRecord));
        EXPECT_THAT(logLines("detectBsf succeed"), IsEmpty());
        EXPECT_TRUE(parser->getStreamInfo()->has_video);
        parser->close();
    };
    hooks().bsfInit = [](AVBSFContext*) { return AVERROR_INVALIDDATA; };
    openQuietly();
    hooks().bsfInit = nullptr;
    hooks().bsfAlloc = [](const AVBitStreamFilter*, AVBSFContext**) { return AVERROR(ENOMEM); };
    openQuietly();
    hooks().bsfAlloc = nullptr;
    int copies = 0;
    for (const int failing : {1, 2}) {
        copies = 0;
        hooks().parametersCopy = [&](AVCodecParameters* target, const AVCodecParameters* source) {
            return ++copies == failing ? AVERROR(ENOMEM) : __real_avcodec_parameters_copy(target, source);
        };
        openQuietly();
    }
}

TEST_F(StreamParserOpen, CodecInfoOutlivesTheParser) {
    SyntheticInput input;
    input.streams[0].extraData = kAvcRecord;
    input.streams[1].extraData = {0x12, 0x10};
    EXPECT_TRUE(open(input));
    const auto info = parser->getCodecInfo();
    const auto other = parser->getCodecInfo();
    EXPECT_NE(info->videoParameters, other->videoParameters);
    EXPECT_NE(info->audioParameters, other->audioParameters);
    parser->close();
    parser.reset();
    EXPECT_EQ(info->videoParameters->width, 320);
    EXPECT_EQ(info->videoParameters->extradata_size, 16);
    EXPECT_EQ(info->videoParameters->extradata[4], 0x67);
    EXPECT_EQ(info->audioParameters->codec_id, AV_CODEC_ID_AAC);
    EXPECT_EQ(info->audioParameters->extradata_size, 2);
    EXPECT_EQ(info->audioParameters->extradata[0], 0x12);
}

TEST_F(StreamParserOpen, DoesNotStartUnopened) {
    log.clear();
    EXPECT_FALSE(parser->start());
    EXPECT_THAT(logLines(""), ElementsAre("start begin\n", "start end, error, stop requested:0, context:(nil)\n"));
}

TEST_F(StreamParserOpen, DoesNotStartAfterAStop) {
    EXPECT_TRUE(open());
    log.clear();
    parser->stop();
    EXPECT_FALSE(parser->start());
    EXPECT_THAT(logLines(""),
                ElementsAre("stop\n", "start begin\n", StartsWith("start end, error, stop requested:1, context:0x")));
}

TEST_F(StreamParserOpen, LogsAStart) {
    EXPECT_TRUE(open());
    log.clear();
    runScript();
    const auto lines = logLines("start ");
    EXPECT_THAT(lines, ElementsAre("start begin\n", "start end, succeed\n"));
}

TEST_F(StreamParserOpen, ForgetsTheInputOnClose) {
    SyntheticInput input;
    input.formatName = "rtsp";
    input.startTimeUs = 1'000'000;
    EXPECT_TRUE(open(input));
    parser->stop();
    log.clear();
    parser->close();
    EXPECT_THAT(logLines(""), ElementsAre("close\n"));
    EXPECT_FALSE(parser->isStopRequested());
    const auto stream = parser->getStreamInfo();
    EXPECT_EQ(stream->toString(), "{ start_time:0, has_video:0, has_audio:0, seekable:1,  }");
    EXPECT_EQ(stream->duration, 0);
    const auto codec = parser->getCodecInfo();
    EXPECT_EQ(codec->videoCodecType, VIDEO_CODEC_NONE);
    EXPECT_EQ(codec->audioCodecType, AUDIO_CODEC_NONE);
    EXPECT_EQ(codec->width, 0);
    EXPECT_EQ(codec->height, 0);
    EXPECT_EQ(codec->pixFormat, PIX_FMT_NONE);
    EXPECT_EQ(codec->frameRate, 0);
    EXPECT_EQ(codec->channels, 0);
    EXPECT_EQ(codec->sampleRate, 0);
    EXPECT_EQ(codec->sampleFormat, -1);
    EXPECT_EQ(codec->videoParameters, nullptr);
    EXPECT_EQ(codec->audioParameters, nullptr);
    EXPECT_FALSE(parser->start());
}

TEST_F(StreamParserOpen, OpensAgainAfterAClose) {
    EXPECT_TRUE(openVideo(kAvcRecord));
    script.key(0);
    runScript();
    parser->close();
    observer->clearEvents();

    SyntheticInput input;
    input.streams = {audioStream()};
    EXPECT_TRUE(open(input));
    ReadScript second(*parser);
    second.audio(0, 0);
    second.install();
    EXPECT_TRUE(parser->start());
    EXPECT_TRUE(second.waitUntilDone());
    parser->stop();
    EXPECT_THAT(observer->events(), ElementsAre("audio 0", "first audio 0"));
}

// These wait for a peer that says nothing, in real time.
TEST_F(StreamParserOpen, StopCutsABlockingOpenShort) {
    SilentServer server;
    auto opening = std::async(std::launch::async, [&] { return parser->open(server.url(), 0); });
    server.accept();
    const auto start = std::chrono::steady_clock::now();
    parser->stop();
    EXPECT_FALSE(opening.get());
    EXPECT_LT(secondsSince(start), 20.0);
    ASSERT_THAT(logLines("faield"), testing::SizeIs(1));
    EXPECT_THAT(logLines("faield").at(0), StartsWith("open input file " + server.url() + " faield! ret:"));
    EXPECT_THAT(logLines("faield").at(0), testing::EndsWith(", is stoped:1\n"));
    EXPECT_TRUE(parser->isStopRequested());
}

TEST_F(StreamParserOpen, CloseCutsABlockingOpenShortAndAllowsTheNext) {
    SilentServer server;
    auto opening = std::async(std::launch::async, [&] { return parser->open(server.url(), 0); });
    server.accept();
    const auto start = std::chrono::steady_clock::now();
    parser->close();
    EXPECT_FALSE(opening.get());
    EXPECT_LT(secondsSince(start), 20.0);
    EXPECT_TRUE(open());
    EXPECT_TRUE(parser->getStreamInfo()->has_video);
}

TEST_F(StreamParserOpen, StopCutsTheWaitForAStreamShort) {
    const std::string path = testing::TempDir() + "input_tests_" + std::to_string(getpid()) + ".sdp";
    std::promise<void> probing;
    hooks().findStreamInfo = [&](AVFormatContext* context) {
        EXPECT_STREQ(context->iformat->name, "sdp");
        probing.set_value();
        return __real_avformat_find_stream_info(context, nullptr);
    };
    const auto isReady = [](const auto& future, int ms) {
        return future.wait_for(std::chrono::milliseconds(ms)) == std::future_status::ready;
    };
    const std::future<void> isProbing = probing.get_future();
    std::future<bool> opening;
    // A port that is free may be another program's by the time it is opened.
    for (int i = 0; i < 5 && !isReady(isProbing, 0); ++i) {
        parser->close();
        std::ofstream(path) << "v=0\no=- 0 0 IN IP4 127.0.0.1\ns=x\nc=IN IP4 127.0.0.1\nt=0 0\n"
                               "m=video "
                            << freePortPair(SOCK_DGRAM) << " RTP/AVP 96\na=rtpmap:96 H264/90000\n";
        opening = std::async(std::launch::async, [&] { return parser->open(path, 0); });
        while (!isReady(isProbing, 10) && !isReady(opening, 0)) {
        }
    }
    ASSERT_TRUE(isReady(isProbing, 0));
    const auto start = std::chrono::steady_clock::now();
    parser->stop();
    // The library may call what it has seen by then enough; playing is over in any case.
    opening.wait();
    EXPECT_LT(secondsSince(start), 20.0);
    EXPECT_FALSE(parser->start());
    unlink(path.c_str());
}

TEST_F(StreamParserOpen, CommandsDoNotWaitForABlockingOpen) {
    SyntheticInput().install();
    std::promise<void> inOpen;
    std::promise<void> goOn;
    auto make = hooks().openInput;
    hooks().openInput = [&](AVFormatContext** context, const char* path, AVDictionary** options) {
        inOpen.set_value();
        goOn.get_future().wait();
        return make(context, path, options);
    };
    auto opening = std::async(std::launch::async, [&] { return parser->open("film", 0); });
    inOpen.get_future().wait();
    EXPECT_TRUE(parser->pause(true));
    EXPECT_TRUE(parser->pause(false));
    EXPECT_TRUE(parser->seek(1000));
    parser->setOption("a", "1");
    EXPECT_FALSE(parser->isStopRequested());

    // What an open finds is told and read after its end only.
    script.install();
    hooks().seekFile = [](AVFormatContext*, int, int64_t, int64_t, int64_t, int) { return 0; };
    auto info = std::async(std::launch::async, [&] { return parser->getStreamInfo(); });
    auto codecs = std::async(std::launch::async, [&] { return parser->getCodecInfo(); });
    auto started = std::async(std::launch::async, [&] { return parser->start(); });
    EXPECT_EQ(info.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    EXPECT_EQ(codecs.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    EXPECT_EQ(started.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    goOn.set_value();
    EXPECT_TRUE(info.get()->has_video);
    EXPECT_EQ(codecs.get()->videoCodecType, VIDEO_CODEC_H264);
    EXPECT_TRUE(started.get());
    EXPECT_TRUE(script.waitUntilDone());
    EXPECT_TRUE(opening.get());
}

}  // namespace
}  // namespace kelp::test
