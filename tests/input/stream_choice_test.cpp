#include "input/input_files.h"
#include "input/stream_parser_fixture.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// What is played of what libavcodec can decode: with the option all of it.
class StreamChoice : public StreamParserTest {
protected:
    StreamChoice() {
        PlaybackOptions options;
        options.allCodecs = true;
        parser->setPlaybackOptions(options);
    }

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
    static constexpr auto kUnknown = static_cast<AVCodecID>(0x7654321);
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
