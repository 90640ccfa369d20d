#include <gmock/gmock.h>

#include <climits>
#include <cstring>

#include "decode/ff_audio_decoder_fixture.h"
#include "kelp_player/log.h"
#include "kelp_player/sync_clock.h"

namespace kelp::test {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Compensation = AudioLibraryFakes::Compensation;
using ResamplerSpec = AudioLibraryFakes::ResamplerSpec;

class FFAudioDecoderDeliveryTest : public FFAudioDecoderFixture {
protected:
    ~FFAudioDecoderDeliveryTest() override { SAMPLE_CORRECTION_PERCENT_MAX = 10; }

    // Opens for an output at `outRate` with the correction on.
    void openCorrecting(int outRate) {
        openFor(2, outRate);
        decoder.openSync(true);
    }
};

TEST_F(FFAudioDecoderDeliveryTest, CopiesAFrameThatHasTheOutputsForm) {
    openFor(2, 44100);
    auto frame = makeAudioFrame(AV_SAMPLE_FMT_S16, 2, 44100, 1024, 123);
    const std::vector<uint8_t> bytes(frame->data[0], frame->data[0] + 4096);
    feed(std::move(frame));

    EXPECT_THAT(audioFakes().resamplers, IsEmpty());
    EXPECT_THAT(observer->sizesAsked, ElementsAre(4096U));
    ASSERT_EQ(observer->frames.size(), 1U);
    const auto& out = *observer->frames[0];
    EXPECT_EQ(out.dataSize, 4096U);
    EXPECT_EQ(std::memcmp(out.buffer->data, bytes.data(), bytes.size()), 0);
    EXPECT_EQ(out.frameTag, 0);
    EXPECT_EQ(out.pts, 123);
    EXPECT_EQ(out.duration, 23);
}

TEST_F(FFAudioDecoderDeliveryTest, DeliversWhatAPacketBringsAtOnceWhereALowDelayIsWanted) {
    decoder.setOptions({.lowLiveDelay = true});
    openFor(2, 44100);
    audioFakes().sendPacket = [this](const AVPacket* packet) {
        decoded.push_back(makeAudioFrame(AV_SAMPLE_FMT_S16, 2, 44100, 1024, packet->pts));
        return 0;
    };
    for (const int64_t pts : {0, 23}) {
        decoder.insertPacket(makeAudioPacket(pts).get());
        ASSERT_FALSE(observer->frames.empty());
        EXPECT_EQ(observer->frames.back()->pts, pts);
    }
}

TEST_F(FFAudioDecoderDeliveryTest, TellsAFramesLengthInWholeMilliseconds) {
    openFor(2, 44100);
    feedS16(44100, 44100);
    feedS16(44099, 44100);
    ASSERT_EQ(observer->frames.size(), 2U);
    EXPECT_EQ(observer->frames[0]->duration, 1000);
    EXPECT_EQ(observer->frames[1]->duration, 999);
}

TEST_F(FFAudioDecoderDeliveryTest, GivesAFrameWithoutTimeTheTimeZero) {
    openFor(2, 44100);
    feedS16(10, 44100, 2, AV_NOPTS_VALUE);
    feedS16(10, 44100, 2, -7);
    ASSERT_EQ(observer->frames.size(), 2U);
    EXPECT_EQ(observer->frames[0]->pts, 0);
    EXPECT_EQ(observer->frames[1]->pts, -7);
}

TEST_F(FFAudioDecoderDeliveryTest, MakesAResamplerForEachKindOfDifference) {
    struct Case {
        AVSampleFormat format;
        int channels, sampleRate;
    };
    for (const Case& c :
         {Case{AV_SAMPLE_FMT_FLTP, 2, 48000}, Case{AV_SAMPLE_FMT_S16, 1, 48000}, Case{AV_SAMPLE_FMT_S16, 2, 44100}}) {
        openFor(2, 48000);
        LogCapture log;
        feed(makeAudioFrame(c.format, c.channels, c.sampleRate, 480));
        EXPECT_EQ(audioFakes().resamplers.back(),
                  (ResamplerSpec{c.channels, c.sampleRate, c.format, 2, 48000, AV_SAMPLE_FMT_S16}));
        EXPECT_THAT(log.lines(),
                    ElementsAre("[FFAudioDecoder]: deliverAudioFrame, (" + std::to_string(c.channels) + ":" +
                                std::to_string(c.sampleRate) + ":" + std::to_string(c.format) + ") -> (2:48000:1)\n"));
        decoder.close();
    }
    EXPECT_EQ(observer->frames.size(), 3U);
    EXPECT_THAT(audioFakes().compensations, IsEmpty());
}

TEST_F(FFAudioDecoderDeliveryTest, AsksForABlockWithAMarginOf256Samples) {
    openFor(2, 48000);
    feedS16(1024, 44100);
    // 48000 * 1024 / 44100 is 1114; the library rounds 1370 samples up to 1376.
    ASSERT_EQ(audioFakes().conversions.size(), 1U);
    EXPECT_EQ(audioFakes().conversions[0].outCount, 1370);
    EXPECT_EQ(audioFakes().conversions[0].inCount, 1024);
    EXPECT_THAT(observer->sizesAsked, ElementsAre(5504U));
    ASSERT_EQ(observer->frames.size(), 1U);
    EXPECT_EQ(observer->frames[0]->dataSize, 4U * static_cast<unsigned>(audioFakes().conversions[0].result));
    EXPECT_EQ(audioFakes().conversions[0].block, observer->frames[0]->buffer->data);
}

struct CorrectionCase {
    int outRate, speedUp, sampleDelta, distance, outCount;
    unsigned blockSize;
};

class FFAudioDecoderCorrectionTest : public FFAudioDecoderFixture,
                                     public testing::WithParamInterface<CorrectionCase> {};

TEST_P(FFAudioDecoderCorrectionTest, SpreadsTheDifferenceOverTheFrame) {
    const CorrectionCase& c = GetParam();
    openFor(2, c.outRate);
    decoder.openSync(true);
    observer->speedUp = c.speedUp;
    feedS16(1024, 44100);
    EXPECT_THAT(audioFakes().compensations, ElementsAre(Compensation{c.sampleDelta, c.distance}));
    ASSERT_EQ(audioFakes().conversions.size(), 1U);
    EXPECT_EQ(audioFakes().conversions[0].outCount, c.outCount);
    EXPECT_THAT(observer->sizesAsked, ElementsAre(c.blockSize));
    ASSERT_EQ(observer->frames.size(), 1U);
    // The decoded samples' duration, not the corrected ones'.
    EXPECT_EQ(observer->frames[0]->duration, 23);
}

INSTANTIATE_TEST_SUITE_P(Frames, FFAudioDecoderCorrectionTest,
                         testing::Values(CorrectionCase{44100, 50, -50, 974, 1230, 4992},
                                         CorrectionCase{44100, -200, 102, 1126, 1382, 5632},
                                         CorrectionCase{44100, 200, -103, 921, 1177, 4736},
                                         CorrectionCase{44100, -102, 102, 1126, 1382, 5632},
                                         CorrectionCase{44100, 103, -103, 921, 1177, 4736},
                                         CorrectionCase{48000, 100, -108, 1005, 1261, 5120},
                                         CorrectionCase{48000, -30, 32, 1147, 1403, 5632},
                                         CorrectionCase{22050, 1, 0, 511, 767, 3072}));

TEST_F(FFAudioDecoderDeliveryTest, LimitsTheCorrectionToTheProcessesPercentage) {
    openCorrecting(44100);
    observer->speedUp = 500;
    feedS16(1024, 44100);
    SAMPLE_CORRECTION_PERCENT_MAX = 3;
    feedS16(1024, 44100);
    observer->speedUp = -500;
    feedS16(1024, 44100);
    SAMPLE_CORRECTION_PERCENT_MAX = 0;
    feedS16(1024, 44100);
    EXPECT_THAT(audioFakes().compensations,
                ElementsAre(Compensation{-103, 921}, Compensation{-31, 993}, Compensation{30, 1054}));
    EXPECT_EQ(observer->frames.size(), 4U);
}

TEST_F(FFAudioDecoderDeliveryTest, StaysInRangeWithAnyPercentageAndAnyAnswer) {
    openCorrecting(48000);
    for (const int percent : {INT_MIN, -50, 100, 1000, INT_MAX}) {
        SAMPLE_CORRECTION_PERCENT_MAX = percent;
        for (const int speedUp : {INT_MIN, -100000, -1, 1, 100000, INT_MAX}) {
            observer->speedUp = speedUp;
            feedS16(1024, 1000);
            feedS16(1024, 192000);
            observer->frames.clear();
        }
    }
    SAMPLE_CORRECTION_PERCENT_MAX = 10;
    observer->speedUp = 0;
    feedS16(1024, 48000);
    EXPECT_EQ(observer->frames.size(), 1U);
}

TEST_F(FFAudioDecoderDeliveryTest, AsksForACorrectionOncePerFrameAndOnlyWhenItIsOn) {
    openFor(2, 44100);
    observer->speedUp = 50;
    feedS16(1024, 44100);
    EXPECT_EQ(observer->speedUpAsked, 0);
    EXPECT_THAT(audioFakes().resamplers, IsEmpty());

    decoder.openSync(true);
    feedS16(1024, 44100);
    EXPECT_EQ(observer->speedUpAsked, 1);
    EXPECT_EQ(audioFakes().resamplers.size(), 1U);

    decoder.openSync(false);
    feedS16(1024, 44100);
    EXPECT_EQ(observer->speedUpAsked, 1);
    EXPECT_EQ(audioFakes().compensations.size(), 1U);
}

TEST_F(FFAudioDecoderDeliveryTest, KeepsTheResamplerOfTheFirstCorrection) {
    openCorrecting(44100);
    feedS16(1024, 44100);
    EXPECT_THAT(audioFakes().resamplers, IsEmpty());
    observer->speedUp = 10;
    feedS16(1024, 44100);
    EXPECT_THAT(audioFakes().resamplers,
                ElementsAre(ResamplerSpec{2, 44100, AV_SAMPLE_FMT_S16, 2, 44100, AV_SAMPLE_FMT_S16}));
    EXPECT_EQ(audioFakes().conversions.size(), 1U);

    // Nothing to correct: through the resampler all the same, which is told nothing.
    observer->speedUp = 0;
    feedS16(1024, 44100);
    EXPECT_EQ(audioFakes().conversions.size(), 2U);
    EXPECT_EQ(audioFakes().conversions[1].outCount, 1280);
    EXPECT_THAT(audioFakes().compensations, ElementsAre(Compensation{-10, 1014}));
    EXPECT_EQ(audioFakes().resamplers.size(), 1U);
    EXPECT_EQ(observer->frames.size(), 3U);
}

TEST_F(FFAudioDecoderDeliveryTest, CorrectsByAsManySamplesAsAskedForInTheLongRun) {
    openCorrecting(44100);
    const auto samplesOf = [&](int speedUp) {
        observer->speedUp = speedUp;
        observer->frames.clear();
        for (int i = 0; i < 100; ++i) {
            feedS16(1024, 44100);
        }
        size_t bytes = 0;
        for (const auto& frame : observer->frames) {
            bytes += frame->dataSize;
        }
        return static_cast<int>(bytes / 4);
    };
    EXPECT_NEAR(samplesOf(50), 97400, 100);
    EXPECT_NEAR(samplesOf(-50), 107400, 100);
}

TEST_F(FFAudioDecoderDeliveryTest, DropsAFrameWhoseCorrectionIsRefused) {
    openCorrecting(44100);
    observer->speedUp = 10;
    audioFakes().setCompensation = [](int, int) { return AVERROR(EINVAL); };
    LogCapture log;
    feedS16(1024, 44100);
    EXPECT_EQ(log.lines().back(), "[FFAudioDecoder]: swr_set_compensation() failed\n");
    EXPECT_THAT(observer->frames, IsEmpty());
    EXPECT_THAT(observer->sizesAsked, IsEmpty());

    audioFakes().setCompensation = nullptr;
    feedS16(1024, 44100);
    EXPECT_EQ(observer->frames.size(), 1U);
}

TEST_F(FFAudioDecoderDeliveryTest, TriesAgainToMakeAResamplerAtTheNextFrame) {
    openFor(2, 48000);
    audioFakes().initResampler = [] { return AVERROR(ENOMEM); };
    {
        LogCapture log;
        feedS16(1024, 44100);
        ASSERT_EQ(log.lines().size(), 2U);
        EXPECT_EQ(log.lines()[1].rfind("[FFAudioDecoder]: deliverAudioFrame swr_init() failed, swrContext_:0x", 0), 0U);
    }
    EXPECT_EQ(audioFakes().liveResamplers, 0);
    EXPECT_THAT(observer->frames, IsEmpty());

    audioFakes().initResampler = nullptr;
    feedS16(1024, 44100);
    EXPECT_EQ(audioFakes().resamplers.size(), 2U);
    EXPECT_EQ(observer->frames.size(), 1U);
}

TEST_F(FFAudioDecoderDeliveryTest, DropsAFrameWhoseConversionFailsAndGivesItsBufferBack) {
    openFor(2, 48000);
    audioFakes().convert = [](uint8_t**, int) { return AVERROR(EINVAL); };
    LogCapture log;
    feedS16(1024, 44100);
    EXPECT_EQ(log.lines().back(), "[FFAudioDecoder]: deliverAudioFrame, swr_convert() failed\n");
    EXPECT_THAT(observer->frames, IsEmpty());
    ASSERT_EQ(observer->buffersGivenBack.size(), 1U);
    EXPECT_EQ(observer->buffersGivenBack[0]->data, audioFakes().conversions[0].block);

    audioFakes().convert = nullptr;
    feedS16(1024, 44100);
    EXPECT_EQ(observer->frames.size(), 1U);
}

TEST_F(FFAudioDecoderDeliveryTest, DeliversAFrameThatFillsItsBlockAndResetsTheResampler) {
    openFor(2, 48000);
    audioFakes().convert = [](uint8_t**, int outCount) { return outCount; };
    LogCapture log;
    feedS16(1024, 44100);
    EXPECT_EQ(log.lines().back(), "[FFAudioDecoder]: deliverAudioFrame, audio buffer is probably too small\n");
    ASSERT_EQ(observer->frames.size(), 1U);
    EXPECT_EQ(observer->frames[0]->dataSize, 1370U * 4U);
    EXPECT_EQ(audioFakes().resamplerInits, 2);
    EXPECT_EQ(audioFakes().resamplers.size(), 1U);
    EXPECT_EQ(audioFakes().liveResamplers, 1);

    audioFakes().convert = [](uint8_t**, int outCount) { return outCount - 1; };
    log.clear();
    feedS16(1024, 44100);
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(audioFakes().resamplerInits, 2);

    // A warning, and no error.
    audioFakes().convert = [](uint8_t**, int outCount) { return outCount; };
    Log::SetLevel(2);
    feedS16(1024, 44100);
    EXPECT_THAT(log.lines(), SizeIs(1));
    log.clear();
    Log::SetLevel(1);
    feedS16(1024, 44100);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(FFAudioDecoderDeliveryTest, MakesANewResamplerAfterAResetThatFailed) {
    openFor(2, 48000);
    audioFakes().convert = [](uint8_t**, int outCount) {
        audioFakes().initResampler = [] { return AVERROR(ENOMEM); };
        return outCount;
    };
    feedS16(1024, 44100);
    EXPECT_EQ(observer->frames.size(), 1U);
    EXPECT_EQ(audioFakes().liveResamplers, 0);

    audioFakes().initResampler = nullptr;
    audioFakes().convert = nullptr;
    feedS16(1024, 44100);
    EXPECT_EQ(audioFakes().resamplers.size(), 2U);
    EXPECT_EQ(observer->frames.size(), 2U);
}

TEST_F(FFAudioDecoderDeliveryTest, DropsAFrameWithoutAWordWhenThereIsNoBuffer) {
    openFor(2, 44100);
    observer->refuseBuffers = true;
    LogCapture log(3);
    feedS16(1024, 44100);
    EXPECT_THAT(log.lines(), IsEmpty());
    feedS16(1024, 48000);
    EXPECT_THAT(log.lines(), ElementsAre("[FFAudioDecoder]: deliverAudioFrame, (2:48000:1) -> (2:44100:1)\n"));
    EXPECT_EQ(observer->sizesAsked.size(), 2U);
    EXPECT_THAT(observer->frames, IsEmpty());
    EXPECT_THAT(observer->buffersGivenBack, IsEmpty());
}

// A value of its own for each channel and sample.
int valueOf(int channel, int sample) {
    return (channel + 1) * 1000 * (channel % 2 == 0 ? 1 : -1) + sample;
}

// A planar float frame with these values, as 16-bit samples name them.
AVFramePtr makePlanes(int channels, int sampleRate, int nbSamples, int (*value)(int channel, int sample)) {
    auto frame = makeAudioFrame(AV_SAMPLE_FMT_FLTP, channels, sampleRate, nbSamples);
    for (int channel = 0; channel < channels; ++channel) {
        auto* samples = reinterpret_cast<float*>(frame->extended_data[channel]);
        for (int i = 0; i < nbSamples; ++i) {
            samples[i] = static_cast<float>(value(channel, i)) / 32768.0F;
        }
    }
    return frame;
}

TEST_F(FFAudioDecoderDeliveryTest, InterleavesThePlanesOfAllChannels) {
    for (const int channels : {2, 3, 6}) {
        SCOPED_TRACE(channels);
        openFor(channels, 48000);
        feed(makePlanes(channels, 48000, 100, valueOf));
        ASSERT_THAT(observer->frames, SizeIs(1));
        const auto& out = *observer->frames[0];
        ASSERT_EQ(out.dataSize, static_cast<unsigned int>(channels * 100 * 2));
        const auto* samples = reinterpret_cast<const int16_t*>(out.buffer->data);
        for (int i = 0; i < channels * 100; ++i) {
            ASSERT_EQ(samples[i], valueOf(i % channels, i / channels)) << i;
        }
        decoder.close();
        observer->frames.clear();
    }
}

TEST_F(FFAudioDecoderDeliveryTest, KeepsChannelsApartAtAnotherRate) {
    openFor(2, 48000);
    feed(makePlanes(2, 44100, 4410, [](int channel, int) { return channel == 0 ? 9000 : -700; }));
    ASSERT_THAT(observer->frames, SizeIs(1));
    const auto& out = *observer->frames[0];
    const auto* samples = reinterpret_cast<const int16_t*>(out.buffer->data);
    const int count = static_cast<int>(out.dataSize) / 4;
    ASSERT_GT(count, 4700);  // of 4800; the rest is in the filter
    for (int i = 100; i < count - 100; ++i) {
        ASSERT_NEAR(samples[2 * i], 9000, 2) << i;
        ASSERT_NEAR(samples[2 * i + 1], -700, 2) << i;
    }
}

TEST_F(FFAudioDecoderDeliveryTest, WritesOneChannelAsPlanarFloat) {
    openFor(1, 48000);
    ASSERT_TRUE(decoder.setOutputSpec({1, 48000, 4}));
    auto frame = makeAudioFrame(AV_SAMPLE_FMT_S16, 1, 48000, 100);
    for (int i = 0; i < 100; ++i) {
        reinterpret_cast<int16_t*>(frame->data[0])[i] = static_cast<int16_t>(valueOf(1, i));
    }
    feed(std::move(frame));
    ASSERT_THAT(observer->frames, SizeIs(1));
    const auto& out = *observer->frames[0];
    ASSERT_EQ(out.dataSize, 100U * 4U);
    for (int i = 0; i < 100; ++i) {
        const float sample = reinterpret_cast<const float*>(out.buffer->data)[i];
        ASSERT_EQ(sample * 32768.0F, static_cast<float>(valueOf(1, i))) << i;
    }
}

TEST_F(FFAudioDecoderDeliveryTest, SetsOnlyTheFirstOutputPointerForPlanarFloat) {
    openFor(2, 48000);
    ASSERT_TRUE(decoder.setOutputSpec({2, 48000, 4}));
    audioFakes().convert = [](uint8_t**, int) { return 1000; };
    feedS16(1024, 44100);
    EXPECT_EQ(audioFakes().resamplers.back().outFormat, AV_SAMPLE_FMT_FLTP);
    ASSERT_EQ(audioFakes().conversions.size(), 1U);
    EXPECT_EQ(audioFakes().conversions[0].outputPointers, 1);
    ASSERT_EQ(observer->frames.size(), 1U);
    EXPECT_EQ(observer->frames[0]->dataSize, 1000U * 2U * 4U);
}

TEST_F(FFAudioDecoderDeliveryTest, PutsThePlanesOfACopiedFrameBehindEachOther) {
    openFor(2, 48000);
    ASSERT_TRUE(decoder.setOutputSpec({3, 48000, 4}));
    // 101 samples, so that the planes are padded.
    feed(makeAudioFrame(AV_SAMPLE_FMT_FLTP, 3, 48000, 101));
    EXPECT_THAT(audioFakes().resamplers, IsEmpty());
    ASSERT_EQ(observer->frames.size(), 1U);
    EXPECT_EQ(observer->frames[0]->dataSize, 3U * 404U);
    for (int i = 0; i < 3 * 404; ++i) {
        ASSERT_EQ(observer->frames[0]->buffer->data[i], static_cast<uint8_t>(i % 404 + 16 * (i / 404))) << i;
    }
}

TEST_F(FFAudioDecoderDeliveryTest, CopiesTheDecodedFormAfterARefusedSpec) {
    ASSERT_TRUE(open());
    ASSERT_FALSE(decoder.setOutputSpec({2, 48000, 9}));
    fakeCodec();
    feed(makeAudioFrame(AV_SAMPLE_FMT_FLTP, 2, 44100, 10));
    feed(makeAudioFrame(AV_SAMPLE_FMT_S32, 1, 8000, 10));
    ASSERT_EQ(observer->frames.size(), 2U);
    EXPECT_EQ(observer->frames[0]->dataSize, 80U);
    EXPECT_EQ(observer->frames[1]->dataSize, 40U);
    EXPECT_THAT(audioFakes().resamplers, IsEmpty());

    // A correction wants a resampler, and there is no form that it could give.
    decoder.openSync(true);
    observer->speedUp = 1;
    LogCapture log;
    feedS16(100, 44100);
    EXPECT_EQ(observer->frames.size(), 2U);
    EXPECT_EQ(log.lines().back(), "[FFAudioDecoder]: deliverAudioFrame swr_init() failed, swrContext_:(nil)\n");
    observer->speedUp = 0;
    feedS16(100, 44100);
    EXPECT_EQ(observer->frames.size(), 3U);
}

TEST_F(FFAudioDecoderDeliveryTest, DropsFramesThatMakeNoSense) {
    openFor(2, 44100);
    const std::vector<std::pair<const char*, void (*)(AVFrame*)>> damages = {
        {"channels:0, sampleRate:44100, format:1, samples:64", [](AVFrame* f) { f->ch_layout.nb_channels = 0; }},
        {"channels:-2, sampleRate:44100, format:1, samples:64", [](AVFrame* f) { f->ch_layout.nb_channels = -2; }},
        {"channels:2147483647, sampleRate:44100, format:1, samples:64",
         [](AVFrame* f) { f->ch_layout.nb_channels = INT_MAX; }},
        {"channels:2, sampleRate:0, format:1, samples:64", [](AVFrame* f) { f->sample_rate = 0; }},
        {"channels:2, sampleRate:-1, format:1, samples:64", [](AVFrame* f) { f->sample_rate = -1; }},
        {"channels:2, sampleRate:44100, format:-1, samples:64", [](AVFrame* f) { f->format = -1; }},
        {"channels:2, sampleRate:44100, format:99, samples:64", [](AVFrame* f) { f->format = 99; }},
        {"channels:2, sampleRate:44100, format:1, samples:0", [](AVFrame* f) { f->nb_samples = 0; }},
        {"channels:2, sampleRate:44100, format:1, samples:-64", [](AVFrame* f) { f->nb_samples = -64; }},
        {"channels:2, sampleRate:44100, format:1, samples:100000000", [](AVFrame* f) { f->nb_samples = 100'000'000; }},
        {"channels:2, sampleRate:44100, format:1, samples:2147483647", [](AVFrame* f) { f->nb_samples = INT_MAX; }},
        {"channels:2, sampleRate:44100, format:8, samples:64", [](AVFrame* f) { f->format = AV_SAMPLE_FMT_FLTP; }},
        {"channels:2, sampleRate:44100, format:6, samples:64", [](AVFrame* f) { f->format = AV_SAMPLE_FMT_S16P; }},
        {"channels:4, sampleRate:44100, format:2, samples:64",
         [](AVFrame* f) {
             f->format = AV_SAMPLE_FMT_S32;
             f->ch_layout.nb_channels = 4;
         }},
    };
    for (const bool correcting : {false, true}) {
        decoder.openSync(correcting);
        observer->speedUp = -5;
        for (const auto& [text, damage] : damages) {
            LogCapture log;
            auto frame = makeAudioFrame(AV_SAMPLE_FMT_S16, 2, 44100, 64);
            damage(frame.get());
            feed(std::move(frame));
            EXPECT_THAT(log.lines(), ElementsAre(std::string("[FFAudioDecoder]: deliverAudioFrame, drop bad frame, ") +
                                                 text + "\n"));
        }
    }
    EXPECT_THAT(observer->frames, IsEmpty());
    EXPECT_THAT(observer->sizesAsked, IsEmpty());
    EXPECT_EQ(observer->speedUpAsked, 0);
    feedS16(64, 44100);
    EXPECT_EQ(observer->frames.size(), 1U);
}

TEST_F(FFAudioDecoderDeliveryTest, DropsAFrameWhoseOutputWouldNotFitANumber) {
    openFor(2, 2'000'000'000);
    LogCapture log;
    audioFakes().convert = [](uint8_t**, int) { return 1; };
    feedS16(1000, 1);  // 2e12 samples
    feedS16(1000, 1000);
    feedS16(4295, 2000);  // 32704 samples in 32 bits
    EXPECT_EQ(log.count("[FFAudioDecoder]: deliverAudioFrame av_samples_get_buffer_size() failed\n"), 3);
    EXPECT_THAT(observer->frames, IsEmpty());
    EXPECT_THAT(observer->sizesAsked, IsEmpty());
}

TEST_F(FFAudioDecoderDeliveryTest, UsesTheOneResamplerForFramesOfAnotherForm) {
    openFor(2, 48000);
    feedS16(1000, 24000);
    EXPECT_EQ(audioFakes().conversions.back().outCount, 2256);
    // Another rate only changes the size of the block.
    feedS16(1000, 48000);
    EXPECT_EQ(audioFakes().conversions.back().outCount, 1256);
    // More channels, or wider samples: what the resampler reads is there.
    feedS16(1000, 24000, 6);
    feed(makeAudioFrame(AV_SAMPLE_FMT_S32, 2, 24000, 1000));
    EXPECT_EQ(observer->frames.size(), 4U);
    EXPECT_EQ(audioFakes().resamplers.size(), 1U);
}

TEST_F(FFAudioDecoderDeliveryTest, DropsAFrameThatIsTooSmallForTheResampler) {
    openFor(2, 48000);
    feed(makeAudioFrame(AV_SAMPLE_FMT_FLTP, 2, 44100, 1024));
    ASSERT_EQ(observer->frames.size(), 1U);
    LogCapture log;
    feed(makeAudioFrame(AV_SAMPLE_FMT_FLTP, 1, 44100, 1024));
    feed(makeAudioFrame(AV_SAMPLE_FMT_S16P, 2, 44100, 1024));
    feedS16(1024, 44100);
    EXPECT_THAT(
        log.lines(),
        ElementsAre("[FFAudioDecoder]: deliverAudioFrame, drop frame that the resampler wasn't made for, channels:1, "
                    "format:8\n",
                    "[FFAudioDecoder]: deliverAudioFrame, drop frame that the resampler wasn't made for, channels:2, "
                    "format:6\n",
                    "[FFAudioDecoder]: deliverAudioFrame, drop frame that the resampler wasn't made for, channels:2, "
                    "format:1\n"));
    feed(makeAudioFrame(AV_SAMPLE_FMT_FLTP, 2, 44100, 1024));
    EXPECT_EQ(observer->frames.size(), 2U);
    EXPECT_EQ(audioFakes().resamplers.size(), 1U);
}

TEST_F(FFAudioDecoderDeliveryTest, GivesEveryFrameTheWayBackToItsPool) {
    openFor(2, 44100);
    feedS16(64, 44100);
    feedS16(64, 48000);
    ASSERT_EQ(observer->frames.size(), 2U);
    for (auto& frame : observer->frames) {
        const size_t givenBack = observer->buffersGivenBack.size();
        const auto other = frame->allocBuffer(77);
        ASSERT_TRUE(other);
        EXPECT_EQ(other->size, 77U);
        const auto* block = frame->buffer.get();
        frame.reset();
        ASSERT_EQ(observer->buffersGivenBack.size(), givenBack + 1);
        EXPECT_EQ(observer->buffersGivenBack.back().get(), block);
    }
}

TEST_F(FFAudioDecoderDeliveryTest, FramesOutliveTheObserver) {
    auto shortLived = std::make_shared<RecordingAudioObserver>();
    auto other = std::make_unique<FFAudioDecoder>();
    ASSERT_TRUE(other->open(AUDIO_CODEC_PCM_ALAW, makeALawParameters().get(), shortLived));
    fakeCodec();
    decoded.push_back(makeAudioFrame(AV_SAMPLE_FMT_S16, 2, 44100, 64));
    auto packet = makeAudioPacket(0);
    other->insertPacket(packet.get());
    ASSERT_EQ(shortLived->frames.size(), 1U);
    auto frame = std::move(shortLived->frames[0]);
    other->close();
    other.reset();
    EXPECT_EQ(shortLived.use_count(), 1);
    shortLived.reset();

    EXPECT_FALSE(frame->allocBuffer(10));
    const std::weak_ptr<FrameBuffer> buffer = frame->buffer;
    frame.reset();
    EXPECT_TRUE(buffer.expired());
}

}  // namespace

}  // namespace kelp::test
