#include "decode/loop_sound.h"

#include <gmock/gmock.h>

#include <cmath>
#include <cstdlib>
#include <vector>

#include "decode/audio_frame_info.h"

namespace kelp::test {
namespace {

constexpr int kRate = 48000;
constexpr int kBlock = 1024;

std::shared_ptr<FrameBuffer> makeBuffer(unsigned int size) {
    auto buffer = std::make_shared<FrameBuffer>();
    buffer->data = new unsigned char[size];
    buffer->size = size;
    return buffer;
}

// What comes out, and where on the line of playback.
class LoopSoundTest : public testing::Test {
protected:
    LoopSoundTest() { sound.setSpec({1, kRate, 1}); }

    static std::shared_ptr<const LoopTurn> turn(int64_t shiftUs, int64_t fromUs, int64_t toUs) {
        return std::make_shared<LoopTurn>(LoopTurn{shiftUs, (shiftUs + 500) / 1000, fromUs, toUs});
    }

    // The film's sound from sample `from` to `to` in blocks, as a decoder has it: times in whole milliseconds.
    void play(const LoopTurn& turn, int64_t from, int64_t to) {
        for (int64_t at = from; at < to; at += kBlock) {
            const int64_t count = std::min<int64_t>(kBlock, to - at);
            auto frame = std::make_shared<AudioFrameInfo>();
            frame->buffer = makeBuffer(static_cast<unsigned int>(2 * count));
            frame->allocBuffer = makeBuffer;
            frame->dataSize = static_cast<unsigned int>(2 * count);
            auto* const samples = reinterpret_cast<short*>(frame->buffer->data);
            for (int64_t i = 0; i < count; ++i) {
                samples[i] = film(at + i);
            }
            frame->pts = at * 1000 / kRate + turn.shiftMs;
            frame->duration = count * 1000 / kRate;
            sound.take(std::move(frame));
        }
    }

    void take(const std::shared_ptr<AudioFrameInfo>& frame) {
        if (!heard.empty()) {
            // Behind what came before, as far as its milliseconds tell.
            EXPECT_NEAR(static_cast<double>(frame->pts), firstMs + static_cast<double>(heard.size()) * 1000 / kRate,
                        1.01);
        } else {
            firstMs = static_cast<double>(frame->pts);
        }
        const auto* const samples = reinterpret_cast<const short*>(frame->buffer->data);
        newest = frame;
        heard.insert(heard.end(), samples, samples + frame->dataSize / 2);
    }

    int largestStep() const {
        int largest = 0;
        for (size_t i = 1; i < heard.size(); ++i) {
            largest = std::max(largest, std::abs(heard[i] - heard[i - 1]));
        }
        return largest;
    }

    std::function<short(int64_t)> film = [](int64_t sample) { return static_cast<short>(sample % 10'000); };
    std::vector<short> heard;
    std::shared_ptr<AudioFrameInfo> newest;
    double firstMs = 0;
    LoopSound sound{[this](const std::shared_ptr<AudioFrameInfo>& frame) { take(frame); }};
};

TEST_F(LoopSoundTest, LeavesWhatIsInNoTurnAlone) {
    play({}, 0, 3 * kBlock);
    EXPECT_EQ(heard.size(), 3U * kBlock);
    EXPECT_EQ(heard[2000], 2000);
}

TEST_F(LoopSoundTest, CutsEachTurnToTheSample) {
    const auto first = turn(0, -1, 2'000'000);
    sound.setTurn(first);
    play(*first, 0, 2 * kRate + 700);
    EXPECT_EQ(heard.size(), 2U * kRate);
    for (int64_t round = 1; round <= 3; ++round) {
        const auto next = turn(round * 1'000'000, 1'000'000, 2'000'000);
        sound.follow(next);
        play(*next, kRate - 30 * kBlock, 2 * kRate + 700);
        ASSERT_EQ(heard.size(), static_cast<size_t>((2 + round) * kRate));
        EXPECT_NEAR(heard[static_cast<size_t>((1 + round) * kRate) + 1000], film(kRate + 1000), 48);
    }
}

TEST_F(LoopSoundTest, DoesntDriftWhereALengthIsNoNumberOfSamples) {
    constexpr int64_t kLengthUs = 100'010;  // 4800.48 samples
    auto now = turn(0, -1, kLengthUs);
    sound.setTurn(now);
    for (int64_t round = 1; round <= 200; ++round) {
        play(*now, 0, 4900);
        now = turn(round * kLengthUs, 0, kLengthUs);
        sound.follow(now);
        ASSERT_NEAR(static_cast<double>(heard.size()), static_cast<double>(round) * 4800.48, 1);
    }
}

TEST_F(LoopSoundTest, IsSilentWhereSoundIsMissing) {
    const auto first = turn(0, -1, 1'000'000);
    sound.setTurn(first);
    play(*first, 0, kRate - 2000);
    const auto next = turn(1'000'000, 0, 1'000'000);
    sound.follow(next);
    EXPECT_EQ(heard.size(), static_cast<size_t>(kRate));
    EXPECT_EQ(heard.back(), 0);
    EXPECT_EQ(newest->lastsToMs, newest->pts + newest->duration - 1);
    play(*next, 480, kRate + 100);
    EXPECT_EQ(heard.size(), 2U * kRate);
    EXPECT_EQ(newest->lastsToMs, newest->pts + newest->duration - 1);
}

TEST_F(LoopSoundTest, LeavesAnotherFormOfSamplesAlone) {
    const auto first = turn(0, -1, 1'000'000);
    sound.setTurn(first);
    play(*first, 0, kRate - 2000);
    heard.clear();
    sound.setSpec({1, kRate, 3});
    const auto next = turn(1'000'000, 0, 1'000'000);
    sound.follow(next);
    EXPECT_THAT(heard, testing::IsEmpty()) << "silence is of 16 bits";
    play(*next, 0, kRate + 700);
    EXPECT_EQ(heard.size(), kRate + 700U);
}

TEST_F(LoopSoundTest, IsSilentUpToTheSeamHoweverMuchIsMissing) {
    const auto first = turn(0, -1, 10'000'000);
    sound.setTurn(first);
    play(*first, 0, 4 * kRate);
    const auto next = turn(10'000'000, 0, 10'000'000);
    sound.follow(next, 4000);
    EXPECT_EQ(heard.size(), 10U * kRate);
    play(*next, 3 * kRate, 5 * kRate);
    EXPECT_EQ(heard.size(), 15U * kRate);
    EXPECT_EQ(heard[13 * kRate - 1], 0);
    heard.clear();
    play(*next, 7 * kRate, 8 * kRate);
    EXPECT_EQ(heard.size(), 1U * kRate) << "a gap of the film";
}

TEST_F(LoopSoundTest, LeavesOutTheSilenceThatHasGoneBy) {
    const auto first = turn(0, -1, 10'000'000);
    sound.setTurn(first);
    play(*first, 0, 4 * kRate);
    heard.clear();
    const auto next = turn(10'000'000, 0, 10'000'000);
    sound.follow(next, 9000);
    EXPECT_EQ(firstMs, 9000);
    EXPECT_EQ(heard.size(), 1U * kRate);
    play(*next, 0, kRate);
    EXPECT_EQ(heard.size(), 2U * kRate);
}

TEST_F(LoopSoundTest, GoesOnWithoutAClick) {
    // Cut where it is loudest, so that it would jump by the whole wave.
    film = [](int64_t sample) {
        return static_cast<short>(
            std::lround(20'000 * std::sin(2 * M_PI * 220.5 * static_cast<double>(sample) / kRate)));
    };
    const auto first = turn(0, -1, 1'001'134);
    sound.setTurn(first);
    play(*first, 0, 2 * kRate);
    const int stepOfTheWave = largestStep();
    const auto next = turn(1'001'134 - 501'134, 501'134, 1'001'134);
    sound.follow(next);
    play(*next, 0, 2 * kRate);
    EXPECT_LT(largestStep(), stepOfTheWave + 200);
}

TEST_F(LoopSoundTest, FadesIntoSilenceAndOutOfIt) {
    film = [](int64_t) { return short{-32768}; };
    const auto first = turn(0, -1, 1'000'000);
    sound.setTurn(first);
    play(*first, 0, kRate - 2000);
    const auto next = turn(1'000'000, 0, 1'000'000);
    sound.follow(next);
    EXPECT_EQ(heard[kRate - 2000], -32768);
    EXPECT_EQ(heard.back(), 0);
    play(*next, 0, kRate);
    EXPECT_EQ(heard.back(), -32768);
    EXPECT_LT(largestStep(), 200);

    const auto open = turn(2'000'000, 0, LoopTurn::kOpen);
    sound.follow(open);
    play(*open, 0, 10 * kBlock);
    play(*open, 12 * kBlock, 20 * kBlock);
    EXPECT_EQ(heard[static_cast<size_t>(2 * kRate + 11 * kBlock)], 0) << "a gap of the film";
    EXPECT_EQ(heard.back(), -32768);
    EXPECT_LT(largestStep(), 200);
}

TEST_F(LoopSoundTest, PlaysOnceWhatComesTwice) {
    const auto first = turn(0, -1, 20'000'000);
    sound.setTurn(first);
    play(*first, 0, 10 * kBlock);
    play(*first, 8 * kBlock, 12 * kBlock);
    EXPECT_NEAR(static_cast<double>(heard.size()), 12 * kBlock, 48) << "times are in milliseconds";
    const size_t all = heard.size();
    play(*first, 0, kBlock);
    EXPECT_EQ(heard.size(), all);
}

TEST_F(LoopSoundTest, ChangesNothingWhereTheWaveGoesOn) {
    film = [](int64_t sample) { return static_cast<short>(sample % 100); };
    const auto first = turn(0, -1, 1'000'000);
    sound.setTurn(first);
    play(*first, 0, kRate);
    film = [](int64_t sample) { return static_cast<short>((sample + 99) % 100); };
    const auto next = turn(1'000'000, 0, 1'000'000);
    sound.follow(next);
    play(*next, 0, kRate);
    EXPECT_EQ(heard[kRate], heard[kRate - 1]);
    EXPECT_EQ(heard[kRate + 1], 0);
}

TEST_F(LoopSoundTest, BeginsAnewBehindASeek) {
    const auto first = turn(0, -1, 1'000'000);
    sound.setTurn(first);
    play(*first, 0, 2 * kBlock);
    sound.reset();
    heard.clear();
    play(*first, kRate / 2, kRate);
    EXPECT_EQ(heard.size(), static_cast<size_t>(kRate / 2));
    EXPECT_EQ(heard.front(), film(kRate / 2));
}

}  // namespace
}  // namespace kelp::test
