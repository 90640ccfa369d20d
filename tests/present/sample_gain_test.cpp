#include "present/sample_gain.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

namespace kelp {
namespace {

using testing::Each;

constexpr int kGainRate = 48000;
constexpr size_t kRampFrames = 480;
constexpr int16_t kLoud = 20000;

// Of one channel, all as loud, scaled.
std::vector<int16_t> scaled(SampleGain& gain, size_t count) {
    std::vector<int16_t> samples(count, kLoud);
    gain.apply(reinterpret_cast<unsigned char*>(samples.data()), count);
    return samples;
}

int largestStep(const std::vector<int16_t>& samples) {
    int largest = 0;
    for (size_t i = 1; i < samples.size(); ++i) {
        largest = std::max(largest, std::abs(samples[i] - samples[i - 1]));
    }
    return largest;
}

TEST(SampleGain, TakesAVolumeAtOnceUnlessItIsToBeRamped) {
    SampleGain gain(SampleGain::Changes::AtOnce);
    gain.open(1, kGainRate);
    EXPECT_THAT(scaled(gain, 100), Each(kLoud));
    gain.setVolume(0.5F);
    EXPECT_THAT(scaled(gain, 100), Each(kLoud / 2));
}

TEST(SampleGain, RampsEachVolumeOverTenMilliseconds) {
    SampleGain gain(SampleGain::Changes::Ramped);
    gain.open(1, kGainRate);
    EXPECT_THAT(scaled(gain, 100), Each(kLoud));
    for (const float volume : {0.0F, 1.5F, 0.25F}) {
        gain.setVolume(volume);
        auto ramp = scaled(gain, kRampFrames + 1);
        EXPECT_EQ(ramp.back(), static_cast<int16_t>(kLoud * volume));
        EXPECT_NE(ramp[kRampFrames - 2], ramp[kRampFrames - 1]) << "it was shorter";
        EXPECT_LE(largestStep(ramp), kLoud * 3 / 2 / static_cast<int>(kRampFrames) + 1);
        EXPECT_THAT(scaled(gain, 10), Each(static_cast<int16_t>(kLoud * volume)));
    }
}

TEST(SampleGain, TurnsRoundInTheMidstOfARampWithoutAStep) {
    SampleGain gain(SampleGain::Changes::Ramped);
    gain.open(1, kGainRate);
    scaled(gain, 1);
    gain.setVolume(0);
    auto samples = scaled(gain, kRampFrames / 2);
    gain.setVolume(1);
    const auto back = scaled(gain, kRampFrames);
    samples.insert(samples.end(), back.begin(), back.end());
    EXPECT_LE(largestStep(samples), kLoud / static_cast<int>(kRampFrames) + 1);
    EXPECT_EQ(samples.back(), kLoud);
}

TEST(SampleGain, FadesIntoMuteAndBackInEitherFormAndKeepsTheVolume) {
    for (const auto changes : {SampleGain::Changes::AtOnce, SampleGain::Changes::Ramped}) {
        SampleGain gain(changes);
        gain.open(1, kGainRate);
        gain.setVolume(0.5F);
        EXPECT_THAT(scaled(gain, 10), Each(kLoud / 2));
        gain.setMuted(true);
        EXPECT_LE(largestStep(scaled(gain, kRampFrames)), kLoud / static_cast<int>(kRampFrames) + 1);
        EXPECT_THAT(scaled(gain, 10), Each(0));
        gain.setMuted(false);
        EXPECT_LE(largestStep(scaled(gain, kRampFrames)), kLoud / static_cast<int>(kRampFrames) + 1);
        EXPECT_THAT(scaled(gain, 10), Each(kLoud / 2));
    }
}

TEST(SampleGain, BeginsWithWhatWasSetBeforeTheFirstSample) {
    SampleGain gain(SampleGain::Changes::Ramped);
    gain.open(1, kGainRate);
    gain.setVolume(0.5F);
    EXPECT_THAT(scaled(gain, 10), Each(kLoud / 2));
    SampleGain muted(SampleGain::Changes::AtOnce);
    muted.open(1, kGainRate);
    muted.setMuted(true);
    EXPECT_THAT(scaled(muted, 10), Each(0));
}

TEST(SampleGain, RampsAllChannelsAlike) {
    SampleGain gain(SampleGain::Changes::Ramped);
    gain.open(2, kGainRate);
    scaled(gain, 2);
    gain.setVolume(0);
    const auto samples = scaled(gain, 2 * kRampFrames);
    for (size_t i = 0; i < samples.size(); i += 2) {
        ASSERT_EQ(samples[i], samples[i + 1]) << i;
    }
    EXPECT_GT(samples[2 * kRampFrames - 4], 0) << "it was shorter";
    EXPECT_EQ(samples.back(), 0);
}

TEST(SampleGain, SurvivesVolumesThatAreNoNumbers) {
    SampleGain gain(SampleGain::Changes::Ramped);
    gain.open(1, kGainRate);
    scaled(gain, 1);
    gain.setVolume(std::numeric_limits<float>::infinity());
    EXPECT_THAT(scaled(gain, 10), Each(32767));
    gain.setVolume(std::nanf(""));
    EXPECT_EQ(scaled(gain, kRampFrames).back(), 0);
    gain.setVolume(1);
    EXPECT_EQ(scaled(gain, kRampFrames).back(), kLoud);
}

}  // namespace
}  // namespace kelp
