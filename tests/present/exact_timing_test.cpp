#include "present/exact_timing.h"

#include <gmock/gmock.h>

#include <cmath>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "clock/clock_line.h"
#include "clock/exact_clock.h"
#include "present/video_play_fixture.h"

namespace kelp {
namespace {

using test::FakeTime;
using test::kStart;
using test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;
using Peer = VideoPlayThreadPeer;

constexpr int64_t kStartUs = kStart * 1000;

// A host's clock, as the wrapper has it: whole milliseconds of a wall clock of whole milliseconds, at a speed.
class HostMaster : public SyncObject {
public:
    explicit HostMaster(double speed) : time_{0, FakeTime::nowMs(), speed} {}

    int64_t getNoSyncThreshold() override { return 10000; }
    bool isForceSync() override { return true; }
    int64_t getSyncPts() override {
        const double passed = static_cast<double>(FakeTime::nowMs() - time_.atMs) * time_.speed;
        return time_.ms + static_cast<int64_t>(passed);
    }
    int64_t getSyncPtsUs() override {
        line_.add(getSyncPts(), FakeTime::nowUs());
        return line_.timeUs();
    }
    std::optional<double> getSyncSpeed() override { return line_.speed(); }
    void setSyncObject(std::shared_ptr<SyncObject>) override {}

    // Also where it reads so already.
    void set(int64_t ms, double speed) { time_ = {ms, FakeTime::nowMs(), speed}; }

private:
    struct {
        int64_t ms;
        int64_t atMs;
        double speed;
    } time_;
    ClockLine line_;
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// A play thread with exact timing and one window, not started. What is followed is set by `follow`.
class ExactPictures : public testing::Test, public VideoPlayThreadObserver {
protected:
    ExactPictures() {
        FakeTime::reset(kStart);
        renders.onRefresh = [this](int64_t pts) {
            drawnUs.try_emplace(pts, FakeTime::nowUs());
            if (onDrawing) {
                onDrawing();
            }
        };
        // Neither owns the other.
        thread.init(std::shared_ptr<VideoPlayThreadObserver>(std::shared_ptr<void>(), this));
        thread.addWindow(WINDOW_TYPE_QT_WINID, test::handle(1), 640, 480);
    }

    void onFirstVideoFrame(int64_t pts) override {
        firsts.push_back(pts);
        if (clock) {
            clock->rebase(pts);
        }
    }

    // "none", "clock", or "host"; what the first picture at `pts` begins with, for the clock.
    void follow(const std::string& master, double speed) {
        clock = master == "clock" ? std::make_shared<ExactClock>(speed) : nullptr;
        host = master == "host" ? std::make_shared<HostMaster>(speed) : nullptr;
        thread.setSpeed(speed);
        clock ? thread.setSyncObject(clock) : host ? thread.setSyncObject(host) : thread.setSyncObject(nullptr);
    }

    static int64_t timeUs(int number, double fps) { return std::llround(number * 1e6 / fps); }

    static std::shared_ptr<VideoFrameInfo> picture(int64_t timeUs) {
        const auto frame = test::makePicture(timeUs / 1000);
        frame->fractionUs = static_cast<int>(timeUs % 1000);
        return frame;
    }

    bool output(int64_t timeUs) { return Peer::output(thread, picture(timeUs)); }

    // When the picture was drawn first, from the start of the test.
    int64_t drawnAtUs(int64_t timeUs) {
        const auto found = drawnUs.find(timeUs / 1000);
        return found == drawnUs.end() ? -1 : found->second - kStartUs;
    }
    static int64_t sinceStartUs() { return FakeTime::nowUs() - kStartUs; }

    void pause(bool paused) {
        if (clock) {
            paused ? clock->save(-1) : clock->restore();
        }
        thread.pause(paused);
    }

    test::FakeRenders renders;
    std::map<int64_t, int64_t> drawnUs;  // by the picture's milliseconds
    std::vector<int64_t> firsts;
    std::function<void()> onDrawing;
    std::shared_ptr<ExactClock> clock;
    std::shared_ptr<HostMaster> host;
    VideoPlayThread thread{/*isLive=*/false, /*renderTiming=*/nullptr, {.exactTiming = true}};
};

#pragma GCC diagnostic pop

constexpr double kRates[] = {24000.0 / 1001, 24, 25, 30000.0 / 1001, 50, 60000.0 / 1001, 120};
constexpr double kSpeeds[] = {0.25, 0.5, 1, 1.5, 2, 4};

struct Case {
    std::string master;
    double speed;
    double fps;
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class ExactPictureTimes : public ExactPictures, public testing::WithParamInterface<Case> {};

class ExactPictureChanges : public ExactPictures, public testing::WithParamInterface<std::string> {};

#pragma GCC diagnostic pop

std::vector<Case> cases() {
    std::vector<Case> all;
    for (const char* master : {"none", "clock", "host"}) {
        for (const double speed : kSpeeds) {
            for (const double fps : kRates) {
                all.push_back({master, speed, fps});
            }
        }
    }
    return all;
}

// Ten seconds: what adds up would show.
TEST_P(ExactPictureTimes, AreWithinAMillisecondOfTheirs) {
    const auto& [master, speed, fps] = GetParam();
    follow(master, speed);
    const int count = static_cast<int>(10 * fps * std::max(1.0, speed));
    for (int i = 0; i < count; ++i) {
        ASSERT_TRUE(output(timeUs(i, fps)));
    }
    for (int i = 1; i < count; ++i) {
        const double dueUs = static_cast<double>(timeUs(i, fps)) / speed;
        // The speed of a host's clock is to be found first. At 4 it has steps of 4 ms, and few pictures may meet them
        // alike.
        const bool isFound = master != "host" || dueUs > 1'000'000;
        const double mostOfStepsUs = fps < 24 ? 2500 : 1500;
        const double mostUs = !isFound ? 10'000 : master == "host" && speed > 2 ? mostOfStepsUs : 1000;
        ASSERT_NEAR(static_cast<double>(drawnAtUs(timeUs(i, fps))), dueUs, mostUs) << "picture " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(OfAnyMasterSpeedAndRate, ExactPictureTimes, testing::ValuesIn(cases()), [](const auto& one) {
    return one.param.master + std::to_string(std::lround(one.param.speed * 100)) + "At" +
           std::to_string(std::lround(one.param.fps * 100));
});

TEST_P(ExactPictureChanges, KeepTimeOverAPause) {
    follow(GetParam(), 2);
    for (int i = 0; i < 10; ++i) {
        output(timeUs(i, 25));
    }
    FakeTime::advanceUs(7'300);
    const int64_t pausedUs = sinceStartUs();
    pause(true);
    if (host) {
        host->set(host->getSyncPts(), 0);
    }
    // The next picture isn't shown, however long that takes, and the last one stays.
    EXPECT_FALSE(output(timeUs(10, 25)));
    FakeTime::advanceMs(3000);
    EXPECT_FALSE(output(timeUs(10, 25)));
    EXPECT_EQ(drawnAtUs(timeUs(10, 25)), -1);
    EXPECT_EQ(thread.getCurrentTime(), 360);
    EXPECT_EQ(renders.refreshes().back().pts, 360);
    FakeTime::advanceUs(450);
    const int64_t gapUs = sinceStartUs() - pausedUs;
    if (host) {
        host->set(host->getSyncPts(), 2);
    }
    pause(false);
    for (int i = 10; i < 40; ++i) {
        EXPECT_TRUE(output(timeUs(i, 25)));
        // What the host's clock has cut off at its pause counts, and the speed has to be found again.
        EXPECT_NEAR(static_cast<double>(drawnAtUs(timeUs(i, 25)) - gapUs), i * 20'000, host ? 6000 : 1000) << i;
    }
}

TEST_P(ExactPictureChanges, KeepTimeWhateverTheDateIsSetTo) {
    follow(GetParam(), 1);
    for (int i = 0; i < 60; ++i) {
        if (i % 20 == 10) {
            FakeTime::setDateBy(i == 30 ? -7'200'000 : 3'600'000);
        }
        EXPECT_TRUE(output(timeUs(i, 25)));
        EXPECT_NEAR(static_cast<double>(drawnAtUs(timeUs(i, 25))), i * 40'000, 1000) << i;
    }
}

TEST_P(ExactPictureChanges, BeginAnewWithASeek) {
    follow(GetParam(), 0.5);
    for (int i = 0; i < 10; ++i) {
        output(timeUs(i, 25));
    }
    const int64_t soughtUs = sinceStartUs() + 5000;
    FakeTime::advanceUs(5000);
    if (host) {
        host->set(5000, 0.5);
    }
    thread.seek(5000, /*needFlush=*/true);
    Peer::seekStart(thread, 5000);
    EXPECT_EQ(thread.getCurrentTime(), 5000);
    Peer::seekFinish(thread, 5000);
    for (int i = 125; i < 150; ++i) {
        output(timeUs(i, 25));
        EXPECT_NEAR(static_cast<double>(drawnAtUs(timeUs(i, 25)) - soughtUs), (i - 125) * 80'000, 2000) << i;
    }
    EXPECT_EQ(drawnAtUs(5'000'000), soughtUs);
}

TEST_P(ExactPictureChanges, ShowTheFirstOfASeekInAPauseAndNoOther) {
    follow(GetParam(), 1);
    output(0);
    pause(true);
    if (host) {
        host->set(70'000, 0);
    }
    thread.seek(80'000, /*needFlush=*/true);
    Peer::seekStart(thread, 80'000);
    Peer::seekFinish(thread, 80'000);
    EXPECT_TRUE(output(80'000'000));
    EXPECT_EQ(drawnAtUs(80'000'000), 0);
    FakeTime::advanceMs(50);
    EXPECT_TRUE(output(80'000'000));  // as the loop does, again and again
    FakeTime::advanceMs(50);
    EXPECT_FALSE(output(80'040'000));
    EXPECT_EQ(thread.getCurrentTime(), 80'000);
    EXPECT_EQ(sinceStartUs(), 100'000);
    if (host) {
        host->set(80'000, 1);
    }
    pause(false);
    EXPECT_TRUE(output(80'040'000));
    EXPECT_NEAR(static_cast<double>(drawnAtUs(80'040'000)), 140'000, 1000);
}

TEST_P(ExactPictureChanges, TakeAnotherSpeedAtOnce) {
    follow(GetParam(), 1);
    output(0);
    // In the middle of a wait of 450 ms.
    int64_t changedUs = 0;
    onDrawing = [&] {
        if (sinceStartUs() >= 195'000) {
            changedUs = sinceStartUs();
            onDrawing = nullptr;
            host ? host->set(host->getSyncPts(), 4) : thread.setSpeed(4);
            if (clock) {
                clock->setSpeed(4);
            }
        }
    };
    EXPECT_TRUE(output(450'000));
    const int64_t dueUs = changedUs + (450'000 - changedUs) / 4;
    EXPECT_NEAR(static_cast<double>(drawnAtUs(450'000)), static_cast<double>(dueUs), host ? 15'000 : 1000);
}

INSTANTIATE_TEST_SUITE_P(OfAnyMaster, ExactPictureChanges, testing::Values("none", "clock", "host"),
                         [](const auto& one) { return one.param; });

TEST_F(ExactPictures, AreAllShownAtOneHundredAndTwentyPerSecond) {
    follow("clock", 1);
    for (int i = 0; i < 100; ++i) {
        thread.fillFrame(test::makePicture(1'000'000));
    }
    for (int i = 0; i < 1200; ++i) {
        output(timeUs(i, 120));
        FakeTime::advanceUs(i % 100 == 0 ? 15'000 : 3000);  // a machine that isn't idle
    }
    EXPECT_EQ(drawnUs.size(), 1200U);
}

// A sink that takes 20 ms for a picture of 16.7 ms: five of six can be shown.
TEST_F(ExactPictures, AreLeftOutEvenlyWhereThereIsNoTimeForThem) {
    follow("clock", 2);
    for (int i = 0; i < 100; ++i) {
        thread.fillFrame(test::makePicture(1'000'000));
    }
    onDrawing = [] { FakeTime::advanceMs(20); };
    for (int i = 0; i < 300; ++i) {
        output(timeUs(i, 30));
    }
    EXPECT_NEAR(static_cast<double>(drawnUs.size()), 250, 10);
    int64_t lastMs = 0;
    for (const auto& [pts, atUs] : drawnUs) {
        EXPECT_LE(pts - lastMs, 67) << "two of a row are missing before " << pts;
        lastMs = pts;
        EXPECT_LE(atUs - kStartUs - pts * 500, 46'000);
    }
}

TEST_F(ExactPictures, AreLeftOutWhenTheirOwnTimeHasPassed) {
    follow("clock", 1);
    for (int i = 0; i < 100; ++i) {
        thread.fillFrame(test::makePicture(1'000'000));
    }
    output(0);
    FakeTime::advanceMs(79);
    output(40'000);
    EXPECT_EQ(drawnAtUs(40'000), 79'000);
    FakeTime::advanceMs(42);
    output(80'000);
    output(120'000);
    EXPECT_EQ(drawnAtUs(80'000), -1);
    EXPECT_EQ(drawnAtUs(120'000), 121'000);
}

TEST_F(ExactPictures, AreNeverLeftOutIfNoOtherWaits) {
    follow("clock", 1);
    output(0);
    FakeTime::advanceMs(700);
    output(40'000);
    EXPECT_EQ(drawnAtUs(40'000), 700'000);
}

TEST_F(ExactPictures, ArentHurriedAfterAStandstillWithoutAMaster) {
    follow("none", 1);
    output(0);
    FakeTime::advanceMs(700);
    output(40'000);
    output(80'000);
    EXPECT_EQ(drawnAtUs(40'000), 700'000);
    EXPECT_EQ(drawnAtUs(80'000), 740'000);
}

TEST_F(ExactPictures, KeepTheirTimeWhereOneIsDrawnAgainInAPause) {
    follow("none", 1);
    output(0);
    output(40'000);
    FakeTime::advanceMs(10);
    pause(true);
    output(40'000);
    FakeTime::advanceMs(300);
    pause(false);
    output(80'000);
    EXPECT_EQ(drawnAtUs(80'000), 380'000);
}

TEST_F(ExactPictures, DontWaitForAMasterThatStandsStill) {
    follow("none", 1);
    const auto sound = std::make_shared<test::FakeMaster>(0);
    thread.setSyncObject(sound);
    output(0);
    output(40'000);
    output(80'000);
    EXPECT_EQ(drawnAtUs(40'000), 540'000);
    EXPECT_EQ(drawnAtUs(80'000), 1'080'000);
}

TEST_F(ExactPictures, GoOnByThemselvesWithAMasterThatIsTooFarAway) {
    follow("none", 2);
    const auto sound = std::make_shared<test::FakeMaster>(0);
    thread.setSyncObject(sound);
    output(60'000'000);
    output(60'040'000);
    EXPECT_EQ(drawnAtUs(60'040'000), 20'000);
    sound->set(80'000);
    output(60'080'000);
    EXPECT_EQ(drawnAtUs(60'080'000), 40'000);
}

// Up to the next picture, a jump of the film's times is bridged by the distance of the last two.
TEST_F(ExactPictures, GoOnAfterAJumpOfTheirTimes) {
    follow("none", 1);
    output(0);
    output(40'000);
    output(900'000'000);
    EXPECT_EQ(drawnAtUs(900'000'000), 80'000);
    output(900'040'000);
    EXPECT_EQ(drawnAtUs(900'040'000), 120'000);
    output(5'000'000);
    EXPECT_EQ(drawnAtUs(5'000'000), 120'000);
    output(5'040'000);
    EXPECT_EQ(drawnAtUs(5'040'000), 160'000);
}

TEST_F(ExactPictures, WaitForAHostsClockHoweverFarItIs) {
    follow("host", 1);
    EXPECT_FALSE(output(20'000'000));
    EXPECT_EQ(sinceStartUs(), 0);
    FakeTime::advanceMs(19'400);
    EXPECT_FALSE(output(20'000'000));
    FakeTime::advanceMs(50);
    // The very first one comes as soon as it is near.
    EXPECT_FALSE(output(20'000'000));
    FakeTime::advanceMs(100);
    EXPECT_TRUE(output(20'000'000));
    EXPECT_EQ(drawnAtUs(20'000'000), 19'550'000);
    EXPECT_TRUE(output(20'040'000));
    EXPECT_NEAR(static_cast<double>(drawnAtUs(20'040'000)), 20'040'000, 1000);
    EXPECT_THAT(firsts, ElementsAre(20'000));
}

TEST_F(ExactPictures, AreAClockThatRunsAtTheSpeed) {
    follow("none", 2);
    SyncObject& asClock = thread;
    output(1'000'000);
    FakeTime::advanceUs(5'500);
    EXPECT_EQ(asClock.getSyncPtsUs(), 1'011'000);
    EXPECT_EQ(asClock.getSyncPts(), 1011);
    EXPECT_EQ(asClock.getSyncSpeed(), std::nullopt);
    output(1'040'000);
    EXPECT_EQ(asClock.getSyncPtsUs(), 1'040'000);
    pause(true);
    FakeTime::advanceMs(100);
    EXPECT_EQ(asClock.getSyncPtsUs(), 1'040'000);
    pause(false);
    FakeTime::advanceMs(10);
    EXPECT_EQ(asClock.getSyncPtsUs(), 1'060'000);
    // From a seek to its picture it stands.
    thread.seek(9000, /*needFlush=*/true);
    Peer::seekStart(thread, 9000);
    FakeTime::advanceMs(100);
    EXPECT_EQ(asClock.getSyncPtsUs(), 9'000'000);
    output(9'020'000);
    FakeTime::advanceMs(10);
    EXPECT_EQ(asClock.getSyncPtsUs(), 9'040'000);
}

// A rest that began before must not last as long as the speed before would have it.
TEST_F(ExactPictures, TakeAnotherSpeedInTheMiddleOfARest) {
    follow("none", 0.1);
    FakeTime::setManual(true);
    thread.fillFrame(picture(0));
    thread.fillFrame(picture(400'000));
    thread.fillFrame(picture(9'000'000));  // for the thread to wait for it
    thread.start(25);
    ASSERT_TRUE(FakeTime::runFor(1, 1));
    EXPECT_EQ(drawnAtUs(400'000), -1);
    thread.setSpeed(1000);
    ASSERT_TRUE(FakeTime::runFor(1, 1));
    FakeTime::setManual(false);
    thread.stop();
    EXPECT_NEAR(static_cast<double>(drawnAtUs(400'000)), 1400, 1);
}

// That is 25 ms before, at speed 2, as one that is so late is still shown.
TEST_F(ExactPictures, TellWhatIsTooLateNow) {
    follow("clock", 2);
    EXPECT_EQ(thread.dueMs(), std::nullopt);
    output(0);
    EXPECT_EQ(thread.dueMs(), std::nullopt) << "what follows a start isn't late";
    output(40'000);
    EXPECT_NEAR(static_cast<double>(thread.dueMs().value_or(0)), 40 - 50, 1);
    FakeTime::advanceMs(100);
    EXPECT_NEAR(static_cast<double>(thread.dueMs().value_or(0)), 240 - 50, 1);
    FakeTime::advanceMs(10'000);
    EXPECT_NEAR(static_cast<double>(thread.dueMs().value_or(0)), 1040 - 50, 1)
        << "nobody has looked at the clock since";
    pause(true);
    EXPECT_EQ(thread.dueMs(), std::nullopt);
    pause(false);
    EXPECT_EQ(thread.dueMs(), std::nullopt) << "nobody has looked at the clock since the pause";
    output(20'280'000);
    EXPECT_NEAR(static_cast<double>(thread.dueMs().value_or(0)), 20'280 - 50, 1);
    thread.seek(0, true);
    EXPECT_EQ(thread.dueMs(), std::nullopt);
    Peer::seekStart(thread, 0);
    EXPECT_EQ(thread.dueMs(), std::nullopt);
    follow("none", 1);
    output(0);
    output(40'000);
    EXPECT_EQ(thread.dueMs(), std::nullopt) << "pictures that lead are never late";
}

TEST_F(ExactPictures, TakeCommandsFromOtherThreadsWhileTheyPlay) {
    LogCapture quiet(-1);
    follow("clock", 1);
    thread.start(25);
    std::thread commander([&] {
        SyncObject& asClock = thread;
        for (int i = 0; i < 500; ++i) {
            thread.setSpeed(1 + i % 3);
            thread.pause(i % 2 == 0);
            thread.setSyncObject(i % 4 == 0 ? nullptr : clock);
            if (i % 10 == 0) {
                thread.seek(i * 40, /*needFlush=*/true);
            }
            asClock.getSyncPtsUs();
            thread.pause(false);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        thread.fillFrame(picture(timeUs(i, 25)));
    }
    commander.join();
    thread.seek(100'000, /*needFlush=*/true);
    // The one that was on its way may take the first one with it.
    thread.fillFrame(picture(100'000'000));
    thread.fillFrame(picture(100'040'000));
    EXPECT_TRUE(renders.waitForPicture(100'040));
    thread.stop();
}

TEST_F(ExactPictures, TakeAnyTimesAndSpeeds) {
    constexpr auto kMin = std::numeric_limits<int64_t>::min();
    constexpr auto kMax = std::numeric_limits<int64_t>::max();
    for (const double speed : {0.0, -1.0, std::nan(""), HUGE_VAL, 1e-30}) {
        thread.setSpeed(speed);
        for (const int64_t masterPts : {kMin, int64_t{0}, kMax}) {
            const auto master = std::make_shared<test::FakeMaster>(masterPts);
            master->threshold = kMax;
            thread.setSyncObject(master);
            for (const int64_t pts : {kMin, int64_t{40}, kMax, kMin, kMax, int64_t{0}}) {
                thread.seek(0, true);
                Peer::seekStart(thread, 0);
                Peer::output(thread, test::makePicture(pts));
                EXPECT_EQ(thread.getCurrentTime(), pts);
            }
        }
    }
}

}  // namespace
}  // namespace kelp
