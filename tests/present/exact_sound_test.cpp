#include <algorithm>
#include <cmath>
#include <numbers>
#include <optional>
#include <vector>

#include "present/audio_play_fixture.h"
#include "present/sound_lab.h"

// The sound's exact clock and what follows from it, through AudioPlayThread, the tempo library and a device on the fake
// time. The sound beeps every 637 ms, so what comes out tells its time by itself.
namespace kelp {
namespace {

using test::FakeSoundTouch;
using test::FakeTime;
using test::kLabRate;
using test::LabDevice;

constexpr int kFrame = 1024;
constexpr double kEveryUs = 637'123;
constexpr double kBeepUs = 150'000;
constexpr double kQuietUs = 200'000;  // between two
constexpr double kToneHz = 700;
constexpr int kLoud = 3000;

// Runs with the fake time, at a speed.
class LabMaster : public SyncObject {
public:
    int64_t getNoSyncThreshold() override { return 10000; }
    bool isForceSync() override { return forcing; }
    int64_t getSyncPts() override { return static_cast<int64_t>(std::floor(us() / 1000)); }
    std::optional<double> getSyncSpeed() override { return tellsSpeed ? std::optional(speed_) : std::nullopt; }
    void setSyncObject(std::shared_ptr<SyncObject>) override {}

    double us() const { return us_ + speed_ * static_cast<double>(FakeTime::nowUs() - fromUs_); }
    void set(double us, double speed) {
        us_ = us;
        speed_ = speed;
        fromUs_ = FakeTime::nowUs();
    }

    bool forcing = false;
    bool tellsSpeed = false;

private:
    double us_ = 0;
    double speed_ = 1;
    int64_t fromUs_ = FakeTime::nowUs();
};

struct Reading {
    double atUs = 0;
    double us = 0;
};

double at(const std::vector<Reading>& readings, double atUs) {
    const auto to = std::ranges::find_if(readings, [&](const Reading& r) { return r.atUs >= atUs; });
    if (to == readings.begin() || to == readings.end()) {
        return NAN;
    }
    const Reading& from = *std::prev(to);
    return from.us + (to->us - from.us) * (atUs - from.atUs) / (to->atUs - from.atUs);
}

class ExactSoundTest : public test::AudioPlayFixture {
protected:
    void SetUp() override {
        AudioPlayFixture::SetUp();
        Log::SetLevel(3);
        begin();
    }

    // A new playback at the stream's begin, with nothing measured.
    void begin(double newSpeed = 1, int channels = 2) {
        device = std::make_shared<LabDevice>();
        device->jitterUs = 2000;
        device->onStep = [this] { read(); };
        thread = std::make_shared<AudioPlayThread>();
        peer = std::make_unique<AudioPlayThreadPeer>(*thread);
        thread->init(observer);
        channels_ = channels;
        thread->setOutputSpec({channels, kLabRate, 1});
        PlaybackOptions options;
        options.exactTiming = true;
        thread->setOptions(options);
        peer->useFactory(std::make_shared<test::FakeOutputFactory>(calls, device));
        master = std::make_shared<LabMaster>();
        next_ = 0;
        forget();
        setSpeed(newSpeed);
    }

    // What was measured so far.
    void forget() {
        readings.clear();
        masterReadings.clear();
        device->played.clear();
        FakeSoundTouch::tempos.clear();
        fromUs_ = static_cast<double>(FakeTime::nowUs());
    }

    // Of the sound alone.
    void setSpeed(double newSpeed) {
        speed = newSpeed;
        thread->setSpeed(static_cast<float>(speed));
    }

    // Plays what follows, for `ms`.
    void play(double ms) {
        const double endUs = static_cast<double>(FakeTime::nowUs()) + ms * 1000;
        while (static_cast<double>(FakeTime::nowUs()) < endUs) {
            const auto frame = nextFrame();
            if (peer->output(frame)) {
                next_ += kFrame;
            } else {
                device->passUs(50'000);
            }
        }
    }
    // Nothing is there to be played.
    void starve(int64_t ms) { device->passUs(ms * 1000); }
    // It is missing for so long.
    void leaveOut(int64_t ms) { next_ += ms * kLabRate / 1000; }
    // As the loop does it.
    void seek(double ms) {
        if (device->isOpen()) {
            device->flush();
        }
        peer->seekStart(static_cast<int>(ms));
        next_ = static_cast<int64_t>(ms * kLabRate / 1000);
    }
    void pause(int64_t ms) {
        thread->pause(true);
        const double us = master->us();
        master->set(us, 0);
        device->passUs(ms * 1000);
        master->set(us, speed);
        thread->pause(false);
    }
    double mediaUs() const { return static_cast<double>(next_) * 1e6 / kLabRate; }

    // How far a clock was off at each beep, in milliseconds of playback: positive where the sound came late.
    std::vector<double> offAtBeeps(const std::vector<Reading>& clock, double afterMs = 0) const {
        std::vector<double> off;
        for (const double us : beeps()) {
            const double reading = at(clock, us);
            if (us >= fromUs_ + afterMs * 1000 && !std::isnan(reading)) {
                off.push_back((reading - std::round(reading / kEveryUs) * kEveryUs) / 1000 / speed);
            }
        }
        std::ranges::sort(off);
        return off;
    }

    std::shared_ptr<LabDevice> device;
    std::shared_ptr<LabMaster> master;
    std::vector<Reading> readings;  // of the sound's clock
    std::vector<Reading> masterReadings;
    double speed = 1;

private:
    std::shared_ptr<AudioFrameInfo> nextFrame() const {
        const auto frame = test::makeAudioFrame(static_cast<int64_t>(mediaUs() / 1000), kFrame * 2 * channels_, 21);
        frame->allocBuffer = test::makeBuffer;
        auto* samples = reinterpret_cast<int16_t*>(frame->buffer->data);
        for (int i = 0; i < kFrame; ++i) {
            const double us = static_cast<double>(next_ + i) * 1e6 / kLabRate;
            const bool isBeep = std::fmod(us, kEveryUs) < kBeepUs;
            const double value = isBeep ? 20'000 * std::sin(us * 2e-6 * std::numbers::pi * kToneHz) : 0;
            std::fill_n(samples + i * channels_, channels_, static_cast<int16_t>(value));
        }
        return frame;
    }
    void read() {
        const auto nowUs = static_cast<double>(FakeTime::nowUs());
        readings.push_back({nowUs, static_cast<double>(thread->getSyncPtsUs())});
        masterReadings.push_back({nowUs, master->us()});
    }
    // When beeps began to be heard.
    std::vector<double> beeps() const {
        std::vector<double> times;
        double loudUs = -1e9;
        for (const auto& block : device->played) {
            for (size_t i = 0; i < block.samples.size(); ++i) {
                if (std::abs(block.samples[i]) < kLoud) {
                    continue;
                }
                const double us = block.fromUs + static_cast<double>(i) * 1e6 / kLabRate / device->pace;
                if (us - loudUs > kQuietUs / speed) {
                    times.push_back(us);
                }
                loudUs = us;
            }
        }
        return times;
    }

    int channels_ = 2;
    int64_t next_ = 0;   // sample of the stream
    double fromUs_ = 0;  // when the measurement began
};

double median(const std::vector<double>& sorted) {
    return sorted.empty() ? NAN : sorted[sorted.size() / 2];
}

// By which a beep may be off while the tempo change plays pieces in its own order.
double mostOff(double speed) {
    return speed < 0.5 ? 25 : 20;
}

// Beeps are few where they come slowly.
double mostMedian(double speed) {
    return speed < 1 ? 15 : 10;
}

TEST_F(ExactSoundTest, TheClockTellsWhatIsHeardAtEverySpeed) {
    for (const double wanted : {0.25, 0.5, 1.0, 1.5, 2.0, 4.0}) {
        begin(wanted);
        play(wanted < 0.5 ? 16'000 : 8'000);
        const auto off = offAtBeeps(readings, 500);
        ASSERT_GE(off.size(), 5U) << wanted;
        EXPECT_NEAR(median(off), 0, 10) << wanted;
        EXPECT_GT(off.front(), -mostOff(wanted)) << wanted;
        EXPECT_LT(off.back(), mostOff(wanted)) << wanted;
    }
}

TEST_F(ExactSoundTest, TheClockTellsWhatIsHeardOfMoreAndFewerChannels) {
    for (const int channels : {1, 6}) {
        begin(1, channels);
        play(8'000);
        const auto off = offAtBeeps(readings, 500);
        ASSERT_GE(off.size(), 5U) << channels;
        EXPECT_NEAR(median(off), 0, 10) << channels;
        EXPECT_GT(thread->getSyncPtsUs(), 7'500'000) << channels;
    }
}

TEST_F(ExactSoundTest, TheClockRunsEvenlyAtItsSpeed) {
    for (const double wanted : {0.5, 1.0, 2.0}) {
        begin(wanted);
        play(2000);
        forget();
        play(5000);
        const Reading first = readings.front();
        for (const Reading& reading : readings) {
            EXPECT_NEAR(reading.us - first.us, (reading.atUs - first.atUs) * wanted, 4000 * wanted);
        }
    }
}

TEST_F(ExactSoundTest, TheClockDoesntKnowTheDate) {
    play(2000);
    forget();
    for (const int hours : {1, -2}) {
        FakeTime::setDateBy(hours * 3'600'000);
        play(2000);
    }
    const Reading first = readings.front();
    for (const Reading& reading : readings) {
        EXPECT_NEAR(reading.us - first.us, reading.atUs - first.atUs, 4000);
    }
}

TEST_F(ExactSoundTest, CountsADeviceThatTakesMoreOrLessThanItSays) {
    for (const double pace : {0.97, 1.03}) {
        begin();
        device->pace = pace;
        play(10'000);
        EXPECT_NEAR(median(offAtBeeps(readings, 2000)), 0, 3) << pace;
    }
}

TEST_F(ExactSoundTest, AChangeOfSpeedIsInTheClockWhenItIsHeard) {
    begin(1);
    play(3000);
    for (const double wanted : {2.0, 0.5, 1.5, 1.0}) {
        setSpeed(wanted);
        play(1000);  // the speed comes to the ear, and the clock is never off
        forget();
        play(5000);
        const auto off = offAtBeeps(readings);
        ASSERT_GE(off.size(), 3U);
        EXPECT_NEAR(median(off), 0, 10) << wanted;
    }
}

TEST_F(ExactSoundTest, SoundBeginsAtASeeksTarget) {
    play(2000);
    for (int i = 1; i <= 20; ++i) {
        const double target = i * kEveryUs / 1000 * (i % 3 + 1);
        seek(target);
        EXPECT_EQ(thread->getSyncPts(), static_cast<int64_t>(target));
        starve(30);
        forget();
        play(700);
        // A beep is there at once, in full.
        const auto off = offAtBeeps(readings);
        ASSERT_GE(off.size(), 1U);
        EXPECT_NEAR(off.front(), 0, 3) << i;
        EXPECT_NEAR(off.back(), 0, 3) << i;
    }
}

TEST_F(ExactSoundTest, ThePositionStandsInAPauseAndGoesOnFromThere) {
    play(2000);
    for (int i = 0; i < 20; ++i) {
        forget();
        pause(300 + 7 * i);
        const auto after = static_cast<size_t>(100);  // of milliseconds, when all has come to the ear
        ASSERT_GT(readings.size(), after);
        EXPECT_EQ(readings[after].us, readings.back().us);
        forget();
        play(500);
        EXPECT_LT(readings.front().us - static_cast<double>(thread->getCurrentTime()) * 1000, 0);
    }
    forget();
    play(5000);
    EXPECT_NEAR(median(offAtBeeps(readings)), 0, 3);
}

TEST_F(ExactSoundTest, TellsTheTruthAgainAfterTheDeviceRanDry) {
    play(2000);
    starve(400);
    const auto dryUs = thread->getSyncPtsUs();
    starve(100);
    EXPECT_EQ(thread->getSyncPtsUs(), dryUs + 100'000) << "pictures would stand behind the last sound";
    play(200);
    forget();
    play(5000);
    EXPECT_NEAR(median(offAtBeeps(readings)), 0, 3);
}

// Pictures that follow are shown meanwhile, at their pace.
TEST_F(ExactSoundTest, TimeGoesOnWhereSoundIsMissing) {
    for (const double wanted : {0.5, 1.0, 2.0}) {
        begin(wanted);
        play(2000);
        for (const int64_t ms : {120, 2500, 9900}) {
            forget();
            leaveOut(ms);
            play(static_cast<double>(ms) / wanted + 3000);
            const Reading first = readings.front();
            for (const Reading& reading : readings) {
                ASSERT_NEAR(reading.us - first.us, (reading.atUs - first.atUs) * wanted, 60'000 * wanted) << ms;
            }
            const auto off = offAtBeeps(readings, static_cast<double>(ms) / wanted + 500);
            ASSERT_FALSE(off.empty());
            EXPECT_GT(off.front(), -mostOff(wanted)) << ms;
            EXPECT_LT(off.back(), mostOff(wanted)) << ms;
        }
    }
}

// The tempo library hasn't given anything out by then.
TEST_F(ExactSoundTest, TimeGoesOnWhereSoundIsMissingBehindItsFirstPiece) {
    play(1);
    leaveOut(2000);
    forget();
    play(4000);
    EXPECT_NEAR(readings.back().us - readings.front().us, 4'000'000, 60'000);
    EXPECT_NEAR(median(offAtBeeps(readings, 2500)), 0, 10);
}

TEST_F(ExactSoundTest, TimesThatJumpFarAheadArePlayedAtOnce) {
    play(2000);
    forget();
    leaveOut(10'100);
    play(500);
    EXPECT_GT(readings.back().us, 12'000'000);
}

TEST_F(ExactSoundTest, IsInStepWithAMasterWithinASecond) {
    for (const double pace : {0.25, 0.5, 1.0, 4.0}) {
        for (const double lateMs : {-300.0, 60.0, 300.0}) {
            begin(pace);
            master->forcing = lateMs < 100;
            master->set(mediaUs(), pace);
            thread->setSyncObject(master);
            play(1500);
            master->set(master->us() + lateMs * 1000 * pace, pace);
            forget();
            play(pace < 0.5 ? 9000 : 4000);
            const auto off = offAtBeeps(masterReadings, 1000);
            ASSERT_GE(off.size(), 2U) << pace << ", " << lateMs;
            EXPECT_NEAR(median(off), 0, mostMedian(pace)) << pace << ", " << lateMs;
            EXPECT_GT(off.front(), -mostOff(pace)) << pace << ", " << lateMs;
            EXPECT_LT(off.back(), mostOff(pace)) << pace << ", " << lateMs;
        }
    }
}

TEST_F(ExactSoundTest, TellsHowFarItIsAheadOfItsMaster) {
    master->set(mediaUs(), 1);
    thread->setSyncObject(master);
    play(1500);
    EXPECT_NEAR(thread->getUnSyncSamples(), 0, 10 * 48);
    master->set(master->us() - 60'000, 1);
    play(30);
    EXPECT_NEAR(thread->getUnSyncSamples(), 60 * 48, 20 * 48);
}

TEST_F(ExactSoundTest, FollowsAMasterThatRunsAtAnotherSpeed) {
    for (const double wanted : {0.25, 1.0, 2.0}) {
        for (const double ratio : {0.8, 0.999, 1.5}) {
            begin(wanted);
            const double pace = wanted * ratio;
            master->set(mediaUs(), pace);
            thread->setSyncObject(master);
            play(2000);
            forget();
            speed = pace;  // of what is heard
            play(wanted < 0.5 ? 10'000 : 4'000);
            const auto off = offAtBeeps(masterReadings);
            ASSERT_GE(off.size(), 2U) << wanted << ", " << ratio;
            EXPECT_NEAR(median(off), 0, mostMedian(pace)) << wanted << ", " << ratio;
        }
    }
}

TEST_F(ExactSoundTest, NobodyHearsATempoThatKeepsInStep) {
    FakeSoundTouch::calls = &calls;
    for (const double pace : {0.5, 1.0, 2.0}) {
        begin(pace);
        master->set(mediaUs() + 100'000, pace);
        thread->setSyncObject(master);
        play(2000);
        forget();
        play(5000);
        const auto [least, most] = std::ranges::minmax(FakeSoundTouch::tempos);
        EXPECT_GE(least, pace * 0.97) << pace;
        EXPECT_LE(most, pace * 1.03) << pace;
    }
}

TEST_F(ExactSoundTest, WaitsForAMasterThatIsBehindAndBeginsAtItsTime) {
    for (const bool forcing : {false, true}) {
        begin();
        master->forcing = forcing;
        master->set(-1'234'000, 1);
        thread->setSyncObject(master);
        seek(0);
        forget();
        play(4000);
        const auto off = offAtBeeps(masterReadings);
        ASSERT_GE(off.size(), 3U);
        EXPECT_NEAR(off.front(), 0, 10);
        EXPECT_NEAR(off.back(), 0, 10);
    }
}

TEST_F(ExactSoundTest, SoundStandsWithAMasterThatStands) {
    master->forcing = true;
    master->set(0, 1);
    thread->setSyncObject(master);
    play(3000);
    const double us = master->us();
    master->set(us, 0);
    play(3000);
    const double soundUs = mediaUs();
    EXPECT_LT(std::abs(soundUs - us), 500'000);
    EXPECT_LT(std::abs(static_cast<double>(thread->getSyncPtsUs()) - us), 500'000);
}

TEST_F(ExactSoundTest, IsInStepAfterItsMasterStoodAndSaidSo) {
    FakeSoundTouch::calls = &calls;
    for (const double aheadMs : {-1000.0, -100.0, 0.0, 100.0, 1000.0}) {
        begin();
        master->forcing = true;
        master->tellsSpeed = true;
        thread->setSyncObject(master);
        play(1000);
        master->set(mediaUs() + aheadMs * 1000, 0);
        play(3000);
        EXPECT_NEAR(mediaUs(), master->us(), std::max(300.0, -aheadMs + 300) * 1000) << aheadMs;
        EXPECT_GE(std::ranges::min(FakeSoundTouch::tempos), 0.1) << aheadMs;
        master->set(mediaUs(), 1);
        play(3000);
        forget();
        play(3000);
        const auto off = offAtBeeps(masterReadings);
        ASSERT_GE(off.size(), 3U) << aheadMs;
        EXPECT_NEAR(median(off), 0, 10) << aheadMs;
    }
}

TEST_F(ExactSoundTest, StaysInStepOverSeeksPausesAndChangesOfSpeed) {
    thread->setSyncObject(master);
    play(2000);
    for (int i = 0; i < 20; ++i) {
        pause(50 + 37 * i);
        play(200 + 11 * i);
        seek(i * 3777);
        master->set(i * 3777e3, speed);
        starve(10 * (i % 7));
        play(200 + 13 * i);
        if (i % 2 == 0) {
            setSpeed(0.5 + 0.25 * (i % 7));
            master->set(master->us(), speed);
            play(300);
        }
    }
    play(1000);
    forget();
    play(6'000);
    const auto off = offAtBeeps(masterReadings);
    ASSERT_GE(off.size(), 4U);
    EXPECT_NEAR(median(off), 0, 10);
    EXPECT_NEAR(median(offAtBeeps(readings)), 0, 10);
}

}  // namespace
}  // namespace kelp
