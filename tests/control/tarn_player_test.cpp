#include <chrono>
#include <future>
#include <new>

#include "control/tarn_player_fixture.h"
#include "support/log_capture.h"

namespace kelp::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class TarnPlayerTest : public TarnPlayerFixture {};

TEST_F(TarnPlayerTest, SetsTheEngineUpWhenItIsMade) {
    EXPECT_THAT(atBirth_, ElementsAre("init()", "setAVSyncMode(0)", "enableHwDecoder(1, 3)"));
}

TEST_F(TarnPlayerTest, ReleasesTheEngineWhenItIsDestroyed) {
    TarnPlayer::destroy(nullptr);
    TarnPlayer* other = TarnPlayer::create();
    engine().takeCalls();
    TarnPlayer::destroy(other);
    EXPECT_THAT(engine().takeCalls(), ElementsAre("release()"));
}

TEST_F(TarnPlayerTest, StartsByItselfWhenASourceThatWasToStartIsReady) {
    reach(PLAYER_STATE_PREPARING);
    EXPECT_TRUE(player_->start());
    events().onPrepared(nullptr, true, false);
    engine().runWorker();
    EXPECT_THAT(host_.told, ElementsAre("prepared 1 0", "started"));
    EXPECT_THAT(engine().takeCalls(), ElementsAre("play()", "runInWorker()"));
    EXPECT_EQ(state(), PLAYER_STATE_STARTED);
}

TEST_F(TarnPlayerTest, PausesAfterADeferredStartAndStillTellsIt) {
    reach(PLAYER_STATE_PREPARING);
    EXPECT_TRUE(player_->start());
    EXPECT_TRUE(player_->pause());
    events().onPrepared(nullptr, true, true);
    engine().runWorker();
    EXPECT_THAT(host_.told, ElementsAre("prepared 1 1", "started"));
    EXPECT_EQ(state(), PLAYER_STATE_PAUSED);
}

TEST_F(TarnPlayerTest, TakesADeferredPauseBack) {
    reach(PLAYER_STATE_PREPARING);
    EXPECT_TRUE(player_->pause());
    EXPECT_TRUE(player_->start());
    EXPECT_TRUE(player_->resume());
    events().onPrepared(nullptr, true, true);
    EXPECT_EQ(state(), PLAYER_STATE_STARTED);
}

TEST_F(TarnPlayerTest, KeepsAPauseThatWasAskedForWhenIdleOverAReset) {
    EXPECT_TRUE(player_->pause());
    EXPECT_TRUE(player_->reset());
    reach(PLAYER_STATE_PREPARING);
    EXPECT_TRUE(player_->start());
    events().onPrepared(nullptr, true, true);
    EXPECT_EQ(state(), PLAYER_STATE_PAUSED);
}

TEST_F(TarnPlayerTest, KeepsAnOffsetThatWasSetWhenIdleOverAReset) {
    // Stored, though there is no clock to go by; the same value once more is no change.
    EXPECT_FALSE(player_->setOffsetToClockMs(2000));
    EXPECT_TRUE(player_->reset());
    EXPECT_TRUE(player_->setOffsetToClockMs(2000));
    EXPECT_THAT(engine().takeCalls(), IsEmpty());
    EXPECT_EQ(state(), PLAYER_STATE_IDLE);
}

TEST_F(TarnPlayerTest, MayBeStartedFromWithinThePreparedCallback) {
    reach(PLAYER_STATE_PREPARING);
    host_.inPrepared = [&] { EXPECT_TRUE(player_->start()); };
    events().onPrepared(nullptr, true, true);
    EXPECT_THAT(engine().takeCalls(), ElementsAre("play()", "runInWorker()"));
    EXPECT_EQ(state(), PLAYER_STATE_STARTED);
}

TEST_F(TarnPlayerTest, DoesNotStartWhatTheHostStopsInThePreparedCallback) {
    reach(PLAYER_STATE_PREPARING);
    player_->start();
    host_.inPrepared = [&] { EXPECT_TRUE(player_->stop()); };
    events().onPrepared(nullptr, true, true);
    EXPECT_THAT(engine().takeCalls(), ElementsAre("stop()"));
    EXPECT_EQ(state(), PLAYER_STATE_STOPPED);
}

TEST_F(TarnPlayerTest, KeepsAPauseOverAStopAndAReset) {
    reach(PLAYER_STATE_PREPARING);
    EXPECT_TRUE(player_->pause());
    EXPECT_TRUE(player_->stop());
    EXPECT_TRUE(player_->reset());
    EXPECT_TRUE(player_->setDataSource("another", 0, &host_));
    EXPECT_TRUE(player_->prepareAsync());
    engine().runWorker();
    EXPECT_TRUE(player_->start());
    events().onPrepared(nullptr, true, true);
    EXPECT_EQ(state(), PLAYER_STATE_PAUSED);
}

TEST_F(TarnPlayerTest, DropsAPreparedEventOutOfTime) {
    reach(PLAYER_STATE_STOPPED);
    LogCapture log;
    events().onPrepared(nullptr, true, true);
    EXPECT_THAT(host_.told, IsEmpty());
    EXPECT_TRUE(log.has("[TarnPlayer]: onPrepared new state:64\n"));
}

TEST_F(TarnPlayerTest, EndsInTheErrorStateWhenTheEngineRefuses) {
    reach(PLAYER_STATE_PREPARED);
    engine().answers["play"] = false;
    EXPECT_FALSE(player_->start());
    EXPECT_EQ(state(), PLAYER_STATE_ERROR);
    EXPECT_THAT(host_.told, IsEmpty());
}

TEST_F(TarnPlayerTest, TellsAFailedDeferredStartButNotAFailedDeferredPause) {
    reach(PLAYER_STATE_PREPARING);
    player_->start();
    engine().answers["play"] = false;
    events().onPrepared(nullptr, true, true);
    EXPECT_THAT(host_.told, ElementsAre("prepared 1 1", "failed 0"));
    EXPECT_EQ(state(), PLAYER_STATE_ERROR);

    engine().answers["play"] = true;
    engine().answers["pause"] = false;
    ASSERT_TRUE(player_->stop());
    ASSERT_TRUE(player_->prepareAsync());
    host_.told.clear();
    player_->start();
    player_->pause();
    events().onPrepared(nullptr, true, true);
    engine().runWorker();
    EXPECT_THAT(host_.told, ElementsAre("prepared 1 1", "started"));
    EXPECT_EQ(state(), PLAYER_STATE_ERROR);
}

TEST_F(TarnPlayerTest, EndsInTheErrorStateWhenPauseIsRefused) {
    reach(PLAYER_STATE_STARTED);
    engine().answers["pause"] = false;
    EXPECT_FALSE(player_->pause());
    EXPECT_EQ(state(), PLAYER_STATE_ERROR);
}

TEST_F(TarnPlayerTest, EndsInTheErrorStateWhenResumeIsRefused) {
    reach(PLAYER_STATE_PAUSED);
    engine().answers["resume"] = false;
    EXPECT_FALSE(player_->resume());
    EXPECT_EQ(state(), PLAYER_STATE_ERROR);
}

TEST_F(TarnPlayerTest, StaysPreparingWhenTheEngineRefusesToLoad) {
    reach(PLAYER_STATE_INITIALIZED);
    engine().answers["loadFileAsync"] = false;
    EXPECT_FALSE(player_->prepareAsync());
    EXPECT_EQ(state(), PLAYER_STATE_PREPARING);
}

TEST_F(TarnPlayerTest, ClearsTheScreenForATimeBeforeTheStream) {
    reach(PLAYER_STATE_STARTED, 5000);
    EXPECT_TRUE(player_->seek(3000));
    EXPECT_THAT(engine().takeCalls(), ElementsAre("clearScreen()", "seek(-2000)"));
}

TEST_F(TarnPlayerTest, StartsANegativeOffsetInsideTheStream) {
    ASSERT_TRUE(player_->setDataSource("source", -3000, &host_));
    EXPECT_TRUE(player_->prepareAsync());
    EXPECT_THAT(engine().takeCalls(), ElementsAre("runInWorker()", "loadFileAsync(source, 3000)"));
    events().onPrepared(nullptr, true, true);
    EXPECT_TRUE(player_->start());
    EXPECT_THAT(engine().takeCalls(), ElementsAre("play()", "runInWorker()", "seek(3000)"));
    engine().currentTimeMs = 3500;
    EXPECT_EQ(player_->getCurrentTime(), 500);
}

TEST_F(TarnPlayerTest, SeeksAfterADeferredStartWithANegativeOffset) {
    ASSERT_TRUE(player_->setDataSource("source", -3000, &host_));
    player_->prepareAsync();
    player_->start();
    engine().takeCalls();
    events().onPrepared(nullptr, true, true);
    EXPECT_THAT(engine().takeCalls(), ElementsAre("play()", "runInWorker()", "seek(3000)"));
}

TEST_F(TarnPlayerTest, TellsTimesOnTheHostsClock) {
    reach(PLAYER_STATE_STARTED, 5000);
    events().onVideoSizeUpdated(nullptr, 640, 360, 90);
    events().onFirstPacket(nullptr, 7);
    events().onFirstVideoFrame(nullptr, 40);
    events().onFirstAudioFrame(nullptr, 21);
    events().onDurationUpdated(nullptr, 8000);
    events().onCompleted(nullptr);
    EXPECT_THAT(host_.told,
                ElementsAre("size 640 360 90", "picture 5040", "sound 5021", "duration 13000", "completed"));
    engine().durationMs = 8000;
    EXPECT_EQ(player_->getDuration(), 13000);
    EXPECT_EQ(player_->getPlayDetailInfo(INFO_DURATION), 13000);
    EXPECT_EQ(player_->getPlayDetailInfo(INFO_FPS), 104);
}

TEST_F(TarnPlayerTest, IsCompletedWhateverStateItWasIn) {
    reach(PLAYER_STATE_STOPPED);
    events().onCompleted(nullptr);
    EXPECT_EQ(state(), PLAYER_STATE_COMPLETED);
}

TEST_F(TarnPlayerTest, StaysStartedWhenASeekFromTheEndFails) {
    reach(PLAYER_STATE_COMPLETED);
    engine().answers["seek"] = false;
    EXPECT_FALSE(player_->seek(10));
    EXPECT_EQ(state(), PLAYER_STATE_STARTED);
}

// The engine takes one source at a time.
TEST_F(TarnPlayerTest, EndsWhatStillPlaysBeforeItOpensAnotherSource) {
    for (const int from : {PLAYER_STATE_ERROR, PLAYER_STATE_PREPARING, PLAYER_STATE_STARTED, PLAYER_STATE_COMPLETED}) {
        SCOPED_TRACE(from);
        reach(from);
        EXPECT_TRUE(player_->reset());
        EXPECT_TRUE(player_->setDataSource("another", 0, &host_));
        engine().takeCalls();
        EXPECT_TRUE(player_->prepareAsync());
        EXPECT_THAT(engine().takeCalls(), ElementsAre("stop()", "runInWorker()", "loadFileAsync(another, 0)"));
        EXPECT_TRUE(player_->stop());
        EXPECT_TRUE(player_->reset());
    }
}

TEST_F(TarnPlayerTest, EndsWhatStillPlaysWhenItIsDestroyed) {
    for (const int from : kPlayerStates) {
        SCOPED_TRACE(from);
        reach(from);
        player_->reset();
        engine().takeCalls();
        TarnPlayer::destroy(player_);
        const Calls released{"release()"};
        const Calls stopped{"stop()", "release()"};
        const bool had = from != PLAYER_STATE_IDLE && from != PLAYER_STATE_INITIALIZED && from != PLAYER_STATE_STOPPED;
        EXPECT_EQ(engine().takeCalls(), had ? stopped : released);
        FakeEngine::reset();
        player_ = TarnPlayer::create();
    }
}

TEST_F(TarnPlayerTest, EndsWhatTheHostOpensWhileThePlayerIsDestroyed) {
    reach(PLAYER_STATE_INITIALIZED);
    engine().inRelease = [&] { EXPECT_TRUE(player_->prepareAsync()); };
    TarnPlayer::destroy(player_);
    EXPECT_THAT(engine().takeCalls(), ElementsAre("release()", "runInWorker()", "loadFileAsync(source, 0)", "stop()"));
    FakeEngine::reset();
    player_ = TarnPlayer::create();
}

TEST_F(TarnPlayerTest, StartsNothingThatBecomesReadyWhileItIsDestroyed) {
    reach(PLAYER_STATE_PREPARING);
    EXPECT_TRUE(player_->start());
    engine().inRelease = [&] { events().onPrepared(nullptr, true, true); };
    TarnPlayer::destroy(player_);
    EXPECT_THAT(engine().takeCalls(), ElementsAre("stop()", "release()"));
    EXPECT_THAT(host_.told, IsEmpty());
    FakeEngine::reset();
    player_ = TarnPlayer::create();
}

TEST_F(TarnPlayerTest, IsNotMadeWithoutAnEngine) {
    engine().answers["init"] = false;
    LogCapture log;
    EXPECT_EQ(TarnPlayer::create(), nullptr);
    EXPECT_TRUE(log.has("[TarnPlayer]: create, the engine can't be started\n"));
}

TEST_F(TarnPlayerTest, RefusesASourceWithoutAName) {
    LogCapture log;
    EXPECT_FALSE(player_->setDataSource(nullptr, 0, &host_));
    EXPECT_TRUE(log.has("[TarnPlayer]: setDataSource, no url\n"));
    EXPECT_EQ(state(), PLAYER_STATE_IDLE);
}

// What the source before has raised is still on its way when the next one is opened.
TEST_F(TarnPlayerTest, LosesNoRequestToTheSourceBefore) {
    const std::vector<std::function<void(KelpPlayerObserver&)>> late = {
        [](auto& o) { o.onVideoSizeUpdated(nullptr, 1, 1, 0); },
        [](auto& o) { o.onPrepared(nullptr, true, true); },
        [](auto& o) { o.onFailed(nullptr, 1, 1); },
        [](auto& o) { o.onFailed(nullptr, 2, 1); },
        [](auto& o) { o.onFailed(nullptr, 2, 0); },
        [](auto& o) { o.onFirstVideoFrame(nullptr, 40); },
        [](auto& o) { o.onFirstAudioFrame(nullptr, 40); },
        [](auto& o) { o.onCompleted(nullptr); },
        [](auto& o) { o.onDurationUpdated(nullptr, 3000); },
    };
    reach(PLAYER_STATE_STARTED);
    for (const auto& event : late) {
        engine().worker.push_back([&event] { event(*engine().observer); });
    }
    EXPECT_TRUE(player_->stop());
    EXPECT_TRUE(player_->prepareAsync());
    EXPECT_TRUE(player_->start());
    engine().runWorker();
    EXPECT_THAT(host_.told, IsEmpty());
    events().onPrepared(nullptr, true, true);
    engine().runWorker();
    EXPECT_THAT(host_.told, ElementsAre("prepared 1 1", "started"));
    EXPECT_EQ(state(), PLAYER_STATE_STARTED);
}

// Nothing stands in the worker's queue then that would say where the load's own events begin.
TEST_F(TarnPlayerTest, HearsTheNextLoadWhenOneCouldNotBeQueued) {
    reach(PLAYER_STATE_INITIALIZED);
    engine().worksOn = false;
    EXPECT_THROW(player_->prepareAsync(), std::bad_alloc);
    engine().worksOn = true;
    EXPECT_THAT(engine().takeCalls(), ElementsAre("runInWorker()"));
    EXPECT_TRUE(player_->stop());
    EXPECT_TRUE(player_->prepareAsync());
    events().onPrepared(nullptr, true, true);
    EXPECT_THAT(host_.told, ElementsAre("prepared 1 1"));
    EXPECT_EQ(state(), PLAYER_STATE_PREPARED);
}

TEST_F(TarnPlayerTest, KeepsAStartThatIsAskedForInThePreparedCallbackOfAnotherSource) {
    reach(PLAYER_STATE_PREPARING);
    host_.inPrepared = [&] {
        host_.inPrepared = nullptr;
        EXPECT_TRUE(player_->stop());
        EXPECT_TRUE(player_->prepareAsync());
        EXPECT_TRUE(player_->start());
    };
    events().onPrepared(nullptr, true, true);
    EXPECT_EQ(state(), PLAYER_STATE_PREPARING);
    events().onPrepared(nullptr, true, true);
    EXPECT_EQ(state(), PLAYER_STATE_STARTED);
}

TEST_F(TarnPlayerTest, HandsTheClockToTheEngineWithTheOffset) {
    HostClock clock;
    player_->setSyncClock(&clock);
    EXPECT_THAT(engine().takeCalls(), ElementsAre("setExternSyncClock(clock, 0)"));
    player_->setDataSource("source", 700, &host_);
    EXPECT_THAT(engine().takeCalls(), ElementsAre("setExternSyncClock(clock, 700)"));
    player_->setSyncClock(nullptr);
    EXPECT_THAT(engine().takeCalls(), ElementsAre("setExternSyncClock(null, 700)"));
}

// Other threads get on meanwhile: the answer that is waited for may need one of them.
TEST_F(TarnPlayerTest, WaitsForAClockThatItGivesBackWithoutItsLock) {
    HostClock clock;
    player_->setSyncClock(&clock);
    player_->setSyncClock(&clock);
    EXPECT_THAT(engine().waitedFor, IsEmpty());
    std::future<bool> other;
    engine().inClockWait = [&] {
        other = std::async(std::launch::async, [&] { return player_->resume(); });
        EXPECT_EQ(other.wait_for(std::chrono::seconds(10)), std::future_status::ready) << "the lock is held";
    };
    player_->setSyncClock(nullptr);
    EXPECT_THAT(engine().waitedFor, ElementsAre(&clock));
    EXPECT_TRUE(other.get());
}

TEST_F(TarnPlayerTest, ChangesTheOffsetByTheClock) {
    HostClock clock;
    clock.now = 12000;
    reach(PLAYER_STATE_STARTED, 1000);
    player_->setSyncClock(&clock);
    engine().takeCalls();
    LogCapture log;
    EXPECT_TRUE(player_->setOffsetToClockMs(4000));
    EXPECT_TRUE(log.has("[TarnPlayer]: setOffsetToClockMs, offset 1000 -> 4000\n"));
    EXPECT_THAT(engine().takeCalls(), ElementsAre("setExternSyncClock(clock, 4000)", "seek(8000)"));
    events().onFirstVideoFrame(nullptr, 1);
    EXPECT_THAT(host_.told, ElementsAre("picture 4001"));
    EXPECT_TRUE(player_->setOffsetToClockMs(20000));
    EXPECT_THAT(engine().takeCalls(), ElementsAre("setExternSyncClock(clock, 20000)", "clearScreen()", "seek(0)"));
    // Below zero the target is what it is.
    clock.now = -9000;
    EXPECT_TRUE(player_->setOffsetToClockMs(-4000));
    EXPECT_THAT(engine().takeCalls(), ElementsAre("setExternSyncClock(clock, -4000)", "seek(-5000)"));
}

TEST_F(TarnPlayerTest, StoresANewOffsetWithoutAClockAndSaysFalse) {
    reach(PLAYER_STATE_STARTED, 1000);
    EXPECT_TRUE(player_->setOffsetToClockMs(1000));
    EXPECT_FALSE(player_->setOffsetToClockMs(2000));
    EXPECT_TRUE(player_->setOffsetToClockMs(2000));
    engine().currentTimeMs = 10;
    EXPECT_EQ(player_->getCurrentTime(), 2010);
    // What the host is told keeps the old one.
    events().onFirstVideoFrame(nullptr, 1);
    EXPECT_THAT(host_.told, ElementsAre("picture 1001"));
}

TEST_F(TarnPlayerTest, PassesOnWhatIsTheEngines) {
    player_->setSpeed(1.5F);
    player_->setAVSyncMode(SYNC_MASTER_AUDIO);
    player_->enableHwDecoder(true, HW_DECODE_ACCEL);
    player_->setOption("rtsp_transport", "udp");
    player_->runInWorker([] {});
    EXPECT_EQ(player_->addTimer(10, false, [] {}), 1U);
    player_->removeTimer(1);
    EXPECT_THAT(engine().takeCalls(),
                ElementsAre("setSpeed(1.500000)", "setAVSyncMode(1)", "enableHwDecoder(1, 2)",
                            "setOption(rtsp_transport, udp)", "runInWorker()", "addTimer(10, 0)", "removeTimer(1)"));
}

TEST_F(TarnPlayerTest, PassesOverAHostThatDoesNotListen) {
    player_->setDataSource("source", 0, nullptr);
    player_->prepareAsync();
    player_->start();
    events().onVideoSizeUpdated(nullptr, 1, 1, 0);
    events().onPrepared(nullptr, true, true);
    engine().runWorker();
    events().onFirstVideoFrame(nullptr, 0);
    events().onFirstAudioFrame(nullptr, 0);
    events().onDurationUpdated(nullptr, 1);
    events().onCompleted(nullptr);
    events().onFailed(nullptr, 1, 0);
    EXPECT_EQ(state(), PLAYER_STATE_ERROR);
}

}  // namespace
}  // namespace kelp::test
