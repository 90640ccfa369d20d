#include <gmock/gmock.h>

extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <string>

#include "decode/audio_library_fakes.h"
#include "decode/audio_test_support.h"
#include "decode/ff_audio_decoder.h"
#include "decode/seek_skip.h"
#include "support/log_capture.h"

namespace kelp::test {

namespace {

constexpr int kOutRate = 48000;
constexpr int kSeconds = 6;

struct MediaCase {
    const char* encoder;
    const char* extension;
    AudioCodecType codecType;
    int hz, sampleRate, channels;
};

void PrintTo(const MediaCase& c, std::ostream* out) {
    *out << c.encoder << " " << c.sampleRate << " " << c.channels;
}

// Made once for all tests of the program that want it.
const ToneFile& toneFor(const MediaCase& c) {
    static std::map<std::string, ToneFile> files;
    const std::string key = testing::PrintToString(c);
    const auto found = files.find(key);
    if (found != files.end()) {
        return found->second;
    }
    return files.emplace(key, makeToneFile(c.encoder, c.extension, c.hz, c.sampleRate, c.channels, kSeconds))
        .first->second;
}

class AudioMediaTest : public testing::TestWithParam<MediaCase> {
protected:
    AudioMediaTest() { audioFakes() = {}; }

    void SetUp() override {
        ASSERT_EQ(tone.codecType, GetParam().codecType);
        ASSERT_TRUE(decoder.open(tone.codecType, tone.parameters.get(), observer));
        ASSERT_TRUE(decoder.setOutputSpec({2, kOutRate, 1}));
    }

    void TearDown() override {
        decoder.close();
        observer->frames.clear();
    }

    // All packets, and a packet without data before and after which the codec gives what it held back. The second of
    // these is one too many for the codec.
    void decodeAll() {
        for (const auto& packet : tone.packets) {
            decoder.insertPacket(packet.get());
        }
        AudioPacket end;
        decoder.insertPacket(&end);
        decoder.insertPacket(&end);
    }

    // One channel of all frames.
    std::vector<int16_t> samples(int channel) {
        std::vector<int16_t> all;
        for (const auto& frame : observer->frames) {
            for (unsigned i = 0; i < frame->dataSize / 4; ++i) {
                int16_t sample;
                std::memcpy(&sample, frame->buffer->data + 4 * i + 2 * static_cast<unsigned>(channel), sizeof(sample));
                all.push_back(sample);
            }
        }
        return all;
    }

    // Without the first and last tenth of a second, where encoders fade and pad.
    static std::vector<int16_t> inside(const std::vector<int16_t>& all) {
        return {all.begin() + kOutRate / 10, all.end() - kOutRate / 10};
    }

    const ToneFile& tone = toneFor(GetParam());
    std::shared_ptr<RecordingAudioObserver> observer = std::make_shared<RecordingAudioObserver>();
    FFAudioDecoder decoder;
};

TEST_P(AudioMediaTest, DecodesTheTone) {
    LogCapture log(1);
    decodeAll();
    EXPECT_THAT(log.lines(), testing::ElementsAre("[FFAudioDecoder]: insertPacket, avcodec_send_packet failed, "
                                                  "ret:-541478725, End of file\n"));
    for (const int channel : {0, 1}) {
        const auto all = samples(channel);
        EXPECT_NEAR(static_cast<double>(all.size()), kSeconds * kOutRate, kOutRate / 10.0);
        EXPECT_NEAR(measureHz(inside(all), kOutRate), GetParam().hz, 0.5);
    }
}

TEST_P(AudioMediaTest, TimesAreMillisecondsAndFollowTheSamples) {
    decodeAll();
    ASSERT_GT(observer->frames.size(), 10U);
    int64_t samplesSoFar = 0;
    const int64_t start = observer->frames[0]->pts;
    for (const auto& frame : observer->frames) {
        // The resampler holds some samples back, a packet's time is rounded, and the first frame may be cut.
        EXPECT_NEAR(static_cast<double>(frame->pts - start), static_cast<double>(samplesSoFar) * 1000 / kOutRate, 35);
        EXPECT_EQ(frame->frameTag, 0);
        samplesSoFar += frame->dataSize / 4;
    }
    const auto& last = *observer->frames.back();
    EXPECT_NEAR(static_cast<double>(last.pts + last.duration - start), kSeconds * 1000, 100);
}

TEST_P(AudioMediaTest, KeepsTheToneUnderCorrection) {
    decoder.openSync(true);
    // By 5 percent fewer samples, so the tone rises by as much.
    observer->speedUp = static_cast<int>(tone.parameters->frame_size > 0 ? tone.parameters->frame_size / 20 : 10);
    decodeAll();
    const auto all = samples(0);
    EXPECT_LT(all.size(), static_cast<size_t>(kSeconds * kOutRate));
    const double hz = measureHz(inside(all), kOutRate);
    EXPECT_GT(hz, GetParam().hz * 1.002);
    EXPECT_LT(hz, GetParam().hz * 1.12);
}

TEST_P(AudioMediaTest, GoesOnAfterAFlush) {
    for (size_t i = 0; i < tone.packets.size() / 2; ++i) {
        decoder.insertPacket(tone.packets[i].get());
    }
    decoder.flush();
    observer->frames.clear();
    decodeAll();
    EXPECT_NEAR(static_cast<double>(samples(0).size()), kSeconds * kOutRate, kOutRate / 10.0);
}

// A seek, with all packets known: what is heard from its target on is what it was without anything left out, but for
// where between two samples the resampler stands.
TEST_P(AudioMediaTest, SoundsTheSameFromASeeksTargetOn) {
    constexpr int64_t kTargetMs = 3000;
    constexpr int64_t kLeadInMs = 500;
    decodeAll();
    const auto all = std::exchange(observer->frames, {});
    decoder.flush();
    SeekSkip skip(kLeadInMs);
    skip.aim(kTargetMs, /*flush=*/true);
    std::deque<std::shared_ptr<MediaPacket>> behind(tone.packets.begin(), tone.packets.end());
    while (!behind.empty()) {
        const auto packet = behind.front();
        behind.pop_front();
        skip.take(*packet, behind);
        decoder.setNeededFrom(skip.neededFromMs());
        decoder.insertPacket(packet.get());
    }
    // The second one is behind the gap.
    EXPECT_EQ(audioFakes().codecCallCount("flush_buffers"), 2);
    const auto& some = observer->frames;
    ASSERT_GT(some.size(), 5U);
    // All that leads to it but for a part of a block, or two short ones, and three blocks at least.
    int64_t blockMs = 0;
    for (const auto& packet : tone.packets) {
        blockMs = std::max(blockMs, packet->duration * 1000 * packet->timeBaseNum / packet->timeBaseDen);
    }
    EXPECT_LT(some[0]->pts, kTargetMs - kLeadInMs + std::max<int64_t>(blockMs + 1, 50));
    EXPECT_LE(some[0]->pts, kTargetMs - 2 * blockMs);
    EXPECT_GT(some[0]->pts, kTargetMs - 2000);
    const auto atTarget = [](const auto& frame) { return frame->pts + frame->duration - 1 >= kTargetMs; };
    auto expected = std::find_if(all.begin(), all.end(), atTarget);
    auto heard = std::find_if(some.begin(), some.end(), atTarget);
    ASSERT_NE(heard, some.end());
    for (int block = 0; block < 4; ++block, ++expected, ++heard) {
        EXPECT_EQ((*heard)->pts, (*expected)->pts);
        EXPECT_EQ((*heard)->duration, (*expected)->duration);
        EXPECT_NEAR((*heard)->dataSize, (*expected)->dataSize, 8);
        const unsigned int samples = std::min((*heard)->dataSize, (*expected)->dataSize) / 2;
        const auto* left = reinterpret_cast<const int16_t*>((*heard)->buffer->data);
        const auto* right = reinterpret_cast<const int16_t*>((*expected)->buffer->data);
        int most = 0;
        for (unsigned int i = 0; i < samples; ++i) {
            most = std::max(most, std::abs(left[i] - right[i]));
        }
        // The tone's height is 4096.
        EXPECT_LT(most, tone.parameters->sample_rate == kOutRate ? 40 : 600);
    }
}

TEST_P(AudioMediaTest, SurvivesDamagedPackets) {
    LogCapture log(-1);
    av_log_set_level(AV_LOG_QUIET);
    std::mt19937 random(7);
    for (int round = 0; round < 3; ++round) {
        for (const auto& packet : tone.packets) {
            auto damaged = makeAudioPacket(packet->pts, packet->size, packet->timeBaseNum, packet->timeBaseDen);
            std::memcpy(damaged->data, packet->data, static_cast<size_t>(packet->size));
            for (int i = 0; i < 4; ++i) {
                damaged->data[random() % static_cast<unsigned>(packet->size)] = static_cast<unsigned char>(random());
            }
            damaged->size =
                round == 1 ? static_cast<int>(random() % static_cast<unsigned>(packet->size)) : packet->size;
            decoder.insertPacket(damaged.get());
        }
        observer->frames.clear();
    }
    av_log_set_level(AV_LOG_INFO);

    // What the damage left in the codec goes with it.
    decoder.close();
    ASSERT_TRUE(decoder.open(tone.codecType, tone.parameters.get(), observer));
    decodeAll();
    EXPECT_NEAR(measureHz(inside(samples(0)), kOutRate), GetParam().hz, 0.5);
}

INSTANTIATE_TEST_SUITE_P(Codecs, AudioMediaTest,
                         testing::Values(MediaCase{"aac", "m4a", AUDIO_CODEC_AAC, 440, 44100, 2},
                                         MediaCase{"aac", "m4a", AUDIO_CODEC_AAC, 440, 48000, 1},
                                         MediaCase{"libmp3lame", "mp3", AUDIO_CODEC_MP3, 1000, 44100, 2},
                                         MediaCase{"libvorbis", "ogg", AUDIO_CODEC_VORBIS, 440, 48000, 2},
                                         MediaCase{"pcm_alaw", "wav", AUDIO_CODEC_PCM_ALAW, 300, 8000, 1}));

}  // namespace

}  // namespace kelp::test
