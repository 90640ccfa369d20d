#include <cstdio>

#include "input/input_files.h"
#include "input/stream_choice.h"
#include "input/stream_parser_fixture.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// What is played of what libavcodec can decode: with the option all of it.
class StreamChoice : public StreamParserTest {
protected:
    StreamChoice() { setOption(); }

    void setOption() { parser->setPlaybackOptions({.allCodecs = true}); }

    // Opens an input of these streams; whether one of them is played.
    bool open(std::vector<SyntheticStream> streams) {
        parser->close();
        log.clear();
        SyntheticInput input;
        input.streams = std::move(streams);
        return StreamParserTest::open(input);
    }

    // One whose decoder is there, but doesn't open: the headers that it needs are missing.
    static SyntheticStream brokenAudio() { return audioStream(AV_CODEC_ID_VORBIS); }
    static SyntheticStream brokenVideo() {
        auto stream = videoStream(AV_CODEC_ID_RAWVIDEO);
        stream.format = AV_PIX_FMT_NONE;
        return stream;
    }
    static constexpr auto kUnknown = static_cast<AVCodecID>(0x3FFFF);
};

TEST_F(StreamChoice, CallsACodecWithoutNumberAnotherOne) {
    ASSERT_TRUE(open({videoStream(AV_CODEC_ID_VP9), audioStream(AV_CODEC_ID_FLAC)}));
    const auto info = parser->getCodecInfo();
    EXPECT_EQ(info->videoCodecType, VIDEO_CODEC_OTHER);
    EXPECT_EQ(info->audioCodecType, AUDIO_CODEC_OTHER);
    EXPECT_EQ(info->videoParameters->codec_id, AV_CODEC_ID_VP9);
    EXPECT_EQ(info->audioParameters->codec_id, AV_CODEC_ID_FLAC);
}

TEST_F(StreamChoice, LeavesTheOtherCodecsTheirNumbers) {
    ASSERT_TRUE(open({videoStream(AV_CODEC_ID_H264), audioStream(AV_CODEC_ID_AAC)}));
    EXPECT_EQ(parser->getCodecInfo()->videoCodecType, VIDEO_CODEC_H264);
    EXPECT_EQ(parser->getCodecInfo()->audioCodecType, AUDIO_CODEC_AAC);
}

TEST_F(StreamChoice, DescribesTheFilesOfOtherCodecs) {
    ASSERT_TRUE(parser->open(inputFile("vp9_opus.webm"), 0));
    EXPECT_TRUE(parser->getStreamInfo()->has_video);
    EXPECT_TRUE(parser->getStreamInfo()->has_audio);
    EXPECT_EQ(parser->getCodecInfo()->videoCodecType, VIDEO_CODEC_OTHER);
    EXPECT_EQ(parser->getCodecInfo()->audioCodecType, AUDIO_CODEC_OTHER);
}

TEST_F(StreamChoice, SaysNothingOfAStreamWhoseDecoderDoesNotOpen) {
    ASSERT_TRUE(open({videoStream(), brokenAudio()}));
    EXPECT_TRUE(parser->getStreamInfo()->has_video);
    EXPECT_FALSE(parser->getStreamInfo()->has_audio);
    EXPECT_EQ(parser->getCodecInfo()->audioCodecType, AUDIO_CODEC_NONE);
    EXPECT_EQ(parser->getCodecInfo()->audioParameters, nullptr);
    EXPECT_THAT(logLines("isn't played"),
                ElementsAre("stream 1 (vorbis) isn't played: its decoder doesn't take what is said of it\n"));

    ASSERT_TRUE(open({brokenVideo(), audioStream()}));
    EXPECT_FALSE(parser->getStreamInfo()->has_video);
    EXPECT_TRUE(parser->getStreamInfo()->has_audio);
    EXPECT_EQ(parser->getCodecInfo()->videoParameters, nullptr);
    EXPECT_EQ(parser->getCodecInfo()->width, 0);
}

TEST_F(StreamChoice, TakesTheNextStreamWhoseDecoderOpens) {
    auto silent = audioStream();  // without the number of its channels, so it isn't one to be chosen
    silent.channels = 0;
    const auto played = audioStream(AV_CODEC_ID_PCM_S16LE);
    ASSERT_TRUE(open({brokenAudio(), videoStream(), silent, brokenAudio(), played, audioStream()}));
    EXPECT_EQ(parser->getCodecInfo()->audioParameters->codec_id, AV_CODEC_ID_PCM_S16LE);
    script.audio(1000, 0).audio(2000, 4).audio(3000, 5);
    runScript();
    ASSERT_EQ(observer->audioPackets().size(), 1U);
    EXPECT_EQ(observer->audioPackets()[0]->pts, 2000);
}

TEST_F(StreamChoice, LeavesStreamsWithoutADecoder) {
    ASSERT_TRUE(open({videoStream(kUnknown), audioStream()}));
    EXPECT_FALSE(parser->getStreamInfo()->has_video);
    EXPECT_THAT(logLines("isn't played"),
                ElementsAre(StartsWith("stream 0 (unknown_codec) isn't played: there is no")));
    EXPECT_FALSE(open({videoStream(kUnknown), brokenVideo(), brokenAudio()}));
    EXPECT_THAT(logLines("No avaliable stream have found\n"), testing::SizeIs(1));
    EXPECT_THAT(logLines("isn't played"), testing::SizeIs(3));
}

TEST_F(StreamChoice, TriesADecoderWithOneThread) {
    std::vector<int> threads;
    hooks().openCodec = [&](AVCodecContext* context) {
        threads.push_back(context->thread_count);
        return 0;
    };
    ASSERT_TRUE(open({videoStream(), audioStream()}));
    EXPECT_THAT(threads, ElementsAre(1, 1));
}

TEST_F(StreamChoice, KeepsWhatADecoderGetsBesideThePackets) {
    const auto packet = [](AVPacketSideDataType type) {
        return [type](AVPacket* made) {
            av_new_packet(made, 4);
            made->stream_index = 1;
            av_packet_new_side_data(made, type, 7);
        };
    };
    ASSERT_TRUE(open({videoStream(), audioStream()}));
    script.packet(packet(AV_PKT_DATA_SKIP_SAMPLES)).packet(packet(AV_PKT_DATA_MPEGTS_STREAM_ID)).audio(1);
    runScript();
    auto packets = observer->audioPackets();
    ASSERT_EQ(packets.size(), 3U);
    ASSERT_TRUE(packets[0]->sideData);
    EXPECT_EQ(packets[0]->sideData->side_data->type, AV_PKT_DATA_SKIP_SAMPLES);
    EXPECT_EQ(packets[0]->sideData->side_data->size, 7U);
    // This one is for nobody behind the demuxer, and there with each packet.
    EXPECT_FALSE(packets[1]->sideData);
    EXPECT_FALSE(packets[2]->sideData);

    parser->setPlaybackOptions({});
    ASSERT_TRUE(open({videoStream(), audioStream()}));
    script.packet(packet(AV_PKT_DATA_SKIP_SAMPLES));
    runScript();
    EXPECT_FALSE(observer->audioPackets().back()->sideData);
}

// A file of these bytes.
class FileOf {
public:
    FileOf(const std::string& name, const std::vector<uint8_t>& bytes) : path_(scratchPath(name)) {
        writeBytes(path_, bytes);
    }
    FileOf(const FileOf&) = delete;
    FileOf& operator=(const FileOf&) = delete;
    ~FileOf() { std::remove(path_.c_str()); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

TEST_F(StreamChoice, SaysInPlainWordsWhyAFileCannotBeOpened) {
    const auto film = readBytes(inputFile("h264_aac.mp4"));
    const auto webm = readBytes(inputFile("vp9_opus.webm"));
    const std::string text = "This is a letter, and no film.\n";
    struct Case {
        const char* name;
        std::vector<uint8_t> bytes;
        std::string words;
    };
    const std::string kDamaged = "it is damaged or cut off, or of a kind that isn't known";
    const Case cases[] = {
        {"empty.mp4", {}, "it is empty"},
        {"empty.mkv", {}, "it is empty"},
        {"cut.mp4", {film.begin(), film.begin() + std::ssize(film) / 2}, kDamaged},  // its index is at its end
        {"letter.mp4", {text.begin(), text.end()}, kDamaged},
        {"cut.webm", {webm.begin(), webm.begin() + 100}, "it ends too early, or can't be read"},
    };
    for (const auto& [name, bytes, words] : cases) {
        SCOPED_TRACE(name);
        log.clear();
        const FileOf file(name, bytes);
        EXPECT_FALSE(parser->open(file.path(), 0));
        EXPECT_EQ(logLines("").back(), file.path() + " can't be played: " + words + "\n");
        parser->close();
        parser->setPlaybackOptions({});
        EXPECT_FALSE(parser->open(file.path(), 0));
        EXPECT_EQ(logLines("can't be played").size(), 1U);
        setOption();
        parser->close();
    }
}

TEST_F(StreamChoice, LeavesTheSystemsWordsAsTheyAre) {
    EXPECT_FALSE(parser->open("/nowhere/film.mp4", 0));
    EXPECT_THAT(logLines("").back(), testing::HasSubstr("No such file or directory"));
    parser->close();
    EXPECT_FALSE(parser->open("/", 0));
    EXPECT_THAT(logLines("").back(), testing::HasSubstr("Is a directory"));
}

// The library has one error for that and for a file that can't be read.
TEST_F(StreamChoice, SaysThatAServerCannotBeFound) {
    hooks().openInput = [](AVFormatContext** context, const char*, AVDictionary**) {
        avformat_free_context(*context);
        *context = nullptr;
        return AVERROR(EIO);
    };
    const auto last = [this](const std::string& name) {
        EXPECT_FALSE(parser->open(name, 0));
        parser->close();
        return logLines(" can't be played: ").back();
    };
    for (const std::string name : {"http://server.invalid/film.mp4", "https://server.invalid/",
                                   "rtsp://server.invalid/", "rtsps://server.invalid/"}) {
        EXPECT_EQ(last(name), name + " can't be played: its server can't be found, or doesn't answer as it should\n");
    }
    for (const std::string name : {"/film.mp4", "rtsp_film.mp4"}) {
        EXPECT_EQ(last(name), name + " can't be played: it ends too early, or can't be read\n");
    }
}

TEST_F(StreamChoice, SaysWhyNoStreamIsPlayed) {
    const auto last = [this] { return logLines("").back(); };
    EXPECT_FALSE(open({videoStream(kUnknown)}));
    EXPECT_EQ(last(), "input can't be played: there is no decoder for it\n");
    EXPECT_FALSE(open({}));
    EXPECT_EQ(last(), "input can't be played: it has neither pictures nor sound\n");
    auto silent = audioStream();
    silent.channels = 0;
    EXPECT_FALSE(open({silent}));
    EXPECT_EQ(last(), "input can't be played: too little is known of its streams\n");
    SyntheticInput().install();
    hooks().findStreamInfo = [](AVFormatContext* context) {
        for (unsigned int i = 0; i < context->nb_streams; ++i) {
            av_dict_set(&context->streams[i]->metadata, "enc_key_id", "x", 0);
        }
        return 0;
    };
    parser->close();
    EXPECT_FALSE(parser->open("input", 0));
    EXPECT_EQ(last(), "input can't be played: it is protected\n");
}

TEST_F(StreamChoice, FailsAtAProtectedPacket) {
    ASSERT_TRUE(parser->open(inputFile("protected.mp4"), 0));
    ASSERT_TRUE(parser->start());
    ASSERT_TRUE(observer->waitFor("failed"));
    EXPECT_THAT(observer->videoPackets(), IsEmpty());
    EXPECT_THAT(observer->audioPackets(), IsEmpty());
    EXPECT_EQ(logLines("it is protected\n").size(), 1U);
}

TEST_F(StreamChoice, EndsWhereADemuxerTakesTheEndForAnError) {
    const std::string file = inputFile("roq.roq");
    ASSERT_TRUE(parser->open(file, 0));
    ASSERT_TRUE(parser->start());
    ASSERT_TRUE(observer->waitFor("completed"));
    EXPECT_GT(observer->videoPackets().size(), 25U);
    EXPECT_EQ(logLines("read failed").size(), 1U);

    parser->close();
    // With 7.1 the demuxer tells the end by itself.
    const bool tellsEnd = AV_VERSION_MAJOR(avformat_version()) >= 61;
    parser->setPlaybackOptions({});
    ASSERT_TRUE(parser->open(file, 0));
    ASSERT_TRUE(parser->start());
    ASSERT_TRUE(observer->waitFor(tellsEnd ? "completed" : "failed", tellsEnd ? 2 : 1));
}

TEST_F(StreamChoice, TakesAnErrorForTheEndWhereAllWasReadWithoutOne) {
    AVFormatContext* const input = avformat_alloc_context();
    const auto isEnd = [&](int error, bool isPlayingAll = true) {
        return kelp::StreamChoice::of({.allCodecs = isPlayingAll}).isEnd(*input, error);
    };
    EXPECT_TRUE(isEnd(AVERROR_EOF));
    EXPECT_FALSE(isEnd(AVERROR(EIO))) << "of one that isn't read by bytes";
    input->pb = avio_alloc_context(nullptr, 0, 0, nullptr, nullptr, nullptr, nullptr);
    EXPECT_FALSE(isEnd(AVERROR(EIO)));
    input->pb->eof_reached = 1;
    EXPECT_TRUE(isEnd(AVERROR(EIO)));
    EXPECT_FALSE(isEnd(AVERROR(EINVAL)));
    EXPECT_FALSE(isEnd(AVERROR(EIO), /*isPlayingAll=*/false));
    input->pb->error = AVERROR(EIO);
    EXPECT_FALSE(isEnd(AVERROR(EIO)));
    avio_context_free(&input->pb);
    avformat_free_context(input);
}

TEST_F(StreamChoice, PlaysAProtectedFileWithItsKey) {
    parser->setOption("decryption_key", "00112233445566778899aabbccddeeff");
    ASSERT_TRUE(parser->open(inputFile("protected.mp4"), 0));
    ASSERT_TRUE(parser->start());
    ASSERT_TRUE(observer->waitFor("completed"));
    EXPECT_EQ(observer->videoPackets().size(), 51U);  // with the end's
}

TEST_F(StreamChoice, TriesNoDecoderWithoutTheOption) {
    parser->setPlaybackOptions({});
    hooks().openCodec = [](AVCodecContext*) { return AVERROR(EINVAL); };
    ASSERT_TRUE(open({videoStream(AV_CODEC_ID_VP9), brokenAudio()}));
    EXPECT_TRUE(parser->getStreamInfo()->has_video);
    EXPECT_TRUE(parser->getStreamInfo()->has_audio);
    EXPECT_EQ(parser->getCodecInfo()->videoCodecType, VIDEO_CODEC_NONE);
    EXPECT_EQ(parser->getCodecInfo()->audioCodecType, AUDIO_CODEC_VORBIS);
    EXPECT_THAT(logLines("isn't played"), IsEmpty());
}

}  // namespace
}  // namespace kelp::test
