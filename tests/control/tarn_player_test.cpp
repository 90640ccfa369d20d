#include <chrono>
#include <future>
#include <limits>
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

TEST_F(TarnPlayerTest, ListsTheTracksWithoutItsLock) {
    reach(PLAYER_STATE_STARTED);
    engine().tracks.resize(1);
    engine().tracks[0].number = 3;
    std::vector<Track> told;
    // As a frame sink may ask, whose thread a stop waits for.
    engine().inStop = [&] { told = player_->getTracks(); };
    EXPECT_TRUE(player_->stop());
    engine().inStop = nullptr;
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0].number, 3);
}

TEST_F(TarnPlayerTest, SelectsATrackAndKeepsItForARestart) {
    reach(PLAYER_STATE_STARTED);
    EXPECT_TRUE(player_->selectTrack(TRACK_KIND_AUDIO, 3));
    EXPECT_TRUE(player_->selectTrack(TRACK_KIND_VIDEO, 2));
    EXPECT_TRUE(player_->selectTrack(TRACK_KIND_SUBTITLE, 4));
    EXPECT_TRUE(player_->selectTrack(TRACK_KIND_SUBTITLE, -1));
    EXPECT_THAT(engine().takeCalls(),
                ElementsAre("selectTrack(1, 3)", "setOption(audio_track, 3)", "selectTrack(0, 2)",
                            "setOption(video_track, 2)", "selectTrack(2, 4)", "setOption(subtitle_track, 4)",
                            "selectTrack(2, -1)", "setOption(subtitle_track, none)"));
    engine().answers["selectTrack"] = false;
    EXPECT_FALSE(player_->selectTrack(TRACK_KIND_AUDIO, 1));
    EXPECT_THAT(engine().takeCalls(), ElementsAre("selectTrack(1, 1)"));
}

TEST_F(TarnPlayerTest, SelectsNoTrackOutOfPlayback) {
    for (const int state : kPlayerStates) {
        renew();
        reach(state);
        const bool plays = (state & (PLAYER_STATE_STARTED | PLAYER_STATE_PAUSED | PLAYER_STATE_COMPLETED)) != 0;
        EXPECT_EQ(player_->selectTrack(TRACK_KIND_AUDIO, 3), plays) << state;
        EXPECT_EQ(engine().takeCalls().empty(), !plays) << state;
    }
}

TEST_F(TarnPlayerTest, StepsInAPauseAlone) {
    for (const int state : kPlayerStates) {
        renew();
        reach(state);
        const bool isPaused = state == PLAYER_STATE_PAUSED;
        EXPECT_EQ(player_->stepFrame(-2), isPaused) << state;
        EXPECT_EQ(engine().takeCalls(), isPaused ? Calls{"stepFrame(-2)"} : Calls{}) << state;
    }
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

// Other threads get on meanwhile: the answer that is waited for may need one of them.
TEST_F(TarnPlayerTest, WaitsForAClockThatItGivesBackWithoutItsLock) {
    HostClock clock;
    player_->setSyncClock(&clock);
    player_->setSyncClock(&clock);
    EXPECT_THAT(engine().waitedFor, IsEmpty());
    std::future<bool> other;
    engine().inClockWait = [&] {
        other = std::async(std::launch::async, [&] { return player_->resume(); });
        EXPECT_EQ(other.wait_for(std::chrono::seconds(20)), std::future_status::ready) << "the lock is held";
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

TEST_F(TarnPlayerTest, PassesTheWindowsOn) {
    int first = 0;
    int second = 0;
    EXPECT_TRUE(player_->addWindow(&first, WINDOW_TYPE_QT_WINID, 640, 360));
    EXPECT_TRUE(player_->addWindow(&second, WINDOW_TYPE_EXTERN, 20, 10));
    EXPECT_TRUE(player_->pauseWindow(&first, true));
    EXPECT_TRUE(player_->pauseWindow(&second, false));
    EXPECT_TRUE(player_->removeWindow(&second));
    for (const char* operation : {"addWindow", "pauseWindow", "removeWindow"}) {
        engine().answers[operation] = false;
    }
    EXPECT_FALSE(player_->addWindow(nullptr, WINDOW_TYPE_SDL, 0, 0));
    EXPECT_FALSE(player_->pauseWindow(&second, true));
    EXPECT_FALSE(player_->removeWindow(&first));
    EXPECT_THAT(engine().takeCalls(),
                ElementsAre("addWindow(1, 640, 360)", "addWindow(3, 20, 10)", "pauseWindow(1)", "pauseWindow(0)",
                            "removeWindow()", "addWindow(2, 0, 0)", "pauseWindow(1)", "removeWindow()"));
    EXPECT_THAT(engine().handles, ElementsAre(&first, &second, &first, &second, &second, nullptr, &second, &first));
}

// A fact of the source and the clock have 64 bits, the times of the other calls 32.
TEST_F(TarnPlayerTest, CutsNothingOffWhatHas64Bits) {
    constexpr int kHighest = std::numeric_limits<int>::max();
    constexpr int kLowest = std::numeric_limits<int>::min();
    for (const int offset : {kHighest, kLowest}) {
        reach(PLAYER_STATE_STARTED, offset);
        engine().durationMs = 0x1'0000'0005;
        EXPECT_EQ(player_->getPlayDetailInfo(INFO_DURATION), 0x1'0000'0005 + offset);
        engine().durationMs = kHighest;
        EXPECT_EQ(player_->getPlayDetailInfo(INFO_DURATION), int64_t{kHighest} + offset);
        EXPECT_EQ(player_->getPlayDetailInfo(INFO_FPS), 104) << "which isn't a time";
        player_->stop();
        player_->reset();
    }
    HostClock clock;
    clock.now = 0x1'0000'0000 + 12000;
    reach(PLAYER_STATE_STARTED);
    player_->setSyncClock(&clock);
    engine().takeCalls();
    EXPECT_TRUE(player_->setOffsetToClockMs(4000));
    EXPECT_THAT(engine().takeCalls(), ElementsAre("setExternSyncClock(clock, 4000)", "seek(8000)"))
        << "the low 32 bits of the clock";
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

TEST_F(TarnPlayerTest, TakesASnapshotWithoutItsLock) {
    reach(PLAYER_STATE_STARTED);
    bool taken = false;
    engine().inStop = [&] { taken = player_->takeSnapshot("picture.png"); };
    EXPECT_TRUE(player_->stop());
    engine().inStop = nullptr;
    EXPECT_TRUE(taken);
    EXPECT_THAT(engine().calls, Contains("takeSnapshot(picture.png)"));
}

TEST_F(TarnPlayerTest, TellsTheStatisticsWithoutItsLock) {
    reach(PLAYER_STATE_STARTED);
    engine().statistics.video.shown = 25;
    Statistics told;
    engine().inStop = [&] { told = player_->getStatistics(); };
    EXPECT_TRUE(player_->stop());
    engine().inStop = nullptr;
    EXPECT_EQ(told.video.shown, 25);
    EXPECT_EQ(told.restarts, 0);
}

TEST_F(TarnPlayerTest, TellsTheSoundDevicesOfTheEngine) {
    EXPECT_THAT(TarnPlayer::getAudioDevices(), ElementsAre("Speaker"));
}

TEST_F(TarnPlayerTest, TakesThePacketSinkBackWithoutItsLock) {
    reach(PLAYER_STATE_STARTED);
    int any = 0;
    auto* const sink = reinterpret_cast<ExternPacketSink*>(&any);
    player_->setPacketSink(sink);
    EXPECT_EQ(engine().packetSink, sink);
    engine().inStop = [&] { player_->setPacketSink(nullptr); };
    EXPECT_TRUE(player_->stop());
    engine().inStop = nullptr;
    EXPECT_EQ(engine().packetSink, nullptr);
}

TEST_F(TarnPlayerTest, TakesAStallObserverWithoutItsLock) {
    reach(PLAYER_STATE_STARTED);
    int any = 0;
    auto* const observer = reinterpret_cast<StallObserver*>(&any);
    player_->setStallObserver(observer);
    EXPECT_EQ(engine().stallObserver, observer);
    engine().inStop = [&] { player_->setStallObserver(nullptr); };
    EXPECT_TRUE(player_->stop());
    engine().inStop = nullptr;
    EXPECT_EQ(engine().stallObserver, nullptr);
}

}  // namespace
}  // namespace kelp::test
