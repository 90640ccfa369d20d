// Sound that goes on without a device, on fake devices that come and go at the fake time.

#include "present/steady_audio_output.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "present/audio_device_fixture.h"
#include "present/audio_output_factory.h"
#include "runtime/kelp_time.h"
#include "support/fake_time.h"
#include "support/log_capture.h"

namespace kelp::test {

namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::IsEmpty;
using testing::Le;

constexpr int kBlockBytes = 4096;
constexpr int kBlockFrames = 1024;
constexpr int64_t kBlockUs = 21333;
constexpr int64_t kRingUs = 42666;
constexpr double kFramesPerUs = 0.048;
constexpr int kHeldMs = 21;
constexpr int kGoneAfterMs = 250;

// The machine's sound: one device, which is there or not.
struct Machine {
    std::atomic<bool> hasDevice{true};
    std::atomic<int64_t> goneUs{0};     // since when it isn't there
    std::atomic<int64_t> noticedUs{0};  // when that will be, once something waits for it
    std::atomic<int64_t> latencyUs{0};  // from the first sound that a device is given to its being heard
    std::atomic<int> openingMs{0};
    std::mutex mutex;
    std::vector<int64_t> attemptsMs;
    std::vector<std::string> calls;

    void note(const std::string& call) {
        std::lock_guard lock(mutex);
        calls.push_back(call);
    }
    std::vector<int64_t> attempts() {
        std::lock_guard lock(mutex);
        return attemptsMs;
    }
    int count(const std::string& call) {
        std::lock_guard lock(mutex);
        return static_cast<int>(std::ranges::count(calls, call));
    }
};

// An output whose device plays at its pace while it is there.
class PacedOutput : public IAudioOutput {
public:
    explicit PacedOutput(Machine& machine) : machine_(machine) {}

    bool init(AudioOutputSpec) override {
        {
            std::lock_guard lock(machine_.mutex);
            machine_.attemptsMs.push_back(FakeTime::nowMs());
        }
        if (machine_.openingMs > 0) {
            KelpTime::sleepMs(machine_.openingMs);
        }
        return machine_.hasDevice;
    }
    bool fillFrame(std::shared_ptr<AudioFrameInfo> frame) override {
        const int64_t frameUs = int64_t{frame->dataSize} * kBlockUs / kBlockBytes;
        if (handedUs_ == 0) {
            playing_.begin(KelpTime::getTimeUs() + machine_.latencyUs, KelpTime::getTimeUs());
        }
        handedUs_ += frameUs;
        playing_.add(frameUs, KelpTime::getTimeUs());
        for (int64_t us = 0; (us = playing_.leftUs(KelpTime::getTimeUs()) - kRingUs) > 0;) {
            if (!machine_.hasDevice) {
                machine_.noticedUs = KelpTime::getTimeUs() + kGoneAfterMs * 1000;
                KelpTime::sleepMs(kGoneAfterMs);
                return false;
            }
            KelpTime::sleepMs(static_cast<int>((us + 999) / 1000));
        }
        return true;
    }
    int getBufferDuration() override {
        return kHeldMs + static_cast<int>(playing_.leftUs(KelpTime::getTimeUs()) / 1000);
    }
    bool pause(bool paused) override {
        machine_.note(paused ? "pause" : "resume");
        return true;
    }
    int64_t underruns() const override { return 2; }
    void close() override { machine_.note("close"); }
    void flush() override { machine_.note("flush"); }
    bool setVolume(float volume) override {
        machine_.note("volume " + std::to_string(volume).substr(0, 3));
        return true;
    }
    void setMuted(bool muted) override { machine_.note(muted ? "mute" : "unmute"); }
    bool setDevice(const std::string& name) override {
        machine_.note("device " + name);
        return name != "missing";
    }
    HeardSound heard(int64_t nowUs) override {
        const int64_t atUs = machine_.hasDevice ? nowUs : std::min<int64_t>(nowUs, machine_.goneUs);
        const int64_t leftUs =
            handedUs_ == 0 ? machine_.latencyUs.load() : std::max<int64_t>(playing_.endUs() - atUs, 0);
        return {.frames = static_cast<double>(std::max<int64_t>(handedUs_ - leftUs, 0)) * kFramesPerUs,
                .delayUs = leftUs,
                .dryFromUs = playing_.endUs(),
                .framesPerSecond = 48000,
                .overdueUs = nowUs - atUs};
    }

private:
    Machine& machine_;
    SilentDevice playing_;
    std::atomic<int64_t> handedUs_{0};
};

const std::string kNone = "[SteadyAudioOutput]: there is no sound device, going on in silence\n";
const std::string kGone = "[SteadyAudioOutput]: the sound device is gone, going on in silence\n";
const std::string kThere = "[SteadyAudioOutput]: there is a sound device, going on with it\n";

// Threads that sleep: the one that plays, and while there is no device the one that looks for it.
constexpr int kWithDevice = 1;
constexpr int kWithoutDevice = 2;

class SteadyAudioOutputTest : public testing::Test {
protected:
    SteadyAudioOutputTest() {
        FakeTime::reset();
        FakeTime::setManual(true);
    }
    ~SteadyAudioOutputTest() override {
        stop();
        FakeTime::reset();
    }

    // Plays blocks without end, as the play thread does, from now on.
    void play() {
        output = std::make_unique<SteadyAudioOutput>([this](auto) { return std::make_shared<PacedOutput>(machine); });
        player_ = std::thread([this] {
            output->init({});
            isOpen_ = true;
            const int64_t startUs = KelpTime::getTimeUs();
            while (!done_) {
                handedFrames_ += kBlockFrames;
                EXPECT_TRUE(output->fillFrame(makeFrameOf(kBlockBytes)));
                handedUs_ += kBlockUs;
                const int64_t heardUs = handedUs_ - int64_t{output->getBufferDuration() - kHeldMs} * 1000;
                aheadMs_ = static_cast<int>((heardUs - (KelpTime::getTimeUs() - startUs)) / 1000);
            }
        });
        while (!isOpen_ && machine.openingMs == 0) {
            std::this_thread::yield();
        }
    }

    void stop() {
        if (player_.joinable()) {
            done_ = true;
            output->close();
            FakeTime::setManual(false);
            player_.join();
        }
    }

    void takeDeviceAway() {
        machine.goneUs = KelpTime::getTimeUs();
        machine.hasDevice = false;
    }
    // The device goes, and time up to its being noticed passes; or it comes, and is taken up.
    void loseDevice() {
        const size_t changes = log.lines().size();
        const int64_t goneMs = FakeTime::nowMs();
        takeDeviceAway();
        while (log.lines().size() == changes && FakeTime::nowMs() < goneMs + 400) {
            ASSERT_TRUE(FakeTime::runFor(5, kWithDevice));
        }
        ASSERT_TRUE(FakeTime::waitForSleepers(kWithoutDevice));
        EXPECT_LE(FakeTime::nowMs() - goneMs, 300);
    }
    void bringDevice() {
        machine.hasDevice = true;
        const size_t attempts = machine.attempts().size();
        ASSERT_TRUE(FakeTime::runFor(machine.attempts().back() + 1999 - FakeTime::nowMs(), kWithoutDevice));
        // The one that looks for it may have gone to sleep a little later.
        while (machine.attempts().size() == attempts) {
            ASSERT_TRUE(FakeTime::waitForSleepers(kWithDevice));
            FakeTime::advanceMs(1);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        takeUp();
    }
    // The thread that looks for it has found it when the processor gets to it, whatever the time is.
    void takeUp() {
        for (int step = 0; step < 5000 && log.count(kThere) == taken_; ++step) {
            ASSERT_TRUE(FakeTime::runFor(1, kWithDevice));
            std::this_thread::sleep_for(std::chrono::microseconds(step < 30 ? 50 : 1000));
        }
        EXPECT_EQ(log.count(kThere), ++taken_);
    }

    // Of all that is handed over, what is heard, in microseconds; behind that time goes on.
    double heardUs() {
        const int64_t nowUs = KelpTime::getTimeUs();
        const HeardSound heard = output->heard(nowUs);
        const bool isDry = heard.frames >= static_cast<double>(handedFrames_);
        return heard.frames / kFramesPerUs + static_cast<double>(isDry ? nowUs - heard.dryFromUs : 0);
    }

    int aheadMs() const { return aheadMs_; }
    int64_t handedMs() const { return handedUs_ / 1000; }

    Machine machine;
    LogCapture log{2};
    std::unique_ptr<SteadyAudioOutput> output;

private:
    std::thread player_;
    int taken_ = 0;  // devices
    std::atomic<bool> isOpen_{false};
    std::atomic<bool> done_{false};
    std::atomic<int64_t> handedUs_{0};
    std::atomic<int64_t> handedFrames_{0};  // with those that are being handed over
    std::atomic<int> aheadMs_{0};           // of what is heard, by the clock
};

TEST(AudioOutputFactory, MakesASteadyOutputWhereItIsWanted) {
    AudioOutputFactory factory({.neverWaitsForDevice = true});
    EXPECT_TRUE(std::dynamic_pointer_cast<SteadyAudioOutput>(factory.create({})));
}

TEST_F(SteadyAudioOutputTest, PlaysThroughTheDeviceAndSaysNothingOfIt) {
    play();
    ASSERT_TRUE(FakeTime::runFor(5000, kWithDevice));
    EXPECT_THAT(handedMs(), AllOf(Ge(4990), Le(5070)));
    EXPECT_EQ(machine.attempts().size(), 1U);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SteadyAudioOutputTest, GoesOnAtItsPaceWithoutADevice) {
    machine.hasDevice = false;
    play();
    for (int s = 1; s <= 60; ++s) {
        ASSERT_TRUE(FakeTime::runFor(1000, kWithoutDevice));
        EXPECT_THAT(handedMs(), AllOf(Ge(s * 1000 - 1), Le(s * 1000 + 65))) << s;
        EXPECT_THAT(aheadMs(), AllOf(Ge(-2), Le(2))) << s;
    }
    EXPECT_THAT(log.lines(), ElementsAre(kNone));
}

TEST_F(SteadyAudioOutputTest, TellsWhetherItIsSilentAndTheGapsOfAllItsDevices) {
    play();
    ASSERT_TRUE(FakeTime::runFor(100, kWithDevice));
    EXPECT_FALSE(output->isSilent());
    EXPECT_EQ(output->underruns(), 2);
    loseDevice();
    EXPECT_TRUE(output->isSilent());
    EXPECT_EQ(output->underruns(), 2);
    bringDevice();
    EXPECT_FALSE(output->isSilent());
    EXPECT_EQ(output->underruns(), 4);
}

TEST_F(SteadyAudioOutputTest, LooksForADeviceEveryTwoSeconds) {
    machine.hasDevice = false;
    play();
    ASSERT_TRUE(FakeTime::runFor(6500, kWithoutDevice));
    EXPECT_THAT(machine.attempts(), ElementsAre(1'000'000, 1'002'000, 1'004'000, 1'006'000));
    EXPECT_EQ(machine.count("close"), 4);
}

TEST_F(SteadyAudioOutputTest, LooksNoSoonerForOneThatOpensAndDoesNothing) {
    play();
    ASSERT_TRUE(FakeTime::runFor(100, kWithDevice));
    loseDevice();
    EXPECT_EQ(machine.attempts().size(), 1U);
    EXPECT_EQ(machine.count("close"), 1);
    ASSERT_TRUE(FakeTime::runFor(2000, kWithoutDevice));
    // The clock may move on between the thread's look at it and its rest.
    EXPECT_THAT(machine.attempts(), ElementsAre(1'000'000, AllOf(Ge(1'002'000), Le(1'002'005))));
}

TEST_F(SteadyAudioOutputTest, TakesADeviceThatComesAndItsClockDoesNotJump) {
    machine.hasDevice = false;
    play();
    ASSERT_TRUE(FakeTime::runFor(3000, kWithoutDevice));
    output->setVolume(0.5F);
    machine.hasDevice = true;
    ASSERT_TRUE(FakeTime::runFor(999, kWithoutDevice));
    EXPECT_EQ(log.count(kThere), 0);
    takeUp();
    for (int step = 0; step < 100; ++step) {
        ASSERT_TRUE(FakeTime::runFor(10, kWithDevice));
        EXPECT_THAT(aheadMs(), AllOf(Ge(-3), Le(3))) << step;
    }
    EXPECT_THAT(log.lines(), ElementsAre(kNone, kThere));
    EXPECT_EQ(machine.count("volume 0.5"), 1);
}

TEST_F(SteadyAudioOutputTest, GivesEachDeviceTheNameThatIsWantedByThen) {
    machine.hasDevice = false;
    play();
    EXPECT_TRUE(output->setDevice("Headset"));
    output->setMuted(true);
    ASSERT_TRUE(FakeTime::runFor(2500, kWithoutDevice));
    EXPECT_GE(machine.count("device Headset"), 1);
    bringDevice();
    EXPECT_EQ(machine.count("mute"), 1);
    // A change that fails leaves the name, for the time when this one is lost.
    EXPECT_FALSE(output->setDevice("missing"));
    const int tries = machine.count("device Headset");
    loseDevice();
    ASSERT_TRUE(FakeTime::runFor(2500, kWithoutDevice));
    EXPECT_GT(machine.count("device Headset"), tries);
    EXPECT_EQ(machine.count("device missing"), 1);
}

TEST_F(SteadyAudioOutputTest, MakesUpForTheTimeInWhichALostDeviceTookNothing) {
    play();
    ASSERT_TRUE(FakeTime::runFor(2500, kWithDevice));
    loseDevice();
    EXPECT_THAT(aheadMs(), AllOf(Ge(-8), Le(8)));
    EXPECT_THAT(log.lines(), ElementsAre(kGone));
    EXPECT_EQ(machine.count("close"), 2) << "the lost one, and one that didn't open";
}

TEST_F(SteadyAudioOutputTest, KeepsItsPaceOverTenLossesOfTheDevice) {
    play();
    ASSERT_TRUE(FakeTime::runFor(1000, kWithDevice));
    std::vector<std::string> changes;
    for (int round = 0; round < 10; ++round) {
        loseDevice();
        changes.push_back(kGone);
        EXPECT_THAT(log.lines(), testing::ElementsAreArray(changes));
        ASSERT_TRUE(FakeTime::runFor(3000, kWithoutDevice));
        bringDevice();
        changes.push_back(kThere);
        EXPECT_THAT(log.lines(), testing::ElementsAreArray(changes));
        ASSERT_TRUE(FakeTime::runFor(1000, kWithDevice));
        EXPECT_THAT(aheadMs(), AllOf(Ge(-20), Le(20))) << round;
    }
}

TEST_F(SteadyAudioOutputTest, StandsInAPauseAndGoesOnBehindIt) {
    machine.hasDevice = false;
    play();
    ASSERT_TRUE(FakeTime::runFor(1000, kWithoutDevice));
    output->pause(true);
    ASSERT_TRUE(FakeTime::waitForSleepers(kWithoutDevice));
    const int64_t handed = handedMs();
    ASSERT_TRUE(FakeTime::runFor(5000, kWithoutDevice));
    EXPECT_EQ(handedMs(), handed);
    output->pause(false);
    ASSERT_TRUE(FakeTime::runFor(1000, kWithoutDevice));
    EXPECT_THAT(handedMs() - handed, AllOf(Ge(978), Le(1022)));
}

TEST_F(SteadyAudioOutputTest, HandsAPauseAndAFlushToTheDeviceThatItTakes) {
    machine.hasDevice = false;
    play();
    ASSERT_TRUE(FakeTime::runFor(500, kWithoutDevice));
    output->pause(true);
    machine.hasDevice = true;
    ASSERT_TRUE(FakeTime::runFor(1600, kWithDevice));
    EXPECT_EQ(machine.count("pause"), 0) << "a thread that stands in a pause takes none";
    output->pause(false);
    takeUp();
    EXPECT_THAT(log.lines(), ElementsAre(kNone, kThere));
    output->pause(true);
    output->flush();
    EXPECT_EQ(machine.count("pause"), 1);
    EXPECT_EQ(machine.count("flush"), 1);
}

TEST_F(SteadyAudioOutputTest, AFlushEndsASilentBlockAtOnceAlsoInAPause) {
    machine.hasDevice = false;
    play();
    for (const bool paused : {false, true}) {
        ASSERT_TRUE(FakeTime::runFor(100, kWithoutDevice));
        output->pause(paused);
        ASSERT_TRUE(FakeTime::waitForSleepers(kWithoutDevice));
        const int64_t handed = handedMs();
        output->flush();
        ASSERT_TRUE(FakeTime::waitForSleepers(kWithoutDevice));
        EXPECT_GT(handedMs(), handed) << paused;
    }
}

TEST_F(SteadyAudioOutputTest, ADeviceThatTakesLongToOpenHoldsNothingUp) {
    machine.openingMs = 1500;
    play();
    ASSERT_TRUE(FakeTime::runFor(250, kWithoutDevice));
    ASSERT_TRUE(FakeTime::runFor(1240, kWithoutDevice));
    EXPECT_THAT(handedMs(), AllOf(Ge(1230), Le(1310)));
    takeUp();
    EXPECT_THAT(log.lines(), ElementsAre(kNone, kThere));
}

TEST_F(SteadyAudioOutputTest, TellsWhatIsHeardWithADeviceAndWithoutOne) {
    play();
    const int64_t beginUs = KelpTime::getTimeUs();
    const auto expectSteady = [&](int threads) {
        for (int i = 0; i < 20; ++i) {
            ASSERT_TRUE(FakeTime::runFor(37, threads));
            const int64_t nowUs = KelpTime::getTimeUs();
            const HeardSound heard = output->heard(nowUs);
            EXPECT_NEAR(heard.frames / kFramesPerUs, static_cast<double>(nowUs - beginUs), 60e3) << i;
            EXPECT_THAT(heard.delayUs, AllOf(Ge(0), Le(kRingUs + kBlockUs)));
            EXPECT_EQ(heard.framesPerSecond, 48000);
        }
    };
    expectSteady(kWithDevice);
    loseDevice();
    expectSteady(kWithoutDevice);
    bringDevice();
    expectSteady(kWithDevice);
}

TEST_F(SteadyAudioOutputTest, ItsClockRunsOnThroughALossThatIsNotNoticedYetAndThroughTheNextDevice) {
    machine.latencyUs = 30'000;
    play();
    ASSERT_TRUE(FakeTime::runFor(1000, kWithDevice));
    const double aheadUs = heardUs() - static_cast<double>(KelpTime::getTimeUs());
    double lastUs = heardUs();
    // At most this much behind where it should be, never before where it was.
    const auto step = [&](int threads, double mostBehindUs) {
        ASSERT_TRUE(FakeTime::runFor(5, threads));
        const double nowUs = heardUs();
        EXPECT_GE(nowUs, lastUs);
        EXPECT_NEAR(nowUs - static_cast<double>(KelpTime::getTimeUs()) - aheadUs, -mostBehindUs / 2,
                    mostBehindUs / 2 + 2000);
        lastUs = nowUs;
    };
    for (int round = 0; round < 3; ++round) {
        takeDeviceAway();
        // What it has is played; then the clock stands for 40 ms and makes up for it in as many.
        for (int ms = 0; ms < 105; ms += 5) {
            step(kWithDevice, 63'000);
        }
        while (FakeTime::nowUs() + 5000 < machine.noticedUs) {
            step(kWithDevice, 0);
        }
        // From here on two threads sleep, and the clock must not move before the one that plays has caught up.
        FakeTime::advanceUs(machine.noticedUs - FakeTime::nowUs());
        ASSERT_TRUE(FakeTime::waitForSleepers(kWithoutDevice));
        for (int ms = 0; ms < 500; ms += 5) {
            step(kWithoutDevice, 0);
        }
        bringDevice();
        for (int ms = 0; ms < 500; ms += 5) {
            step(kWithDevice, 0);
        }
    }
}

TEST_F(SteadyAudioOutputTest, ADeviceThatIsPausedOwesNothing) {
    play();
    ASSERT_TRUE(FakeTime::runFor(1000, kWithDevice));
    output->pause(true);
    takeDeviceAway();  // it asks for nothing, as in a pause
    const double frames = output->heard(KelpTime::getTimeUs()).frames;
    ASSERT_TRUE(FakeTime::runFor(200, kWithDevice));
    EXPECT_EQ(output->heard(KelpTime::getTimeUs()).frames, frames);
    output->pause(false);
    EXPECT_EQ(output->heard(KelpTime::getTimeUs()).frames, frames);
    machine.hasDevice = true;
}

TEST_F(SteadyAudioOutputTest, ClosesTheDeviceThatWasFoundLast) {
    machine.openingMs = 400;
    play();
    ASSERT_TRUE(FakeTime::runFor(300, kWithoutDevice));
    std::thread closer([this] { output->close(); });
    FakeTime::advanceMs(100);
    closer.join();
    // Who has just taken it closes it when the processor gets to it.
    for (int step = 0; step < 20'000 && machine.count("close") == 0; ++step) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_GE(machine.count("close"), 1);
    EXPECT_EQ(machine.attempts().size(), 1U);
}

// The clock that is set by an hour neither holds the sound up nor lets it race.
TEST_F(SteadyAudioOutputTest, OverlooksAClockThatIsSet) {
    machine.hasDevice = false;
    play();
    for (const int64_t jumpMs : {3'600'000, -3'600'000}) {
        ASSERT_TRUE(FakeTime::runFor(1000, kWithoutDevice));
        const int64_t handed = handedMs();
        FakeTime::advanceMs(jumpMs);
        ASSERT_TRUE(FakeTime::waitForSleepers(1));
        EXPECT_THAT(handedMs() - handed, AllOf(Ge(0), Le(43))) << jumpMs;
    }
}

}  // namespace

}  // namespace kelp::test
