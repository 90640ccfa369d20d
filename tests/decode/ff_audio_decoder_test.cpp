#include "decode/ff_audio_decoder.h"

#include <gmock/gmock.h>

#include "decode/audio_decoder_factory.h"
#include "decode/ff_audio_decoder_fixture.h"

namespace kelp::test {

namespace {

using testing::ElementsAre;

class FFAudioDecoderTest : public FFAudioDecoderFixture {};

TEST(AudioDecoderFactory, MakesAnFFmpegDecoderForEveryType) {
    AudioDecoderFactory factory;
    EXPECT_TRUE(std::dynamic_pointer_cast<FFAudioDecoder>(factory.create(AUDIO_CODEC_AAC)));
    EXPECT_TRUE(std::dynamic_pointer_cast<FFAudioDecoder>(factory.create(AUDIO_CODEC_NONE)));
}

TEST_F(FFAudioDecoderTest, MapsEachCodecTypeToItsNumber) {
    const AVCodec* aLaw = avcodec_find_decoder(AV_CODEC_ID_PCM_ALAW);
    std::vector<int> ids;
    audioFakes().findDecoder = [&](int id) {
        ids.push_back(id);
        return aLaw;
    };
    for (const auto type : {AUDIO_CODEC_MP3, AUDIO_CODEC_AAC, AUDIO_CODEC_VORBIS, AUDIO_CODEC_PCM_ALAW}) {
        FFAudioDecoder other;
        EXPECT_TRUE(other.open(type, makeALawParameters().get(), observer));
        other.close();
    }
    EXPECT_THAT(ids, ElementsAre(86017, 86018, 86021, 65543));
}

TEST_F(FFAudioDecoderTest, OpensStepByStepAndSaysSo) {
    LogCapture log;
    EXPECT_TRUE(open());
    EXPECT_THAT(audioFakes().codecCalls, ElementsAre("find_decoder", "alloc_context", "parameters_to_context", "open"));
    EXPECT_THAT(log.lines(),
                ElementsAre("[FFAudioDecoder]: open, codecType:3\n", "[FFAudioDecoder]: open succeed, codecType:3\n"));
}

TEST_F(FFAudioDecoderTest, RefusesAnUnknownTypeBeforeAnyLibraryCall) {
    LogCapture log;
    EXPECT_FALSE(decoder.open(static_cast<AudioCodecType>(4), nullptr, observer));
    EXPECT_FALSE(decoder.open(AUDIO_CODEC_NONE, nullptr, observer));
    EXPECT_TRUE(audioFakes().codecCalls.empty());
    EXPECT_THAT(log.lines(), ElementsAre("[FFAudioDecoder]: open, codecType:4\n",
                                         "[FFAudioDecoder]: open, could not find audio codec type:4\n",
                                         "[FFAudioDecoder]: open, codecType:-1\n",
                                         "[FFAudioDecoder]: open, could not find audio codec type:-1\n"));
}

TEST_F(FFAudioDecoderTest, TakesAnotherCodecFromItsParameters) {
    const AVParametersPtr parameters = makeALawParameters();
    parameters->codec_id = AV_CODEC_ID_PCM_S24LE;
    std::vector<int> ids;
    audioFakes().findDecoder = [&](int id) {
        ids.push_back(id);
        return avcodec_find_decoder_by_name("pcm_s24le");
    };
    EXPECT_TRUE(decoder.open(AUDIO_CODEC_OTHER, parameters.get(), observer));
    EXPECT_THAT(ids, ElementsAre(AV_CODEC_ID_PCM_S24LE));
}

TEST_F(FFAudioDecoderTest, FailsWithoutACodec) {
    LogCapture log;
    audioFakes().findDecoder = [](int) { return nullptr; };
    EXPECT_FALSE(open());
    EXPECT_EQ(log.lines().back(), "[FFAudioDecoder]: open, could not find audio codecId:65543 for codec type:3 \n");
}

TEST_F(FFAudioDecoderTest, FailsWithoutAContext) {
    LogCapture log;
    audioFakes().allocContext = [] { return nullptr; };
    EXPECT_FALSE(open());
    EXPECT_EQ(log.lines().back(), "[FFAudioDecoder]: open, could not alloc codec context, type:3, ffCodecID:65543\n");
}

TEST_F(FFAudioDecoderTest, FailsWhenTheCodecDoesNotOpen) {
    LogCapture log;
    audioFakes().openCodec = [] { return AVERROR(EINVAL); };
    EXPECT_FALSE(open());
    EXPECT_EQ(log.lines().back(), "[FFAudioDecoder]: open, count not open audio codec type:3, ffcodecId:65543\n");
    EXPECT_EQ(audioFakes().liveContexts, 0);
}

TEST_F(FFAudioDecoderTest, FailsWithoutAnOutputFrame) {
    LogCapture log;
    audioFakes().allocFrame = [] { return nullptr; };
    EXPECT_FALSE(open());
    EXPECT_EQ(log.lines().back(), "[FFAudioDecoder]: open, count not alloc output frame\n");
    EXPECT_EQ(audioFakes().liveContexts, 0);
}

TEST_F(FFAudioDecoderTest, LetsTheObserverGoWhenItDidNotOpen) {
    audioFakes().openCodec = [] { return AVERROR(EINVAL); };
    EXPECT_FALSE(open());
    EXPECT_EQ(observer.use_count(), 1);
    auto packet = makeAudioPacket(0);
    decoder.insertPacket(packet.get());
    decoder.flush();
    EXPECT_EQ(audioFakes().codecCallCount("send_packet"), 0);
}

TEST_F(FFAudioDecoderTest, OpensWithParametersThatDoNotTake) {
    audioFakes().parametersToContext = [] { return AVERROR(ENOMEM); };
    EXPECT_TRUE(open());
}

TEST_F(FFAudioDecoderTest, OpensWithoutParameters) {
    EXPECT_TRUE(decoder.open(AUDIO_CODEC_MP3, nullptr, observer));
    EXPECT_THAT(audioFakes().codecCalls, ElementsAre("find_decoder", "alloc_context", "open"));
}

TEST_F(FFAudioDecoderTest, MapsEachSampleFormat) {
    const std::vector<std::pair<int, AVSampleFormat>> table = {{0, AV_SAMPLE_FMT_U8},
                                                               {1, AV_SAMPLE_FMT_S16},
                                                               {2, AV_SAMPLE_FMT_S32},
                                                               {3, AV_SAMPLE_FMT_FLT},
                                                               {4, AV_SAMPLE_FMT_FLTP}};
    for (const auto& [number, format] : table) {
        openFor(2, 48000);
        LogCapture log;
        EXPECT_TRUE(decoder.setOutputSpec({1, 32000, number}));
        EXPECT_THAT(log.lines(), ElementsAre("[FFAudioDecoder]: setOutputSpec, channels:1, sampleRate:32000, "
                                             "sampleFormat:" +
                                             std::to_string(number) + "\n"));
        feedS16(100, 44100);
        EXPECT_EQ(audioFakes().resamplers.back(),
                  (AudioLibraryFakes::ResamplerSpec{2, 44100, AV_SAMPLE_FMT_S16, 1, 32000, format}));
        EXPECT_EQ(observer->frames.back()->dataSize % av_get_bytes_per_sample(format), 0U);
        decoder.close();
    }
}

TEST_F(FFAudioDecoderTest, RefusesOtherSampleFormatsAndKeepsTheRest) {
    openFor(1, 32000);
    LogCapture log;
    EXPECT_FALSE(decoder.setOutputSpec({2, 48000, 5}));
    EXPECT_THAT(log.lines(),
                ElementsAre("[FFAudioDecoder]: setOutputSpec, channels:2, sampleRate:48000, sampleFormat:5\n",
                            "[FFAudioDecoder]: setOutputSpec, not supported sample format 5\n"));
    // The format is gone, channels and rate stand.
    feedS16(100, 32000, 1);
    EXPECT_EQ(audioFakes().resamplers.back(),
              (AudioLibraryFakes::ResamplerSpec{1, 32000, AV_SAMPLE_FMT_S16, 1, 32000, AV_SAMPLE_FMT_NONE}));
    EXPECT_TRUE(observer->frames.empty());
}

TEST_F(FFAudioDecoderTest, TellsWhetherTheCorrectionIsOn) {
    EXPECT_FALSE(decoder.isSyncOpened());
    EXPECT_TRUE(decoder.openSync(true));
    EXPECT_TRUE(decoder.isSyncOpened());
    EXPECT_TRUE(decoder.openSync(false));
    EXPECT_FALSE(decoder.isSyncOpened());
}

TEST_F(FFAudioDecoderTest, FreesEverythingOnClose) {
    openFor(2, 48000);
    feedS16(100, 44100);
    EXPECT_EQ(audioFakes().liveContexts, 1);
    EXPECT_EQ(audioFakes().liveResamplers, 1);
    LogCapture log;
    decoder.close();
    EXPECT_EQ(audioFakes().liveContexts, 0);
    EXPECT_EQ(audioFakes().liveResamplers, 0);
    EXPECT_THAT(log.lines(), ElementsAre("[FFAudioDecoder]: close\n"));

    decoder.close();
    auto packet = makeAudioPacket(0);
    decoder.insertPacket(packet.get());
    decoder.flush();
    EXPECT_EQ(observer->frames.size(), 1U);
}

TEST_F(FFAudioDecoderTest, FlushesTheCodecAndKeepsTheResampler) {
    openFor(2, 48000);
    feedS16(100, 44100);
    const int inits = audioFakes().resamplerInits;
    LogCapture log;
    decoder.flush();
    EXPECT_EQ(audioFakes().codecCallCount("flush_buffers"), 1);
    EXPECT_EQ(audioFakes().resamplerInits, inits);
    EXPECT_EQ(audioFakes().liveResamplers, 1);
    EXPECT_THAT(log.lines(), ElementsAre("[FFAudioDecoder]: flush\n"));
}

TEST_F(FFAudioDecoderTest, TakesOutAllFramesBeforeItSendsThePacket) {
    openFor(2, 44100);
    audioFakes().codecCalls.clear();
    decoded.push_back(makeAudioFrame(AV_SAMPLE_FMT_S16, 2, 44100, 10, 1));
    decoded.push_back(makeAudioFrame(AV_SAMPLE_FMT_S16, 2, 44100, 10, 2));
    auto packet = makeAudioPacket(0);
    decoder.insertPacket(packet.get());
    EXPECT_THAT(audioFakes().codecCalls, ElementsAre("receive_frame", "receive_frame", "receive_frame", "send_packet"));
    ASSERT_EQ(observer->frames.size(), 2U);
    EXPECT_EQ(observer->frames[0]->pts, 1);
    EXPECT_EQ(observer->frames[1]->pts, 2);
}

TEST_F(FFAudioDecoderTest, SendsThePacketWithTimesInMilliseconds) {
    openFor(2, 44100);
    auto packet = makeAudioPacket(44123, 3, 1, 44100);
    packet->dts = -45;
    packet->duration = 1024;
    packet->pos = 77;
    packet->flags = 5;
    bool sent = false;
    audioFakes().sendPacket = [&](const AVPacket* avPacket) {
        sent = true;
        EXPECT_EQ(avPacket->data, packet->data);
        EXPECT_EQ(avPacket->size, 3);
        EXPECT_EQ(avPacket->pts, 1000);
        EXPECT_EQ(avPacket->dts, -1);
        EXPECT_EQ(avPacket->duration, 23);
        EXPECT_EQ(avPacket->pos, 77);
        EXPECT_EQ(avPacket->flags, 5);
        EXPECT_EQ(avPacket->buf, nullptr);
        return 0;
    };
    decoder.insertPacket(packet.get());
    EXPECT_TRUE(sent);
}

TEST_F(FFAudioDecoderTest, SendsAPacketWithoutDataLikeAnyOther) {
    openFor(2, 44100);
    AudioPacket packet;
    packet.flush = true;
    int sent = 0;
    audioFakes().sendPacket = [&](const AVPacket* avPacket) {
        ++sent;
        EXPECT_NE(avPacket, nullptr);
        EXPECT_EQ(avPacket->data, nullptr);
        EXPECT_EQ(avPacket->size, 0);
        return 0;
    };
    decoder.insertPacket(&packet);
    EXPECT_EQ(sent, 1);
    EXPECT_EQ(audioFakes().codecCallCount("flush_buffers"), 0);
}

TEST_F(FFAudioDecoderTest, GivesOutWhatTheCodecHeldBackAtTheEnd) {
    openFor(2, 44100);
    decoder.setNeededFrom(5000);
    decoded.push_back(makeAudioFrame(AV_SAMPLE_FMT_S16, 2, 44100, 10, 1));
    audioFakes().sendPacket = [&](const AVPacket* packet) {
        EXPECT_EQ(packet->data, nullptr);
        decoded.push_back(makeAudioFrame(AV_SAMPLE_FMT_S16, 2, 44100, 10, 2));
        decoded.push_back(makeAudioFrame(AV_SAMPLE_FMT_S16, 2, 44100, 10, 3));
        return 0;
    };
    AudioPacket end;
    decoder.insertPacket(&end);
    ASSERT_EQ(observer->frames.size(), 3U);
    EXPECT_EQ(observer->frames[2]->pts, 3);
}

TEST_F(FFAudioDecoderTest, LogsEverySendThatFailsAndGoesOn) {
    openFor(2, 44100);
    LogCapture log;
    audioFakes().sendPacket = [](const AVPacket*) { return AVERROR_INVALIDDATA; };
    auto packet = makeAudioPacket(0);
    for (int i = 0; i < 150; ++i) {
        decoder.insertPacket(packet.get());
    }
    EXPECT_EQ(log.lines().size(), 150U);
    EXPECT_EQ(log.lines().back(),
              "[FFAudioDecoder]: insertPacket, avcodec_send_packet failed, ret:-1094995529, "
              "Invalid data found when processing input\n");
    feedS16(10, 44100);
    EXPECT_EQ(observer->frames.size(), 1U);
}

TEST_F(FFAudioDecoderTest, DropsFramesWithoutAnObserver) {
    FFAudioDecoder other;
    ASSERT_TRUE(other.open(AUDIO_CODEC_PCM_ALAW, makeALawParameters().get(), nullptr));
    fakeCodec();
    decoded.push_back(makeAudioFrame(AV_SAMPLE_FMT_S16, 2, 44100, 10));
    auto packet = makeAudioPacket(0);
    other.insertPacket(packet.get());
    EXPECT_TRUE(decoded.empty());
    EXPECT_EQ(audioFakes().codecCallCount("send_packet"), 1);
    other.close();
}

}  // namespace

}  // namespace kelp::test
