#include "decode/ff_resampler.h"

#include <gmock/gmock.h>

extern "C" {
#include <libavutil/channel_layout.h>
}

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <numbers>
#include <string>
#include <vector>

#include "decode/ff_audio_decoder_fixture.h"

namespace kelp::test {

namespace {

// What a tone sounds like where it is one of many forms, and where the form changes on the way.
class FFResamplerTest : public FFAudioDecoderFixture {
protected:
    static constexpr int kOutRate = 48000;
    static constexpr double kHz = 440;
    static constexpr double kHeight = 0.25;  // of full scale
    static constexpr int kFrameSamples = 1024;

    struct Form {
        AVSampleFormat format = AV_SAMPLE_FMT_S16;
        int channels = 2;
        int rate = kOutRate;
    };

    void SetUp() override {
        PlaybackOptions options;
        options.allCodecs = true;
        decoder.setOptions(options);
        openFor(2, kOutRate);
    }

    // Lets the codec yield `seconds` of the tone, which goes on where it stood. `channel` is the only one with sound;
    // negative for all.
    void play(const Form& form, double seconds, int channel = -1, const AVChannelLayout* layout = nullptr) {
        const int end = static_cast<int>(seconds * form.rate);
        for (int at = 0; at < end; at += kFrameSamples) {
            const int count = std::min(kFrameSamples, end - at);
            auto frame = makeAudioFrame(form.format, form.channels, form.rate, count,
                                        static_cast<int64_t>((timeAtStart_ + double(at) / form.rate) * 1000));
            for (int i = 0; i < count; ++i) {
                const double phase = 2 * std::numbers::pi * kHz * (timeAtStart_ + double(at + i) / form.rate);
                for (int c = 0; c < form.channels; ++c) {
                    put(*frame, form, c, i, channel < 0 || channel == c ? kHeight * std::sin(phase) : 0);
                }
            }
            if (layout) {
                av_channel_layout_copy(&frame->ch_layout, layout);
            }
            feed(std::move(frame));
        }
        timeAtStart_ += double(end) / form.rate;
    }

    static void put(AVFrame& frame, const Form& form, int channel, int i, double value) {
        const bool planar = av_sample_fmt_is_planar(form.format);
        uint8_t* const plane = frame.extended_data[planar ? channel : 0];
        const int at = planar ? i : i * form.channels + channel;
        switch (av_get_packed_sample_fmt(form.format)) {
            case AV_SAMPLE_FMT_U8:
                plane[at] = static_cast<uint8_t>(std::lround(128 + value * 128));
                break;
            case AV_SAMPLE_FMT_S16:
                write(plane, at, static_cast<int16_t>(std::lround(value * 32768)));
                break;
            case AV_SAMPLE_FMT_S32:
                write(plane, at, static_cast<int32_t>(std::lround(value * 2147483648.0)));
                break;
            case AV_SAMPLE_FMT_S64:
                write(plane, at, static_cast<int64_t>(value * 9223372036854775808.0));
                break;
            case AV_SAMPLE_FMT_FLT:
                write(plane, at, static_cast<float>(value));
                break;
            default:
                write(plane, at, value);
                break;
        }
    }
    template <class Sample>
    static void write(uint8_t* plane, int at, Sample sample) {
        std::memcpy(plane + static_cast<size_t>(at) * sizeof(sample), &sample, sizeof(sample));
    }

    // One side of all that came, forgotten with this.
    std::vector<int16_t> take(int side) {
        std::vector<int16_t> samples;
        for (const auto& frame : observer->frames) {
            const auto* data = reinterpret_cast<const int16_t*>(frame->buffer->data);
            for (unsigned i = 0; i < frame->dataSize / 4; ++i) {
                samples.push_back(data[2 * i + static_cast<unsigned>(side)]);
            }
        }
        return samples;
    }
    // Without the start and the end.
    static std::vector<int16_t> inside(const std::vector<int16_t>& all) {
        return {all.begin() + kOutRate / 50, all.end() - kOutRate / 50};
    }
    // The tone's height, of full scale.
    static double height(const std::vector<int16_t>& samples) {
        double sum = 0;
        for (const int sample : samples) {
            sum += double(sample) * sample;
        }
        return std::sqrt(2 * sum / static_cast<double>(samples.size())) / 32768;
    }
    static int largestStep(const std::vector<int16_t>& samples) {
        int largest = 0;
        for (size_t i = 1; i < samples.size(); ++i) {
            largest = std::max(largest, std::abs(samples[i] - samples[i - 1]));
        }
        return largest;
    }

    // Both sides have the tone, this high.
    void expectTone(double expectedHeight, double heightError = 0.002) {
        for (const int side : {0, 1}) {
            const auto samples = inside(take(side));
            ASSERT_GT(samples.size(), static_cast<size_t>(kOutRate / 5));
            EXPECT_NEAR(measureHz(samples, kOutRate), kHz, 0.2);
            EXPECT_NEAR(height(samples), expectedHeight, heightError);
        }
        observer->frames.clear();
    }

    double timeAtStart_ = 0;
};

TEST_F(FFResamplerTest, TakesEverySampleFormat) {
    for (int format = 0; format < AV_SAMPLE_FMT_NB; ++format) {
        SCOPED_TRACE(av_get_sample_fmt_name(static_cast<AVSampleFormat>(format)));
        play({.format = static_cast<AVSampleFormat>(format)}, 0.5);
        expectTone(kHeight);
    }
}

TEST_F(FFResamplerTest, TakesEveryRate) {
    for (const int rate :
         {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000, 64000, 88200, 96000, 176400, 192000}) {
        SCOPED_TRACE(rate);
        play({.rate = rate}, 0.5);
        EXPECT_NEAR(static_cast<double>(take(0).size()), kOutRate / 2.0, 400);
        expectTone(kHeight);
    }
}

TEST_F(FFResamplerTest, MixesOneToEightChannels) {
    for (int channels = 1; channels <= 8; ++channels) {
        SCOPED_TRACE(channels);
        play({.format = AV_SAMPLE_FMT_FLTP, .channels = channels}, 0.5);
        // One that is in the middle goes to both sides by half of its power.
        expectTone(channels == 1 ? kHeight * std::numbers::sqrt2 / 2 : kHeight);
    }
}

TEST_F(FFResamplerTest, MixesChannelsOfUnknownPlaces) {
    for (const int channels : {1, 2, 6, 8, 9, 11, 16}) {
        SCOPED_TRACE(channels);
        const AVChannelLayout unknown = {
            .order = AV_CHANNEL_ORDER_UNSPEC, .nb_channels = channels, .u = {}, .opaque = nullptr};
        play({.channels = channels}, 0.5, -1, &unknown);
        expectTone(channels == 1 ? kHeight * std::numbers::sqrt2 / 2 : kHeight);
    }
}

TEST_F(FFResamplerTest, MixesWhatTheLibraryHasNoMatrixFor) {
    AVChannelLayout oneSide{};
    av_channel_layout_from_mask(&oneSide, AV_CH_FRONT_LEFT);
    play({.channels = 1}, 0.5, -1, &oneSide);
    expectTone(kHeight * std::numbers::sqrt2 / 2);
    const AVChannelLayout sphere = {.order = AV_CHANNEL_ORDER_AMBISONIC, .nb_channels = 9, .u = {}, .opaque = nullptr};
    play({.channels = 9}, 0.5, -1, &sphere);
    expectTone(kHeight);
}

TEST_F(FFResamplerTest, PutsTheChannelsOfSurroundSoundInTheirPlaces) {
    constexpr double kWhole = 1 / (1 + std::numbers::sqrt2);  // of front, centre and surround the front's part
    constexpr double kPart = kWhole * std::numbers::sqrt2 / 2;
    const double left[] = {kWhole, 0, kPart, 0, kPart, 0};
    const double right[] = {0, kWhole, kPart, 0, 0, kPart};
    for (int channel = 0; channel < 6; ++channel) {
        SCOPED_TRACE(channel);
        play({.channels = 6}, 0.5, channel);
        EXPECT_NEAR(height(inside(take(0))), kHeight * left[channel], 0.002);
        EXPECT_NEAR(height(inside(take(1))), kHeight * right[channel], 0.002);
        observer->frames.clear();
    }
}

TEST_F(FFResamplerTest, FollowsChangesOnTheWay) {
    const Form forms[] = {
        {AV_SAMPLE_FMT_FLTP, 2, 44100}, {AV_SAMPLE_FMT_FLTP, 6, 44100}, {AV_SAMPLE_FMT_S16P, 2, 44100},
        {AV_SAMPLE_FMT_S32, 2, 44100},  {AV_SAMPLE_FMT_S32, 2, 96000},  {AV_SAMPLE_FMT_DBL, 3, 8000},
        {AV_SAMPLE_FMT_U8, 2, 192000},  {AV_SAMPLE_FMT_S16, 2, 48000},  {AV_SAMPLE_FMT_S64P, 8, 22050}};
    for (int round = 0; round < 4; ++round) {
        for (const Form& form : forms) {
            play(form, 0.25);
        }
    }
    const auto all = take(0);
    // All of it, but for what the last one holds and a sample or so at each change.
    EXPECT_NEAR(static_cast<double>(all.size()), timeAtStart_ * kOutRate, 120);
    // Steadily the tone from the first to the last sample: a turn that were missing or too many would show.
    EXPECT_NEAR(measureHz(inside(all), kOutRate), kHz, 0.05);
    EXPECT_NEAR(height(inside(all)), kHeight, 0.002);
    // No click: no step is larger than the tone's own between two samples at the lowest rate, where each change falls.
    EXPECT_LT(largestStep(inside(all)), 2 * std::numbers::pi * kHz / 8000 * kHeight * 32768);
}

TEST_F(FFResamplerTest, ChangesWithoutAClick) {
    for (int round = 0; round < 4; ++round) {
        play({AV_SAMPLE_FMT_FLTP, 2, 44100}, 0.25);
        play({AV_SAMPLE_FMT_S16, 6, 44100}, 0.25);
        play({AV_SAMPLE_FMT_S32P, 2, 96000}, 0.25);
    }
    const double ownStep = 2 * std::numbers::pi * kHz / kOutRate * kHeight * 32768;
    EXPECT_LT(largestStep(inside(take(0))), ownStep * 1.25);
}

TEST_F(FFResamplerTest, GoesFromStereoToMonoAndBack) {
    play({.format = AV_SAMPLE_FMT_FLTP, .channels = 2, .rate = 44100}, 0.5);
    expectTone(kHeight);
    play({.format = AV_SAMPLE_FMT_FLTP, .channels = 1, .rate = 44100}, 0.5);
    expectTone(kHeight * std::numbers::sqrt2 / 2);
    play({.format = AV_SAMPLE_FMT_FLTP, .channels = 2, .rate = 44100}, 0.5);
    expectTone(kHeight);
}

TEST_F(FFResamplerTest, TakesAFrameThatFollowsOneWhichCouldNotBeMixed) {
    play({.rate = 44100}, 0.25);
    const size_t frames = observer->frames.size();
    audioFakes().initResampler = [] { return AVERROR(EINVAL); };
    feed(makeAudioFrame(AV_SAMPLE_FMT_FLTP, 2, 22050, kFrameSamples));
    EXPECT_EQ(observer->frames.size(), frames);
    audioFakes().initResampler = nullptr;
    play({.rate = 32000}, 0.25);
    // What the first resampler held came with the next block that there was.
    EXPECT_NEAR(static_cast<double>(take(0).size()), kOutRate / 2.0, 40);
    EXPECT_EQ(audioFakes().liveResamplers, 1);
    expectTone(kHeight);
}

// An encoder needs some samples before the first one, and fills up its last block.
TEST_F(FFResamplerTest, LeavesOutTheSamplesThatAreNoSound) {
    decoder.close();
    audioFakes() = {};
    for (const auto& [encoder, extension] : {std::pair{"libopus", "webm"}, std::pair{"aac", "mp4"}}) {
        SCOPED_TRACE(encoder);
        const ToneFile tone = makeToneFile(encoder, extension, 440, kOutRate, 2, 1);
        const bool isOther = tone.codecType == AUDIO_CODEC_NONE;
        ASSERT_TRUE(decoder.open(isOther ? AUDIO_CODEC_OTHER : tone.codecType, tone.parameters.get(), observer));
        ASSERT_TRUE(decoder.setOutputSpec({2, kOutRate, 1}));
        for (size_t i = 0; i < tone.packets.size(); ++i) {
            tone.packets[i]->sideData = tone.sideData[i];
            decoder.insertPacket(tone.packets[i].get());
        }
        AudioPacket end;
        decoder.insertPacket(&end);
        EXPECT_NEAR(static_cast<double>(take(0).size()), kOutRate, 130);  // AAC in MP4 has no end to leave out
        EXPECT_NEAR(static_cast<double>(observer->frames[0]->pts), 0, 1);
        decoder.close();
        observer->frames.clear();
    }
}

TEST_F(FFResamplerTest, MakesOneResamplerForFramesThatAreAlike) {
    play({.rate = 44100}, 1);
    EXPECT_EQ(audioFakes().resamplers.size(), 1U);
}

TEST_F(FFResamplerTest, TellsTheTimesOfFramesThatHaveNone) {
    decoded.push_back(makeAudioFrame(AV_SAMPLE_FMT_S16, 2, kOutRate, 4800, 700));
    decoded.push_back(makeAudioFrame(AV_SAMPLE_FMT_S16, 2, kOutRate, 2400, AV_NOPTS_VALUE));
    decoded.push_back(makeAudioFrame(AV_SAMPLE_FMT_S16, 2, kOutRate, 4800, AV_NOPTS_VALUE));
    auto packet = makeAudioPacket(0);
    decoder.insertPacket(packet.get());
    ASSERT_EQ(observer->frames.size(), 3U);
    EXPECT_EQ(observer->frames[0]->pts, 700);
    EXPECT_EQ(observer->frames[1]->pts, 800);
    EXPECT_EQ(observer->frames[2]->pts, 850);
}

}  // namespace

}  // namespace kelp::test
