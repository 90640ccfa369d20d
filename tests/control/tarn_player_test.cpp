#include "kelp_player/tarn_player.h"

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "control/fake_engine.h"
#include "kelp_player/sync_clock.h"
#include "support/log_capture.h"

namespace kelp::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using Calls = std::vector<std::string>;

class RecordingHost final : public TarnPlayerObserver {
public:
    Calls told;
    std::function<void()> inPrepared;

    void onVideoSizeUpdated(int width, int height, int rotate) override {
        told.push_back("size " + std::to_string(width) + " " + std::to_string(height) + " " + std::to_string(rotate));
    }
    void onPrepared(bool hasVideo, bool hasAudio) override {
        told.push_back("prepared " + std::to_string(hasVideo) + " " + std::to_string(hasAudio));
        if (inPrepared) {
            inPrepared();
        }
    }
    void onStarted() override { told.push_back("started"); }
    void onFailed(int errorType) override { told.push_back("failed " + std::to_string(errorType)); }
    void onFirstVideoFrame(int ptsMs) override { told.push_back("picture " + std::to_string(ptsMs)); }
    void onFirstAudioFrame(int ptsMs) override { told.push_back("sound " + std::to_string(ptsMs)); }
    void onCompleted() override { told.push_back("completed"); }
    void onDurationUpdated(int durationMs) override { told.push_back("duration " + std::to_string(durationMs)); }
};

class HostClock final : public KelpSyncClock {
public:
    int64_t now = 0;
    int64_t getNoSyncThreshold() override { return 10000; }
    bool isForceSync() override { return true; }
    int64_t getSyncPts() override { return now; }
};

class TarnPlayerTest : public testing::Test {
protected:
    TarnPlayerTest() {
        FakeEngine::reset();
        player_ = TarnPlayer::create();
        atBirth_ = engine().takeCalls();
    }
    ~TarnPlayerTest() override {
        TarnPlayer::destroy(player_);
        FakeEngine::reset();
    }

    static FakeEngine& engine() { return FakeEngine::get(); }
    KelpPlayerObserver& events() { return *engine().observer; }

    // The state, by the line of a call that every state but the idle one refuses.
    int state() {
        if (idle_) {
            return PLAYER_STATE_IDLE;
        }
        LogCapture log(1);
        player_->setDataSource("probe", 0, nullptr);
        for (const auto& line : log.lines()) {
            const auto at = line.find("error state:");
            if (at != std::string::npos) {
                return std::stoi(line.substr(at + 12));
            }
        }
        return -1;
    }

    // Brings a new player into `state`, and forgets the calls that took.
    void reach(int state, int offsetMs = 0) {
        idle_ = state == PLAYER_STATE_IDLE;
        if (idle_) {
            return;
        }
        ASSERT_TRUE(player_->setDataSource("source", offsetMs, &host_));
        if (state != PLAYER_STATE_INITIALIZED) {
            ASSERT_TRUE(player_->prepareAsync());
            if (state == PLAYER_STATE_ERROR) {
                events().onFailed(nullptr, 1, 0);
            } else if (state != PLAYER_STATE_PREPARING) {
                events().onPrepared(nullptr, true, true);
                if (state != PLAYER_STATE_PREPARED && state != PLAYER_STATE_STOPPED) {
                    ASSERT_TRUE(player_->start());
                }
                if (state == PLAYER_STATE_PAUSED) {
                    ASSERT_TRUE(player_->pause());
                } else if (state == PLAYER_STATE_STOPPED) {
                    ASSERT_TRUE(player_->stop());
                } else if (state == PLAYER_STATE_COMPLETED) {
                    events().onCompleted(nullptr);
                }
            }
        }
        engine().runWorker();
        engine().calls.clear();
        host_.told.clear();
        ASSERT_EQ(this->state(), state);
    }

    RecordingHost host_;
    TarnPlayer* player_ = nullptr;
    Calls atBirth_;
    bool idle_ = true;  // told by the test: the probe would be taken
};

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

constexpr int kStates[] = {PLAYER_STATE_ERROR,     PLAYER_STATE_IDLE,     PLAYER_STATE_INITIALIZED,
                           PLAYER_STATE_PREPARING, PLAYER_STATE_PREPARED, PLAYER_STATE_STARTED,
                           PLAYER_STATE_PAUSED,    PLAYER_STATE_STOPPED,  PLAYER_STATE_COMPLETED};

// What an operation does in one state: its result, the state after it, the engine's calls, and its log line.
struct Cell {
    bool result;
    int next;
    Calls calls;
    std::string line;
};

struct Row {
    const char* name;
    std::function<bool(TarnPlayer&, RecordingHost&)> operation;
    std::function<Cell(int state)> cell;
};

Cell refused(const char* name, int state, bool result = false) {
    return {result, state, {}, std::string(name) + ", error state:" + std::to_string(state) + "\n"};
}

bool isAnyOf(int state, std::initializer_list<int> states) {
    return std::find(states.begin(), states.end(), state) != states.end();
}

const std::vector<Row>& rows() {
    static const std::vector<Row> table = {
        {"setDataSource", [](TarnPlayer& p, RecordingHost& h) { return p.setDataSource("other", 0, &h); },
         [](int state) {
             return state == 1 ? Cell{true, 2, {}, ""} : refused("setDataSource", state);
         }},
        {"prepareAsync", [](TarnPlayer& p, RecordingHost&) { return p.prepareAsync(); },
         [](int state) {
             return isAnyOf(state, {2, 64}) ? Cell{true, 4, {"loadFileAsync(source, 0)"}, ""}
                                            : refused("prepareAsync", state);
         }},
        {"start", [](TarnPlayer& p, RecordingHost&) { return p.start(); },
         [](int state) {
             return state == 8   ? Cell{true, 16, {"play()", "runInWorker()"}, ""}
                    : state == 4 ? Cell{true, 4, {}, ""}
                                 : refused("start", state);
         }},
        {"pause", [](TarnPlayer& p, RecordingHost&) { return p.pause(); },
         [](int state) {
             return state == 16   ? Cell{true, 32, {"pause()"}, ""}
                    : state == 32 ? Cell{true, 32, {}, ""}
                                  : Cell{true,
                                         state,
                                         {},
                                         "pause, current state:" + std::to_string(state) + ", set pause request\n"};
         }},
        {"resume", [](TarnPlayer& p, RecordingHost&) { return p.resume(); },
         [](int state) {
             return state == 32   ? Cell{true, 16, {"resume()"}, ""}
                    : state == 16 ? Cell{true, 16, {}, ""}
                                  : Cell{true,
                                         state,
                                         {},
                                         "resume, current state:" + std::to_string(state) + ", reset pause request\n"};
         }},
        {"seek", [](TarnPlayer& p, RecordingHost&) { return p.seek(3000); },
         [](int state) {
             return isAnyOf(state, {8, 16, 32}) ? Cell{true, state, {"seek(3000)"}, ""}
                    : state == 128              ? Cell{true, 16, {"seek(3000)"}, ""}
                                                : refused("seek", state);
         }},
        {"stop", [](TarnPlayer& p, RecordingHost&) { return p.stop(); },
         [](int state) {
             return state == 64              ? Cell{true, 64, {}, ""}
                    : isAnyOf(state, {1, 2}) ? refused("stop", state)
                                             : Cell{true, 64, {"stop()"}, ""};
         }},
        {"reset", [](TarnPlayer& p, RecordingHost&) { return p.reset(); },
         [](int state) {
             return state == 1 ? Cell{true, 1, {}, ""} : Cell{true, 1, {"enableHwDecoder(1, 3)"}, ""};
         }},
        {"getCurrentTime", [](TarnPlayer& p, RecordingHost&) { return p.getCurrentTime() == 700; },
         [](int state) {
             return isAnyOf(state, {8, 16, 32, 64, 128}) ? Cell{true, state, {"getCurrentTime()"}, ""}
                                                         : refused("getCurrentTime", state);
         }},
        {"getDuration", [](TarnPlayer& p, RecordingHost&) { return p.getDuration() == 9000; },
         [](int state) {
             return isAnyOf(state, {8, 16, 32, 64, 128}) ? Cell{true, state, {"getDuration()"}, ""}
                                                         : refused("getDuration", state);
         }},
        {"setVolume", [](TarnPlayer& p, RecordingHost&) { return p.setVolume(0.5F); },
         [](int state) {
             return isAnyOf(state, {16, 32, 128}) ? Cell{true, state, {"setVolume(0.500000)"}, ""}
                                                  : Cell{false, state, {}, ""};
         }},
        {"getPlayDetailInfo", [](TarnPlayer& p, RecordingHost&) { return p.getPlayDetailInfo(INFO_WIDTH) == 101; },
         [](int state) {
             return Cell{true, state, {"getPlayDetailInfo(1)"}, ""};
         }},
        {"addWindow", [](TarnPlayer& p, RecordingHost& h) { return p.addWindow(&h, WINDOW_TYPE_SDL, 640, 360); },
         [](int state) {
             return Cell{true, state, {"addWindow(2, 640, 360)"}, ""};
         }},
        {"removeWindow", [](TarnPlayer& p, RecordingHost& h) { return p.removeWindow(&h); },
         [](int state) {
             return Cell{true, state, {"removeWindow()"}, ""};
         }},
        {"pauseWindow", [](TarnPlayer& p, RecordingHost& h) { return p.pauseWindow(&h, true); },
         [](int state) {
             return Cell{true, state, {"pauseWindow(1)"}, ""};
         }},
    };
    return table;
}

class TarnPlayerTable : public TarnPlayerTest, public testing::WithParamInterface<std::tuple<int, size_t>> {};

TEST_P(TarnPlayerTable, HoldsInEveryCell) {
    const int from = std::get<0>(GetParam());
    const Row& row = rows().at(std::get<1>(GetParam()));
    reach(from);
    engine().currentTimeMs = 700;
    engine().durationMs = 9000;
    const Cell expected = row.cell(from);
    LogCapture log;
    EXPECT_EQ(row.operation(*player_, host_), expected.result);
    EXPECT_EQ(engine().takeCalls(), expected.calls);
    if (expected.line.empty()) {
        EXPECT_FALSE(log.has("[TarnPlayer]")) << testing::PrintToString(log.lines());
    } else {
        EXPECT_THAT(log.lines(), ElementsAre("[TarnPlayer]: " + expected.line));
    }
    idle_ = expected.next == PLAYER_STATE_IDLE;
    if (idle_) {
        EXPECT_TRUE(player_->setDataSource("again", 0, nullptr));
    } else {
        EXPECT_EQ(state(), expected.next);
    }
}

INSTANTIATE_TEST_SUITE_P(Of, TarnPlayerTable,
                         testing::Combine(testing::ValuesIn(kStates), testing::Range<size_t>(0, 15)),
                         [](const auto& test) {
                             return std::string(rows().at(std::get<1>(test.param)).name) + "InState" +
                                    std::to_string(std::get<0>(test.param));
                         });

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
    idle_ = false;
    ASSERT_TRUE(player_->setDataSource("source", -3000, &host_));
    EXPECT_TRUE(player_->prepareAsync());
    EXPECT_THAT(engine().takeCalls(), ElementsAre("loadFileAsync(source, 3000)"));
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

class TarnPlayerRecovery : public TarnPlayerTest, public testing::WithParamInterface<int> {};

TEST_P(TarnPlayerRecovery, BringsAFailedStreamBackIntoItsState) {
    const int from = GetParam();
    player_->setOption("retry_when_failed", "2000");
    reach(from);
    LogCapture log;
    events().onFailed(nullptr, 1, 1);
    EXPECT_TRUE(log.has("onFailed, errorType:1, extraData:1, current state:" + std::to_string(from) + "\n"));
    EXPECT_TRUE(log.has("onFailed, add retry timer, retryTimerId_:1\n"));
    EXPECT_EQ(state(), PLAYER_STATE_ERROR);
    EXPECT_THAT(engine().takeCalls(), ElementsAre("addTimer(2000, 1)"));
    engine().fire(1);
    EXPECT_THAT(engine().takeCalls(),
                ElementsAre("removeTimer(1)", "runInWorker()", "stop()", "loadFileAsync(source, 0)"));
    EXPECT_EQ(state(), PLAYER_STATE_PREPARING);
    events().onPrepared(nullptr, true, true);
    EXPECT_EQ(state(), from == PLAYER_STATE_PREPARING ? PLAYER_STATE_PREPARED : from);
    EXPECT_THAT(host_.told, testing::Not(Contains(testing::HasSubstr("failed"))));
}

INSTANTIATE_TEST_SUITE_P(From, TarnPlayerRecovery,
                         testing::Values(PLAYER_STATE_PREPARING, PLAYER_STATE_STARTED, PLAYER_STATE_PAUSED));

class TarnPlayerNoRecovery : public TarnPlayerTest, public testing::WithParamInterface<int> {};

TEST_P(TarnPlayerNoRecovery, RestsWhenAStreamFailsOutsidePlayback) {
    player_->setOption("retry_when_failed", "2000");
    reach(GetParam());
    events().onFailed(nullptr, 1, 1);
    engine().takeCalls();
    engine().fire(1);
    EXPECT_THAT(engine().takeCalls(), ElementsAre("removeTimer(1)", "runInWorker()"));
    EXPECT_EQ(state(), PLAYER_STATE_ERROR);
    EXPECT_THAT(host_.told, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(From, TarnPlayerNoRecovery, testing::Values(PLAYER_STATE_PREPARED, PLAYER_STATE_COMPLETED));

TEST_F(TarnPlayerTest, GivesTheRestartUpWhenItIsStopped) {
    player_->setOption("retry_when_failed", "2000");
    reach(PLAYER_STATE_STARTED);
    events().onFailed(nullptr, 1, 1);
    engine().takeCalls();
    EXPECT_TRUE(player_->stop());
    EXPECT_THAT(engine().takeCalls(), ElementsAre("removeTimer(1)", "stop()"));
    EXPECT_THAT(engine().timers, IsEmpty());
    EXPECT_TRUE(player_->stop());
    EXPECT_THAT(engine().takeCalls(), IsEmpty());
}

TEST_F(TarnPlayerTest, DoesNotRestartWhatWasStoppedWhileTheRestartWasQueued) {
    reach(PLAYER_STATE_STARTED);
    events().onFailed(nullptr, 2, 1);
    EXPECT_TRUE(player_->stop());
    engine().takeCalls();
    engine().runWorker();
    EXPECT_THAT(engine().takeCalls(), IsEmpty());
    EXPECT_EQ(state(), PLAYER_STATE_STOPPED);
}

TEST_F(TarnPlayerTest, TellsTheHostAFailureWithoutARetry) {
    reach(PLAYER_STATE_STARTED);
    for (const char* off : {"0", "never", "-5"}) {
        player_->setOption("retry_when_failed", "2000");
        player_->setOption("retry_when_failed", off);
        events().onFailed(nullptr, 1, 1);
    }
    EXPECT_THAT(host_.told, ElementsAre("failed 1", "failed 1", "failed 1"));
    EXPECT_THAT(engine().takeCalls(), IsEmpty());
}

TEST_F(TarnPlayerTest, DoesNotRestartASourceThatTheHostHasReplaced) {
    player_->setOption("retry_when_failed", "2000");
    reach(PLAYER_STATE_STARTED);
    events().onFailed(nullptr, 1, 1);
    EXPECT_TRUE(player_->reset());
    EXPECT_TRUE(player_->setDataSource("another", 0, &host_));
    EXPECT_TRUE(player_->prepareAsync());
    engine().takeCalls();
    engine().fire(1);
    EXPECT_THAT(engine().takeCalls(), ElementsAre("removeTimer(1)", "runInWorker()"));
    events().onPrepared(nullptr, true, true);
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

TEST_F(TarnPlayerTest, GoesByTheFirstOfTwoFailures) {
    player_->setOption("retry_when_failed", "2000");
    reach(PLAYER_STATE_STARTED);
    events().onFailed(nullptr, 1, 1);
    events().onFailed(nullptr, 1, 1);
    engine().takeCalls();
    engine().fire(1);
    EXPECT_THAT(engine().takeCalls(),
                ElementsAre("removeTimer(2)", "runInWorker()", "stop()", "loadFileAsync(source, 0)"));
    EXPECT_THAT(engine().timers, IsEmpty());
}

TEST_F(TarnPlayerTest, FallsBackToSoftwareWithoutAWord) {
    reach(PLAYER_STATE_STARTED);
    events().onFailed(nullptr, 2, 1);
    engine().runWorker();
    EXPECT_THAT(engine().takeCalls(),
                ElementsAre("enableHwDecoder(0, 0)", "runInWorker()", "stop()", "loadFileAsync(source, 0)"));
    events().onPrepared(nullptr, true, true);
    engine().runWorker();
    EXPECT_THAT(host_.told, ElementsAre("prepared 1 1", "started"));
    // Now it is software already.
    host_.told.clear();
    events().onFailed(nullptr, 2, 0);
    EXPECT_THAT(host_.told, ElementsAre("failed 2"));
    // For good.
    engine().takeCalls();
    EXPECT_TRUE(player_->reset());
    EXPECT_THAT(engine().takeCalls(), ElementsAre("enableHwDecoder(0, 0)"));
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
    idle_ = false;
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
